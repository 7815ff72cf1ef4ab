// The registry helpers against Wine's real registry, 32-bit and 64-bit views.
#include "util/registry.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>

#include "log/logger.h"
#include "support/log_reader.h"

namespace dorvane {
namespace {

using testing::Messages;
using testing::ReadLog;

const char kKey32[] = "SOFTWARE\\DorvaneTest\\Values";
const char kKey64Only[] = "SOFTWARE\\DorvaneTest64Only";

class RegistryTest : public testing::LogFixture {
 protected:
  void SetUp() override {
    LogFixture::SetUp();
    ::RegDeleteTreeA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Wow6432Node\\DorvaneTest");
    Create(kKey32, KEY_WOW64_32KEY);
  }
  // Creates a key in one view and returns it open for writing.
  static HKEY Create(const char* path, REGSAM view) {
    HKEY key = nullptr;
    EXPECT_EQ(ERROR_SUCCESS, ::RegCreateKeyExA(HKEY_LOCAL_MACHINE, path, 0, nullptr, 0,
                                               KEY_ALL_ACCESS | view, nullptr, &key, nullptr));
    return key;
  }
  static void Put(const char* name, DWORD type, const void* data, DWORD size) {
    HKEY key = Create(kKey32, KEY_WOW64_32KEY);
    ::RegSetValueExA(key, name, 0, type, static_cast<const BYTE*>(data), size);
    ::RegCloseKey(key);
  }
};

TEST_F(RegistryTest, StringValuesAreReadFromThe32BitView) {
  Put("Name", REG_SZ, "ThinkPad X13", 13);
  const std::string longest(124, 'a');
  const std::string too_long(125, 'b');
  Put("Longest", REG_SZ, longest.c_str(), 125);
  Put("TooLong", REG_SZ, too_long.c_str(), 126);
  struct Case {
    const char* name;
    DWORD result;
    std::string value;
  };
  const Case cases[] = {
      {"Name", 0, "ThinkPad X13"},
      {"Longest", 0, longest},   // 124 characters and the terminator fit
      {"TooLong", 1, ""},        // does not fit the 125-byte buffer
      {"Missing", 1, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ClearLog();
    std::string value = "preset";
    DWORD type = REG_SZ;
    EXPECT_EQ(c.result, GetRegKeyValue(kKey32, c.name, value, type));
    EXPECT_EQ(c.value, value) << "emptied on failure";
    std::vector<std::string> expected = {"GetRegKeyValue enter.", kKey32, c.name};
    if (c.result != 0) expected.push_back("RegQueryValueEx error");
    expected.push_back("GetRegKeyValue done.");
    EXPECT_EQ(expected, messages());
  }
}

TEST_F(RegistryTest, AKeyOnlyIn64BitViewIsNotFoundAndHandlesAreNotLeaked) {
  HKEY only64 = Create(kKey64Only, KEY_WOW64_64KEY);
  ::RegSetValueExA(only64, "Name", 0, REG_SZ, reinterpret_cast<const BYTE*>("x"), 2);
  ::RegCloseKey(only64);
  DWORD before = 0;
  ::GetProcessHandleCount(::GetCurrentProcess(), &before);
  std::string value = "preset";
  DWORD type = REG_SZ;
  EXPECT_EQ(1u, GetRegKeyValue(kKey64Only, "Name", value, type));
  EXPECT_EQ("", value);
  EXPECT_EQ(1u, GetRegKeyValue(kKey32, "Missing", value, type));
  BYTE raw[8];
  DWORD size = sizeof raw;
  EXPECT_EQ(1u, GetRegKeyValue(kKey32, "Missing", raw, type, size));
  DWORD after = 0;
  ::GetProcessHandleCount(::GetCurrentProcess(), &after);
  EXPECT_EQ(before, after) << "every key closed, also after a failure";
  const auto msgs = messages();
  EXPECT_EQ("RegOpenKeyEx error", msgs.at(3));
  ::RegDeleteKeyExA(HKEY_LOCAL_MACHINE, kKey64Only, KEY_WOW64_64KEY, 0);
}

TEST_F(RegistryTest, RawReadsReportTypeAndSize) {
  const BYTE bytes[] = {0x01, 0xA5, 0x00, 0xFF};
  Put("Blob", REG_BINARY, bytes, sizeof bytes);
  BYTE data[16] = {};
  DWORD type = REG_SZ;  // the caller's guess is overwritten
  DWORD size = sizeof data;
  EXPECT_EQ(0u, GetRegKeyValue(kKey32, "Blob", data, type, size));
  EXPECT_EQ(static_cast<DWORD>(REG_BINARY), type);
  ASSERT_EQ(4u, size);
  EXPECT_EQ(0, std::memcmp(bytes, data, 4));
  size = 2;
  EXPECT_EQ(1u, GetRegKeyValue(kKey32, "Blob", data, type, size)) << "does not fit";
}

TEST_F(RegistryTest, WritesStoreTextWithoutTerminatorAndNeverCreateKeys) {
  EXPECT_EQ(0u, SetRegKeyValue(kKey32, "Three", "abc"));
  // Checked through the registry itself, not through our reader.
  HKEY key = Create(kKey32, KEY_WOW64_32KEY);
  DWORD type = 0;
  DWORD size = 0;
  ASSERT_EQ(ERROR_SUCCESS, ::RegQueryValueExW(key, L"Three", nullptr, &type, nullptr, &size));
  EXPECT_EQ(static_cast<DWORD>(REG_SZ), type);
  EXPECT_EQ(3 * sizeof(wchar_t), size) << "three characters, no terminator";
  ASSERT_EQ(ERROR_SUCCESS, ::RegQueryValueExA(key, "Three", nullptr, &type, nullptr, &size));
  EXPECT_EQ(3u, size);

  EXPECT_EQ(0u, SetRegKeyDword(kKey32, "Flag", 0x12345678, REG_DWORD));
  DWORD stored = 0;
  size = sizeof stored;
  ASSERT_EQ(ERROR_SUCCESS, ::RegQueryValueExA(key, "Flag", nullptr, &type,
                                              reinterpret_cast<BYTE*>(&stored), &size));
  EXPECT_EQ(0x12345678u, stored);
  ::RegCloseKey(key);

  ClearLog();
  EXPECT_EQ(1u, SetRegKeyValue("SOFTWARE\\DorvaneTest\\NoSuchKey", "Name", "x"));
  EXPECT_EQ(1u, SetRegKeyDword("SOFTWARE\\DorvaneTest\\NoSuchKey", "Flag", 1, REG_DWORD));
  HKEY absent = nullptr;
  EXPECT_NE(ERROR_SUCCESS, ::RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\DorvaneTest\\NoSuchKey", 0,
                                           KEY_READ | KEY_WOW64_32KEY, &absent));
  EXPECT_EQ((std::vector<std::string>{"SOFTWARE\\DorvaneTest\\NoSuchKey", "Name", "x",
                                      "RegOpenKeyEx error", "SOFTWARE\\DorvaneTest\\NoSuchKey",
                                      "Flag", "RegOpenKeyEx error"}),
            messages());
}

TEST(IntegerText, DecimalForms) {
  EXPECT_EQ("-1", Int64ToText(-1));
  EXPECT_EQ("9223372036854775807", Int64ToText(LLONG_MAX));
  EXPECT_EQ("-9223372036854775808", Int64ToText(LLONG_MIN));
  EXPECT_EQ("-1", IntToText(-1));
  EXPECT_EQ("2147483647", IntToText(INT_MAX));
}

}  // namespace
}  // namespace dorvane
