// The XML table lookups: each reader's keys, entries and outputs, and its log
// lines when a table is broken.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "config/carrier_rules.h"
#include "config/device_config.h"
#include "config/esim_region.h"
#include "config/firmware_info.h"
#include "config/scatter.h"
#include "support/log_reader.h"

namespace dorvane {
namespace {

using testing::ReadFileBytes;
using testing::WriteFileBytes;
using Texts = std::vector<std::string>;

// Every field "x", so written fields stand out from untouched ones.
CarrierFirmwareInfo Preset() {
  CarrierFirmwareInfo r;
  r.fields.fill("x");
  return r;
}

class TableTest : public testing::LogFixture {
 protected:
  std::string Table(const std::string& xml) { return WriteTable(xml); }
  // The log as "[ERROR] text" / "[DETAIL]text" lines is `want`, or ends with
  // the rest of it when `want` starts with "...". A text "@" stands for `path`.
  void ExpectLog(Texts want, const std::string& path = "") const {
    for (std::string& w : want) {
      if (w.size() == 9 && w.back() == '@') w = w.substr(0, 8) + path;
    }
    Texts got = tagged();
    if (!want.empty() && want.front() == "...") {
      want.erase(want.begin());
      got.erase(got.begin(), got.end() - std::min(got.size(), want.size()));
    }
    EXPECT_EQ(want, got);
  }
};

using RulesTest = TableTest;
using RulesTableTest = TableTest;
using FirmwareTest = TableTest;
using MalformedTest = TableTest;

// Carrier selection rules.

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

TEST_F(RulesTest, MccmncAndMccKeysAreExactAndTheFirstMatchWins) {
  const std::string path = Table(kRules);
  const auto mccmnc = GetCarrierIdByMccmnc, mcc = GetCarrierIdByMcc;
  struct Case {
    bool (*read)(std::string, std::string, std::string&);
    const char* key;
    const char* expected;  // "kept": no match; false from the MCC lookup, true from the MCC-MNC one
  };
  const Case cases[] = {
      {mccmnc, "310260", "TMO"},  // first of two equal keys
      {mccmnc, " 310410", "ATT-blank"}, {mccmnc, "310410", "kept"},  // the blank is part of the key
      {mccmnc, "23415", "VODA-stray"},  // an element of another name is an entry too
      {mccmnc, "46000", "  CMCC\n "},   // text kept with its white space
      {mccmnc, "31026", "kept"}, {mccmnc, "310260 ", "kept"},
      {mccmnc, "", "kept"},  // an entry without the key never matches, not even ""
      {mccmnc, "1", ""},     // an entry without text answers the empty text
      {mcc, "310", "US"}, {mcc, "460", "kept"}, {mcc, "0460", "CN-zero"}, {mcc, "262", "DE-note"},
      {mcc, "31", "kept"}, {mcc, "", "EMPTY"},  // an empty attribute is a value
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.key);
    std::string out = "kept";
    EXPECT_EQ(c.read == mccmnc || std::string(c.expected) != "kept", c.read(c.key, path, out));
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

// eSIM black lists and regulatory regions.

TEST_F(RulesTableTest, EsimSkuListWinsOverTheNetworkList) {
  const std::string skus = "<SKU_BlackList><SKU/><SKU SKUValue=\"X13-Gen2\"/><Other SKUValue=\"Y7\"/></SKU_BlackList>";
  const std::string imsis =
      "<IMSI_BlackList><MCCMNC/><MCCMNC MCCMNCValue=\"46000\"/><MCCMNC MCCMNCValue=\"310260\"/></IMSI_BlackList>";
  const std::string table = Table("<E><TableEnableFlag FlagValue=\"TRUE\"/>" + skus + imsis + "</E>");
  const std::string no_sku_list = Table("<E><TableEnableFlag FlagValue=\"true\"/>" + imsis + "</E>");
  const std::string no_imsi_list = Table("<E><TableEnableFlag FlagValue=\"True\"/>" + skus + "</E>");
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

// Firmware tables.

using F = CarrierFirmwareInfo;

template <class Record>
Texts Slice(const Record& r, int from, int to) { return Texts(r.fields.begin() + from, r.fields.begin() + to); }

TEST_F(FirmwareTest, CarrierFirmwareFillsTheThreeSlotsThenTheId) {
  const std::string path = Table(R"(<Firmwares><CarrierList>
    <Carrier><APFirmware File="no-id"/></Carrier>
    <Carrier id="TMO">
      <APFirmware File="ap.bin" Ver="1.0" Type="AP" Count="03"/>
      <MDFirmware File="md.bin" Ver="2.0" Type="MD" Count="1"/>
      <OPFirmware File="op.bin" Ver="3.0" Type="OP" Count="2"/>
    </Carrier>
    <Carrier id="TMO"><APFirmware File="second"/></Carrier>
    <Other id="ATT"><APFirmware File="att-ap" Ver="a" Type="t" Count="c"/></Other>
  </CarrierList></Firmwares>)");
  F r = Preset();
  ASSERT_TRUE(GetCarrierFirmware("TMO", path, r));
  EXPECT_EQ((Texts{"TMO", "x", "x", "x", "x", "x", "x",  // 0-6: only the id is written
                   "ap.bin", "1.0", "AP", "03",          // 7-10, Count kept as text
                   "md.bin", "2.0", "MD", "1", "op.bin", "3.0", "OP", "2", "x", "x", "x", "x", "x"}),
            Slice(r, 0, F::kFieldCount));
  // Another element after the first entry is an entry too; missing slot
  // elements and attributes give empty texts.
  r = Preset();
  ASSERT_TRUE(GetCarrierFirmware("ATT", path, r));
  EXPECT_EQ("ATT", r.fields[F::kCarrierId]);
  EXPECT_EQ((Texts{"att-ap", "a", "t", "c", "", "", "", "", "", "", "", ""}), Slice(r, F::kApSlot, F::kParamSlot));
  for (const char* key : {"tmo", "TMO ", "VZW", ""}) {
    r = Preset();
    EXPECT_FALSE(GetCarrierFirmware(key, path, r)) << key;
    EXPECT_EQ(Preset().fields, r.fields) << "untouched";
  }
}

TEST_F(FirmwareTest, PackageInfoFallsBackToTheLastDefault) {
  const std::string both = Table(R"(<P><CarrierList>
    <Carrier id="default"><Firmware File="d1.bin" Ver="d1"/><CustPack File="d1.pak" Ver="p1"/></Carrier>
    <Carrier id="310"><Firmware File="310.bin" Ver="3"/><CustPack File="310.pak" Ver="p3"/></Carrier>
    <Carrier id="310"><Firmware File="later.bin" Ver="9"/><CustPack File="later.pak" Ver="p9"/></Carrier>
    <Carrier id="default"><Firmware File="d2.bin" Ver="d2"/><CustPack File="d2.pak" Ver="p2"/></Carrier>
    <Carrier id="Default"><Firmware File="case.bin" Ver="c"/><CustPack File="c.pak" Ver="c"/></Carrier>
  </CarrierList></P>)");
  // No default, and a carrier without elements: emptied texts, still true.
  const std::string bare = Table(R"(<P><CarrierList><Carrier/><Carrier id="310"/></CarrierList></P>)");
  struct Case {
    const std::string* path;
    const char* key;
    Texts fields5to8;
  };
  const Case cases[] = {
      {&both, "310", {"310.bin", "3", "310.pak", "p3"}},  // exact, first of two
      {&both, "999", {"d2.bin", "d2", "d2.pak", "p2"}},   // the later default wins
      {&both, "DEFAULT", {"d2.bin", "d2", "d2.pak", "p2"}},
      {&bare, "310", {"", "", "", ""}}, {&bare, "999", {"", "", "", ""}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.key);
    PackageFirmwareInfo info;
    info.fields.fill("x");
    EXPECT_TRUE(GetPackageInfoFirmware(c.key, *c.path, info));
    EXPECT_EQ((Texts{"x", "x", "x", "x", "x"}), Slice(info, 0, 5));
    EXPECT_EQ(c.fields5to8, Slice(info, 5, PackageFirmwareInfo::kFieldCount));
  }
  EXPECT_TRUE(messages().empty());
}

TEST_F(FirmwareTest, FwPackageInfoReplacesTheWholeObjectOnlyOnSuccess) {
  const std::string xml = R"(<Pkg><PackageVer> 1.2.3 </PackageVer><PackageType>FULL</PackageType><CarrierList>
    <Carrier id="TMO" ver="7"><FWImage file="fw.bin" ver="f1"/><CustPack file="cp.bin" ver="c1"/></Carrier>
    <Carrier id="ATT" ver="8"><FWImage file="fw2.bin" ver="f2"/></Carrier>
  </CarrierList></Pkg>)";
  FwPackageInfo package;
  package.SetPackageVer("old");
  package.AddCarrier(Preset());
  ASSERT_TRUE(GetFwPackageInfo(Table(xml), package));
  EXPECT_EQ(" 1.2.3 ", package.GetPackageVer());
  EXPECT_EQ("FULL", package.GetPackageType());
  const auto carriers = package.GetCarriers();
  ASSERT_EQ(2u, carriers.size()) << "the old list is replaced";
  EXPECT_EQ((Texts{"TMO", "7", "fw.bin", "f1", "cp.bin", "c1", ""}), Slice(carriers[0], 0, 7));
  EXPECT_EQ("", carriers[1].fields[F::kCustPackFile]);

  ASSERT_TRUE(
      GetFwPackageInfo(Table("<p><PackageVer/><PackageType/><CarrierList><Carrier/></CarrierList></p>"), package));
  EXPECT_EQ("", package.GetPackageVer()) << "an element without text reads as empty";
  EXPECT_EQ(1u, package.GetCarriers().size());

  // An empty path reads FwPackageInfo.xml in the current folder.
  char cwd[MAX_PATH];
  ::GetCurrentDirectoryA(MAX_PATH, cwd);
  ::SetCurrentDirectoryA(dir_.c_str());
  WriteTable(xml, "FwPackageInfo.xml");
  FwPackageInfo from_cwd;
  EXPECT_TRUE(GetFwPackageInfo("", from_cwd));
  ::SetCurrentDirectoryA(cwd);
  EXPECT_EQ("FULL", from_cwd.GetPackageType());
}

const char kSkus[] = R"(<S>
  <SKU_GUID ID="SKU-A">
    <Area ID="EU"><PARAMFirmware File="eu.bin" Ver="1" Type="P" Count="1"/></Area>
    <Area/><Area ID="US"><PARAMFirmware File="us.bin" Ver="2" Type="P" Count="1"/></Area><Area ID="BARE"/>
  </SKU_GUID>
  <SKU_GUID ID="SKU-B"><Area ID="EU"><PARAMFirmware File="b.bin"/></Area></SKU_GUID>
</S>)";

TEST_F(FirmwareTest, ParamSlotBySkuByMccAndByModel) {
  const std::string skus = Table(kSkus), no_skus = Table("<S/>");
  const std::string rules = Table(R"(<R><SwitchingRule><Registered/>
    <Registered mcc="310"><PARAMFirmware File="p310.bin" Ver="1" Type="PARAM" Count="07"/></Registered>
    <Registered mcc="310"><PARAMFirmware File="later" Ver="2" Type="T" Count="1"/></Registered>
  </SwitchingRule></R>)");
  const std::string models = Table(R"(<M><CarrierList>
    <CustModel id=""><OEMFirmware File="empty-id"/></CustModel>
    <CustModel id="X13"><OEMFirmware File="oem.bin" Ver="5" Type="OEM" Count="1"><Switch_table File="switch.xml"/></OEMFirmware></CustModel>
    <CustModel id="X14"><OEMFirmware File="oem14.bin" Ver="6" Type="OEM" Count="2"/><Switch_table File="beside.xml"/></CustModel>
    <CustModel id="X15"/>
  </CarrierList></M>)");
  auto sku = [](const std::string& path, const char* area) {
    return [=](F& r) { return GetParamFirmwareBySku("SKU-A", area, path, r); };
  };
  auto mcc = [&](const char* key) { return [=](F& r) { return GetParamFirmwareByMcc(key, rules, r); }; };
  auto model = [&](const char* key) { return [=](F& r) { return GetOemFirmwareByModel(key, models, r); }; };
  struct Case {
    std::function<bool(F&)> read;
    Texts fields;  // carrier id, the slot's four, switch table; the preset alone: false
  };
  const Texts untouched = {"x", "x", "x", "x", "x", "x"};
  const Case cases[] = {
      {sku(skus, "US"), {"x", "us.bin", "2", "P", "1", "x"}},  // keys under the first SKU
      {sku(skus, "BARE"), {"x", "", "", "", "", "x"}}, {sku(no_skus, "US"), untouched},
      {mcc("310"), {"x", "p310.bin", "1", "PARAM", "07", "x"}}, {mcc("31"), untouched}, {mcc(""), untouched},
      {model("X13"), {"X13", "oem.bin", "5", "OEM", "1", "switch.xml"}},
      {model("X14"), {"X14", "oem14.bin", "6", "OEM", "2", "x"}},  // a switch table beside OEMFirmware is not seen
      {model("X15"), {"X15", "", "", "", "", "x"}},
      {model(""), untouched},  // an empty model id finds nothing, even with an empty id entry
  };
  for (const Case& c : cases) {
    F r = Preset();
    EXPECT_EQ(c.fields != untouched, c.read(r)) << ::testing::PrintToString(c.fields);
    Texts got = {r.fields[F::kCarrierId]};
    got.insert(got.end(), r.fields.begin() + F::kParamSlot, r.fields.end());
    EXPECT_EQ(c.fields, got);
  }
}

// Runs in a child process: a lookup that never returns can only be ended with
// the process. Exits with 7 when the lookup is still waiting after 1.5 s and
// has used less than a tenth of that on the processor, with 3 when it spins.
void LookUpSkuOnlyTheSecondHas(const std::string& path) {
  static std::string table;
  table = path;
  HANDLE thread = ::CreateThread(
      nullptr, 0,
      [](void*) -> DWORD {
        CarrierFirmwareInfo r;
        GetParamFirmwareBySku("SKU-B", "EU", table, r);
        ::ExitProcess(1);  // returned: wrong
      },
      nullptr, 0, nullptr);
  ::Sleep(1500);
  FILETIME created, ended, kernel, user;
  if (thread == nullptr || !::GetThreadTimes(thread, &created, &ended, &kernel, &user)) ::ExitProcess(2);
  const ULARGE_INTEGER k{{kernel.dwLowDateTime, kernel.dwHighDateTime}}, u{{user.dwLowDateTime, user.dwHighDateTime}};
  ::ExitProcess((k.QuadPart + u.QuadPart) / 10000 < 150 ? 7 : 3);
}

TEST_F(FirmwareTest, ParamFirmwareBySkuNeverReturnsForALaterSkuAndCostsNoProcessorTime) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";  // the child runs this test again, up to here
  EXPECT_EXIT(LookUpSkuOnlyTheSecondHas(Table(kSkus)), ::testing::ExitedWithCode(7), "");
}

// Device configuration and its firmware package.

const char kProductKey[] = "SOFTWARE\\DorvaneTest\\Product";

class DeviceConfigTest : public TableTest {
 protected:
  void SetUp() override {
    TableTest::SetUp();
    HKEY key = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, ::RegCreateKeyExA(HKEY_LOCAL_MACHINE, kProductKey, 0, nullptr, 0,
                                               KEY_ALL_ACCESS | KEY_WOW64_32KEY, nullptr, &key, nullptr));
    for (auto [name, value] : {std::pair<const char*, const char*>{"A", "Alpha"}, {"B", "beta"}, {"E", ""}}) {
      ::RegSetValueExA(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(value), DWORD(strlen(value) + 1));
    }
    ::RegCloseKey(key);
  }
  // A device-configuration table with the given mode and registry paths.
  std::string Table(const std::string& mode, const Texts& paths) {
    std::string xml = "<T><WwanDeviceConfigureIDTable><CustProductNamePathToUniqueSkuID CombineMode=\"" + mode + "\">";
    for (const std::string& p : paths) xml += "<CustProductNamePath RegistryPath=\"" + p + "\"/>";
    return WriteTable(xml + "</CustProductNamePathToUniqueSkuID><UniqueSkuIDToWwanDeviceConfigureIDMappingTable>" +
                      "<UniqueSkuID ProductID=\"ALPHA\" WwanDeviceConfigID=\"CFG-A\"/>"
                      "<UniqueSkuID ProductID=\"Beta\" WwanDeviceConfigID=\"CFG-B\"/>"
                      "<Other ProductID=\"alpha_beta\" WwanDeviceConfigID=\"CFG-AB\"/>"
                      "<UniqueSkuID ProductID=\"\" WwanDeviceConfigID=\"CFG-EMPTY\"/>"
                      "<UniqueSkuID ProductID=\"Alpha_\" WwanDeviceConfigID=\"CFG-A_\"/>"
                      // The same ProductID in another case: the first row of the two wins.
                      "<UniqueSkuID ProductID=\"alpha\" WwanDeviceConfigID=\"CFG-A-LATER\"/>"
                      "</UniqueSkuIDToWwanDeviceConfigureIDMappingTable></WwanDeviceConfigureIDTable></T>");
  }
  static std::string Path(const char* value) { return std::string(kProductKey) + "," + value; }
};

TEST_F(DeviceConfigTest, ModesPathsAndValuesDecideTheId) {
  struct Case {
    const char* label;
    std::string mode;
    Texts paths;
    const char* expected;  // "kept": not found
  };
  const Case cases[] = {
      {"single: first readable path with a row wins", "Single", {Path("Missing"), Path("B"), Path("A")}, "CFG-B"},
      {"single, mode in any case", "sInGlE", {Path("A")}, "CFG-A"},
      {"single: a value without a row goes on", "Single", {Path("E"), Path("A")}, "CFG-EMPTY"},
      {"single: no comma, leading comma skipped", "Single", {kProductKey, ",A", Path("B")}, "CFG-B"},
      {"combine: unreadable values skipped", "COMBINE", {Path("A"), Path("Missing"), Path("B")}, "CFG-AB"},
      {"combine: nothing readable looks up the empty text", "Combine", {Path("Missing")}, "CFG-EMPTY"},
      {"combine: empty first value", "Combine", {Path("E"), Path("B")}, "CFG-B"},
      {"combine: empty second value", "Combine", {Path("A"), Path("E")}, "CFG-A_"},
      {"unknown mode", "Both", {Path("A")}, "kept"},
      {"no rows match", "Single", {Path("Missing")}, "kept"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    std::string id = "kept";
    EXPECT_EQ(std::string(c.expected) != "kept", getWwanDeviceConfigID(Table(c.mode, c.paths), id));
    EXPECT_EQ(c.expected, id);
  }
  const std::string table = Table("Combine", {Path("A"), Path("B")});
  ClearLog();
  std::string id;
  ASSERT_TRUE(getWwanDeviceConfigID(table, id));
  const Texts msgs = messages();  // the registry reads log their own lines in between
  EXPECT_EQ((Texts{"getWwanDeviceConfigID enter.", "Combine"}), Texts(msgs.begin(), msgs.begin() + 2));
  ExpectLog({"...", "[DETAIL]Alpha_beta", "[DETAIL]getWwanDeviceConfigID OK.", "[DETAIL]CFG-AB"});
}

class CfgPackageTest : public TableTest {
 protected:
  void SetUp() override {
    TableTest::SetUp();
    for (const char* d : {"C:\\Windows\\WWAN", "C:\\Windows\\WWAN\\FwSwitchBin",
                          "C:\\Windows\\WWAN\\FwSwitchBin\\SarAntData"}) {
      ::CreateDirectoryA(d, nullptr);
    }
    table_ = std::string(kFwSwitchBinFolder) + kSarAntDataFolder + "\\" + kImageMappingTableName;
  }
  void TearDown() override { ::DeleteFileA(table_.c_str()); }
  std::string table_;
};

TEST_F(CfgPackageTest, ExactIdAndMccFindTheFirmwareAndEachStepIsLogged) {
  CfgPackageInfo info;
  info.texts.fill("x");
  EXPECT_FALSE(getCfgPkInfo("ABC", "310", info));  // no table file yet
  ExpectLog({"[DETAIL]getCfgPkInfo enter.", "[DETAIL]ABC", "[DETAIL]310", "[DETAIL]getCfgPkInfo mcc is not null.",
             "[DETAIL]LoadFile xml failed:", "[ERROR] @", "[DETAIL]getCfgPkInfo not find map.",
             "[DETAIL]getCfgPkInfo done."},
            table_);
  WriteFileBytes(table_, R"(<T><WwanDeviceConfigureIDToImageMappingTable>
  <WwanDeviceConfigID ID="abc"><Standard Value="310"><DEVFirmware File="lower.bin" Ver="1" Type="T" Count="1"/></Standard></WwanDeviceConfigID>
  <WwanDeviceConfigID ID="ABC"><Standard Value="460"><DEVFirmware File="cn.bin" Ver="2" Type="T" Count="2"/></Standard></WwanDeviceConfigID>
  <WwanDeviceConfigID ID="ABC">
    <Standard Value="310"><DEVFirmware File="us.bin" Ver="3" Type="USA" Count="12x"/></Standard>
    <Other Value="262"><DEVFirmware File="de.bin" Ver="4" Type="T" Count="abc"/></Other>
    <Standard Value="999"/>
  </WwanDeviceConfigID>
</WwanDeviceConfigureIDToImageMappingTable></T>)");
  const Texts untouched = {"x", "x", "x", "x", "x", "x", "x"};
  struct Case {
    const char* id;
    const char* mcc;
    Texts texts;  // untouched: not found
    DWORD count;
  };
  const Case cases[] = {
      // The first ABC has no 310: the search goes on to the second ABC.
      {"ABC", "310", {"x", "x", "", "us.bin", "3", "USA", "310"}, 12},
      {"ABC", "262", {"x", "x", "", "de.bin", "4", "T", "262"}, 0},
      {"abc", "310", {"x", "x", "", "lower.bin", "1", "T", "310"}, 1},
      {"Abc", "310", untouched, 77}, {"ABC", "999", untouched, 77},  // 999: no DEVFirmware
      {"ABC", "", untouched, 77},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.id) + "/" + c.mcc);
    info.texts.fill("x");
    info.count = 77;
    ClearLog();
    EXPECT_EQ(c.texts != untouched, getCfgPkInfo(c.id, c.mcc, info));
    EXPECT_EQ(c.texts, Texts(info.texts.begin(), info.texts.end()));
    EXPECT_EQ(c.count, info.count);
  }
  ExpectLog({"[DETAIL]getCfgPkInfo enter.", "[DETAIL]ABC", "[DETAIL]", "[DETAIL]getCfgPkInfo not find map.",
             "[DETAIL]getCfgPkInfo done."});  // an empty MCC opens nothing
  ClearLog();
  EXPECT_TRUE(getCfgPkInfo("ABC", "460", info));
  EXPECT_EQ((Texts{"getCfgPkInfo enter.", "ABC", "460", "getCfgPkInfo mcc is not null.", "getCfgPkInfo find map.",
                   "getCfgPkInfo done."}),
            messages());
}

// Scatter file download flags.

class ScatterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* d : {"C:\\Windows\\WWAN", "C:\\Windows\\WWAN\\FwSwitchBin", kFlashDataFolder}) {
      ::CreateDirectoryA(d, nullptr);
    }
  }
  void TearDown() override { ::DeleteFileA(path_.c_str()); }
  // The flags of the file's partitions, in order.
  Texts Flags() const {
    Texts out;
    const std::string text = ReadFileBytes(path_);
    for (size_t at = text.find("<is_download>"); at != std::string::npos; at = text.find("<is_download>", at + 1)) {
      out.push_back(text.substr(at + 13, text.find("</is_download>", at) - at - 13));
    }
    return out;
  }
  const std::string path_ = std::string(kFlashDataFolder) + "\\" + kScatterName;
};

const char kScatter[] = R"(<?xml version="1.0" encoding="utf-8"?>
<root>
  <general><version>2</version></general>
  <storage_type name="EMMC">
    <partition_index name="SYS0"><partition_name>preloader</partition_name><is_download>true</is_download></partition_index>
    <partition_index name="SYS1"><partition_name>md1img</partition_name><is_download>false</is_download></partition_index>
    <partition_index name="SYS2"><partition_name>nvram</partition_name><is_download></is_download></partition_index>
    <other name="SYS3"><is_download>maybe</is_download></other>
  </storage_type>
</root>
)";

TEST_F(ScatterTest, FlagsAreKeyedByTheirOwnText) {
  struct Case {
    const char* selection;
    Texts flags;
  };
  const Case cases[] = {
      {";true;", {"true", "false", "false", "false"}},
      {"true", {"false", "false", "false", "false"}},    // no semicolons: nothing matches
      {";false;;;", {"false", "true", "true", "false"}},  // ";;" is the key of an empty flag
      {"x;maybe;x;true;", {"true", "false", "false", "true"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.selection);
    WriteFileBytes(path_, kScatter);
    EXPECT_TRUE(UpdateScatterDownloadFlags(c.selection));
    EXPECT_EQ(c.flags, Flags());
  }
  // An empty storage is still saved, by the XML printer.
  const std::string xml = "<?xml version=\"1.0\"?>\n<root>\n<general/>\n<storage_type/></root>";
  WriteFileBytes(path_, xml);
  EXPECT_TRUE(UpdateScatterDownloadFlags(";true;"));
  EXPECT_NE(xml, ReadFileBytes(path_)) << "rewritten by the printer";
  EXPECT_NE(std::string::npos, ReadFileBytes(path_).find("<storage_type/>"));
}

TEST_F(ScatterTest, FalsePathsLeaveTheFileAsItWas) {
  struct Case {
    const char* xml;  // null: no file, and none is created
    const char* selection;
  };
  const Case cases[] = {
      {kScatter, ""},
      {"<root><storage_type><partition_index><is_download>true</is_download></partition_index>"
       "</storage_type></root>", ";true;"},
      {"<root><general/></root>", ";true;"}, {"<root><general/><storage_type>", ";true;"}, {nullptr, ";true;"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.xml ? c.xml : "no file");
    if (c.xml) WriteFileBytes(path_, c.xml);
    EXPECT_FALSE(UpdateScatterDownloadFlags(c.selection));
    EXPECT_EQ(c.xml ? c.xml : "no file", testing::FileExists(path_) ? ReadFileBytes(path_) : "no file");
    ::DeleteFileA(path_.c_str());
  }
}

// Every reader over broken tables.

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
      {kMccmnc, "<?xml version=\"1.0\"?><!-- only a comment -->", {"...", "[ERROR] RootElement xml item error.", done}},
      {kMccmnc, "<r/>", {"...", "[ERROR] switchingRuleNode is null.", done}},
      {kMccmnc, "<r><SwitchingRule/></r>", {"...", "[ERROR] selectionRuleNode is null.", done}},
      {kMccmnc, rules, {"...", "[ERROR] MCCMNCTable node is null.", done}},
      // The other rule and firmware readers fail silently.
      {kMcc, kNoFile, {}}, {kMcc, rules, {}},
      {kCarrier, kNoFile, {}}, {kSku, kNoFile, {}}, {kSku, "<S/>", {}},
      {kFwPackage, "<Pkg><PackageVer>9</PackageVer><CarrierList/></Pkg>", {}},  // no carrier: nothing replaced
      {kPackage, kNoFile, {"[ERROR] package_info.xml load failed"}},
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
