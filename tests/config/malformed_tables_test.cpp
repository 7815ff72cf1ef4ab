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
// A reader asked for key "1" on the table at `p`: true when it answers "not
// found" and leaves its output as it was.
using Path = const std::string&;
using Reader = bool (*)(Path p);
template <class Read>
bool Id(Read read) {
  std::string out = "kept";
  return !read(out) && out == "kept";
}
template <class Read>
bool Fw(Read read) {
  CarrierFirmwareInfo r = Preset();
  return !read(r) && r.fields == Preset().fields;
}
const Reader kMccmnc = [](Path p) { return Id([&](auto& o) { return GetCarrierIdByMccmnc("1", p, o); }); };
const Reader kMcc = [](Path p) { return Id([&](auto& o) { return GetCarrierIdByMcc("1", p, o); }); };
const Reader kIccid = [](Path p) { return Id([&](auto& o) { return GetCarrierIdByIccid("1", p, o); }); };
const Reader kDeviceId = [](Path p) { return Id([&](auto& o) { return getWwanDeviceConfigID(p, o); }); };
const Reader kRegion = [](Path p) { return Id([&](auto& o) { return getRegulatoryByMcc(p, "1", o); }); };
const Reader kRegionNoMcc = [](Path p) { return Id([&](auto& o) { return getRegulatoryByMcc(p, "", o); }); };
const Reader kCarrier = [](Path p) { return Fw([&](auto& r) { return GetCarrierFirmware("1", p, r); }); };
const Reader kParamByMcc = [](Path p) { return Fw([&](auto& r) { return GetParamFirmwareByMcc("1", p, r); }); };
const Reader kOem = [](Path p) { return Fw([&](auto& r) { return GetOemFirmwareByModel("1", p, r); }); };
const Reader kSku = [](Path p) { return Fw([&](auto& r) { return GetParamFirmwareBySku("1", "1", p, r); }); };
const Reader kEsim = [](Path p) { return getEsimDisableType(p, "1", "1") == kEsimNoDecision; };
const Reader kPackage = [](Path p) {
  PackageFirmwareInfo info;
  info.fields.fill("x");
  const auto kept = info.fields;
  return !GetPackageInfoFirmware("1", p, info) && info.fields == kept;
};
const Reader kFwPackage = [](Path p) {
  FwPackageInfo package;
  package.SetPackageVer("kept");
  return !GetFwPackageInfo(p, package) && package.GetPackageVer() == "kept";
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
  const char* const rules = "<r><SwitchingRule><SelectionRule/></SwitchingRule></r>";
  const std::string done = "[DETAIL]GetCarrierId by Mccmnc done.";
  struct Case {
    Reader read;
    const char* xml;  // kNoFile: a path to no file
    Texts log;        // the whole log, or its end after "..."; "@": the path
  };
  const Case cases[] = {
      {kMccmnc, "", {"[DETAIL]GetCarrierId by Mccmnc enter.", "[ERROR] load xml error.", "[ERROR] @", done}},
      {kMccmnc, "<r><SwitchingRule>", {"...", "[ERROR] load xml error.", "[ERROR] @", done}},
      {kMccmnc, "<?xml version=\"1.0\"?><!-- only a comment -->", {"...", "[ERROR] RootElement xml item error.", done}},
      {kMccmnc, "<r/>", {"...", "[ERROR] switchingRuleNode is null.", done}},
      {kMccmnc, "<r><SwitchingRule/></r>", {"...", "[ERROR] selectionRuleNode is null.", done}},
      {kMccmnc, rules, {"...", "[ERROR] MCCMNCTable node is null.", done}},
      // The other rule and firmware readers fail silently.
      {kMcc, kNoFile, {}}, {kMcc, rules, {}},
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
      {kEsim, "<E><TableEnableFlag FlagValue=\"fAlSe\"/></E>",
       {"...", "[DETAIL]FlagValue is false,not need to set esim disable."}},
      {kEsim, "<E><TableEnableFlag FlagValue=\"yes\"/></E>", {"...", "[DETAIL]Main disable error."}},
      {kEsim, "<E><TableEnableFlag/></E>", {"...", "[DETAIL]Main disable error."}},
      {kEsim, "<E/>", {"...", "[ERROR] TableEnableFlag xml item error."}},
      {kEsim, "<!-- nothing -->", {"...", "[ERROR] RootElement xml item error."}},
      {kEsim, "<E><TableEnableFlag", {"...", "[ERROR] Esim disable xml load faild.", "[ERROR] @"}},
      {kRegion, "<R/>", {"...", "[ERROR] SelectionRule xml item error."}},
      {kRegion, "junk", {"...", "[ERROR] RegionMappingTable load faild.", "[ERROR] @"}},
      {kRegionNoMcc, "<R><SelectionRule/></R>",
       {"[DETAIL]getRegulatoryByMcc enter.", "[DETAIL]@", "[DETAIL]", "[ERROR] mcc is null"}},
      {kRegion, "<R><SelectionRule/></R>", {"...", "[DETAIL]1", "[DETAIL]getRegulatoryByMcc done."}},  // no failure
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
