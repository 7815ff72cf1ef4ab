// The table checker's own behaviour: how a kind is told, files it cannot
// read, the exit status, and the exact findings of small tables of every kind.
// Whether the findings are true of the lookups is held against the lookups
// themselves by lint_differential_test.cpp.
#include "tools/dorvanectl/lint.h"

#include <gtest/gtest.h>

#include <random>

#include "support/log_reader.h"
#include "tests/dorvanectl/table_generator.h"

namespace dorvane::lint {
namespace {

// Every finding as "line: severity: message", with " [unused]" on those that
// say an element is never used.
std::string Listing(const std::vector<Finding>& findings) {
  std::string text;
  for (const Finding& f : findings) text += FormatLine("t.xml", f).substr(6) + (f.unused ? " [unused]" : "") + "\n";
  return text;
}

// True when `actual` is `expected`, in which each "..." stands for any text.
bool Like(const std::string& expected, const std::string& actual) {
  size_t from = 0, at = 0;
  for (size_t dots; (dots = expected.find("...", from)) != std::string::npos; from = dots + 3) {
    const std::string part = expected.substr(from, dots - from);
    at = from == 0 ? (actual.compare(0, part.size(), part) == 0 ? 0 : std::string::npos) : actual.find(part, at);
    if (at == std::string::npos) return false;
    at += part.size();
  }
  const size_t tail = expected.size() - from;
  return from == 0 ? expected == actual : actual.size() >= at + tail && actual.compare(actual.size() - tail, tail, expected, from) == 0;
}

// Tables of every kind (as the differential test makes them: awkward, but
// whole) cut, doubled and sprinkled with stray bytes still give findings of
// one line each, on lines of the table. Clean tables are the documentation's,
// which its test lints.
TEST(LintKinds, MangledTablesGiveOneLineFindings) {
  std::mt19937 random(7);
  const char pieces[][12] = {"<", ">", "/>", "\"", "='", "&amp;", "&#0;", " ", "\n", "\x80\xFF", "default", ","};
  for (Kind kind : AllKinds()) {
    SCOPED_TRACE(KindName(kind));
    const std::string table = testing::GenerateTable(kind, random, "SOFTWARE\\Lint").xml;
    for (int round = 0; round < 60; ++round) {
      std::string xml = table;
      for (int edits = 1 + static_cast<int>(random() % 4); edits > 0; --edits) {
        const size_t at = random() % (xml.size() + 1);
        switch (random() % 4) {
          case 0: xml.erase(at, random() % 12); break;
          case 1: xml.insert(at, pieces[random() % (sizeof pieces / sizeof pieces[0])]); break;
          case 2: xml.insert(at, xml.substr(random() % (xml.size() + 1), random() % 80)); break;
          default: if (at < xml.size()) xml[at] = static_cast<char>(random() % 256);
        }
      }
      for (const Finding& f : LintText(xml, round % 2 ? std::optional<Kind>(kind) : std::nullopt, "m.xml").findings) {
        ASSERT_GE(f.line, 1) << xml;
        ASSERT_EQ(std::string::npos, f.message.find_first_of("\r\n")) << xml;
      }
    }
  }
}

TEST(LintKinds, NamesAndRecognition) {
  for (Kind kind : AllKinds()) {
    EXPECT_EQ(kind, KindByName(KindName(kind)));
    EXPECT_NE(std::string::npos, KindNames().find(KindName(kind)));
  }
  EXPECT_FALSE(KindByName("Carrier-Rules").has_value()) << "names are exact";
  const struct {
    const char* xml;
    const char* file;
    std::vector<Kind> kinds;
  } cases[] = {
      // A CarrierList is told by its first entry that tells, then by the file name.
      {"<F><CarrierList><Note/><CustModel id='X'/><Carrier id='T'><APFirmware/></Carrier></CarrierList></F>", "t.xml", {Kind::kCustomerModel}},
      {"<F><CarrierList><Carrier id='T'/><Carrier id='U'><OPFirmware/></Carrier><CustModel/></CarrierList></F>", "t.xml", {Kind::kCarrierFirmware}},
      {"<F><CarrierList><Carrier id='T'><CustPack File='x'/></Carrier></CarrierList></F>", "t.xml", {Kind::kPackageInfo}},
      {"<F><CarrierList><Carrier id='T'><CustPack file='x'/></Carrier></CarrierList></F>", "t.xml", {Kind::kFwPackageInfo}},
      {"<F><CarrierList><Carrier id='T'/></CarrierList></F>", "t.xml", {}},
      {"<F><CarrierList><Carrier id='T'/></CarrierList></F>", "C:\\fw\\PACKAGE_INFO.xml", {Kind::kPackageInfo}},
      {"<F><CarrierList/></F>", "x/FwPackageInfo.xml", {Kind::kFwPackageInfo}},
      {"<root><other/></root>", "scatter.xml", {Kind::kScatter}},
      {"<R><SelectionRule><Item mcc='1'/></SelectionRule><SwitchingRule/></R>", "t.xml", {Kind::kCarrierRules}},
      {"<R><SelectionRule><Region mcc='1'/></SelectionRule></R>", "t.xml", {Kind::kRegion}},
      {"<R><SelectionRule><Item mcc='1'/></SelectionRule></R>", "t.xml", {Kind::kSelectionRules}},
      {"<R><SelectionRule/></R>", "t.xml", {}},
      {"<E><IMSI_BlackList/></E>", "t.xml", {Kind::kEsim}},
      {"<S><storage_type/></S>", "t.xml", {Kind::kScatter}},
      {"<S><SKU_GUID/></S>", "t.xml", {Kind::kSku}},
      {"<T><WwanDeviceConfigureIDTable/></T>", "t.xml", {Kind::kDeviceConfig}},
      {"<T><WwanDeviceConfigureIDToImageMappingTable/></T>", "t.xml", {Kind::kImageMapping}},
      {"<P><PackageType/><CarrierList><Carrier><Firmware/></Carrier></CarrierList></P>", "t.xml", {Kind::kFwPackageInfo}},
      {"<R><SwitchingRule/><SKU_GUID/></R>", "t.xml", {Kind::kCarrierRules, Kind::kSku}},
  };
  for (const auto& c : cases) {
    tinyxml2::XMLDocument doc;
    ASSERT_EQ(tinyxml2::XML_SUCCESS, doc.Parse(c.xml));
    EXPECT_EQ(c.kinds, Recognize(doc.RootElement(), c.file)) << c.xml << " " << c.file;
  }
}

// ASCII text in `unit` bytes a character, its byte at `at`, the others NUL.
std::string Wide(const std::string& text, size_t unit, size_t at) {
  std::string bytes;
  for (char c : text) bytes += std::string(at, '\0') + c + std::string(unit - at - 1, '\0');
  return bytes;
}

TEST(LintFiles, EncodingsTheLookupsCannotRead) {
  const std::string xml = "<R><SelectionRule/></R>", z4("\0\0", 2);
  const std::pair<std::string, std::string> cases[] = {
      {"\xFF\xFE" + Wide(xml, 2, 0), "UTF-16 (little-endian, by its byte-order mark)"},
      {"\xFE\xFF" + Wide(xml, 2, 1), "UTF-16 (big-endian, by its byte-order mark)"},
      {"\xFF\xFE" + z4 + Wide(xml, 4, 0), "UTF-32 (little-endian, by its byte-order mark)"},
      {z4 + "\xFE\xFF" + Wide(xml, 4, 3), "UTF-32 (big-endian, by its byte-order mark)"},
      {Wide(xml, 2, 0), "UTF-16 (little-endian, by the NUL bytes in its first characters)"},
      {Wide(xml, 2, 1), "UTF-16 (big-endian, by the NUL bytes in its first characters)"},
      {Wide(xml, 4, 0), "UTF-32 (little-endian, by the NUL bytes in its first characters)"},
      {Wide(xml, 4, 3), "UTF-32 (big-endian, by the NUL bytes in its first characters)"},
      {Wide("<R", 2, 0), "UTF-16 (little-endian, by the NUL bytes in its first characters)"},
      // 8-bit text, with or without UTF-8's mark; too little to tell; NUL
      // bytes that are not in every character.
      {xml, ""}, {"\xEF\xBB\xBF" + xml, ""}, {"<R>\xE4\xB8\xAD</R>", ""}, {"", ""}, {Wide("<", 2, 0), ""},
      {std::string("<R\0>\0", 5), ""}, {Wide("<R", 2, 0).substr(0, 3), ""},
  };
  for (const auto& [bytes, encoding] : cases) EXPECT_EQ(encoding, ForeignEncoding(bytes)) << ::testing::PrintToString(bytes);
}

class LintFileTest : public dorvane::testing::LogFixture {};

// What keeps a file from being checked at all: the problem, and status 2.
TEST_F(LintFileTest, Problems) {
  const std::string region = R"(<R><SelectionRule><Region mcc="460" Regulatory="SRRC"/></SelectionRule></R>)";
  const std::string broken = "<Rules>\n  <SwitchingRule>\n  </Rules>\n";
  tinyxml2::XMLDocument doc;
  doc.Parse(broken.c_str());
  const std::string parse_error = doc.ErrorStr();
  ASSERT_NE(std::string::npos, parse_error.find("Line number=2")) << parse_error;
  // Each problem, in full; "..." stands for any text.
  const std::pair<FileResult, std::string> cases[] = {
      {LintFile(In("missing.xml"), std::nullopt), "cannot read it (XML_ERROR_FILE_NOT_FOUND)"},
      {LintFile(dir_, Kind::kRegion), "cannot read it..."},
      {LintText(broken, std::nullopt, "b.xml"), "the table does not load (" + parse_error + "): every lookup of it fails"},
      {LintText(broken, Kind::kCarrierRules, "b.xml"), "the table does not load (" + parse_error + "): carrier-id-by-mccmnc "
       "fails and logs \"load xml error.\"; carrier-id-by-mcc, carrier-id-by-iccid and param-firmware-by-mcc fail silently"},
      {LintText("", Kind::kEsim, "e.xml"), "the table does not load (Error=XML_ERROR_EMPTY_DOCUMENT ErrorID=13 (0xd) "
       "Line number=0): esim-disable-type fails (0xFFFFFFFF) and logs \"Esim disable xml load faild.\""},
      {LintText("<Unknown><Thing/></Unknown>", std::nullopt, "u.xml"), "cannot tell what table this is...--kind (" + KindNames() + ")..."},
      {LintText("<R><SwitchingRule/><SKU_GUID/></R>", std::nullopt, "u.xml"), "this could be a carrier-rules or sku table..."},
      {LintFile(WriteTable("\xFF\xFE" + Wide(region, 2, 0)), Kind::kRegion),
       "it is UTF-16 (little-endian, by its byte-order mark); the lookups read only 8-bit text (ASCII or UTF-8), so the "
       "table does not load (Error=XML_...): regulatory-by-mcc fails (0) and logs \"RegionMappingTable load faild.\""},
      {LintFile(WriteTable(Wide(region, 2, 1)), std::nullopt), "it is UTF-16 (big-endian, by the NUL bytes..."},
  };
  for (const auto& [result, problem] : cases) {
    EXPECT_TRUE(Like(problem, result.problem)) << problem << "\n" << result.problem;
    EXPECT_EQ(2, result.Status(Severity::kError)) << result.problem;
    EXPECT_TRUE(result.findings.empty());
  }
  // A file is read with its blanks, past UTF-8's mark.
  const FileResult read = LintFile(WriteTable("\xEF\xBB\xBF<R><SelectionRule><Region mcc='460 ' Regulatory='x'/></SelectionRule></R>"), std::nullopt);
  EXPECT_EQ(Kind::kRegion, read.kind);
  EXPECT_EQ("1: warning: Region mcc=\"460 \" ends with a blank: regulatory-by-mcc matches it only when the key ends "
            "with the same blank\n", Listing(read.findings));
}

// Tables wrapped around their parts: a rules table's MCC-MNC list, ICCID ranges.
std::string Mccmnc(const std::string& items) {
  return "<Rules><SwitchingRule><SelectionRule><MCCTable><Item mcc='1'>a</Item></MCCTable>"
         "<ICCIDTable/>\n<MCCMNCTable>\n" + items + "</MCCMNCTable></SelectionRule></SwitchingRule></Rules>";
}
std::string Ranges(std::initializer_list<std::pair<const char*, const char*>> bounds) {
  std::string xml = "<Rules><SwitchingRule><SelectionRule><MCCMNCTable/><MCCTable/>\n<ICCIDTable>\n";
  for (const auto& [min, max] : bounds) xml += std::string("<Range min=\"") + min + "\" max=\"" + max + "\">C</Range>\n";
  return xml + "</ICCIDTable></SelectionRule></SwitchingRule></Rules>";
}

struct Case {
  std::optional<Kind> kind;  // none: as recognised
  std::string xml;
  // Every finding, in order: "line: severity: message [unused]"; "..." in
  // one stands for a part of a long message.
  std::vector<std::string> findings;
};

const Case kCases[] = {
    {{}, "<Rules><SelectionRule><Item mcc='310'>US</Item></SelectionRule></Rules>", {}},
    // The walk of a list, shown on the MCC-MNC list: a key met before, blanks
    // around a key, keys differing in case only, elements of another name.
    {{}, Mccmnc("<Item mccmnc='310260'>TMO</Item>\n<Item mccmnc=' 310260'>a</Item>\n<Item mccmnc='310410\t'>b</Item>\n"
                "<Item mccmnc='abc'>c</Item>\n<Item mccmnc='ABC'>d</Item>\n<Item mccmnc='310260'>second</Item>\n"),
     {"4: warning: Item mccmnc=\" 310260\" begins with a blank: carrier-id-by-mccmnc matches it only when the key begins with the same blank",
      "5: warning: Item mccmnc=\"310410\\t\" ends with a blank: carrier-id-by-mccmnc matches it only when the key ends with the same blank",
      "7: warning: Item mccmnc=\"ABC\" differs from \"abc\" (line 6) only in case: carrier-id-by-mccmnc compares keys exactly, so they are two keys",
      "8: error: Item mccmnc=\"310260\" repeats the mccmnc of line 3: the first match wins, so carrier-id-by-mccmnc never returns this entry [unused]"}},
    {{}, Mccmnc("<Note>before the first: not walked</Note>\n<Item mccmnc='1'>a</Item>\n<Stray mccmnc='2'>b</Stray>\n"
                "<Comment>no key</Comment>\n<Item mccmnc='2'>c</Item>\n<Item>a</Item>\n<Item mccmnc=''>b</Item>\n"),
     {"5: warning: Stray after the first Item (line 4) is walked as an entry by carrier-id-by-mccmnc, which finds it under mccmnc=\"2\"",
      "6: warning: Comment after the first Item (line 4) is walked as an entry by carrier-id-by-mccmnc",
      "7: error: Item mccmnc=\"2\" repeats the mccmnc of line 5: the first match wins, so carrier-id-by-mccmnc never returns this entry [unused]",
      "8: error: Item has no mccmnc: carrier-id-by-mccmnc never finds it [unused]"}},
    {{}, Mccmnc("<Item mccmnc='1'>  TMO\n</Item>\n<Item mccmnc='2'/>\n<Item mccmnc='3'><b/>ATT</Item>\n"
                "<Item mccmnc='4'><!-- c -->ATT</Item>\n"),
     {"3: warning: the text \"  TMO\\n\" of Item mccmnc=\"1\" begins and ends with a blank: carrier-id-by-mccmnc answers it with its blanks",
      "5: warning: Item mccmnc=\"2\" has no text: carrier-id-by-mccmnc answers the empty text for it",
      "6: warning: Item mccmnc=\"3\" has no text: carrier-id-by-mccmnc answers the empty text for it"}},
    // Findings stay one line whatever the table holds.
    {{}, "<R><SelectionRule><Region mcc=\"46\n0\" Regulatory=\"a\"/>\n<Region mcc=\"46\n0\" Regulatory=\"b\"/>\n"
         "<Region mcc='&quot;\\&#1;' Regulatory='c'/><Region mcc='&quot;\\&#1;' Regulatory='d'/></SelectionRule></R>",
     {"3: error: Region mcc=\"46\\n0\" repeats the mcc of line 1: the first match wins, so regulatory-by-mcc never returns this entry [unused]",
      "5: error: Region mcc=\"\\\"\\\\\\x01\" repeats the mcc of line 5: the first match wins, so regulatory-by-mcc never returns this entry [unused]"}},
    // Elements the lookups never reach.
    {{}, "<R><SwitchingRule><SelectionRule><MCCTable/><ICCIDTable/>\n<MCCMNCTable>\n<item mccmnc='1'>a</item></MCCMNCTable>"
         "</SelectionRule></SwitchingRule></R>", {"3: error: item mccmnc=\"1\" is never walked (the lookups follow Item, and compare element names ... none, so it never finds this entry [unused]"}},
    {{}, "<R><SwitchingRule><SelectionRule><MCCTable/><ICCIDTable/>\n<MCCMNCTable xmlns:r='urn:r'>\n<r:Item mccmnc='1'>a</r:Item>\n"
         "<Item mccmnc='2'>b</Item></MCCMNCTable></SelectionRule></SwitchingRule></R>", {"3: error: r:Item mccmnc=\"1\" before the first Item is never walked (the lookups follow Item, ... 4), so it never finds this entry [unused]"}},
    {{}, "<R><SwitchingRule><SelectionRule><MCCTable/><ICCIDTable/>\n<MCCMNCTable/>\n<MCCMNCTable><Item mccmnc='1'>a</Item>"
         "</MCCMNCTable></SelectionRule></SwitchingRule></R>", {"3: error: this MCCMNCTable is never read: the lookups read only the first MCCMNCTable of SelectionRule (line 2) [unused]"}},
    {{}, "<R><SwitchingRule><SelectionRule>\n<MccMncTable><Item mccmnc='1'>a</Item></MccMncTable><MCCTable/><ICCIDTable/>"
         "</SelectionRule></SwitchingRule></R>",
     {"1: note: SelectionRule has no MCCMNCTable: carrier-id-by-mccmnc fails and logs \"MCCMNCTable node is null.\"",
      "2: error: MccMncTable is never read (the lookups follow MCCMNCTable, and compare element names exactly) [unused]"}},
    {{}, "<F><CarrierList>\n<CustModel id='X'/>\n<Carrier id='A'><APFirmware File='a' Ver='1' Type='AP' Count='1'/>"
         "<MDFirmware File='m' Ver='1' Type='MD' Count='1'/><OPFirmware File='o' Ver='1' Type='OP' Count='1'/></Carrier></CarrierList></F>",
     {"2: warning: CustModel id=\"X\" has no OEMFirmware: oem-firmware-by-model gives empty texts for its File, Ver, Type and Count",
      "3: warning: Carrier after the first CustModel (line 2) is walked as an entry by oem-firmware-by-model, which finds it under id=\"A\""}},
    {Kind::kScatter, "<S><general/><storage_type><partition_index><is_download>true</is_download>\n"
                     "<is_download>false</is_download></partition_index></storage_type></S>", {"2: error: this is_download is never read: the lookups read only the first is_download of partition_index (line 1) [unused]"}},
    // A missing fixed element: what fails, what it logs.
    {Kind::kCarrierRules, "<R>\n<Other/></R>", {"1: error: R (the root) has no SwitchingRule: carrier-id-by-mccmnc fails and logs ... and param-firmware-by-mcc fail silently"}},
    {Kind::kCarrierRules, "<R>\n<SwitchingRule/></R>", {"2: error: SwitchingRule has no SelectionRule: carrier-id-by-mccmnc fails and logs ... and carrier-id-by-iccid fail silently"}},
    {Kind::kCarrierRules, "<R><SwitchingRule>\n<SelectionRule><MCCMNCTable/></SelectionRule></SwitchingRule></R>",
     {"2: note: SelectionRule has no MCCTable: carrier-id-by-mcc fails silently",
      "2: note: SelectionRule has no ICCIDTable: carrier-id-by-iccid fails silently"}},
    {Kind::kCarrierFirmware, "<F/>", {"1: error: F (the root) has no CarrierList: carrier-firmware fails silently"}},
    {Kind::kPackageInfo, "<P/>", {"1: error: P (the root) has no CarrierList: package-info-firmware fails and logs \"CarrierList failed\""}},
    {Kind::kFwPackageInfo, "<P><PackageVer>1</PackageVer><CarrierList/></P>", {"1: error: P (the root) has no PackageType: fw-package-info fails silently"}},
    {Kind::kSku, "<S><Area/></S>", {"1: error: S (the root) has no SKU_GUID: param-firmware-by-sku fails silently"}},
    {Kind::kDeviceConfig, "<T/>", {"1: error: T (the root) has no WwanDeviceConfigureIDTable: device-config-id fails and logs \"WwanDeviceConfigureidTable xml item error.\""}},
    {Kind::kDeviceConfig, "<T>\n<WwanDeviceConfigureIDTable/></T>",
     {"2: error: WwanDeviceConfigureIDTable has no UniqueSkuIDToWwanDeviceConfigureIDMappingTable: ... error.\"",
      "2: error: WwanDeviceConfigureIDTable has no CustProductNamePathToUniqueSkuID: device-config-id would fail here too, once the mapping table is there"}},
    {Kind::kDeviceConfig, "<T>\n<WwanDeviceConfigureIDTable><CustProductNamePathToUniqueSkuID CombineMode='Single'/>"
                          "</WwanDeviceConfigureIDTable></T>", {"2: error: WwanDeviceConfigureIDTable has no UniqueSkuIDToWwanDeviceConfigureIDMappingTable: ... error.\""}},
    {Kind::kImageMapping, "<T/>", {"1: error: T (the root) has no WwanDeviceConfigureIDToImageMappingTable: cfg-pk-info fails and logs \"getCfgPkInfo not find map.\""}},
    {Kind::kEsim, "<E/>", {"1: error: E (the root) has no TableEnableFlag: esim-disable-type fails (0xFFFFFFFF) and logs \"TableEnableFlag xml item error.\""}},
    {Kind::kRegion, "<Unknown/>", {"1: error: Unknown (the root) has no SelectionRule: regulatory-by-mcc fails (0) and logs \"SelectionRule xml item error.\""}},
    {Kind::kScatter, "<S/>",
     {"1: error: S (the root) has no general: update-scatter fails and leaves the file as it is",
      "1: error: S (the root) has no storage_type: update-scatter fails and leaves the file as it is"}},
    {Kind::kSelectionRules, "<R/>", {"1: error: R (the root) has no SelectionRule: selection-rule-by-mcc reads nothing"}},
    {Kind::kPackageInfo, "<?xml version=\"1.0\"?>\n<!-- nothing else -->\n", {"1: error: the document has no root element: package-info-firmware fails and logs \"RootElement failed\""}},
    {Kind::kImageMapping, "<?xml version=\"1.0\"?>\n<!-- nothing else -->\n", {"1: error: the document has no root element: cfg-pk-info fails and logs \"RootElement failed:\" and \"getCfgPkInfo not find map.\""}},
    {{}, "<?xml version=\"1.0\"?>\n<!-- nothing else -->\n", {"1: error: the document has no root element: every lookup of it fails"}},
    // Each kind's own checks.
    {{}, R"(<R><SwitchingRule>
<Registered mcc="310"><PARAMFirmware File="a" Ver="1" Type="P"/></Registered>
<SelectionRule><MCCMNCTable/><MCCTable/><ICCIDTable/></SelectionRule>
<Registered mcc="310"><PARAMFirmware File="b" Ver="1" Type="P" Count="1"/></Registered>
<Registered mcc="460"/>
</SwitchingRule>
<SelectionRule><Item mcc="1">a</Item><Item mcc="1">b</Item></SelectionRule></R>)",
     {"2: warning: PARAMFirmware of Registered mcc=\"310\" has no Count: param-firmware-by-mcc gives the empty text for it",
      "3: warning: SelectionRule after the first Registered (line 2) is walked as an entry by param-firmware-by-mcc",
      "4: error: Registered mcc=\"310\" repeats the mcc of line 2: the first match wins, so param-firmware-by-mcc never returns this entry [unused]",
      "5: warning: Registered mcc=\"460\" has no PARAMFirmware: param-firmware-by-mcc gives empty texts for its File, Ver, Type and Count"}},
    {{}, R"(<F><CarrierList>
<Carrier id="TMO"><APFirmware File="ap" Ver="1" Type="AP" Count="1"/><MDFirmware file="md" Ver="2" Type="MD" Count="1"/></Carrier>
<CustModel id="X13"><OEMFirmware File="oem" Ver="5" Type="OEM" Count="1"/></CustModel>
</CarrierList></F>)",
     {"2: warning: MDFirmware of Carrier id=\"TMO\" has no File: carrier-firmware gives the empty text ... names are compared with their case)",
      "2: warning: Carrier id=\"TMO\" has no OPFirmware: carrier-firmware gives empty texts for its File, Ver, Type and Count",
      "3: warning: CustModel after the first Carrier (line 2) is walked as an entry by carrier-firmware, which finds it under id=\"X13\""}},
    {{}, R"(<F><CarrierList>
<CustModel id="X13"><OEMFirmware File="o" Ver="1" Type="OEM" Count="1"/>
  <Switch_table File="sw.xml"/></CustModel>
<CustModel id=""><OEMFirmware File="o" Ver="1" Type="OEM" Count="1"><Switch_table/></OEMFirmware></CustModel>
<CustModel id="T14"><OEMFirmware File="o" Ver="1" Type="OEM" Count="1"><Switch_table Name="x"/></OEMFirmware></CustModel>
</CarrierList></F>)",
     {"3: warning: Switch_table of CustModel id=\"X13\" stands beside OEMFirmware, not inside it: ... reads only a Switch_table inside OEMFirmware",
      "4: error: CustModel id=\"\" has an empty id: oem-firmware-by-model refuses an empty key, so it never finds this entry [unused]",
      "5: warning: Switch_table of CustModel id=\"T14\" has no File: oem-firmware-by-model gives the empty text for it"}},
    {{}, R"(<P><CarrierList>
<Carrier id="default"><Firmware File="first" Ver="1"/><CustPack File="p" Ver="1"/></Carrier>
<Carrier id="310"><Firmware File="310" Ver="1"/></Carrier>
<Carrier id="Default"><Firmware File="cased" Ver="1"/><CustPack File="p" Ver="1"/></Carrier>
<Carrier id="default"><Firmware File="last" Ver="1"/><CustPack File="p" Ver="1"/></Carrier>
</CarrierList></P>)",
     {"2: warning: Carrier id=\"default\" is not the last of its kind (line 5 is): ... one only when asked for \"default\" itself",
      "3: warning: Carrier id=\"310\" has no CustPack: package-info-firmware gives empty texts for its File and Ver",
      "4: warning: Carrier id=\"Default\" is not a fall-back row: package-info-firmware falls back only to id=\"default\", in lower case"}},
    {{}, "<P>\n<CarrierList><Carrier id=\"310\"><Firmware File=\"a\" Ver=\"1\"/><CustPack File='c' Ver='1'/></Carrier></CarrierList></P>", {"2: warning: CarrierList has no Carrier id=\"default\": package-info-firmware answers empty texts, and true, for every key it does not hold"}},
    {{}, R"(<Pkg><PackageVer> 1.2 </PackageVer><PackageType/>
<CarrierList><Carrier id="TMO"><FWImage File="fw.bin" ver="1"/><CustPack file="c" ver="1"/></Carrier>
<Extra/></CarrierList></Pkg>)",
     {"1: warning: the text \" 1.2 \" of PackageVer begins and ends with a blank: fw-package-info answers it with its blanks",
      "1: warning: PackageType has no text: fw-package-info answers the empty text for it",
      "2: warning: Carrier id=\"TMO\" has no ver: fw-package-info gives the empty text for it",
      "2: warning: FWImage of Carrier id=\"TMO\" has no file: fw-package-info gives the empty text for ... names are compared with their case)",
      "3: warning: Extra after the first Carrier (line 2) is walked as an entry by fw-package-info"}},
    {{}, R"(<S>
<SKU_GUID ID="A"><Area ID="EU"><PARAMFirmware File="a" Ver="1" Type="P" Count="1"/></Area>
<Area ID="EU"/><Area/><Area ID=" US"/></SKU_GUID>
<SKU_GUID ID="B"><Area ID="EU"/><Area ID="US"/></SKU_GUID>
<SKU_GUID ID="A"><Area ID="EU"/><Area ID="CN"/></SKU_GUID>
<SKU_GUID ID="A"><Area ID="EU"/></SKU_GUID>
<SKU_GUID/>
</S>)",
     {"3: error: Area ID=\"EU\" repeats the ID of line 2: the first match wins, so param-firmware-by-sku A never returns this entry [unused]",
      "3: error: Area has no ID: param-firmware-by-sku A never finds it [unused]",
      "3: error: Area ID=\" US\" begins with a blank: param-firmware-by-sku A matches it only when the ... and never returns for the key without it",
      "3: warning: Area ID=\" US\" has no PARAMFirmware: param-firmware-by-sku A gives empty texts for its File, Ver, Type and Count",
      "4: error: SKU_GUID ID=\"B\" is not the table's first SKU_GUID (line 2), the only one ... for SKU \"B\", areas \"EU\" and \"US\" [unused]",
      "5: error: SKU_GUID ID=\"A\" repeats the first SKU_GUID's ID (line 2), whose areas alone are ... never returns for its area \"CN\" [unused]",
      "6: error: SKU_GUID ID=\"A\" repeats the first SKU_GUID's ID (line 2): its areas are never read; the first SKU_GUID's are returned [unused]",
      "7: error: SKU_GUID without ID after the first (line 2) is never read [unused]"}},
    {Kind::kSku, "<S>\n<SKU_GUID><Area ID='EU'/></SKU_GUID></S>", {"2: error: the first SKU_GUID has no ID: param-firmware-by-sku reads only the first SKU_GUID, so it never returns, whatever it is asked"}},
    {{}, "<S>\n<SKU_GUID ID='A'><Note/></SKU_GUID></S>", {"2: error: the first SKU_GUID, SKU_GUID ID=\"A\", has no Area: param-firmware-by-sku reads only ... so it never returns, whatever it is asked"}},
    {{}, "<S>\n<SKU_GUID ID='A '><Area ID='EU'><PARAMFirmware File='a' Ver='1' Type='P' Count='1'/></Area></SKU_GUID></S>", {"2: error: the ID of the first SKU_GUID, \"A \", has a blank at an end: param-firmware-by-sku ... and never returns for the SKU without it"}},
    {{}, R"(<T><WwanDeviceConfigureIDTable>
<CustProductNamePathToUniqueSkuID CombineMode="Both">
<CustProductNamePath RegistryPath="SOFTWARE\Vendor ProductName"/>
<CustProductNamePath RegistryPath=",ProductName"/>
<CustProductNamePath RegistryPath="SOFTWARE\Vendor,"/>
<CustProductNamePath RegistryPath="SOFTWARE\Vendor, ProductName"/>
<CustProductNamePath/>
<CustProductNamePath RegistryPath="HKEY_LOCAL_MACHINE\SOFTWARE\V,Name"/>
</CustProductNamePathToUniqueSkuID>
<UniqueSkuIDToWwanDeviceConfigureIDMappingTable>
<UniqueSkuID ProductID="X13" WwanDeviceConfigID="CFG-1"/>
<UniqueSkuID ProductID="x13" WwanDeviceConfigID="CFG-2"/>
<UniqueSkuID ProductID="T14"/>
</UniqueSkuIDToWwanDeviceConfigureIDMappingTable>
</WwanDeviceConfigureIDTable></T>)",
     {"2: error: CombineMode \"Both\" is neither Single nor Combine (compared without regard to case): ... and logs \"getWwanDeviceConfigID not find.\"",
      "3: error: CustProductNamePath RegistryPath=\"SOFTWARE\\\\Vendor ProductName\" has no comma: ... it and never reads a value for it [unused]",
      "4: error: CustProductNamePath RegistryPath=\",ProductName\" begins with its comma: ... it and never reads a value for it [unused]",
      "5: warning: CustProductNamePath RegistryPath=\"SOFTWARE\\\\Vendor,\" ends with its comma: the ... reads the key's default value",
      "6: warning: CustProductNamePath RegistryPath=\"SOFTWARE\\\\Vendor, ProductName\" has blanks around ... device-config-id reads the names with them",
      "7: error: CustProductNamePath has no RegistryPath: device-config-id skips it, so it never reads a value for it [unused]",
      "8: error: CustProductNamePath RegistryPath=\"HKEY_LOCAL_MACHINE\\\\SOFTWARE\\\\V,Name\" begins with ... of that name, and skips the entry [unused]",
      "12: error: UniqueSkuID ProductID=\"x13\" repeats the ProductID of line 11 (\"X13\", compared ... never returns this entry [unused]",
      "13: warning: UniqueSkuID ProductID=\"T14\" has no WwanDeviceConfigID: device-config-id gives the empty text for it"}},
    {{}, "<T><WwanDeviceConfigureIDTable>\n<CustProductNamePathToUniqueSkuID CombineMode='cOmBiNe'>\n<CustProductNamePath RegistryPath='SOFTWARE\\V,Name'/>\n"
         "<CustProductNamePath RegistryPath='software\\v,NAME'/>\n</CustProductNamePathToUniqueSkuID><UniqueSkuIDToWwanDeviceConfigureIDMappingTable>"
         "<UniqueSkuID ProductID='A_B' WwanDeviceConfigID='C'/></UniqueSkuIDToWwanDeviceConfigureIDMappingTable></WwanDeviceConfigureIDTable></T>", {"2: warning: CustProductNamePathToUniqueSkuID names one value twice, at lines 3 and 4: in ... matches only when those parts are equal"}},
    {{}, "<T><WwanDeviceConfigureIDTable>\n<CustProductNamePathToUniqueSkuID CombineMode='SINGLE'>\n<CustProductNamePath RegistryPath='SOFTWARE\\V,Name'/>\n"
         "<CustProductNamePath RegistryPath='software\\v,NAME'/>\n</CustProductNamePathToUniqueSkuID><UniqueSkuIDToWwanDeviceConfigureIDMappingTable>"
         "<UniqueSkuID ProductID='A_B' WwanDeviceConfigID='C'/></UniqueSkuIDToWwanDeviceConfigureIDMappingTable></WwanDeviceConfigureIDTable></T>", {}},
    {{}, "<T><WwanDeviceConfigureIDTable>\n<CustProductNamePathToUniqueSkuID>\n<CustProductNamePath RegistryPath='HKLM\\SOFTWARE\\V,Name'/>\n"
         "</CustProductNamePathToUniqueSkuID><UniqueSkuIDToWwanDeviceConfigureIDMappingTable/></WwanDeviceConfigureIDTable></T>",
     {"2: error: CustProductNamePathToUniqueSkuID has no CombineMode: device-config-id finds nothing and logs \"getWwanDeviceConfigID not find.\"",
      "2: error: CustProductNamePathToUniqueSkuID has no CustProductNamePath that names a value ... reads no product name, so it finds nothing",
      "3: error: CustProductNamePath RegistryPath=\"HKLM\\\\SOFTWARE\\\\V,Name\" begins with the hive name ... of that name, and skips the entry [unused]"}},
    {{}, "<T><WwanDeviceConfigureIDTable>\n<CustProductNamePathToUniqueSkuID CombineMode='Combine'>\n<CustProductNamePath RegistryPath='HKLM\\SOFTWARE\\V,Name'/>\n"
         "</CustProductNamePathToUniqueSkuID><UniqueSkuIDToWwanDeviceConfigureIDMappingTable/></WwanDeviceConfigureIDTable></T>",
     {"2: error: CustProductNamePathToUniqueSkuID has no CustProductNamePath that names a value ... so it finds only a ProductID that is empty",
      "3: error: CustProductNamePath RegistryPath=\"HKLM\\\\SOFTWARE\\\\V,Name\" begins with the hive name ... of that name, and skips the entry [unused]"}},
    {{}, R"(<T><WwanDeviceConfigureIDToImageMappingTable>
<WwanDeviceConfigID ID="CFG-1">
  <Standard Value="310"><DEVFirmware File="a" Ver="1" Type="T" Count="12x"/></Standard>
  <Standard Value="460"/>
  <Standard Value=""><DEVFirmware File="a" Ver="1" Type="T" Count="1"/></Standard>
</WwanDeviceConfigID>
<WwanDeviceConfigID ID="CFG-1">
  <Standard Value="310"><DEVFirmware File="b" Ver="1" Type="T" Count="1"/></Standard>
  <Standard Value="262"><DEVFirmware File="c" Ver="1" Type="T" Count="99999999999"/></Standard>
</WwanDeviceConfigID>
</WwanDeviceConfigureIDToImageMappingTable></T>)",
     {"3: warning: Count \"12x\" of DEVFirmware of Standard Value=\"310\" reads as 12: cfg-pk-info CFG-1 takes its leading decimal digits, at most 4294967295",
      "4: error: Standard Value=\"460\" has no DEVFirmware: cfg-pk-info CFG-1 460 fails and logs ... so it never returns this entry [unused]",
      "5: error: Standard Value=\"\" has an empty Value: cfg-pk-info CFG-1 refuses an empty key, so it never finds this entry [unused]",
      "7: warning: WwanDeviceConfigID ID=\"CFG-1\" repeats the ID of line 2: cfg-pk-info searches its Standard entries after those of the first",
      "8: error: Standard Value=\"310\" repeats the Value of line 3: the first match wins, so cfg-pk-info CFG-1 never returns this entry [unused]",
      "9: warning: Count \"99999999999\" of DEVFirmware of Standard Value=\"262\" reads as 4294967295: ... leading decimal digits, at most 4294967295"}},
    {{}, "<E>\n<TableEnableFlag FlagValue='yes'/>\n<TableEnableFlag FlagValue='False'/><SKU_BlackList/><IMSI_BlackList/></E>",
     {"2: error: FlagValue \"yes\" is neither True nor False (compared without regard to case): ... (0xFFFFFFFF) and logs \"Main disable error.\"",
      "3: error: this TableEnableFlag is never read: the lookups read only the first TableEnableFlag of E (line 2) [unused]"}},
    {{}, "<E>\n<TableEnableFlag/><SKU_BlackList/></E>", {"2: error: no FlagValue is neither True nor False (compared without regard to case): ... (0xFFFFFFFF) and logs \"Main disable error.\""}},
    {{}, "<E>\n<TableEnableFlag FlagValue='FALSE'/><IMSI_BlackList/></E>", {"2: warning: FlagValue \"FALSE\" switches the table off: esim-disable-type decides nothing ... is false,not need to set esim disable.\""}},
    {{}, R"(<E><TableEnableFlag FlagValue="TRUE"/>
<SKU_BlackList><Sku SKUValue="A"/><SKU SKUValue="X13"/><SKU SKUValue="x13"/><SKU/></SKU_BlackList>
<IMSI_BlackList><MCCMNC MCCMNCValue="46000"/>
<MCCMNC MCCMNCValue="46000"/><MCCMNC MCCMNCValue="4600A"/><MCCMNC MCCMNCValue="4600a"/></IMSI_BlackList></E>)",
     {"2: error: Sku SKUValue=\"A\" before the first SKU is never walked (the lookups follow SKU, and ... 2), so it never finds this entry [unused]",
      "2: warning: SKU SKUValue=\"x13\" repeats the SKUValue of line 2 (\"X13\", compared without regard ... at the first, so this one changes nothing",
      "2: error: SKU has no SKUValue: esim-disable-type --sku never finds it [unused]",
      "4: warning: MCCMNC MCCMNCValue=\"46000\" repeats the MCCMNCValue of line 3: esim-disable-type --imsi stops at the first, so this one changes nothing",
      "4: warning: MCCMNC MCCMNCValue=\"4600a\" differs from \"4600A\" (line 4) only in case: ... compares keys exactly, so they are two keys"}},
    {{}, R"(<R><SelectionRule>
<Region mcc="default" Regulatory="FCC"/>
<Region mcc="460" Regulatory="SRRC"/>
<Region mcc="460" Regulatory="OTHER"/>
<Region mcc="" Regulatory="NONE"/>
<Region mcc="default" Regulatory="ETSI"/>
<Region mcc="262"/>
<Region mcc="Default" Regulatory="X"/>
</SelectionRule></R>)",
     {"2: warning: Region mcc=\"default\" is not the last of its kind (line 6 is): regulatory-by-mcc ... one only when asked for \"default\" itself",
      "4: error: Region mcc=\"460\" repeats the mcc of line 3: the first match wins, so regulatory-by-mcc never returns this entry [unused]",
      "5: error: Region mcc=\"\" has an empty mcc: regulatory-by-mcc refuses an empty key, so it never finds this entry [unused]",
      "7: warning: Region mcc=\"262\" has no Regulatory: regulatory-by-mcc gives the empty text for it",
      "8: warning: Region mcc=\"Default\" is not a fall-back row: regulatory-by-mcc falls back only to mcc=\"default\", in lower case"}},
    {{}, R"(<root><general/><storage_type>
<partition_index><is_download>true</is_download></partition_index>
<partition_index><name>boot</name></partition_index>
<partition_index><is_download>TRUE</is_download></partition_index>
<partition_index><is_download> false</is_download></partition_index>
<partition_index><is_download/></partition_index>
<other><is_download>true</is_download></other>
</storage_type></root>)",
     {"3: warning: partition_index has no is_download: update-scatter leaves it as it is",
      "4: warning: is_download reads \"TRUE\", neither true nor false: update-scatter looks for ... sets the flag to false when it is not there",
      "5: warning: is_download reads \" false\", neither true nor false: update-scatter looks for \"; ... sets the flag to false when it is not there",
      "6: warning: is_download reads \"\", neither true nor false: update-scatter looks for \";;\" in its ... sets the flag to false when it is not there",
      "7: warning: other after the first partition_index (line 2) is walked as an entry by update-scatter"}},
    {Kind::kScatter, "<S><storage_type/></S>", {"1: error: S (the root) has no general: update-scatter fails and leaves the file as it is"}},
    // ICCID ranges: bounds that match little or everything, ranges that
    // earlier ones shadow or overlap.
    {{}, Ranges({{"8901260", "8901260"}, {"8901269", "8901261"}, {"89012615", "8901269"}, {"89A1", "89A9"}}),
     {"3: error: Range min=\"8901260\" max=\"8901260\": min equals max, so carrier-id-by-iccid matches ... zeros), not every ICCID that begins with it",
      "4: error: Range min=\"8901269\" max=\"8901261\": min's tail \"9\" after the shared prefix \"890126\" ... never matches this range [unused]",
      "5: error: Range min=\"89012615\" max=\"8901269\": min's tail \"15\" after the shared prefix \"890126\" ... never matches this range [unused]",
      "6: error: Range min=\"89A1\" max=\"89A9\": the shared prefix \"89A\" holds the non-digit \"A\", so no ... this range only for keys that hold \"A\" there"}},
    {{}, Ranges({{"89012600000000000000", "89012609999999999999"}, {"89021000000000000", "89029999999999999"},
                 {"893000000000", "893080000000"}, {"8901", "890123"}, {"8901260000", "8901269999"}}),
     {"3: warning: Range min=\"89012600000000000000\" max=\"89012609999999999999\": max's tail ... (leading zeros aside), whatever its digits",
      "4: warning: Range min=\"89021000000000000\" max=\"89029999999999999\": both tails after the shared ... (leading zeros aside), whatever its digits",
      "5: warning: Range min=\"893000000000\" max=\"893080000000\": max's tail \"80000000\" after the ... (leading zeros aside), whatever its digits",
      "6: warning: Range min=\"8901\" max=\"890123\": an ICCID of 19 or 20 digits has 19 digits or more ... ICCID only when that part begins with zeros",
      "7: warning: Range min=\"8901260000\" max=\"8901269999\": an ICCID of 19 or 20 digits has 13 digits ... ICCID only when that part begins with zeros",
      "7: warning: Range min=\"8901260000\" max=\"8901269999\" overlaps the earlier range at line 3: an ... gives it line 3's carrier id"}},
    {{}, Ranges({{"890126000000000000A0", "890126000000000000F0"}, {"8901260000000000000", "8901260000000000x99"},
                 {"891000000000000001", "891000000079999999"}}),
     {"3: warning: Range min=\"890126000000000000A0\" max=\"890126000000000000F0\": min's tail \"A0\" holds ... numbers, in which \"A\" is a digit worth 10",
      "3: warning: Range min=\"890126000000000000A0\" max=\"890126000000000000F0\": max's tail \"F0\" holds ... numbers, in which \"F\" is a digit worth 15",
      "4: warning: Range min=\"8901260000000000000\" max=\"8901260000000000x99\": max's tail \"x99\" holds ... before the number, a sign and 0x aside)",
      "5: warning: Range min=\"891000000000000001\" max=\"891000000079999999\": an ICCID of 19 or 20 ... ICCID only when that part begins with zeros"}},
    {{}, Mccmnc("").replace(Mccmnc("").find("<ICCIDTable/>"), 13, "<ICCIDTable>\n<Range min=\"1\">A</Range>\n<Range>B</Range>\n"
                "<Range min='8901260000000000001' max='8901260000000000002'/>\n</ICCIDTable>"),
     {"2: error: Range has no max: carrier-id-by-iccid skips it, so it never matches [unused]",
      "3: error: Range has no min and max: carrier-id-by-iccid skips it, so it never matches [unused]",
      "4: warning: Range min=\"8901260000000000001\" max=\"8901260000000000002\" has no text: carrier-id-by-iccid answers the empty text for it"}},
    {{}, Ranges({{"8901260000000000000", "8901260000000000059"}, {"8901260000000000050", "8901260000000000099"},
                 {"8901260000000000040", "8901260000000000060"}, {"8901260000000000000", "8901260000000000059"},
                 {"8901260000000000010", "8901260000000000020"}, {"89012600000000000000", "89012609999999999999"},
                 {"8902", "8902"}}),
     {"4: warning: Range min=\"8901260000000000050\" max=\"8901260000000000099\" overlaps the earlier ... gives it line 3's carrier id",
      "5: error: Range min=\"8901260000000000040\" max=\"8901260000000000060\" is shadowed by the earlier ... never returns it [unused]",
      "6: error: Range min=\"8901260000000000000\" max=\"8901260000000000059\" is shadowed by the earlier ... never returns it [unused]",
      "7: error: Range min=\"8901260000000000010\" max=\"8901260000000000020\" is shadowed by the earlier ... never returns it [unused]",
      "8: warning: Range min=\"89012600000000000000\" max=\"89012609999999999999\": max's tail ... (leading zeros aside), whatever its digits",
      "8: warning: Range min=\"89012600000000000000\" max=\"89012609999999999999\" overlaps the earlier ... gives it line 3's carrier id",
      "9: error: Range min=\"8902\" max=\"8902\": min equals max, so carrier-id-by-iccid matches only ... zeros), not every ICCID that begins with it"}},
    {{}, Ranges({{"89000000000000000000", "89999999999999999999"}, {"8901260000000000000", "8901260000000000099"},
                 {"8810", "8819"}, {"881500", "881599"}, {"0", "99999999999999999999"}, {"7700", "7799"}}),
     {"3: warning: Range min=\"89000000000000000000\" max=\"89999999999999999999\": max's tail ... (leading zeros aside), whatever its digits",
      "4: error: Range min=\"8901260000000000000\" max=\"8901260000000000099\" is shadowed by the earlier ... never returns it [unused]",
      "5: warning: Range min=\"8810\" max=\"8819\": an ICCID of 19 or 20 digits has 16 digits or more ... ICCID only when that part begins with zeros",
      "6: warning: Range min=\"881500\" max=\"881599\": an ICCID of 19 or 20 digits has 15 digits or more ... ICCID only when that part begins with zeros",
      "7: warning: Range min=\"0\" max=\"99999999999999999999\": max's tail \"99999999999999999999\" (min ... (leading zeros aside), whatever its digits",
      "7: warning: Range min=\"0\" max=\"99999999999999999999\" overlaps the earlier range at line 3: an ... gives it line 3's carrier id",
      "8: warning: Range min=\"7700\" max=\"7799\": an ICCID of 19 or 20 digits has 17 digits or more ... ICCID only when that part begins with zeros",
      "8: error: Range min=\"7700\" max=\"7799\" is shadowed by the earlier range at line 7, which shares ... never returns it [unused]"}},
};

TEST(LintFindings, ExactFindingsOfSmallTables) {
  for (const Case& c : kCases) {
    const FileResult result = LintText(c.xml, c.kind, "t.xml");
    ASSERT_EQ("", result.problem) << c.xml;
    std::string want, got;
    for (size_t i = 0; i < result.findings.size() || i < c.findings.size(); ++i) {
      const std::string line = i < result.findings.size() ? Listing({result.findings[i]}) : "";
      want += i >= c.findings.size() ? "" : Like(c.findings[i] + "\n", line) ? line : c.findings[i] + "\n";
      got += line;
    }
    EXPECT_EQ(want, got) << c.xml;
  }
}

}  // namespace
}  // namespace dorvane::lint
