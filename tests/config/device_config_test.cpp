#include "config/device_config.h"

#include <gtest/gtest.h>

#include "log/logger.h"
#include "support/log_reader.h"

namespace dorvane {
namespace {

using testing::IndexOf;
using testing::Messages;
using testing::ReadLog;

const char kProductKey[] = "SOFTWARE\\DorvaneTest\\Product";

class DeviceConfigTest : public testing::LogFixture {
 protected:
  void SetUp() override {
    LogFixture::SetUp();
    HKEY key = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, ::RegCreateKeyExA(HKEY_LOCAL_MACHINE, kProductKey, 0, nullptr, 0,
                                               KEY_ALL_ACCESS | KEY_WOW64_32KEY, nullptr, &key, nullptr));
    for (auto [name, value] : {std::pair<const char*, const char*>{"A", "Alpha"}, {"B", "beta"}, {"E", ""}}) {
      ::RegSetValueExA(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(value),
                       static_cast<DWORD>(strlen(value) + 1));
    }
    ::RegCloseKey(key);
  }
  // A device-configuration table with the given mode, registry paths and rows.
  std::string Table(const std::string& mode, const std::vector<std::string>& paths,
                    const std::string& rows) {
    std::string xml = "<T><WwanDeviceConfigureIDTable><CustProductNamePathToUniqueSkuID CombineMode=\"" +
                      mode + "\">";
    for (const std::string& p : paths) xml += "<CustProductNamePath RegistryPath=\"" + p + "\"/>";
    xml += "</CustProductNamePathToUniqueSkuID><UniqueSkuIDToWwanDeviceConfigureIDMappingTable>" + rows +
           "</UniqueSkuIDToWwanDeviceConfigureIDMappingTable></WwanDeviceConfigureIDTable></T>";
    return WriteTable(xml);
  }
  static std::string Path(const char* value) { return std::string(kProductKey) + "," + value; }
};

const char kRows[] =
    "<UniqueSkuID ProductID=\"ALPHA\" WwanDeviceConfigID=\"CFG-A\"/>"
    "<UniqueSkuID ProductID=\"Beta\" WwanDeviceConfigID=\"CFG-B\"/>"
    "<Other ProductID=\"alpha_beta\" WwanDeviceConfigID=\"CFG-AB\"/>"
    "<UniqueSkuID ProductID=\"\" WwanDeviceConfigID=\"CFG-EMPTY\"/>"
    "<UniqueSkuID ProductID=\"Alpha_\" WwanDeviceConfigID=\"CFG-A_\"/>"
    // The same ProductID in another case: the first row of the two wins.
    "<UniqueSkuID ProductID=\"alpha\" WwanDeviceConfigID=\"CFG-A-LATER\"/>";

TEST_F(DeviceConfigTest, ModesPathsAndValuesDecideTheId) {
  struct Case {
    const char* label;
    std::string mode;
    std::vector<std::string> paths;
    const char* expected;  // "kept": not found
  };
  const Case cases[] = {
      {"single: first readable path with a row wins", "Single", {Path("Missing"), Path("B"), Path("A")}, "CFG-B"},
      {"single, mode in any case", "sInGlE", {Path("A")}, "CFG-A"},
      {"single: a value without a row goes on", "Single", {Path("E"), Path("A")}, "CFG-EMPTY"},
      {"single: no comma, leading comma skipped", "Single",
       {kProductKey, std::string(",A"), Path("B")}, "CFG-B"},
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
    EXPECT_EQ(std::string(c.expected) != "kept", getWwanDeviceConfigID(Table(c.mode, c.paths, kRows), id));
    EXPECT_EQ(c.expected, id);
  }
}

TEST_F(DeviceConfigTest, LogsTheModeTheValuesAndTheOutcome) {
  const std::string table = Table("Combine", {Path("A"), Path("B")}, kRows);
  ClearLog();
  std::string id;
  ASSERT_TRUE(getWwanDeviceConfigID(table, id));
  const auto msgs = messages();
  EXPECT_EQ("getWwanDeviceConfigID enter.", msgs.front());
  EXPECT_GE(IndexOf(msgs, "Combine"), 0);
  EXPECT_GE(IndexOf(msgs, "Alpha_beta"), 0);
  EXPECT_EQ((std::vector<std::string>{"getWwanDeviceConfigID OK.", "CFG-AB"}),
            std::vector<std::string>(msgs.end() - 2, msgs.end()));

  ClearLog();
  EXPECT_FALSE(getWwanDeviceConfigID(Table("Both", {}, kRows), id));
  const auto after = messages();
  EXPECT_EQ((std::vector<std::string>{"getWwanDeviceConfigID not find.", "getWwanDeviceConfigID done."}),
            std::vector<std::string>(after.end() - 2, after.end()));
}

TEST_F(DeviceConfigTest, BrokenTablesAreLoggedAndNotFound) {
  struct Case {
    std::string xml;
    std::string text;
  };
  const Case cases[] = {
      {"<T", "WwanDeviceIdImageMappingTable.xml load faild."},
      {"<!-- -->", "RootElement xml item error."},
      {"<T/>", "WwanDeviceConfigureidTable xml item error."},
      {"<T><WwanDeviceConfigureIDTable/></T>", "UniqueSkuIDToWwanDeviceConfigureIDMappingTable error."},
      {"<T><WwanDeviceConfigureIDTable><UniqueSkuIDToWwanDeviceConfigureIDMappingTable/>"
       "</WwanDeviceConfigureIDTable></T>",
       "CustProductNamePathToUniqueSkuID xml item error."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    const std::string path = WriteTable(c.xml);
    ClearLog();
    std::string id = "kept";
    EXPECT_FALSE(getWwanDeviceConfigID(path, id));
    EXPECT_EQ("kept", id);
    const auto records = ReadLog(log_);
    bool found = false;
    for (const auto& r : records) found = found || (r.message == c.text && r.tag == "[ERROR] ");
    EXPECT_TRUE(found);
  }
}

class CfgPackageTest : public DeviceConfigTest {
 protected:
  void SetUp() override {
    DeviceConfigTest::SetUp();
    for (const char* d : {"C:\\Windows\\WWAN", "C:\\Windows\\WWAN\\FwSwitchBin",
                          "C:\\Windows\\WWAN\\FwSwitchBin\\SarAntData"}) {
      ::CreateDirectoryA(d, nullptr);
    }
    table_ = std::string(kFwSwitchBinFolder) + kSarAntDataFolder + "\\" + kImageMappingTableName;
  }
  void TearDown() override { ::DeleteFileA(table_.c_str()); }
  std::string table_;
};

const char kImages[] = R"(<T><WwanDeviceConfigureIDToImageMappingTable>
  <WwanDeviceConfigID ID="abc"><Standard Value="310"><DEVFirmware File="lower.bin" Ver="1" Type="T" Count="1"/></Standard></WwanDeviceConfigID>
  <WwanDeviceConfigID ID="ABC"><Standard Value="460"><DEVFirmware File="cn.bin" Ver="2" Type="T" Count="2"/></Standard></WwanDeviceConfigID>
  <WwanDeviceConfigID ID="ABC">
    <Standard Value="310"><DEVFirmware File="us.bin" Ver="3" Type="USA" Count="12x"/></Standard>
    <Other Value="262"><DEVFirmware File="de.bin" Ver="4" Type="T" Count="abc"/></Other>
    <Standard Value="999"/>
  </WwanDeviceConfigID>
</WwanDeviceConfigureIDToImageMappingTable></T>)";

TEST_F(CfgPackageTest, ExactIdAndMccFindTheFirmware) {
  testing::WriteFileBytes(table_, kImages);
  struct Case {
    const char* id;
    const char* mcc;
    bool found;
    std::vector<std::string> texts;
    DWORD count;
  };
  const Case cases[] = {
      // The first ABC has no 310: the search goes on to the second ABC.
      {"ABC", "310", true, {"x", "x", "", "us.bin", "3", "USA", "310"}, 12},
      {"ABC", "262", true, {"x", "x", "", "de.bin", "4", "T", "262"}, 0},
      {"abc", "310", true, {"x", "x", "", "lower.bin", "1", "T", "310"}, 1},
      {"Abc", "310", false, {"x", "x", "x", "x", "x", "x", "x"}, 77},
      {"ABC", "999", false, {"x", "x", "x", "x", "x", "x", "x"}, 77},  // no DEVFirmware
      {"ABC", "", false, {"x", "x", "x", "x", "x", "x", "x"}, 77},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.id) + "/" + c.mcc);
    CfgPackageInfo info;
    info.texts.fill("x");
    info.count = 77;
    EXPECT_EQ(c.found, getCfgPkInfo(c.id, c.mcc, info));
    EXPECT_EQ(c.texts, std::vector<std::string>(info.texts.begin(), info.texts.end()));
    EXPECT_EQ(c.count, info.count);
  }
}

TEST_F(CfgPackageTest, AnEmptyMccOpensNothingAndAMissingTableIsLogged) {
  ClearLog();
  CfgPackageInfo info;
  EXPECT_FALSE(getCfgPkInfo("ABC", "", info));
  EXPECT_EQ((std::vector<std::string>{"getCfgPkInfo enter.", "ABC", "", "getCfgPkInfo not find map.",
                                      "getCfgPkInfo done."}),
            messages());
  ClearLog();
  EXPECT_FALSE(getCfgPkInfo("ABC", "310", info));  // no table file
  EXPECT_EQ((std::vector<std::string>{"getCfgPkInfo enter.", "ABC", "310", "getCfgPkInfo mcc is not null.",
                                      "LoadFile xml failed:", table_, "getCfgPkInfo not find map.",
                                      "getCfgPkInfo done."}),
            messages());
  testing::WriteFileBytes(table_, kImages);
  ClearLog();
  EXPECT_TRUE(getCfgPkInfo("ABC", "460", info));
  EXPECT_EQ((std::vector<std::string>{"getCfgPkInfo enter.", "ABC", "460", "getCfgPkInfo mcc is not null.",
                                      "getCfgPkInfo find map.", "getCfgPkInfo done."}),
            messages());
}

}  // namespace
}  // namespace dorvane
