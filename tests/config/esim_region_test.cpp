#include "config/esim_region.h"

#include <gtest/gtest.h>

#include "log/logger.h"
#include "support/log_reader.h"

namespace dorvane {
namespace {

using testing::IndexOf;
using testing::Messages;
using testing::ReadLog;

class RulesTableTest : public testing::LogFixture {
 protected:
  std::string Table(const std::string& xml) { return WriteTable(xml); }
  bool Logged(const std::string& text) const { return IndexOf(messages(), text) >= 0; }
};

std::string Esim(const std::string& flag, bool sku_list = true, bool imsi_list = true) {
  return "<E><TableEnableFlag FlagValue=\"" + flag + "\"/>" +
         (sku_list ? "<SKU_BlackList><SKU SKUValue=\"X13-Gen2\"/><Other SKUValue=\"Y7\"/></SKU_BlackList>"
                   : "") +
         (imsi_list ? "<IMSI_BlackList><MCCMNC MCCMNCValue=\"46000\"/><MCCMNC MCCMNCValue=\"310260\"/></IMSI_BlackList>"
                    : "") +
         "</E>";
}

TEST_F(RulesTableTest, EsimSkuListWinsOverTheNetworkList) {
  const std::string table = Table(Esim("TRUE"));
  const std::string no_sku_list = Table(Esim("true", false, true));
  const std::string no_imsi_list = Table(Esim("True", true, false));
  struct Case {
    const std::string* path;
    const char* sku;   // null: none given
    const char* imsi;
    DWORD expected;
  };
  const Case cases[] = {
      {&table, "x13-gen2", nullptr, kEsimSkuBlackListed},  // SKUs ignore case
      {&table, "Y7", nullptr, kEsimSkuBlackListed},        // any later element is an entry
      {&table, "X13", nullptr, kEsimNotBlackListed},
      {&table, nullptr, "46000", kEsimImsiBlackListed},
      {&table, nullptr, "460001234567890", kEsimNotBlackListed},  // whole text only
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
}

TEST_F(RulesTableTest, EsimFlagAndBrokenTablesGiveNoDecisionWithTheirTexts) {
  struct Case {
    std::string xml;
    std::string text;
    bool error_level;
  };
  const Case cases[] = {
      {Esim("fAlSe"), "FlagValue is false,not need to set esim disable.", false},
      {Esim("yes"), "Main disable error.", false},
      {"<E><TableEnableFlag/></E>", "Main disable error.", false},
      {"<E/>", "TableEnableFlag xml item error.", true},
      {"<!-- nothing -->", "RootElement xml item error.", true},
      {"<E><TableEnableFlag", "Esim disable xml load faild.", true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.xml);
    ClearLog();
    EXPECT_EQ(kEsimNoDecision, getEsimDisableType(Table(c.xml), "X13-Gen2", "46000"));
    const auto records = ReadLog(log_);
    bool found = false;
    for (const auto& r : records) {
      if (r.message == c.text) {
        found = true;
        EXPECT_EQ(c.error_level ? "[ERROR] " : "[DETAIL]", r.tag);
      }
    }
    EXPECT_TRUE(found);
    EXPECT_FALSE(Logged("getEsimDisableType done."));
  }
}

TEST_F(RulesTableTest, EsimLogsEachNetworkComparison) {
  const std::string path = Table(Esim("True"));
  ClearLog();
  EXPECT_EQ(kEsimImsiBlackListed, getEsimDisableType(path, nullptr, "310260"));
  EXPECT_EQ((std::vector<std::string>{"getEsimDisableType enter.", path, "310260", "46000", "310260",
                                      "310260", "MccMnc in black list", "getEsimDisableType done."}),
            messages());
  ClearLog();
  EXPECT_EQ(kEsimNoDecision, getEsimDisableType(path, nullptr, nullptr));
  EXPECT_EQ((std::vector<std::string>{"getEsimDisableType enter.", path, "SKU & Imsi is null"}),
            messages());
}

TEST_F(RulesTableTest, RegionExactRowWinsAndDefaultRowsFallBack) {
  const std::string table = Table(R"(<R><SelectionRule>
    <Region mcc="default" Regulatory="FCC"/>
    <Region mcc="460" Regulatory="SRRC"/>
    <Other mcc="262" Regulatory="CE"/>
    <Region mcc="default" Regulatory="LATER-DEFAULT"/>
    <Region mcc="460" Regulatory="SECOND-460"/>
  </SelectionRule></R>)");
  const std::string no_default = Table(R"(<R><SelectionRule><Region mcc="460" Regulatory="SRRC"/></SelectionRule></R>)");
  struct Case {
    const std::string* path;
    const char* mcc;
    DWORD result;
    const char* region;
  };
  const Case cases[] = {
      {&table, "460", kRegionExact, "SRRC"},
      {&table, "262", kRegionExact, "CE"},
      {&table, "999", kRegionDefault, "LATER-DEFAULT"},
      {&table, "46", kRegionDefault, "LATER-DEFAULT"},
      {&no_default, "999", kRegionNotFound, "kept"},
      {&no_default, "", kRegionNotFound, "kept"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.mcc);
    std::string region = "kept";
    EXPECT_EQ(c.result, getRegulatoryByMcc(*c.path, c.mcc, region));
    EXPECT_EQ(c.region, region);
  }
}

TEST_F(RulesTableTest, RegionFailuresAreLogged) {
  struct Case {
    std::string path;
    std::string mcc;
    std::string text;
  };
  const Case cases[] = {
      {Table("<R/>"), "460", "SelectionRule xml item error."},
      {Table("junk"), "460", "RegionMappingTable load faild."},
      {Table("<R><SelectionRule/></R>"), "", "mcc is null"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    ClearLog();
    std::string region = "kept";
    EXPECT_EQ(kRegionNotFound, getRegulatoryByMcc(c.path, c.mcc, region));
    EXPECT_EQ("kept", region);
    const auto msgs = messages();
    ASSERT_GE(msgs.size(), 4u);
    EXPECT_EQ((std::vector<std::string>{"getRegulatoryByMcc enter.", c.path, c.mcc, c.text}),
              std::vector<std::string>(msgs.begin(), msgs.begin() + 4));
  }
  ClearLog();
  std::string region;
  getRegulatoryByMcc(Table("<R><SelectionRule/></R>"), "460", region);
  EXPECT_EQ("getRegulatoryByMcc done.", messages().back()) << "an empty rule is no failure";
}

}  // namespace
}  // namespace dorvane
