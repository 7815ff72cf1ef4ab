// The checks of each kind of table, one small table per finding, with the
// readers' own behaviour alongside where a finding claims something of it.
#include <gtest/gtest.h>

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

TEST(LintFixedPaths, AMissingNodeNamesTheCommandThatFailsAndWhatItLogs) {
  struct Case {
    Kind kind;
    const char* xml;
    int line;
    const char* words;
    Severity severity = kError;
  };
  const Severity kNote = Severity::kNote;
  const Case cases[] = {
      {Kind::kCarrierRules, "<R>\n<Other/></R>", 1,
       "R (the root) has no SwitchingRule: carrier-id-by-mccmnc fails and logs \"switchingRuleNode is null.\"; "
       "carrier-id-by-mcc, carrier-id-by-iccid and param-firmware-by-mcc fail silently"},
      {Kind::kCarrierRules, "<R>\n<SwitchingRule/></R>", 2,
       "SwitchingRule has no SelectionRule: carrier-id-by-mccmnc fails and logs \"selectionRuleNode is null.\""},
      {Kind::kCarrierRules, "<R><SwitchingRule>\n<SelectionRule><MCCTable/><ICCIDTable/></SelectionRule></SwitchingRule></R>", 2,
       "SelectionRule has no MCCMNCTable: carrier-id-by-mccmnc fails and logs \"MCCMNCTable node is null.\"", kNote},
      {Kind::kCarrierRules, "<R><SwitchingRule>\n<SelectionRule><MCCMNCTable/><ICCIDTable/></SelectionRule></SwitchingRule></R>", 2,
       "SelectionRule has no MCCTable: carrier-id-by-mcc fails silently", kNote},
      {Kind::kCarrierRules, "<R><SwitchingRule>\n<SelectionRule><MCCMNCTable/><MCCTable/></SelectionRule></SwitchingRule></R>", 2,
       "SelectionRule has no ICCIDTable: carrier-id-by-iccid fails silently", kNote},
      {Kind::kCarrierFirmware, "<F/>", 1, "F (the root) has no CarrierList: carrier-firmware fails silently"},
      {Kind::kCustomerModel, "<F/>", 1, "has no CarrierList: oem-firmware-by-model fails silently"},
      {Kind::kPackageInfo, "<P/>", 1, "has no CarrierList: package-info-firmware fails and logs \"CarrierList failed\""},
      {Kind::kFwPackageInfo, "<P><PackageVer>1</PackageVer><CarrierList/></P>", 1,
       "has no PackageType: fw-package-info fails silently"},
      {Kind::kSku, "<S><Area/></S>", 1, "has no SKU_GUID: param-firmware-by-sku fails silently"},
      {Kind::kDeviceConfig, "<T/>", 1,
       "has no WwanDeviceConfigureIDTable: device-config-id fails and logs \"WwanDeviceConfigureidTable xml item error.\""},
      {Kind::kDeviceConfig,
       "<T>\n<WwanDeviceConfigureIDTable><CustProductNamePathToUniqueSkuID CombineMode='Single'/></WwanDeviceConfigureIDTable></T>", 2,
       "has no UniqueSkuIDToWwanDeviceConfigureIDMappingTable: device-config-id fails and logs "
       "\"UniqueSkuIDToWwanDeviceConfigureIDMappingTable error.\""},
      {Kind::kDeviceConfig,
       "<T>\n<WwanDeviceConfigureIDTable><UniqueSkuIDToWwanDeviceConfigureIDMappingTable/></WwanDeviceConfigureIDTable></T>", 2,
       "has no CustProductNamePathToUniqueSkuID: device-config-id fails and logs "
       "\"CustProductNamePathToUniqueSkuID xml item error.\""},
      {Kind::kImageMapping, "<T/>", 1,
       "has no WwanDeviceConfigureIDToImageMappingTable: cfg-pk-info fails and logs \"getCfgPkInfo not find map.\""},
      {Kind::kEsim, "<E><SKU_BlackList/><IMSI_BlackList/></E>", 1,
       "has no TableEnableFlag: esim-disable-type fails (0xFFFFFFFF) and logs \"TableEnableFlag xml item error.\""},
      {Kind::kEsim, "<E><TableEnableFlag FlagValue='true'/><IMSI_BlackList/></E>", 1,
       "has no SKU_BlackList: esim-disable-type with a SKU fails (0xFFFFFFFF) and logs \"SKU black xml item error.\"", kNote},
      {Kind::kEsim, "<E><TableEnableFlag FlagValue='true'/><SKU_BlackList/></E>", 1,
       "has no IMSI_BlackList: esim-disable-type with an IMSI (and a SKU that is not black-listed) fails "
       "(0xFFFFFFFF) and logs \"IMSI black xml item error.\"", kNote},
      {Kind::kRegion, "<R/>", 1, "has no SelectionRule: regulatory-by-mcc fails (0) and logs \"SelectionRule xml item error.\""},
      {Kind::kScatter, "<S><storage_type/></S>", 1, "has no general: update-scatter fails and leaves the file as it is"},
      {Kind::kScatter, "<S><general/></S>", 1, "has no storage_type: update-scatter fails"},
      {Kind::kSelectionRules, "<R/>", 1, "has no SelectionRule: selection-rule-by-mcc reads nothing"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.xml);
    const auto findings = LintOf(c.xml, c.kind);
    EXPECT_EQ(1u, findings.size()) << Listing(findings);
    EXPECT_FINDING(findings, c.line, c.severity, c.words);
  }
}

TEST(LintCarrierRules, RegisteredEntriesAreAListAndTheRootSelectionRuleChangesNoAnswer) {
  const auto findings = LintOf(R"(<R><SwitchingRule>
<Registered mcc="310"><PARAMFirmware File="a" Ver="1" Type="P"/></Registered>
<SelectionRule><MCCMNCTable/><MCCTable/><ICCIDTable/></SelectionRule>
<Registered mcc="310"><PARAMFirmware File="b" Ver="1" Type="P" Count="1"/></Registered>
<Registered mcc="460"/>
</SwitchingRule>
<SelectionRule><Item mcc="1">a</Item><Item mcc="1">b</Item></SelectionRule></R>)");
  EXPECT_EQ(4u, findings.size()) << Listing(findings);
  EXPECT_FINDING(findings, 2, kWarning, "PARAMFirmware of Registered mcc=\"310\" has no Count",
                 "param-firmware-by-mcc gives the empty text for it");
  EXPECT_FINDING(findings, 3, kWarning, "SelectionRule after the first Registered (line 2) is walked as an "
                 "entry by param-firmware-by-mcc");
  EXPECT_FINDING(findings, 4, kError, "Registered mcc=\"310\" repeats the mcc of line 2");
  EXPECT_FINDING(findings, 5, kWarning, "Registered mcc=\"460\" has no PARAMFirmware",
                 "gives empty texts for its File, Ver, Type and Count");
  // selection-rule-by-mcc answers false for every key: a repeated key there
  // changes nothing.
  EXPECT_TRUE(testing::On(findings, 7, {}).empty()) << Listing(findings);
}

TEST(LintCarrierFirmware, EntriesOfAnotherListAndMissingFirmware) {
  const auto findings = LintOf(R"(<F><CarrierList>
<Carrier id="TMO"><APFirmware File="ap" Ver="1" Type="AP" Count="1"/><MDFirmware file="md" Ver="2" Type="MD" Count="1"/></Carrier>
<CustModel id="X13"><OEMFirmware File="oem" Ver="5" Type="OEM" Count="1"/></CustModel>
</CarrierList></F>)");
  EXPECT_EQ(3u, findings.size()) << Listing(findings);
  EXPECT_FINDING(findings, 2, kWarning, "MDFirmware of Carrier id=\"TMO\" has no File",
                 "(it has file: attribute names are compared with their case)");
  EXPECT_FINDING(findings, 2, kWarning, "Carrier id=\"TMO\" has no OPFirmware");
  EXPECT_FINDING(findings, 3, kWarning, "CustModel after the first Carrier (line 2) is walked as an entry by "
                 "carrier-firmware, which finds it under id=\"X13\"");
}

TEST(LintCustomerModel, SwitchTablesBesideOemFirmwareAndEmptyIds) {
  const auto findings = LintOf(R"(<F><CarrierList>
<CustModel id="X13"><OEMFirmware File="o" Ver="1" Type="OEM" Count="1"/>
  <Switch_table File="sw.xml"/></CustModel>
<CustModel id=""><OEMFirmware File="o" Ver="1" Type="OEM" Count="1"><Switch_table/></OEMFirmware></CustModel>
<CustModel id="T14"><OEMFirmware File="o" Ver="1" Type="OEM" Count="1"><Switch_table Name="x"/></OEMFirmware></CustModel>
</CarrierList></F>)");
  EXPECT_EQ(3u, findings.size()) << Listing(findings);
  EXPECT_FINDING(findings, 3, kWarning, "Switch_table of CustModel id=\"X13\" stands beside OEMFirmware, not inside it");
  EXPECT_FINDING(findings, 4, kError, "CustModel id=\"\" has an empty id",
                 "oem-firmware-by-model refuses an empty key");
  EXPECT_FINDING(findings, 5, kWarning, "Switch_table of CustModel id=\"T14\" has no File");
}

class LintPackageInfoLookups : public dorvane::testing::LogFixture {};

TEST_F(LintPackageInfoLookups, TheFallBackIsTheLastDefaultEntry) {
  const std::string xml = R"(<P><CarrierList>
<Carrier id="default"><Firmware File="first" Ver="1"/><CustPack File="p" Ver="1"/></Carrier>
<Carrier id="310"><Firmware File="310" Ver="1"/><CustPack File="p" Ver="1"/></Carrier>
<Carrier id="Default"><Firmware File="cased" Ver="1"/><CustPack File="p" Ver="1"/></Carrier>
<Carrier id="default"><Firmware File="last" Ver="1"/><CustPack File="p" Ver="1"/></Carrier>
</CarrierList></P>)";
  const auto findings = LintOf(xml);
  EXPECT_EQ(2u, findings.size()) << Listing(findings);
  EXPECT_FINDING(findings, 2, kWarning, "Carrier id=\"default\" is not the last of its kind (line 5 is)",
                 "falls back to the last one, and returns this one only when asked for \"default\" itself");
  EXPECT_FINDING(findings, 4, kWarning, "Carrier id=\"Default\" is not a fall-back row", "in lower case");
  // What the findings say, as the reader does it.
  PackageFirmwareInfo info;
  const std::string path = WriteTable(xml);
  ASSERT_TRUE(GetPackageInfoFirmware("999", path, info));
  EXPECT_EQ("last", info.fields[PackageFirmwareInfo::kFirmwareFile]);
  ASSERT_TRUE(GetPackageInfoFirmware("default", path, info));
  EXPECT_EQ("first", info.fields[PackageFirmwareInfo::kFirmwareFile]);
}

TEST(LintPackageInfo, NoDefaultEntryGivesEmptyTextsForUnlistedCarriers) {
  const auto findings = LintOf(R"(<P>
<CarrierList><Carrier id="310"><Firmware File="a" Ver="1"/></Carrier></CarrierList></P>)");
  EXPECT_EQ(2u, findings.size()) << Listing(findings);
  EXPECT_FINDING(findings, 2, kWarning, "CarrierList has no Carrier id=\"default\"",
                 "package-info-firmware answers empty texts, and true, for every key it does not hold");
  EXPECT_FINDING(findings, 2, kWarning, "Carrier id=\"310\" has no CustPack");
}

TEST(LintFwPackageInfo, LowerCaseAttributesAndTheTextsOfVersionAndType) {
  const auto findings = LintOf(R"(<Pkg><PackageVer> 1.2 </PackageVer><PackageType/>
<CarrierList><Carrier id="TMO"><FWImage File="fw.bin" ver="1"/><CustPack file="c" ver="1"/></Carrier>
<Extra/></CarrierList></Pkg>)");
  EXPECT_EQ(5u, findings.size()) << Listing(findings);
  EXPECT_FINDING(findings, 1, kWarning, "the text \" 1.2 \" of PackageVer begins and ends with a blank");
  EXPECT_FINDING(findings, 1, kWarning, "PackageType has no text");
  EXPECT_FINDING(findings, 2, kWarning, "Carrier id=\"TMO\" has no ver");
  EXPECT_FINDING(findings, 2, kWarning, "FWImage of Carrier id=\"TMO\" has no file", "(it has File");
  EXPECT_FINDING(findings, 3, kWarning, "Extra after the first Carrier (line 2) is walked as an entry by fw-package-info");
}

TEST(LintSku, LaterSkuGuidsAreNeverRead) {
  const auto findings = LintOf(R"(<S>
<SKU_GUID ID="A"><Area ID="EU"><PARAMFirmware File="a" Ver="1" Type="P" Count="1"/></Area></SKU_GUID>
<SKU_GUID ID="B"><Area ID="EU"/><Area ID="US"/></SKU_GUID>
<SKU_GUID ID="A"><Area ID="EU"/><Area ID="CN"/></SKU_GUID>
<SKU_GUID ID="A"><Area ID="EU"/></SKU_GUID>
<SKU_GUID/>
</S>)");
  EXPECT_EQ(4u, findings.size()) << Listing(findings);
  EXPECT_EQ("t.xml:3: error: SKU_GUID ID=\"B\" is not the table's first SKU_GUID (line 2), the only one "
            "param-firmware-by-sku reads: it never returns for SKU \"B\", areas \"EU\" and \"US\"",
            FormatLine("t.xml", testing::On(findings, 3, {})[0]));
  EXPECT_FINDING(findings, 4, kError, "repeats the first SKU_GUID's ID (line 2), whose areas alone are read: "
                 "param-firmware-by-sku never returns for its area \"CN\"");
  EXPECT_FINDING(findings, 5, kError, "its areas are never read; the first SKU_GUID's are returned");
  EXPECT_FINDING(findings, 6, kError, "SKU_GUID without ID after the first (line 2) is never read");
}

TEST(LintSku, AFirstSkuGuidWithoutIdOrAreasNeverReturns) {
  EXPECT_FINDING(LintOf("<S>\n<SKU_GUID><Area ID='EU'/></SKU_GUID></S>", Kind::kSku), 2, kError,
                 "the first SKU_GUID has no ID: param-firmware-by-sku reads only the first SKU_GUID, so it "
                 "never returns, whatever it is asked");
  EXPECT_FINDING(LintOf("<S>\n<SKU_GUID ID='A'><Note/></SKU_GUID></S>"), 2, kError,
                 "the first SKU_GUID, SKU_GUID ID=\"A\", has no Area", "never returns, whatever it is asked");
  const auto findings = LintOf(R"(<S><SKU_GUID ID="A">
<Area ID="EU"><PARAMFirmware File="a" Ver="1" Type="P" Count="1"/></Area>
<Area ID="EU"/><Area/></SKU_GUID></S>)");
  EXPECT_EQ(2u, findings.size()) << Listing(findings);
  EXPECT_FINDING(findings, 3, kError, "Area ID=\"EU\" repeats the ID of line 2",
                 "param-firmware-by-sku A never returns this entry");
  EXPECT_FINDING(findings, 3, kError, "Area has no ID: param-firmware-by-sku A never finds it");
}

TEST(LintDeviceConfig, ModesPathsAndProductIdsAsTheLookupReadsThem) {
  const auto findings = LintOf(R"(<T><WwanDeviceConfigureIDTable>
<CustProductNamePathToUniqueSkuID CombineMode="Both">
<CustProductNamePath RegistryPath="SOFTWARE\Vendor ProductName"/>
<CustProductNamePath RegistryPath=",ProductName"/>
<CustProductNamePath RegistryPath="SOFTWARE\Vendor,"/>
<CustProductNamePath RegistryPath="SOFTWARE\Vendor, ProductName"/>
<CustProductNamePath/>
</CustProductNamePathToUniqueSkuID>
<UniqueSkuIDToWwanDeviceConfigureIDMappingTable>
<UniqueSkuID ProductID="X13" WwanDeviceConfigID="CFG-1"/>
<UniqueSkuID ProductID="x13" WwanDeviceConfigID="CFG-2"/>
<UniqueSkuID ProductID="T14"/>
</UniqueSkuIDToWwanDeviceConfigureIDMappingTable>
</WwanDeviceConfigureIDTable></T>)");
  EXPECT_EQ(8u, findings.size()) << Listing(findings);
  EXPECT_FINDING(findings, 2, kError, "CombineMode \"Both\" is neither Single nor Combine (compared without regard "
                 "to case): device-config-id finds nothing and logs \"getWwanDeviceConfigID not find.\"");
  EXPECT_FINDING(findings, 3, kError, "has no comma: device-config-id needs \"key path,value name\", skips it and "
                 "never reads a value for it");
  EXPECT_FINDING(findings, 4, kError, "RegistryPath=\",ProductName\" begins with its comma");
  EXPECT_FINDING(findings, 5, kWarning, "ends with its comma: the value name is empty, so device-config-id reads "
                 "the key's default value");
  EXPECT_FINDING(findings, 6, kWarning, "has blanks around its key path or value name");
  EXPECT_FINDING(findings, 7, kError, "CustProductNamePath has no RegistryPath: device-config-id skips it");
  EXPECT_FINDING(findings, 11, kError, "UniqueSkuID ProductID=\"x13\" repeats the ProductID of line 10 (\"X13\", "
                 "compared without regard to case): the first match wins, so device-config-id never returns this entry");
  EXPECT_FINDING(findings, 12, kWarning, "UniqueSkuID ProductID=\"T14\" has no WwanDeviceConfigID");
}

TEST(LintDeviceConfig, TheModeWordIgnoresCaseAndMayBeMissing) {
  const std::string table = "<T><WwanDeviceConfigureIDTable>\n<CustProductNamePathToUniqueSkuID %s>"
                            "<CustProductNamePath RegistryPath='SOFTWARE\\V,Name'/></CustProductNamePathToUniqueSkuID>"
                            "<UniqueSkuIDToWwanDeviceConfigureIDMappingTable/></WwanDeviceConfigureIDTable></T>";
  auto with = [&](const std::string& attribute) {
    std::string xml = table;
    xml.replace(xml.find("%s"), 2, attribute);
    return LintOf(xml);
  };
  EXPECT_EQ(0u, with("CombineMode='SINGLE'").size());
  EXPECT_EQ(0u, with("CombineMode='cOmBiNe'").size());
  EXPECT_FINDING(with("CombineMode='Single '"), 2, kError, "CombineMode \"Single \" is neither");
  EXPECT_FINDING(with(""), 2, kError, "has no CombineMode: device-config-id finds nothing");
}

TEST(LintDeviceConfig, PathsThatGiveNoProductNameOrTheSameOneTwice) {
  const std::string mapping = "<UniqueSkuIDToWwanDeviceConfigureIDMappingTable><UniqueSkuID ProductID='A_B' "
                              "WwanDeviceConfigID='C'/></UniqueSkuIDToWwanDeviceConfigureIDMappingTable>";
  auto lint = [&](const std::string& mode, const std::string& paths) {
    return LintOf("<T><WwanDeviceConfigureIDTable>\n<CustProductNamePathToUniqueSkuID CombineMode='" + mode + "'>\n" +
                  paths + "</CustProductNamePathToUniqueSkuID>" + mapping + "</WwanDeviceConfigureIDTable></T>");
  };
  EXPECT_FINDING(lint("Single", ""), 2, kError, "has no CustProductNamePath that names a value device-config-id can "
                 "find", "it reads no product name, so it finds nothing");
  const auto unusable = lint("Combine", "<CustProductNamePath RegistryPath='HKLM\\SOFTWARE\\V,Name'/>\n");
  EXPECT_FINDING(unusable, 2, kError, "so it finds only a ProductID that is empty");
  EXPECT_FINDING(unusable, 3, kError, "begins with the hive name \"HKLM\"");
  const std::string twice = "<CustProductNamePath RegistryPath='SOFTWARE\\V,Name'/>\n"
                            "<CustProductNamePath RegistryPath='software\\v,NAME'/>\n";
  const auto joined = lint("Combine", twice);
  ASSERT_EQ(1u, joined.size()) << Listing(joined);
  EXPECT_FINDING(joined, 2, kWarning, "names one value twice, at lines 3 and 4: in Combine mode device-config-id "
                 "joins it twice (\"A_A\"), so a ProductID matches only when those parts are equal");
  EXPECT_TRUE(lint("Single", twice).empty()) << "a second reading of one value changes nothing";
}

TEST(LintImageMapping, StandardsAcrossConfigurationsOfOneId) {
  const auto findings = LintOf(R"(<T><WwanDeviceConfigureIDToImageMappingTable>
<WwanDeviceConfigID ID="CFG-1">
  <Standard Value="310"><DEVFirmware File="a" Ver="1" Type="T" Count="12x"/></Standard>
  <Standard Value="460"/>
  <Standard Value=""><DEVFirmware File="a" Ver="1" Type="T" Count="1"/></Standard>
</WwanDeviceConfigID>
<WwanDeviceConfigID ID="CFG-1">
  <Standard Value="310"><DEVFirmware File="b" Ver="1" Type="T" Count="1"/></Standard>
  <Standard Value="262"><DEVFirmware File="c" Ver="1" Type="T" Count="99999999999"/></Standard>
</WwanDeviceConfigID>
<WwanDeviceConfigID ID="CFG-2">
  <Standard Value="310"><DEVFirmware File="d" Ver="1" Type="T" Count="007"/></Standard>
</WwanDeviceConfigID>
</WwanDeviceConfigureIDToImageMappingTable></T>)");
  EXPECT_EQ(6u, findings.size()) << Listing(findings);
  EXPECT_FINDING(findings, 3, kWarning, "Count \"12x\" of DEVFirmware of Standard Value=\"310\" reads as 12");
  EXPECT_FINDING(findings, 4, kError, "Standard Value=\"460\" has no DEVFirmware: cfg-pk-info CFG-1 460 fails and "
                 "logs \"getCfgPkInfo not find map.\"");
  EXPECT_FINDING(findings, 5, kError, "has an empty Value", "refuses an empty key");
  EXPECT_FINDING(findings, 7, kWarning, "WwanDeviceConfigID ID=\"CFG-1\" repeats the ID of line 2: cfg-pk-info "
                 "searches its Standard entries after those of the first");
  EXPECT_FINDING(findings, 8, kError, "Standard Value=\"310\" repeats the Value of line 3",
                 "cfg-pk-info CFG-1 never returns this entry");
  EXPECT_FINDING(findings, 9, kWarning, "Count \"99999999999\"", "reads as 4294967295");
}

TEST(LintEsim, TheSwitchAndTheBlackLists) {
  EXPECT_FINDING(LintOf("<E>\n<TableEnableFlag FlagValue='yes'/><SKU_BlackList/><IMSI_BlackList/></E>"), 2, kError,
                 "FlagValue \"yes\" is neither True nor False (compared without regard to case): esim-disable-type "
                 "fails (0xFFFFFFFF) and logs \"Main disable error.\"");
  EXPECT_FINDING(LintOf("<E>\n<TableEnableFlag/><SKU_BlackList/><IMSI_BlackList/></E>"), 2, kError,
                 "no FlagValue is neither True nor False");
  EXPECT_FINDING(LintOf("<E>\n<TableEnableFlag FlagValue='FALSE'/><SKU_BlackList/><IMSI_BlackList/></E>"), 2,
                 kWarning, "switches the table off",
                 "logs \"FlagValue is false,not need to set esim disable.\"");
  const auto findings = LintOf(R"(<E><TableEnableFlag FlagValue="TRUE"/>
<SKU_BlackList><SKU SKUValue="X13"/><SKU SKUValue="x13"/><SKU/></SKU_BlackList>
<IMSI_BlackList><MCCMNC MCCMNCValue="46000"/>
<MCCMNC MCCMNCValue="46000"/><MCCMNC MCCMNCValue="4600A"/><MCCMNC MCCMNCValue="4600a"/></IMSI_BlackList></E>)");
  EXPECT_EQ(4u, findings.size()) << Listing(findings);
  EXPECT_FINDING(findings, 2, kWarning, "SKU SKUValue=\"x13\" repeats the SKUValue of line 2 (\"X13\", compared "
                 "without regard to case): esim-disable-type --sku stops at the first, so this one changes nothing");
  EXPECT_FINDING(findings, 2, kError, "SKU has no SKUValue: esim-disable-type --sku never finds it");
  EXPECT_FINDING(findings, 4, kWarning, "MCCMNC MCCMNCValue=\"46000\" repeats the MCCMNCValue of line 3");
  EXPECT_FINDING(findings, 4, kWarning, "MCCMNCValue=\"4600a\" differs from \"4600A\" (line 4) only in case");
}

class LintRegionLookups : public dorvane::testing::LogFixture {};

TEST_F(LintRegionLookups, RepeatsEmptyMccsAndDefaultRows) {
  const std::string xml = R"(<R><SelectionRule>
<Region mcc="default" Regulatory="FCC"/>
<Region mcc="460" Regulatory="SRRC"/>
<Region mcc="460" Regulatory="OTHER"/>
<Region mcc="" Regulatory="NONE"/>
<Region mcc="default" Regulatory="ETSI"/>
<Region mcc="262"/>
</SelectionRule></R>)";
  const auto findings = LintOf(xml);
  EXPECT_EQ(4u, findings.size()) << Listing(findings);
  EXPECT_FINDING(findings, 2, kWarning, "Region mcc=\"default\" is not the last of its kind (line 6 is)");
  EXPECT_FINDING(findings, 4, kError, "Region mcc=\"460\" repeats the mcc of line 3",
                 "regulatory-by-mcc never returns this entry");
  EXPECT_FINDING(findings, 5, kError, "Region mcc=\"\" has an empty mcc");
  EXPECT_FINDING(findings, 7, kWarning, "Region mcc=\"262\" has no Regulatory");
  const std::string path = WriteTable(xml);
  std::string region;
  EXPECT_EQ(kRegionDefault, getRegulatoryByMcc(path, "999", region));
  EXPECT_EQ("ETSI", region) << "the last default row";
  EXPECT_EQ(kRegionExact, getRegulatoryByMcc(path, "460", region));
  EXPECT_EQ("SRRC", region) << "never the repeated row";
  EXPECT_EQ(0u, LintOf("<R><SelectionRule><Region mcc='460' Regulatory='x'/></SelectionRule></R>").size())
      << "a region table needs no default row";
}

TEST(LintScatter, PartitionsWithoutAFlagAndFlagsOtherThanTrueOrFalse) {
  const auto findings = LintOf(R"(<root><general/><storage_type>
<partition_index><is_download>true</is_download></partition_index>
<partition_index><name>boot</name></partition_index>
<partition_index><is_download>TRUE</is_download></partition_index>
<partition_index><is_download> false</is_download></partition_index>
<partition_index><is_download/></partition_index>
<other><is_download>true</is_download></other>
</storage_type></root>)");
  EXPECT_EQ(5u, findings.size()) << Listing(findings);
  EXPECT_FINDING(findings, 3, kWarning, "partition_index has no is_download: update-scatter leaves it as it is");
  EXPECT_FINDING(findings, 4, kWarning, "is_download reads \"TRUE\", neither true nor false: update-scatter looks "
                 "for \";TRUE;\" in its selection, and sets the flag to false when it is not there");
  EXPECT_FINDING(findings, 5, kWarning, "is_download reads \" false\"");
  EXPECT_FINDING(findings, 6, kWarning, "is_download reads \"\"");
  EXPECT_FINDING(findings, 7, kWarning, "other after the first partition_index (line 2) is walked as an entry by "
                 "update-scatter");
}

}  // namespace
}  // namespace dorvane::lint
