#include "config/esim_region.h"

#include "config/table_test.h"

namespace dorvane {
namespace {

using testing::Texts;
using RulesTableTest = testing::TableTest;

std::string Esim(const std::string& flag, bool sku_list = true, bool imsi_list = true) {
  return "<E><TableEnableFlag FlagValue=\"" + flag + "\"/>" +
         (sku_list ? "<SKU_BlackList><SKU/><SKU SKUValue=\"X13-Gen2\"/><Other SKUValue=\"Y7\"/></SKU_BlackList>" : "") +
         (imsi_list ? "<IMSI_BlackList><MCCMNC/><MCCMNC MCCMNCValue=\"46000\"/><MCCMNC MCCMNCValue=\"310260\"/>"
                      "</IMSI_BlackList>"
                    : "") +
         "</E>";
}

TEST_F(RulesTableTest, EsimSkuListWinsOverTheNetworkList) {
  const std::string table = Table(Esim("TRUE"));
  const std::string no_sku_list = Table(Esim("true", false, true));
  const std::string no_imsi_list = Table(Esim("True", true, false));
  struct Case {
    const std::string* path;
    const char* sku;  // null: none given
    const char* imsi;
    DWORD expected;
  };
  const Case cases[] = {
      {&table, "x13-gen2", nullptr, kEsimSkuBlackListed},  // SKUs ignore case
      {&table, "Y7", nullptr, kEsimSkuBlackListed},        // any later element is an entry
      {&table, "X13", nullptr, kEsimNotBlackListed},
      {&table, nullptr, "46000", kEsimImsiBlackListed},
      {&table, nullptr, "460001234567890", kEsimNotBlackListed},  // whole text only
      {&table, "", "", kEsimNotBlackListed},  // entries without a value match nothing
      {&table, "X13-GEN2", "46000", kEsimSkuBlackListed},
      {&table, "other", "310260", kEsimImsiBlackListed},
      {&no_sku_list, nullptr, "46000", kEsimImsiBlackListed},  // the SKU list is not needed
      {&no_sku_list, "X13-Gen2", "46000", kEsimNoDecision},    // ...unless a SKU is given
      {&no_imsi_list, "X13-Gen2", "46000", kEsimSkuBlackListed},
      {&no_imsi_list, "other", "46000", kEsimNoDecision},
      {&table, nullptr, nullptr, kEsimNoDecision},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.sku ? c.sku : "(null)") + " / " + (c.imsi ? c.imsi : "(null)"));
    EXPECT_EQ(c.expected, getEsimDisableType(*c.path, c.sku, c.imsi));
  }
  ClearLog();
  EXPECT_EQ(kEsimImsiBlackListed, getEsimDisableType(table, nullptr, "310260"));
  ExpectLog({"[DETAIL]getEsimDisableType enter.", "[DETAIL]@", "[DETAIL]310260", "[DETAIL]", "[DETAIL]310260",
             "[DETAIL]46000", "[DETAIL]310260", "[DETAIL]310260", "[DETAIL]MccMnc in black list",
             "[DETAIL]getEsimDisableType done."},
            table);
  ClearLog();
  EXPECT_EQ(kEsimNoDecision, getEsimDisableType(table, nullptr, nullptr));
  ExpectLog({"[DETAIL]getEsimDisableType enter.", "[DETAIL]@", "[ERROR] SKU & Imsi is null"}, table);
}

TEST_F(RulesTableTest, RegionExactRowWinsAndDefaultRowsFallBack) {
  const std::string table = Table(R"(<R><SelectionRule>
    <Region mcc="default" Regulatory="FCC"/>
    <Region mcc="460" Regulatory="SRRC"/>
    <Other mcc="262" Regulatory="CE"/>
    <Region mcc="default" Regulatory="LATER-DEFAULT"/>
    <Region mcc="460" Regulatory="SECOND-460"/>
  </SelectionRule></R>)");
  const std::string bare = Table(R"(<R><SelectionRule><Region/><Region mcc="460"/></SelectionRule></R>)");
  struct Case {
    const std::string* path;
    const char* mcc;
    DWORD result;
    const char* region;
  };
  const Case cases[] = {
      {&table, "460", kRegionExact, "SRRC"},           {&table, "262", kRegionExact, "CE"},
      {&table, "999", kRegionDefault, "LATER-DEFAULT"}, {&table, "46", kRegionDefault, "LATER-DEFAULT"},
      {&bare, "460", kRegionExact, ""},  // no Regulatory: the empty text
      {&bare, "999", kRegionNotFound, "kept"},          {&bare, "", kRegionNotFound, "kept"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.mcc);
    std::string region = "kept";
    EXPECT_EQ(c.result, getRegulatoryByMcc(*c.path, c.mcc, region));
    EXPECT_EQ(c.region, region);
  }
}

}  // namespace
}  // namespace dorvane
