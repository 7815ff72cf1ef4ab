// Every reader over tables whose entries lack the attributes and texts it asks
// for: no crash, no match on a missing key, empty texts where a value is missing.
#include <gtest/gtest.h>

#include "config/carrier_rules.h"
#include "config/esim_region.h"
#include "config/firmware_info.h"
#include "log/logger.h"
#include "support/log_reader.h"

namespace dorvane {
namespace {

class MalformedTest : public testing::LogFixture {
 protected:
  std::string Table(const std::string& xml) { return WriteTable(xml); }
};

TEST_F(MalformedTest, EntriesWithoutKeysNeverMatchEvenAnEmptyKey) {
  const std::string rules = Table(
      "<r><SwitchingRule><SelectionRule>"
      "<MCCMNCTable><Item/><Item mccmnc=\"1\"/></MCCMNCTable>"
      "<MCCTable><Item>no key</Item><Item mcc=\"\"/></MCCTable>"
      "</SelectionRule><Registered/></SwitchingRule><SelectionRule><Item/></SelectionRule></r>");
  std::string out = "kept";
  EXPECT_TRUE(GetCarrierIdByMccmnc("", rules, out));
  EXPECT_EQ("kept", out);
  EXPECT_TRUE(GetCarrierIdByMccmnc("1", rules, out));
  EXPECT_EQ("", out) << "an item without text answers the empty text";
  out = "kept";
  EXPECT_TRUE(GetCarrierIdByMcc("", rules, out)) << "an empty attribute is a value";
  EXPECT_EQ("", out);
  EXPECT_FALSE(GetSelectionRuleByMcc("", rules));
  CarrierFirmwareInfo record;
  EXPECT_FALSE(GetParamFirmwareByMcc("", rules, record));

  const std::string carriers = Table(
      "<f><CarrierList><Carrier/><CustModel id=\"M\"/><Carrier id=\"C\"/></CarrierList></f>");
  record.fields.fill("x");
  EXPECT_FALSE(GetCarrierFirmware("", carriers, record));
  ASSERT_TRUE(GetCarrierFirmware("C", carriers, record)) << "no firmware elements under it";
  EXPECT_EQ("", record.fields[CarrierFirmwareInfo::kApSlot]);
  EXPECT_EQ("C", record.fields[CarrierFirmwareInfo::kCarrierId]);
  ASSERT_TRUE(GetOemFirmwareByModel("M", carriers, record)) << "no OEMFirmware under it";
  EXPECT_EQ("", record.fields[CarrierFirmwareInfo::kParamSlot]);
  EXPECT_EQ("x", record.fields[CarrierFirmwareInfo::kSwitchTable]);

  PackageFirmwareInfo info;
  EXPECT_TRUE(GetPackageInfoFirmware("310", Table("<p><CarrierList><Carrier/><Carrier id=\"310\"/></CarrierList></p>"), info));
  EXPECT_EQ("", info.fields[PackageFirmwareInfo::kFirmwareFile]);

  FwPackageInfo package;
  ASSERT_TRUE(GetFwPackageInfo(Table("<p><PackageVer/><PackageType/><CarrierList><Carrier/></CarrierList></p>"), package));
  EXPECT_EQ("", package.GetPackageVer()) << "an element without text reads as empty";
  EXPECT_EQ(1u, package.GetCarriers().size());

  const std::string skus = Table("<s><SKU_GUID ID=\"S\"><Area/><Area ID=\"A\"/></SKU_GUID></s>");
  ASSERT_TRUE(GetParamFirmwareBySku("S", "A", skus, record));
  EXPECT_EQ("", record.fields[CarrierFirmwareInfo::kParamSlot]);
}

TEST_F(MalformedTest, RuleTablesWithoutAttributesDecideNothingWrong) {
  const std::string esim = Table(
      "<e><TableEnableFlag FlagValue=\"true\"/><SKU_BlackList><SKU/></SKU_BlackList>"
      "<IMSI_BlackList><MCCMNC/></IMSI_BlackList></e>");
  EXPECT_EQ(kEsimNotBlackListed, getEsimDisableType(esim, "", ""));
  const std::string region = Table(
      "<r><SelectionRule><Region/><Region mcc=\"460\"/><Region mcc=\"default\"/></SelectionRule></r>");
  std::string out = "kept";
  EXPECT_EQ(kRegionExact, getRegulatoryByMcc(region, "460", out));
  EXPECT_EQ("", out);
  out = "kept";
  EXPECT_EQ(kRegionDefault, getRegulatoryByMcc(region, "1", out));
  EXPECT_EQ("", out);
}

TEST_F(MalformedTest, FilesThatAreNotTablesFailEveryReader) {
  for (const char* text : {"", "\xEF\xBB\xBF", "plain text", "<a><b></a>", "<?xml version=\"1.0\"?>",
                           "<a attr=\"unterminated></a>", "<a>&bogus;</a>"}) {
    SCOPED_TRACE(text);
    const std::string path = Table(text);
    std::string out = "kept";
    CarrierFirmwareInfo record;
    PackageFirmwareInfo info;
    FwPackageInfo package;
    EXPECT_FALSE(GetCarrierIdByMccmnc("1", path, out));
    EXPECT_FALSE(GetCarrierIdByMcc("1", path, out));
    EXPECT_FALSE(GetCarrierIdByIccid("1", path, out));
    EXPECT_FALSE(GetCarrierFirmware("1", path, record));
    EXPECT_FALSE(GetPackageInfoFirmware("1", path, info));
    EXPECT_FALSE(GetParamFirmwareBySku("1", "1", path, record));
    EXPECT_FALSE(GetParamFirmwareByMcc("1", path, record));
    EXPECT_FALSE(GetOemFirmwareByModel("1", path, record));
    EXPECT_FALSE(GetFwPackageInfo(path, package));
    EXPECT_EQ(kEsimNoDecision, getEsimDisableType(path, "1", "1"));
    EXPECT_EQ(kRegionNotFound, getRegulatoryByMcc(path, "1", out));
    EXPECT_EQ("kept", out);
  }
}

}  // namespace
}  // namespace dorvane
