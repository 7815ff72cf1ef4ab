#include "config/carrier_rules.h"

#include "config/table_test.h"

namespace dorvane {
namespace {

using testing::Texts;
using RulesTest = testing::TableTest;

const char kRules[] = R"(<?xml version="1.0"?>
<AnyRootName>
  <SwitchingRule><SelectionRule>
    <MCCMNCTable><Item>no key</Item><Item mccmnc="310260">TMO</Item><Item mccmnc=" 310410">ATT-blank</Item>
      <Item mccmnc="310260">TMO-second</Item><Stray mccmnc="23415">VODA-stray</Stray>
      <Item mccmnc="46000">  CMCC
 </Item><Item mccmnc="1"/></MCCMNCTable>
    <MCCTable><Item>no key</Item><Item mcc="310">US</Item><Item mcc="0460">CN-zero</Item>
      <Item mcc="310">US-second</Item><Note mcc="262">DE-note</Note><Item mcc="">EMPTY</Item></MCCTable>
  </SelectionRule></SwitchingRule>
  <SelectionRule><Item mcc="310">TOP-LEVEL</Item></SelectionRule>
</AnyRootName>
)";

TEST_F(RulesTest, MccmncKeysAreExactAndTheFirstMatchWins) {
  const std::string path = Table(kRules);
  struct Case {
    const char* key;
    const char* expected;  // what the output holds afterwards
  };
  const Case cases[] = {
      {"310260", "TMO"},  // first of two equal keys
      {" 310410", "ATT-blank"}, {"310410", "preset"},  // the blank is part of the key
      {"23415", "VODA-stray"},  // an element of another name is an entry too
      {"46000", "  CMCC\n "},   // text kept with its white space
      {"31026", "preset"}, {"310260 ", "preset"},
      {"", "preset"},  // an entry without the key never matches, not even ""
      {"1", ""},       // an entry without text answers the empty text
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.key);
    std::string out = "preset";
    EXPECT_TRUE(GetCarrierIdByMccmnc(c.key, path, out)) << "true once the table is found";
    EXPECT_EQ(c.expected, out);
  }
  ClearLog();
  std::string out = "kept";
  EXPECT_TRUE(GetCarrierIdByMccmnc("999", path, out));
  EXPECT_EQ((Texts{"GetCarrierId by Mccmnc enter.", "Carrier id:", "kept", "GetCarrierId by Mccmnc done."}),
            messages());
  EXPECT_TRUE(GetCarrierIdByMccmnc(
      "310260", Table("<r><SwitchingRule><SelectionRule><MCCMNCTable/></SelectionRule></SwitchingRule></r>"), out));
  EXPECT_EQ("kept", out) << "an empty table is found but matches nothing";
}

TEST_F(RulesTest, MccLookupIsTrueOnlyOnAMatch) {
  const std::string path = Table(kRules);
  struct Case {
    const char* key;
    const char* expected;  // "kept": false
  };
  const Case cases[] = {{"310", "US"},         {"460", "kept"}, {"0460", "CN-zero"},
                        {"262", "DE-note"},    {"31", "kept"},  {"", "EMPTY"}};  // an empty attribute is a value
  for (const Case& c : cases) {
    SCOPED_TRACE(c.key);
    std::string out = "kept";
    EXPECT_EQ(std::string(c.expected) != "kept", GetCarrierIdByMcc(c.key, path, out));
    EXPECT_EQ(c.expected, out);
  }
  for (const char* key : {"310", "999", ""}) EXPECT_FALSE(GetSelectionRuleByMcc(key, path)) << "always";
}

TEST_F(RulesTest, IccidRangesCompareTheSharedPrefixThenHexTails) {
  auto ranges = [this](const std::string& body) {
    return Table("<r><SwitchingRule><SelectionRule><ICCIDTable>" + body +
                 "</ICCIDTable></SelectionRule></SwitchingRule></r>");
  };
  // min == max: the whole string is the prefix and both tails read 0, so only
  // an ICCID whose remainder reads 0 matches.
  const std::string equal = ranges("<Range min=\"8901260\" max=\"8901260\">EQUAL</Range>");
  // 20-digit bounds: P = 7; max's tail and a long ICCID's tail both saturate.
  const std::string twenty = ranges(
      "<Range min=\"89012600000000000000\" max=\"89012609999999999999\">TMO-20</Range>");
  // min a proper prefix of max: P = 0, whole strings read as hex.
  const std::string p_zero = ranges("<Range min=\"8901\" max=\"890123\">P-ZERO</Range>");
  // Ranges without a bound never match; one without text answers "".
  const std::string narrow = ranges(
      "<Range max=\"8986009\">NO-MIN</Range><Range min=\"8986000\">NO-MAX</Range>"
      "<Range min=\"8986001\" max=\"8986009\">FIRST</Range>"
      "<Range min=\"8986000\" max=\"8986009\">SECOND</Range><Range min=\"0\" max=\"9\"/>");
  struct Case {
    const std::string* table;
    const char* iccid;
    const char* expected;  // "kept": no match, false
  };
  const Case cases[] = {
      {&equal, "8901260", "EQUAL"}, {&equal, "89012600", "EQUAL"},
      {&equal, "8901260zz", "EQUAL"},  // no hex digits read as 0
      {&equal, "89012601", "kept"}, {&equal, "8901260123456789012", "kept"},
      {&equal, "890126", "kept"},  // shorter than the prefix
      {&twenty, "89012601234567890123", "TMO-20"}, {&twenty, "8901260123456789012", "TMO-20"},
      {&twenty, "89012600", "TMO-20"}, {&twenty, "8901270123456789012", "kept"},
      {&p_zero, "890122", "P-ZERO"}, {&p_zero, "8900", "kept"},
      {&p_zero, "8901260123456789012", "kept"},  // saturates above max's 0x890123
      {&narrow, "8986005", "FIRST"}, {&narrow, "8986000", "SECOND"},  // both match: the first wins
      {&narrow, "898600A", "kept"},      // tail A reads 10, above 9
      {&narrow, "89860051234", "kept"},  // a longer tail reads larger
      {&narrow, "5", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.iccid);
    std::string out = "kept";
    EXPECT_EQ(std::string(c.expected) != "kept", GetCarrierIdByIccid(c.iccid, *c.table, out));
    EXPECT_EQ(c.expected, out);
  }
}

}  // namespace
}  // namespace dorvane
