// mbnsimctl's argument readers at their edges: what a number, an HRESULT and
// an escaped answer text may be, and which known name a slip is taken for.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tools/mbnsim/ctl_input.h"

namespace mbnsim::ctl {
namespace {

TEST(SimulatorControlInput, DecimalsAreDigitsOnlyWithinTheirRange) {
  uint64_t value = 99;
  EXPECT_TRUE(ParseDecimal("0", 0, 10, &value));
  EXPECT_EQ(0u, value);
  EXPECT_TRUE(ParseDecimal("007", 0, 10, &value)) << "leading zeros are still decimal";
  EXPECT_EQ(7u, value);
  EXPECT_TRUE(ParseDecimal("2147483647", 0, 2147483647, &value));
  EXPECT_EQ(2147483647u, value);
  EXPECT_TRUE(ParseDecimal("18446744073709551615", 0, UINT64_MAX, &value));
  EXPECT_EQ(UINT64_MAX, value);
  value = 99;
  for (const char* bad : {"", "x", "-1", "+1", " 1", "1 ", "1x", "0x10", "1.0", "2147483648",
                          "18446744073709551616", "99999999999999999999999", "1e3"}) {
    EXPECT_FALSE(ParseDecimal(bad, 0, 2147483647, &value)) << '"' << bad << '"';
  }
  EXPECT_FALSE(ParseDecimal("0", 1, 16, &value)) << "below the minimum";
  EXPECT_FALSE(ParseDecimal("17", 1, 16, &value)) << "above the maximum";
  EXPECT_EQ(99u, value) << "a refused number leaves the output alone";
}

TEST(SimulatorControlInput, HresultsAreHexWithPrefixOrSignedOrUnsignedDecimal) {
  struct Case {
    const char* text;
    unsigned long bits;
  };
  for (const Case& c : {Case{"0x80004005", 0x80004005}, Case{"0X8000000a", 0x8000000A},
                        Case{"0x1", 1}, Case{"0x00000000", 0}, Case{"0xFFFFFFFF", 0xFFFFFFFF},
                        Case{"0", 0}, Case{"1", 1}, Case{"010", 10},
                        Case{"2147500037", 0x80004005}, Case{"-2147467259", 0x80004005},
                        Case{"-2147483648", 0x80000000}, Case{"4294967295", 0xFFFFFFFF},
                        Case{"-1", 0xFFFFFFFF}}) {
    HRESULT hr = 12345;
    EXPECT_TRUE(ParseHresult(c.text, &hr)) << c.text;
    EXPECT_EQ(c.bits, static_cast<unsigned long>(hr)) << c.text;
  }
  for (const char* bad : {"", "0x", "0x123456789", "0x8000400G", "x80004005", "0x-1",
                          "4294967296", "-2147483649", "--1", "-", " 0x1", "0x1 ", "+1",
                          "E_FAIL", "null"}) {
    HRESULT hr = 12345;
    EXPECT_FALSE(ParseHresult(bad, &hr)) << '"' << bad << '"';
    EXPECT_EQ(12345, hr) << bad;
  }
}

TEST(SimulatorControlInput, EscapesAreTheFiveKindsWithTwoHexDigits) {
  std::string out;
  ASSERT_TRUE(Unescape("\\r\\nOK\\t\\\\\\x41\\xff\\x0D", &out));
  EXPECT_EQ(std::string("\r\nOK\t\\A\xff\r"), out);
  ASSERT_TRUE(Unescape("", &out));
  EXPECT_EQ("", out);
  for (const char* bad : {"\\", "OK\\", "\\q", "\\x", "\\x4", "\\x4G", "\\x-1", "\\x 1", "\\X41"}) {
    EXPECT_FALSE(Unescape(bad, &out)) << bad;
  }
}

TEST(SimulatorControlInput, ASlipIsTakenForTheNearestNameAndNonsenseForNone) {
  const std::vector<std::string> commands = {"register", "reset", "set", "inject", "delay",
                                             "remove", "session", "show", "swap-sim"};
  EXPECT_EQ("inject", Closest("injct", commands));
  EXPECT_EQ("inject", Closest("INJECT", commands)) << "case ignored";
  EXPECT_EQ("swap-sim", Closest("swapsim", commands));
  EXPECT_EQ("set", Closest("sett", commands));
  EXPECT_EQ("", Closest("frobnicate", commands));
  EXPECT_EQ("", Closest("", commands));
  EXPECT_EQ("", Closest("x", commands));
  const std::vector<std::string> calls = {"GetHomeProvider", "get_IsCommandSessionOpen",
                                          "SetCommand", "SetCommand.Complete"};
  EXPECT_EQ("GetHomeProvider", Closest("HomeProvider", calls));
  EXPECT_EQ("get_IsCommandSessionOpen", Closest("IsCommandSessionOpen", calls));
  EXPECT_EQ("SetCommand.Complete", Closest("SetCommandComplete", calls));
  EXPECT_EQ("", Closest("Complete", calls));
  EXPECT_EQ("MaxCommandSize", Closest("MaxCmdSize", {"DeliveryThreads", "MaxCommandSize"}))
      << "four letters left out of fourteen";
  EXPECT_EQ("", Closest("anything", {}));
}

}  // namespace
}  // namespace mbnsim::ctl
