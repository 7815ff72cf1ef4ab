#include "config/carrier_rules.h"

#include <gtest/gtest.h>

#include "log/logger.h"
#include "support/log_reader.h"

namespace dorvane {
namespace {

using testing::Messages;
using testing::ReadLog;

class RulesTest : public testing::LogFixture {
 protected:
  std::string Table(const std::string& xml) { return WriteTable(xml); }
};

const char kRules[] = R"(<?xml version="1.0"?>
<AnyRootName>
  <SwitchingRule>
    <SelectionRule>
      <MCCMNCTable>
        <Item mccmnc="310260">TMO</Item>
        <Item mccmnc=" 310410">ATT-blank</Item>
        <Item mccmnc="310260">TMO-second</Item>
        <Stray mccmnc="23415">VODA-stray</Stray>
        <Item mccmnc="46000">  CMCC
 </Item>
      </MCCMNCTable>
      <MCCTable>
        <Item mcc="310">US</Item>
        <Item mcc="0460">CN-zero</Item>
        <Item mcc="310">US-second</Item>
        <Note mcc="262">DE-note</Note>
      </MCCTable>
      <ICCIDTable>
        <Range min="8901260" max="8901269">TMO</Range>
      </ICCIDTable>
    </SelectionRule>
  </SwitchingRule>
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
      {"310260", "TMO"},                // first of two equal keys
      {" 310410", "ATT-blank"},         // the blank is part of the key
      {"310410", "preset"},             // ...so without it nothing matches
      {"23415", "VODA-stray"},          // an element of another name is an entry too
      {"46000", "  CMCC\n "},           // text kept with its white space
      {"31026", "preset"},              // no prefix match
      {"310260 ", "preset"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.key);
    std::string out = "preset";
    EXPECT_TRUE(GetCarrierIdByMccmnc(c.key, path, out)) << "true once the table is found";
    EXPECT_EQ(c.expected, out);
  }
}

TEST_F(RulesTest, MccmncLogsItsStepsAndWhyItFailed) {
  std::string out = "kept";
  EXPECT_TRUE(GetCarrierIdByMccmnc("999", Table(kRules), out));
  EXPECT_EQ((std::vector<std::string>{"GetCarrierId by Mccmnc enter.", "Carrier id:", "kept",
                                      "GetCarrierId by Mccmnc done."}),
            messages());

  struct Case {
    std::string xml;
    std::string why;
  };
  const std::string missing = dir_ + "\\missing.xml";
  const Case cases[] = {
      {"", "load xml error."},  // not even a document
      {"<r><SwitchingRule>", "load xml error."},
      {"<?xml version=\"1.0\"?><!-- only a comment -->", "RootElement xml item error."},
      {"<r/>", "switchingRuleNode is null."},
      {"<r><SwitchingRule/></r>", "selectionRuleNode is null."},
      {"<r><SwitchingRule><SelectionRule/></SwitchingRule></r>", "MCCMNCTable node is null."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.xml);
    const std::string path = Table(c.xml);
    ClearLog();
    out = "kept";
    EXPECT_FALSE(GetCarrierIdByMccmnc("310260", path, out));
    EXPECT_EQ("kept", out);
    std::vector<std::string> expected = {"GetCarrierId by Mccmnc enter.", c.why};
    if (c.why == "load xml error.") expected.push_back(path);
    expected.push_back("GetCarrierId by Mccmnc done.");
    EXPECT_EQ(expected, messages());
  }
}

TEST_F(RulesTest, EmptyMccmncTableIsFoundButMatchesNothing) {
  std::string out = "kept";
  EXPECT_TRUE(GetCarrierIdByMccmnc(
      "310260", Table("<r><SwitchingRule><SelectionRule><MCCMNCTable/></SelectionRule></SwitchingRule></r>"),
      out));
  EXPECT_EQ("kept", out);
}

TEST_F(RulesTest, MccLookupIsTrueOnlyOnAMatch) {
  const std::string path = Table(kRules);
  struct Case {
    const char* key;
    bool found;
    const char* expected;
  };
  const Case cases[] = {
      {"310", true, "US"},      {"460", false, "kept"}, {"0460", true, "CN-zero"},
      {"262", true, "DE-note"}, {"31", false, "kept"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.key);
    std::string out = "kept";
    EXPECT_EQ(c.found, GetCarrierIdByMcc(c.key, path, out));
    EXPECT_EQ(c.expected, out);
  }
  std::string out = "kept";
  EXPECT_FALSE(GetCarrierIdByMcc("310", dir_ + "\\no-such-file.xml", out));
  EXPECT_FALSE(GetCarrierIdByMcc("310", Table("<r><SwitchingRule><SelectionRule/></SwitchingRule></r>"), out));
  EXPECT_EQ("kept", out);
  EXPECT_TRUE(messages().empty()) << "silent";
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
  const std::string narrow = ranges(
      "<Range min=\"8986001\" max=\"8986009\">FIRST</Range>"
      "<Range min=\"8986000\" max=\"8986009\">SECOND</Range>");
  struct Case {
    const std::string* table;
    const char* iccid;
    const char* expected;  // "kept": no match, false
  };
  const Case cases[] = {
      {&equal, "8901260", "EQUAL"},
      {&equal, "89012600", "EQUAL"},
      {&equal, "8901260zz", "EQUAL"},  // no hex digits read as 0
      {&equal, "89012601", "kept"},
      {&equal, "8901260123456789012", "kept"},
      {&equal, "890126", "kept"},  // shorter than the prefix
      {&twenty, "89012601234567890123", "TMO-20"},
      {&twenty, "8901260123456789012", "TMO-20"},
      {&twenty, "89012600", "TMO-20"},
      {&twenty, "8901270123456789012", "kept"},
      {&p_zero, "890122", "P-ZERO"},
      {&p_zero, "8900", "kept"},
      {&p_zero, "8901260123456789012", "kept"},  // saturates above max's 0x890123
      {&narrow, "8986005", "FIRST"},             // both match: the first wins
      {&narrow, "8986000", "SECOND"},
      {&narrow, "898600A", "kept"},              // tail A reads 10, above 9
      {&narrow, "89860051234", "kept"},          // a longer tail reads larger
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.iccid);
    std::string out = "kept";
    EXPECT_EQ(std::string(c.expected) != "kept", GetCarrierIdByIccid(c.iccid, *c.table, out));
    EXPECT_EQ(c.expected, out);
  }
}

TEST_F(RulesTest, IccidRangesWithoutBoundsNeverMatch) {
  const std::string path = Table(
      "<r><SwitchingRule><SelectionRule><ICCIDTable>"
      "<Range max=\"9\">NO-MIN</Range><Range min=\"0\">NO-MAX</Range><Range min=\"0\" max=\"9\"/>"
      "</ICCIDTable></SelectionRule></SwitchingRule></r>");
  std::string out = "kept";
  EXPECT_TRUE(GetCarrierIdByIccid("5", path, out));
  EXPECT_EQ("", out) << "a range without text answers the empty text";
}

TEST_F(RulesTest, SelectionRuleByMccIsAlwaysFalse) {
  EXPECT_FALSE(GetSelectionRuleByMcc("310", Table(kRules)));
  EXPECT_FALSE(GetSelectionRuleByMcc("999", Table(kRules)));
  EXPECT_FALSE(GetSelectionRuleByMcc("310", dir_ + "\\no-such-file.xml"));
}

}  // namespace
}  // namespace dorvane
