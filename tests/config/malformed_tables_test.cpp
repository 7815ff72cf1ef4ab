// Every reader over files that are no usable table: it answers "not found",
// leaves its output as it was and logs why, each with its own texts.
#include "config/carrier_rules.h"
#include "config/device_config.h"
#include "config/esim_region.h"
#include "config/firmware_info.h"
#include "config/table_test.h"

namespace dorvane {
namespace {

using testing::Preset;
using testing::Texts;
using MalformedTest = testing::TableTest;
using Reader = bool (*)(const std::string& path);  // true: not found, output untouched

bool Fw(const std::string& path, bool (*read)(std::string, std::string, CarrierFirmwareInfo&)) {
  CarrierFirmwareInfo r = Preset();
  return !read("1", path, r) && r.fields == Preset().fields;
}
bool Id(const std::string& path, bool (*read)(std::string, std::string, std::string&)) {
  std::string out = "kept";
  return !read("1", path, out) && out == "kept";
}
const Reader kMccmnc = [](const std::string& p) { return Id(p, GetCarrierIdByMccmnc); };
const Reader kMcc = [](const std::string& p) { return Id(p, GetCarrierIdByMcc); };
const Reader kIccid = [](const std::string& p) { return Id(p, GetCarrierIdByIccid); };
const Reader kCarrier = [](const std::string& p) { return Fw(p, GetCarrierFirmware); };
const Reader kParamByMcc = [](const std::string& p) { return Fw(p, GetParamFirmwareByMcc); };
const Reader kOem = [](const std::string& p) { return Fw(p, GetOemFirmwareByModel); };
const Reader kSku = [](const std::string& p) {
  CarrierFirmwareInfo r = Preset();
  return !GetParamFirmwareBySku("1", "1", p, r) && r.fields == Preset().fields;
};
const Reader kPackage = [](const std::string& p) {
  PackageFirmwareInfo info;
  info.fields.fill("x");
  return !GetPackageInfoFirmware("1", p, info) && info.fields[5] == "x";
};
const Reader kFwPackage = [](const std::string& p) {
  FwPackageInfo package;
  package.SetPackageVer("kept");
  return !GetFwPackageInfo(p, package) && package.GetPackageVer() == "kept";
};
const Reader kDeviceId = [](const std::string& p) {
  std::string id = "kept";
  return !getWwanDeviceConfigID(p, id) && id == "kept";
};
const Reader kEsim = [](const std::string& p) { return getEsimDisableType(p, "X13-Gen2", "46000") == kEsimNoDecision; };
const Reader kRegion = [](const std::string& p) {
  std::string region = "kept";
  return getRegulatoryByMcc(p, "460", region) == kRegionNotFound && region == "kept";
};
const Reader kRegionNoMcc = [](const std::string& p) {
  std::string region = "kept";
  return getRegulatoryByMcc(p, "", region) == kRegionNotFound && region == "kept";
};

TEST_F(MalformedTest, FilesThatAreNotTablesFailEveryReader) {
  for (const char* text : {"", "\xEF\xBB\xBF", "plain text", "<a><b></a>", "<?xml version=\"1.0\"?>",
                           "<a attr=\"unterminated></a>", "<a>&bogus;</a>"}) {
    const std::string path = Table(text);
    int i = 0;
    for (Reader read : {kMccmnc, kMcc, kIccid, kCarrier, kParamByMcc, kOem, kSku, kPackage, kFwPackage, kDeviceId,
                        kEsim, kRegion}) {
      EXPECT_TRUE(read(path)) << "reader " << i++ << " on " << text;
    }
  }
}

TEST_F(MalformedTest, BrokenTablesAreLoggedWithTheirLevel) {
  const char* const kNoFile = nullptr;
  const std::string esim_false = "<E><TableEnableFlag FlagValue=\"fAlSe\"/></E>";
  struct Case {
    Reader read;
    const char* xml;  // kNoFile: a path to no file
    Texts log;        // the whole log, or its end after "..."; "@": the path
  };
  const Case cases[] = {
      {kMccmnc, "", {"[DETAIL]GetCarrierId by Mccmnc enter.", "[ERROR] load xml error.", "[ERROR] @",
                     "[DETAIL]GetCarrierId by Mccmnc done."}},
      {kMccmnc, "<r><SwitchingRule>", {"...", "[ERROR] load xml error.", "[ERROR] @", "[DETAIL]GetCarrierId by Mccmnc done."}},
      {kMccmnc, "<?xml version=\"1.0\"?><!-- only a comment -->",
       {"...", "[ERROR] RootElement xml item error.", "[DETAIL]GetCarrierId by Mccmnc done."}},
      {kMccmnc, "<r/>", {"...", "[ERROR] switchingRuleNode is null.", "[DETAIL]GetCarrierId by Mccmnc done."}},
      {kMccmnc, "<r><SwitchingRule/></r>", {"...", "[ERROR] selectionRuleNode is null.", "[DETAIL]GetCarrierId by Mccmnc done."}},
      {kMccmnc, "<r><SwitchingRule><SelectionRule/></SwitchingRule></r>",
       {"...", "[ERROR] MCCMNCTable node is null.", "[DETAIL]GetCarrierId by Mccmnc done."}},
      // The other rule and firmware readers fail silently.
      {kMcc, kNoFile, {}}, {kMcc, "<r><SwitchingRule><SelectionRule/></SwitchingRule></r>", {}},
      {kCarrier, kNoFile, {}}, {kSku, kNoFile, {}}, {kSku, "<S/>", {}},
      {kPackage, kNoFile, {"[ERROR] package_info.xml load failed"}},
      {kPackage, "not xml at all", {"[ERROR] package_info.xml load failed"}},
      {kPackage, "<P/>", {"[ERROR] CarrierList failed"}},
      {kDeviceId, "<T", {"...", "[ERROR] WwanDeviceIdImageMappingTable.xml load faild.", "[ERROR] @"}},
      {kDeviceId, "<!-- -->", {"[DETAIL]getWwanDeviceConfigID enter.", "[ERROR] RootElement xml item error."}},
      {kDeviceId, "<T/>", {"...", "[ERROR] WwanDeviceConfigureidTable xml item error."}},
      {kDeviceId, "<T><WwanDeviceConfigureIDTable/></T>",
       {"...", "[ERROR] UniqueSkuIDToWwanDeviceConfigureIDMappingTable error."}},
      {kDeviceId, "<T><WwanDeviceConfigureIDTable><UniqueSkuIDToWwanDeviceConfigureIDMappingTable/>"
                  "</WwanDeviceConfigureIDTable></T>",
       {"...", "[ERROR] CustProductNamePathToUniqueSkuID xml item error.", "[DETAIL]getWwanDeviceConfigID not find.",
        "[DETAIL]getWwanDeviceConfigID done."}},
      // eSIM: a flag other than true ends the lookup before "done".
      {kEsim, esim_false.c_str(), {"...", "[DETAIL]FlagValue is false,not need to set esim disable."}},
      {kEsim, "<E><TableEnableFlag FlagValue=\"yes\"/></E>", {"...", "[DETAIL]Main disable error."}},
      {kEsim, "<E><TableEnableFlag/></E>", {"...", "[DETAIL]Main disable error."}},
      {kEsim, "<E/>", {"...", "[ERROR] TableEnableFlag xml item error."}},
      {kEsim, "<!-- nothing -->", {"...", "[ERROR] RootElement xml item error."}},
      {kEsim, "<E><TableEnableFlag", {"...", "[ERROR] Esim disable xml load faild.", "[ERROR] @"}},
      {kRegion, "<R/>", {"...", "[ERROR] SelectionRule xml item error."}},
      {kRegion, "junk", {"...", "[ERROR] RegionMappingTable load faild.", "[ERROR] @"}},
      {kRegionNoMcc, "<R><SelectionRule/></R>",
       {"[DETAIL]getRegulatoryByMcc enter.", "[DETAIL]@", "[DETAIL]", "[ERROR] mcc is null"}},
      {kRegion, "<R><SelectionRule/></R>", {"...", "[DETAIL]460", "[DETAIL]getRegulatoryByMcc done."}},  // no failure
  };
  for (const Case& c : cases) {
    const std::string path = c.xml == kNoFile ? In("none.xml") : Table(c.xml);
    SCOPED_TRACE(path + ": " + (c.xml ? c.xml : "no file"));
    ClearLog();
    EXPECT_TRUE(c.read(path));
    ExpectLog(c.log, path);
  }
}

}  // namespace
}  // namespace dorvane
