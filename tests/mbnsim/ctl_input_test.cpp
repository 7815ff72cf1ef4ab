// mbnsimctl's argument readers at their edges: what a number, an HRESULT and
// an escaped answer text may be, and which known name a slip is taken for.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "tools/mbnsim/ctl_input.h"

namespace mbnsim::ctl {
namespace {

TEST(SimulatorControlInput, DecimalsAreDigitsOnlyWithinTheirRange) {
  for (const auto& [text, max, bits] : std::vector<std::tuple<const char*, uint64_t, uint64_t>>{
           {"0", 10, 0}, {"007", 10, 7}, {"2147483647", 2147483647, 2147483647},
           {"18446744073709551615", UINT64_MAX, UINT64_MAX}}) {
    uint64_t value = 99;
    EXPECT_TRUE(ParseDecimal(text, 0, max, &value)) << text;
    EXPECT_EQ(bits, value) << text;
  }
  uint64_t value = 99;
  for (const char* bad : {"", "x", "-1", "+1", " 1", "1 ", "1x", "0x10", "1.0", "2147483648",
                          "18446744073709551616", "99999999999999999999999", "1e3"}) {
    EXPECT_FALSE(ParseDecimal(bad, 0, 2147483647, &value)) << '"' << bad << '"';
  }
  EXPECT_FALSE(ParseDecimal("0", 1, 16, &value)) << "below the minimum";
  EXPECT_FALSE(ParseDecimal("17", 1, 16, &value)) << "above the maximum";
  EXPECT_EQ(99u, value) << "a refused number leaves the output alone";
}

TEST(SimulatorControlInput, HresultsAreHexWithPrefixOrSignedOrUnsignedDecimal) {
  for (const auto& [text, bits] : std::vector<std::pair<const char*, unsigned long>>{
           {"0x80004005", 0x80004005}, {"0X8000000a", 0x8000000A}, {"0x1", 1}, {"0x00000000", 0},
           {"0xFFFFFFFF", 0xFFFFFFFF}, {"0", 0}, {"010", 10}, {"2147500037", 0x80004005},
           {"-2147467259", 0x80004005}, {"-2147483648", 0x80000000}, {"4294967295", 0xFFFFFFFF},
           {"-1", 0xFFFFFFFF}}) {
    HRESULT hr = 12345;
    EXPECT_TRUE(ParseHresult(text, &hr)) << text;
    EXPECT_EQ(bits, static_cast<unsigned long>(hr)) << text;
  }
  for (const char* bad : {"", "0x", "0x123456789", "0x8000400G", "x80004005", "0x-1", "4294967296",
                          "-2147483649", "--1", "-", " 0x1", "0x1 ", "+1", "E_FAIL", "null"}) {
    HRESULT hr = 12345;
    EXPECT_FALSE(ParseHresult(bad, &hr)) << '"' << bad << '"';
    EXPECT_EQ(12345, hr) << bad;
  }
}

TEST(SimulatorControlInput, EscapesAreTheFiveKindsWithTwoHexDigits) {
  std::string out;
  ASSERT_TRUE(Unescape("\\r\\nOK\\t\\\\\\x41\\xff\\x0D", &out));
  EXPECT_EQ(std::string("\r\nOK\t\\A\xff\r"), out);
  for (const char* bad : {"\\", "OK\\", "\\q", "\\x", "\\x4", "\\x4G", "\\x-1", "\\x 1", "\\X41"}) {
    EXPECT_FALSE(Unescape(bad, &out)) << bad;
  }
}

TEST(SimulatorControlInput, ASlipIsTakenForTheNearestNameAndNonsenseForNone) {
  const std::vector<std::string> names = {"reset", "set", "inject", "swap-sim", "GetHomeProvider",
                                          "SetCommand", "SetCommand.Complete", "MaxCommandSize"};
  for (const auto& [typed, meant] : std::vector<std::pair<const char*, const char*>>{
           {"injct", "inject"}, {"INJECT", "inject"}, {"swapsim", "swap-sim"}, {"sett", "set"},
           {"HomeProvider", "GetHomeProvider"}, {"SetCommandComplete", "SetCommand.Complete"},
           {"MaxCmdSize", "MaxCommandSize"},  // four letters left out of fourteen
           {"frobnicate", ""}, {"", ""}, {"x", ""}, {"Complete", ""}}) {
    EXPECT_EQ(meant, Closest(typed, names)) << typed;
  }
  EXPECT_EQ("", Closest("anything", {}));
}

}  // namespace
}  // namespace mbnsim::ctl
