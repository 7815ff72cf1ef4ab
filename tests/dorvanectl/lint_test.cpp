// The table checker as a whole: clean tables of every kind, how a kind is told,
// tables that do not load, the walk of a list and its keys, and the form of a
// finding.
#include "tools/dorvanectl/lint.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>

#include "config/carrier_rules.h"
#include "config/esim_region.h"
#include "config/firmware_info.h"
#include "support/log_reader.h"
#include "tests/dorvanectl/lint_expect.h"

namespace dorvane::lint {
namespace {

using testing::LintOf;
using testing::Listing;
constexpr Severity kError = Severity::kError;
constexpr Severity kWarning = Severity::kWarning;

// A table of each kind that a maintainer could not improve on.
const std::map<Kind, std::string>& CleanTables() {
  static const std::map<Kind, std::string> tables = {
      {Kind::kCarrierRules, R"(<Rules>
  <SwitchingRule>
    <SelectionRule>
      <MCCMNCTable><Item mccmnc="310260">TMO</Item><Item mccmnc="310410">ATT</Item></MCCMNCTable>
      <MCCTable><Item mcc="310">US</Item><Item mcc="460">CN</Item></MCCTable>
      <ICCIDTable>
        <Range min="8901260000000000000" max="8901260000009999999">TMO</Range>
        <Range min="8901410000000000000" max="8901410000009999999">ATT</Range>
      </ICCIDTable>
    </SelectionRule>
    <Registered mcc="310"><PARAMFirmware File="p.bin" Ver="1" Type="P" Count="03"/></Registered>
    <Registered mcc="460"><PARAMFirmware File="c.bin" Ver="2" Type="P" Count="1"/></Registered>
  </SwitchingRule>
  <SelectionRule><Item mcc="310">US</Item></SelectionRule>
</Rules>)"},
      {Kind::kSelectionRules,
       R"(<Rules><SelectionRule><Item mcc="310">US</Item><Item mcc="460">CN</Item></SelectionRule></Rules>)"},
      {Kind::kCarrierFirmware, R"(<F><CarrierList>
  <Carrier id="TMO"><APFirmware File="ap" Ver="1" Type="AP" Count="1"/><MDFirmware File="md" Ver="2" Type="MD" Count="1"/><OPFirmware File="op" Ver="3" Type="OP" Count="1"/></Carrier>
  <Carrier id="ATT"><APFirmware File="ap2" Ver="1" Type="AP" Count="1"/><MDFirmware File="md2" Ver="2" Type="MD" Count="1"/><OPFirmware File="op2" Ver="3" Type="OP" Count="1"/></Carrier>
</CarrierList></F>)"},
      {Kind::kCustomerModel, R"(<F><CarrierList>
  <CustModel id="X13"><OEMFirmware File="oem" Ver="5" Type="OEM" Count="1"><Switch_table File="sw.xml"/></OEMFirmware></CustModel>
  <CustModel id="T14"><OEMFirmware File="oem2" Ver="5" Type="OEM" Count="1"/></CustModel>
</CarrierList></F>)"},
      {Kind::kPackageInfo, R"(<P><CarrierList>
  <Carrier id="default"><Firmware File="d.bin" Ver="d"/><CustPack File="d.pak" Ver="dp"/></Carrier>
  <Carrier id="310"><Firmware File="310.bin" Ver="3"/><CustPack File="310.pak" Ver="p3"/></Carrier>
</CarrierList></P>)"},
      {Kind::kFwPackageInfo, R"(<Pkg><PackageVer>1.2</PackageVer><PackageType>FULL</PackageType><CarrierList>
  <Carrier id="TMO" ver="7"><FWImage file="fw.bin" ver="f1"/><CustPack file="cp.bin" ver="c1"/></Carrier>
</CarrierList></Pkg>)"},
      {Kind::kSku, R"(<S><SKU_GUID ID="A">
  <Area ID="EU"><PARAMFirmware File="eu.bin" Ver="1" Type="P" Count="1"/></Area>
  <Area ID="US"><PARAMFirmware File="us.bin" Ver="1" Type="P" Count="1"/></Area>
</SKU_GUID></S>)"},
      {Kind::kDeviceConfig, R"(<T><WwanDeviceConfigureIDTable>
  <CustProductNamePathToUniqueSkuID CombineMode="combine">
    <CustProductNamePath RegistryPath="SOFTWARE\Vendor,Family"/>
    <CustProductNamePath RegistryPath="SOFTWARE\Vendor,Model"/>
  </CustProductNamePathToUniqueSkuID>
  <UniqueSkuIDToWwanDeviceConfigureIDMappingTable>
    <UniqueSkuID ProductID="THINKPAD_X13" WwanDeviceConfigID="CFG-13"/>
    <UniqueSkuID ProductID="THINKPAD_T14" WwanDeviceConfigID="CFG-14"/>
  </UniqueSkuIDToWwanDeviceConfigureIDMappingTable>
</WwanDeviceConfigureIDTable></T>)"},
      {Kind::kImageMapping, R"(<T><WwanDeviceConfigureIDToImageMappingTable>
  <WwanDeviceConfigID ID="CFG-13">
    <Standard Value="310"><DEVFirmware File="us.bin" Ver="3" Type="USA" Count="12"/></Standard>
    <Standard Value="460"><DEVFirmware File="cn.bin" Ver="3" Type="CHN" Count="0"/></Standard>
  </WwanDeviceConfigID>
</WwanDeviceConfigureIDToImageMappingTable></T>)"},
      {Kind::kEsim, R"(<E><TableEnableFlag FlagValue="True"/>
<SKU_BlackList><SKU SKUValue="X13"/><SKU SKUValue="T14"/></SKU_BlackList>
<IMSI_BlackList><MCCMNC MCCMNCValue="46000"/></IMSI_BlackList></E>)"},
      {Kind::kRegion,
       R"(<R><SelectionRule><Region mcc="default" Regulatory="FCC"/><Region mcc="460" Regulatory="SRRC"/></SelectionRule></R>)"},
      {Kind::kScatter, R"(<root><general/><storage_type>
<partition_index><is_download>true</is_download></partition_index>
<partition_index><is_download>false</is_download></partition_index>
</storage_type></root>)"},
  };
  return tables;
}

TEST(LintKinds, CleanTablesOfEveryKindGiveNothing) {
  std::set<Kind> covered;
  for (const auto& [kind, xml] : CleanTables()) {
    SCOPED_TRACE(KindName(kind));
    const FileResult told = LintText(xml, std::nullopt, "t.xml");
    EXPECT_EQ("", told.problem);
    ASSERT_TRUE(told.kind.has_value());
    EXPECT_EQ(KindName(kind), std::string(KindName(*told.kind))) << "recognised from its structure";
    EXPECT_EQ("(no findings)\n", Listing(told.findings));
    EXPECT_EQ(0, told.Status());
    const FileResult named = LintText(xml, kind, "t.xml");
    EXPECT_EQ("(no findings)\n", Listing(named.findings));
    covered.insert(kind);
  }
  const std::vector<Kind> all = AllKinds();
  EXPECT_EQ(std::set<Kind>(all.begin(), all.end()), covered) << "a clean table of every kind";
}

class LintCleanLookups : public dorvane::testing::LogFixture {};

// The clean tables are tables the lookups answer from, not just tables that
// the checker has nothing to say about.
TEST_F(LintCleanLookups, CleanTablesAnswerTheirLookups) {
  auto path = [&](Kind kind) { return WriteTable(CleanTables().at(kind)); };
  std::string out;
  EXPECT_TRUE(GetCarrierIdByMccmnc("310410", path(Kind::kCarrierRules), out));
  EXPECT_EQ("ATT", out);
  EXPECT_TRUE(GetCarrierIdByIccid("8901410000001234567", path(Kind::kCarrierRules), out));
  EXPECT_EQ("ATT", out);
  CarrierFirmwareInfo record;
  EXPECT_TRUE(GetParamFirmwareByMcc("460", path(Kind::kCarrierRules), record));
  EXPECT_TRUE(GetCarrierFirmware("ATT", path(Kind::kCarrierFirmware), record));
  EXPECT_EQ("ap2", record.fields[CarrierFirmwareInfo::kApSlot]);
  EXPECT_TRUE(GetOemFirmwareByModel("X13", path(Kind::kCustomerModel), record));
  EXPECT_EQ("sw.xml", record.fields[CarrierFirmwareInfo::kSwitchTable]);
  PackageFirmwareInfo info;
  EXPECT_TRUE(GetPackageInfoFirmware("999", path(Kind::kPackageInfo), info));
  EXPECT_EQ("d.bin", info.fields[PackageFirmwareInfo::kFirmwareFile]);
  FwPackageInfo package;
  EXPECT_TRUE(GetFwPackageInfo(path(Kind::kFwPackageInfo), package));
  EXPECT_EQ(1u, package.GetCarriers().size());
  EXPECT_TRUE(GetParamFirmwareBySku("A", "US", path(Kind::kSku), record));
  EXPECT_EQ("us.bin", record.fields[CarrierFirmwareInfo::kParamSlot]);
  EXPECT_EQ(kEsimSkuBlackListed, getEsimDisableType(path(Kind::kEsim), "t14", nullptr));
  EXPECT_EQ(kRegionExact, getRegulatoryByMcc(path(Kind::kRegion), "460", out));
}

TEST(LintKinds, NamesRoundTripAndAreListed) {
  const std::string names = KindNames();
  for (Kind kind : AllKinds()) {
    ASSERT_EQ(kind, KindByName(KindName(kind)));
    EXPECT_NE(std::string::npos, names.find(KindName(kind)));
  }
  EXPECT_FALSE(KindByName("Carrier-Rules").has_value()) << "names are exact";
  EXPECT_FALSE(KindByName("").has_value());
}

std::vector<Kind> KindsOf(const std::string& xml, const std::string& file = "t.xml") {
  tinyxml2::XMLDocument doc(true, tinyxml2::PRESERVE_WHITESPACE);
  EXPECT_EQ(tinyxml2::XML_SUCCESS, doc.Parse(xml.c_str()));
  return Recognize(doc.RootElement(), file);
}

TEST(LintKinds, ACarrierListIsToldByItsFirstEntryThenByTheFileName) {
  using V = std::vector<Kind>;
  EXPECT_EQ(V{Kind::kCustomerModel},
            KindsOf("<F><CarrierList><Note/><CustModel id='X'/><Carrier id='T'><APFirmware/></Carrier></CarrierList></F>"));
  EXPECT_EQ(V{Kind::kCarrierFirmware},
            KindsOf("<F><CarrierList><Carrier id='T'/><Carrier id='U'><OPFirmware/></Carrier><CustModel/></CarrierList></F>"));
  EXPECT_EQ(V{Kind::kPackageInfo}, KindsOf("<F><CarrierList><Carrier id='T'><CustPack File='x'/></Carrier></CarrierList></F>"));
  EXPECT_EQ(V{Kind::kFwPackageInfo}, KindsOf("<F><CarrierList><Carrier id='T'><CustPack file='x'/></Carrier></CarrierList></F>"));
  EXPECT_EQ(V{}, KindsOf("<F><CarrierList><Carrier id='T'/></CarrierList></F>"));
  EXPECT_EQ(V{Kind::kPackageInfo}, KindsOf("<F><CarrierList><Carrier id='T'/></CarrierList></F>", "C:\\fw\\PACKAGE_INFO.xml"));
  EXPECT_EQ(V{Kind::kFwPackageInfo}, KindsOf("<F><CarrierList/></F>", "x/FwPackageInfo.xml"));
  EXPECT_EQ(V{Kind::kScatter}, KindsOf("<root><other/></root>", "scatter.xml")) << "its fixed name";
}

TEST(LintKinds, OtherTablesAreToldByTheElementsUnderTheRoot) {
  using V = std::vector<Kind>;
  EXPECT_EQ(V{Kind::kCarrierRules}, KindsOf("<R><SelectionRule><Item mcc='1'/></SelectionRule><SwitchingRule/></R>"));
  EXPECT_EQ(V{Kind::kRegion}, KindsOf("<R><SelectionRule><Region mcc='1'/></SelectionRule></R>"));
  EXPECT_EQ(V{Kind::kSelectionRules}, KindsOf("<R><SelectionRule><Item mcc='1'/></SelectionRule></R>"));
  EXPECT_EQ(V{}, KindsOf("<R><SelectionRule/></R>"));
  EXPECT_EQ(V{Kind::kEsim}, KindsOf("<E><IMSI_BlackList/></E>"));
  EXPECT_EQ(V{Kind::kScatter}, KindsOf("<S><storage_type/></S>"));
  EXPECT_EQ(V{Kind::kSku}, KindsOf("<S><SKU_GUID/></S>"));
  EXPECT_EQ(V{Kind::kDeviceConfig}, KindsOf("<T><WwanDeviceConfigureIDTable/></T>"));
  EXPECT_EQ(V{Kind::kImageMapping}, KindsOf("<T><WwanDeviceConfigureIDToImageMappingTable/></T>"));
  EXPECT_EQ(V{Kind::kFwPackageInfo}, KindsOf("<P><PackageType/><CarrierList><Carrier><Firmware/></Carrier></CarrierList></P>"));
  EXPECT_EQ((V{Kind::kCarrierRules, Kind::kSku}), KindsOf("<R><SwitchingRule/><SKU_GUID/></R>"));
}

TEST(LintKinds, ATableOfNoKnownKindIsAProblemThatNamesTheKinds) {
  FileResult result = LintText("<Unknown><Thing/></Unknown>", std::nullopt, "u.xml");
  EXPECT_EQ(2, result.Status());
  EXPECT_FALSE(result.kind.has_value());
  EXPECT_NE(std::string::npos, result.problem.find("cannot tell what table this is")) << result.problem;
  EXPECT_NE(std::string::npos, result.problem.find("--kind (" + KindNames() + ")")) << result.problem;

  result = LintText("<R><SwitchingRule/><SKU_GUID/></R>", std::nullopt, "u.xml");
  EXPECT_EQ(2, result.Status());
  EXPECT_NE(std::string::npos, result.problem.find("could be a carrier-rules or sku table")) << result.problem;

  result = LintText("<Unknown/>", Kind::kRegion, "u.xml");
  EXPECT_EQ(1, result.Status()) << "a kind that is named is checked as such";
  EXPECT_FINDING(result.findings, 1, kError, "Unknown (the root) has no SelectionRule",
                 "\"SelectionRule xml item error.\"");
}

TEST(LintFiles, ADocumentWithoutARootElementFailsEveryLookup) {
  const std::string comment = "<?xml version=\"1.0\"?>\n<!-- nothing else -->\n";
  FileResult result = LintText(comment, std::nullopt, "c.xml");
  EXPECT_FINDING(result.findings, 1, kError, "no root element");
  result = LintText(comment, Kind::kPackageInfo, "c.xml");
  EXPECT_FINDING(result.findings, 1, kError, "package-info-firmware fails and logs \"RootElement failed\"");
  result = LintText(comment, Kind::kImageMapping, "c.xml");
  EXPECT_FINDING(result.findings, 1, kError, "\"RootElement failed:\"");
}

class LintFileTest : public dorvane::testing::LogFixture {};

TEST_F(LintFileTest, FilesAreReadAsTheLookupsReadThem) {
  const std::string path = WriteTable(CleanTables().at(Kind::kRegion));
  FileResult result = LintFile(path, std::nullopt);
  EXPECT_EQ(path, result.file);
  EXPECT_EQ(Kind::kRegion, result.kind);
  EXPECT_EQ(0, result.Status()) << Listing(result.findings);

  result = LintFile(In("missing.xml"), std::nullopt);
  EXPECT_EQ(2, result.Status());
  EXPECT_EQ("cannot read it (XML_ERROR_FILE_NOT_FOUND)", result.problem);
  EXPECT_EQ(2, LintFile(dir_, Kind::kRegion).Status()) << "a folder";

  // White space is kept, as the lookups keep it: a key with a blank is a finding.
  const std::string blank = WriteTable("<R><SelectionRule><Region mcc=\"460 \" Regulatory=\"x\"/></SelectionRule></R>");
  EXPECT_FINDING(LintFile(blank, std::nullopt).findings, 1, kWarning, "ends with a blank");
}

TEST(LintFiles, AFindingIsOneLineWhateverTheTableHolds) {
  const Finding f{7, kError, "Item mccmnc=\"1\" repeats"};
  EXPECT_EQ("C:\\t\\r.xml:7: error: Item mccmnc=\"1\" repeats", FormatLine("C:\\t\\r.xml", f));
  EXPECT_EQ("a:1: warning: m", FormatLine("a", {1, kWarning, "m"}));
  const auto findings = LintOf(
      "<R><SelectionRule><Region mcc=\"46\n0\" Regulatory=\"a\"/>\n"
      "<Region mcc=\"46\n0\" Regulatory=\"b\"/>\n"
      "<Region mcc='&quot;\\&#1;' Regulatory='c'/><Region mcc='&quot;\\&#1;' Regulatory='d'/>"
      "</SelectionRule></R>");
  ASSERT_EQ(2u, findings.size()) << Listing(findings);
  for (const Finding& each : findings) EXPECT_EQ(std::string::npos, each.message.find_first_of("\r\n\x01"));
  EXPECT_FINDING(findings, 3, kError, "Region mcc=\"46\\n0\" repeats the mcc of line 1");
  EXPECT_FINDING(findings, 5, kError, "Region mcc=\"\\\"\\\\\\x01\" repeats the mcc of line 5");
}

// Tables cut, doubled and sprinkled with stray bytes, checked as every kind:
// the checker always comes back with findings of the one-line form, whatever
// it is given.
TEST(LintFiles, MangledTablesOfEveryKindAreCheckedWithoutFault) {
  std::mt19937 random(7);
  const char pieces[][12] = {"<", ">", "/>", "\"", "='", "&amp;", "&#0;", " ", "\n", "\x80\xFF", "default", ",", ";"};
  int checked = 0;
  for (const auto& [kind, clean] : CleanTables()) {
    for (int round = 0; round < 150; ++round) {
      std::string xml = clean;
      for (int edits = 1 + static_cast<int>(random() % 4); edits > 0; --edits) {
        const size_t at = random() % (xml.size() + 1);
        switch (random() % 4) {
          case 0: xml.erase(at, random() % 12); break;
          case 1: xml.insert(at, pieces[random() % (sizeof pieces / sizeof pieces[0])]); break;
          case 2: xml.insert(at, xml.substr(random() % (xml.size() + 1), random() % 80)); break;
          default: if (at < xml.size()) xml[at] = static_cast<char>(random() % 256); break;
        }
      }
      for (std::optional<Kind> as : {std::optional<Kind>(), std::optional<Kind>(kind)}) {
        const FileResult result = LintText(xml, as, "m.xml");
        for (const Finding& f : result.findings) {
          ASSERT_GE(f.line, 1) << xml;
          ASSERT_EQ(std::string::npos, f.message.find_first_of("\r\n")) << xml;
        }
        ++checked;
      }
    }
  }
  EXPECT_EQ(static_cast<int>(CleanTables().size()) * 300, checked);
}

// The walk of a list, shown on the MCC-MNC table: every rule holds for every
// keyed list.
std::string Mccmnc(const std::string& items) {
  return "<Rules><SwitchingRule><SelectionRule><MCCTable><Item mcc='1'>a</Item></MCCTable>"
         "<ICCIDTable/>\n<MCCMNCTable>\n" + items +
         "</MCCMNCTable></SelectionRule></SwitchingRule></Rules>";
}

TEST(LintLists, ALaterEntryWithAKeyMetBeforeIsNeverReturned) {
  const auto findings = LintOf(Mccmnc("<Item mccmnc='310260'>TMO</Item>\n<Item mccmnc='1'>x</Item>\n"
                                      "<Item mccmnc='310260'>second</Item>\n"));
  ASSERT_EQ(1u, findings.size()) << Listing(findings);
  EXPECT_EQ("t.xml:5: error: Item mccmnc=\"310260\" repeats the mccmnc of line 3: the first match "
            "wins, so carrier-id-by-mccmnc never returns this entry",
            FormatLine("t.xml", findings[0]));
}

TEST(LintLists, BlanksAroundAKeyAndCaseDifferencesAreWarnings) {
  const auto findings = LintOf(Mccmnc("<Item mccmnc=' 310260'>a</Item>\n<Item mccmnc='310410\t'>b</Item>\n"
                                      "<Item mccmnc='abc'>c</Item>\n<Item mccmnc='ABC'>d</Item>\n"));
  EXPECT_EQ(3u, findings.size()) << Listing(findings);
  EXPECT_FINDING(findings, 3, kWarning, "mccmnc=\" 310260\" begins with a blank",
                 "matches it only when the key begins with the same blank");
  EXPECT_FINDING(findings, 4, kWarning, "mccmnc=\"310410\\t\" ends with a blank");
  EXPECT_FINDING(findings, 6, kWarning, "Item mccmnc=\"ABC\" differs from \"abc\" (line 5) only in case",
                 "compares keys exactly, so they are two keys");
}

TEST(LintLists, ElementsOfAnotherNameAfterTheFirstEntryAreEntriesToo) {
  const auto findings = LintOf(Mccmnc("<Note>before the first: not walked</Note>\n"
                                      "<Item mccmnc='1'>a</Item>\n<Stray mccmnc='2'>b</Stray>\n"
                                      "<Comment>no key</Comment>\n<Item mccmnc='2'>c</Item>\n"));
  EXPECT_EQ(3u, findings.size()) << Listing(findings);
  EXPECT_FINDING(findings, 5, kWarning, "Stray after the first Item (line 4) is walked as an entry by "
                 "carrier-id-by-mccmnc, which finds it under mccmnc=\"2\"");
  EXPECT_FINDING(findings, 6, kWarning, "Comment after the first Item (line 4) is walked as an entry");
  EXPECT_FINDING(findings, 7, kError, "repeats the mccmnc of line 5");  // the stray one wins
  EXPECT_EQ(0u, testing::On(findings, 3, {}).size()) << "elements before the first entry are not walked";
}

// Elements the lookups never reach, and how lint names them: each table has
// exactly the one finding given.
TEST(LintUnused, ElementsTheLookupsNeverReachAreNamedWithWhatTheyFollow) {
  struct Case {
    Kind kind;
    const char* xml;
    int line;
    Severity severity;
    bool unused;
    const char* words;
  };
  const char kRules[] = "<R><SwitchingRule><SelectionRule><MCCTable/><ICCIDTable/>\n";
  const char kRulesEnd[] = "</SelectionRule></SwitchingRule></R>";
  const std::string lower = std::string(kRules) + "<MCCMNCTable>\n<item mccmnc='1'>a</item></MCCMNCTable>" + kRulesEnd;
  const std::string prefixed = std::string(kRules) +
                               "<MCCMNCTable xmlns:r='urn:r'>\n<r:Item mccmnc='1'>a</r:Item>\n<Item mccmnc='2'>b</Item>"
                               "</MCCMNCTable>" + kRulesEnd;
  const std::string second = std::string(kRules) + "<MCCMNCTable/>\n<MCCMNCTable><Item mccmnc='1'>a</Item></MCCMNCTable>" +
                             kRulesEnd;
  const Case cases[] = {
      {Kind::kCarrierRules, lower.c_str(), 3, kError, true,
       "item mccmnc=\"1\" is never walked (the lookups follow Item, and compare element names exactly): "
       "carrier-id-by-mccmnc starts at the first Item, and MCCMNCTable has none, so it never finds this entry"},
      {Kind::kCarrierRules, prefixed.c_str(), 3, kError, true,
       "r:Item mccmnc=\"1\" before the first Item is never walked (the lookups follow Item, and a namespace prefix is part of the "
       "name): carrier-id-by-mccmnc starts at the first Item (line 4)"},
      {Kind::kCarrierRules, second.c_str(), 3, kError, true,
       "this MCCMNCTable is never read: the lookups read only the first MCCMNCTable of SelectionRule (line 2)"},
      {Kind::kEsim, "<E><TableEnableFlag FlagValue='True'/><SKU_BlackList>\n<Sku SKUValue='A'/>\n<SKU SKUValue='B'/>"
                    "</SKU_BlackList><IMSI_BlackList/></E>",
       2, kError, true, "Sku SKUValue=\"A\" before the first SKU is never walked"},
      {Kind::kEsim, "<E><TableEnableFlag FlagValue='True'/>\n<TableEnableFlag FlagValue='False'/><SKU_BlackList/>"
                    "<IMSI_BlackList/></E>",
       2, kError, true, "this TableEnableFlag is never read"},
      {Kind::kCarrierFirmware, "<F><CarrierList>\n<CustModel id='X'/>\n<Carrier id='A'>"
                               "<APFirmware File='a' Ver='1' Type='AP' Count='1'/><MDFirmware File='m' Ver='1' Type='MD' "
                               "Count='1'/><OPFirmware File='o' Ver='1' Type='OP' Count='1'/></Carrier></CarrierList></F>",
       2, kError, true, "CustModel id=\"X\" before the first Carrier is never walked: carrier-firmware starts at the "
       "first Carrier (line 3), so it never finds this entry"},
      {Kind::kRegion, "<R><SelectionRule>\n<region mcc='460' Regulatory='SRRC'/></SelectionRule></R>", 2, kError, true,
       "region mcc=\"460\" is never walked (the lookups follow Region, and compare element names exactly): "
       "regulatory-by-mcc starts at the first Region, and SelectionRule has none"},
      {Kind::kImageMapping, "<T><WwanDeviceConfigureIDToImageMappingTable>\n<WwanDeviceConfigId ID='C'/>"
                            "</WwanDeviceConfigureIDToImageMappingTable></T>",
       2, kError, true, "WwanDeviceConfigId ID=\"C\" is never walked"},
      {Kind::kScatter, "<S><general/><storage_type><partition_index><is_download>true</is_download>\n"
                       "<is_download>false</is_download></partition_index></storage_type></S>",
       2, kError, true, "this is_download is never read: the lookups read only the first is_download of partition_index"},
      {Kind::kSku, "<S>\n<SKU_GUID ID='A '><Area ID='EU'><PARAMFirmware File='a' Ver='1' Type='P' Count='1'/></Area>"
                   "</SKU_GUID></S>",
       2, kError, false, "the ID of the first SKU_GUID, \"A \", has a blank at an end: param-firmware-by-sku answers "
       "only a SKU written with the same blank, and never returns for the SKU without it"},
      {Kind::kSku, "<S><SKU_GUID ID='A'>\n<Area ID=' EU'><PARAMFirmware File='a' Ver='1' Type='P' Count='1'/></Area>"
                   "</SKU_GUID></S>",
       2, kError, false, "Area ID=\" EU\" begins with a blank: param-firmware-by-sku A matches it only when the key "
       "begins with the same blank, and never returns for the key without it"},
      {Kind::kDeviceConfig, "<T><WwanDeviceConfigureIDTable><CustProductNamePathToUniqueSkuID CombineMode='Single'>\n"
                            "<CustProductNamePath RegistryPath='HKEY_LOCAL_MACHINE\\SOFTWARE\\V,Name'/>"
                            "</CustProductNamePathToUniqueSkuID><UniqueSkuIDToWwanDeviceConfigureIDMappingTable/>"
                            "</WwanDeviceConfigureIDTable></T>",
       2, kError, true, "begins with the hive name \"HKEY_LOCAL_MACHINE\": device-config-id opens the key path under "
       "HKEY_LOCAL_MACHINE itself"},
      {Kind::kEsim, "<E>\n<TableEnableFlag FlagValue='false'/></E>", 2, kWarning, false,
       "switches the table off"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.xml);
    const auto findings = LintOf(c.xml, c.kind);
    ASSERT_EQ(1u, findings.size() - testing::On(findings, 1, {"has no"}).size()) << Listing(findings);
    const auto found = testing::On(findings, c.line, {c.words});
    ASSERT_EQ(1u, found.size()) << Listing(findings);
    EXPECT_EQ(c.severity, found[0].severity);
    EXPECT_EQ(c.unused, found[0].unused);
  }
}

// A misnamed fixed element: the missing one is told (a note where one lookup
// alone needs it), and the near miss is never read.
TEST(LintUnused, ANearMissOfAFixedElementIsNamedBesideTheMissingOne) {
  const auto findings = LintOf("<R><SwitchingRule><SelectionRule>\n<MccMncTable><Item mccmnc='1'>a</Item></MccMncTable>"
                               "<MCCTable/><ICCIDTable/></SelectionRule></SwitchingRule></R>");
  EXPECT_EQ(2u, findings.size()) << Listing(findings);
  EXPECT_FINDING(findings, 1, Severity::kNote, "SelectionRule has no MCCMNCTable");
  EXPECT_FINDING(findings, 2, kError, "MccMncTable is never read (the lookups follow MCCMNCTable, and compare "
                 "element names exactly)");
}

// Both sub-tables missing: the lookup stops at the mapping table, so only that
// finding names a log line.
TEST(LintUnused, OnlyTheFirstMissingStepOfADeviceTableNamesWhatIsLogged) {
  const auto findings = LintOf("<T>\n<WwanDeviceConfigureIDTable/></T>", Kind::kDeviceConfig);
  ASSERT_EQ(2u, findings.size()) << Listing(findings);
  EXPECT_FINDING(findings, 2, kError, "has no CustProductNamePathToUniqueSkuID: device-config-id would fail here "
                 "too, once the mapping table is there");
  EXPECT_EQ(1u, testing::On(findings, 2, {"logs"}).size()) << Listing(findings);
}

TEST(LintLists, AnEntryWithoutItsKeyIsNeverFound) {
  const auto findings = LintOf(Mccmnc("<Item>a</Item>\n<Item mccmnc=''>b</Item>\n"));
  EXPECT_EQ(1u, findings.size()) << Listing(findings) << "an empty key is a key the lookup can be given";
  EXPECT_FINDING(findings, 3, kError, "Item has no mccmnc: carrier-id-by-mccmnc never finds it");
}

TEST(LintLists, AnswersWithBlanksOrWithoutTextAreWarnings) {
  const auto findings = LintOf(Mccmnc("<Item mccmnc='1'>  TMO\n</Item>\n<Item mccmnc='2'/>\n"
                                      "<Item mccmnc='3'><b/>ATT</Item>\n<Item mccmnc='4'><!-- c -->ATT</Item>\n"));
  EXPECT_EQ(3u, findings.size()) << Listing(findings);
  EXPECT_FINDING(findings, 3, kWarning, "the text \"  TMO\\n\" of Item mccmnc=\"1\" begins and ends with a blank",
                 "carrier-id-by-mccmnc answers it with its blanks");
  EXPECT_FINDING(findings, 5, kWarning, "Item mccmnc=\"2\" has no text", "answers the empty text");
  EXPECT_FINDING(findings, 6, kWarning, "Item mccmnc=\"3\" has no text");  // an element first hides it
}

}  // namespace
}  // namespace dorvane::lint
