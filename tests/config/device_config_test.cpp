#include "config/device_config.h"

#include "config/table_test.h"

namespace dorvane {
namespace {

using testing::Texts;

const char kProductKey[] = "SOFTWARE\\DorvaneTest\\Product";

class DeviceConfigTest : public testing::TableTest {
 protected:
  void SetUp() override {
    TableTest::SetUp();
    HKEY key = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, ::RegCreateKeyExA(HKEY_LOCAL_MACHINE, kProductKey, 0, nullptr, 0,
                                               KEY_ALL_ACCESS | KEY_WOW64_32KEY, nullptr, &key, nullptr));
    for (auto [name, value] : {std::pair<const char*, const char*>{"A", "Alpha"}, {"B", "beta"}, {"E", ""}}) {
      ::RegSetValueExA(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(value),
                       static_cast<DWORD>(strlen(value) + 1));
    }
    ::RegCloseKey(key);
  }
  // A device-configuration table with the given mode and registry paths.
  std::string Table(const std::string& mode, const Texts& paths) {
    std::string xml = "<T><WwanDeviceConfigureIDTable><CustProductNamePathToUniqueSkuID CombineMode=\"" +
                      mode + "\">";
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

class CfgPackageTest : public testing::TableTest {
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

TEST_F(CfgPackageTest, ExactIdAndMccFindTheFirmware) {
  testing::WriteFileBytes(table_, R"(<T><WwanDeviceConfigureIDToImageMappingTable>
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
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.id) + "/" + c.mcc);
    CfgPackageInfo info;
    info.texts.fill("x");
    info.count = 77;
    EXPECT_EQ(c.texts != untouched, getCfgPkInfo(c.id, c.mcc, info));
    EXPECT_EQ(c.texts, Texts(info.texts.begin(), info.texts.end()));
    EXPECT_EQ(c.count, info.count);
  }
  CfgPackageInfo info;
  ClearLog();
  EXPECT_TRUE(getCfgPkInfo("ABC", "460", info));
  EXPECT_EQ((Texts{"getCfgPkInfo enter.", "ABC", "460", "getCfgPkInfo mcc is not null.", "getCfgPkInfo find map.",
                   "getCfgPkInfo done."}),
            messages());
}

TEST_F(CfgPackageTest, AnEmptyMccOpensNothingAndAMissingTableIsLogged) {
  CfgPackageInfo info;
  info.texts.fill("x");
  EXPECT_FALSE(getCfgPkInfo("ABC", "", info));
  ExpectLog({"[DETAIL]getCfgPkInfo enter.", "[DETAIL]ABC", "[DETAIL]", "[DETAIL]getCfgPkInfo not find map.",
             "[DETAIL]getCfgPkInfo done."});
  ClearLog();
  EXPECT_FALSE(getCfgPkInfo("ABC", "310", info));  // no table file
  ExpectLog({"[DETAIL]getCfgPkInfo enter.", "[DETAIL]ABC", "[DETAIL]310", "[DETAIL]getCfgPkInfo mcc is not null.",
             "[DETAIL]LoadFile xml failed:", "[ERROR] @", "[DETAIL]getCfgPkInfo not find map.",
             "[DETAIL]getCfgPkInfo done."},
            table_);
  EXPECT_EQ("x", info.texts[3]);
}

}  // namespace
}  // namespace dorvane
