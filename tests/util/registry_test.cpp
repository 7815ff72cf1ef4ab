// The registry helpers against Wine's real registry, 32-bit and 64-bit views.
#include "util/registry.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>

#include "support/log_reader.h"

namespace dorvane {
namespace {

using Lines = std::vector<std::string>;

const char kKey[] = "SOFTWARE\\DorvaneTest\\Values";
const char kKey64Only[] = "SOFTWARE\\DorvaneTest64Only";
const char kNoKey[] = "SOFTWARE\\DorvaneTest\\NoSuchKey";

class RegistryTest : public testing::LogFixture {
 protected:
  void SetUp() override {
    LogFixture::SetUp();
    ::RegDeleteTreeA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Wow6432Node\\DorvaneTest");
    ::RegCloseKey(Create(kKey, KEY_WOW64_32KEY));
  }
  void TearDown() override { ::RegCloseKey(key_); }
  // Creates a key in one view and returns it open for writing.
  static HKEY Create(const char* path, REGSAM view) {
    HKEY key = nullptr;
    EXPECT_EQ(ERROR_SUCCESS, ::RegCreateKeyExA(HKEY_LOCAL_MACHINE, path, 0, nullptr, 0, KEY_ALL_ACCESS | view, nullptr,
                                               &key, nullptr));
    return key;
  }
  void Put(const char* name, DWORD type, const void* data, DWORD size) {
    if (key_ == nullptr) key_ = Create(kKey, KEY_WOW64_32KEY);
    ::RegSetValueExA(key_, name, 0, type, static_cast<const BYTE*>(data), size);
  }
  HKEY key_ = nullptr;
};

// Values are read from the 32-bit view; a key only in the 64-bit view is not
// found, and no key stays open, also after a failure.
TEST_F(RegistryTest, StringValuesAreReadFromThe32BitView) {
  const std::string longest(124, 'a'), too_long(125, 'b');
  Put("Name", REG_SZ, "ThinkPad X13", 13);
  Put("Longest", REG_SZ, longest.c_str(), 125);
  Put("TooLong", REG_SZ, too_long.c_str(), 126);
  HKEY only64 = Create(kKey64Only, KEY_WOW64_64KEY);
  ::RegSetValueExA(only64, "Name", 0, REG_SZ, reinterpret_cast<const BYTE*>("x"), 2);
  ::RegCloseKey(only64);
  DWORD before = 0, after = 0;
  ::GetProcessHandleCount(::GetCurrentProcess(), &before);
  struct Case {
    const char* key;
    const char* name;
    DWORD result;
    std::string value;
    const char* error;
  };
  const Case cases[] = {
      {kKey, "Name", 0, "ThinkPad X13", nullptr},
      {kKey, "Longest", 0, longest, nullptr},                 // 124 characters and the terminator fit
      {kKey, "TooLong", 1, "", "RegQueryValueEx error"},      // does not fit the 125-byte buffer
      {kKey, "Missing", 1, "", "RegQueryValueEx error"},
      {kKey64Only, "Name", 1, "", "RegOpenKeyEx error"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ClearLog();
    std::string value = "preset";
    DWORD type = REG_SZ;
    EXPECT_EQ(c.result, GetRegKeyValue(c.key, c.name, value, type));
    EXPECT_EQ(c.value, value) << "emptied on failure";
    Lines expected = {"GetRegKeyValue enter.", c.key, c.name};
    if (c.error != nullptr) expected.push_back(c.error);
    expected.push_back("GetRegKeyValue done.");
    EXPECT_EQ(expected, messages());
  }
  BYTE raw[8];
  DWORD size = sizeof raw, type = 0;
  EXPECT_EQ(1u, GetRegKeyValue(kKey64Only, "Name", raw, type, size));
  ::GetProcessHandleCount(::GetCurrentProcess(), &after);
  EXPECT_EQ(before, after) << "every key closed";
  ::RegDeleteKeyExA(HKEY_LOCAL_MACHINE, kKey64Only, KEY_WOW64_64KEY, 0);
}

TEST_F(RegistryTest, RawReadsReportTypeAndSize) {
  const BYTE bytes[] = {0x01, 0xA5, 0x00, 0xFF};
  Put("Blob", REG_BINARY, bytes, sizeof bytes);
  BYTE data[16] = {};
  DWORD type = REG_SZ;  // the caller's guess is overwritten
  DWORD size = sizeof data;
  EXPECT_EQ(0u, GetRegKeyValue(kKey, "Blob", data, type, size));
  EXPECT_EQ(static_cast<DWORD>(REG_BINARY), type);
  ASSERT_EQ(4u, size);
  EXPECT_EQ(0, std::memcmp(bytes, data, 4));
  size = 2;
  EXPECT_EQ(1u, GetRegKeyValue(kKey, "Blob", data, type, size)) << "does not fit";
}

// Checked through the registry itself, not through our reader.
TEST_F(RegistryTest, WritesStoreTextWithoutTerminatorAndNeverCreateKeys) {
  EXPECT_EQ(0u, SetRegKeyValue(kKey, "Three", "abc"));
  EXPECT_EQ(0u, SetRegKeyDword(kKey, "Flag", 0x12345678, REG_DWORD));
  Put("unused", REG_SZ, "", 1);  // opens key_
  DWORD type = 0, size = 0, stored = 0;
  ASSERT_EQ(ERROR_SUCCESS, ::RegQueryValueExW(key_, L"Three", nullptr, &type, nullptr, &size));
  EXPECT_EQ(static_cast<DWORD>(REG_SZ), type);
  EXPECT_EQ(3 * sizeof(wchar_t), size) << "three characters, no terminator";
  size = sizeof stored;
  ASSERT_EQ(ERROR_SUCCESS, ::RegQueryValueExA(key_, "Flag", nullptr, &type, reinterpret_cast<BYTE*>(&stored), &size));
  EXPECT_EQ(0x12345678u, stored);
  ClearLog();
  EXPECT_EQ(1u, SetRegKeyValue(kNoKey, "Name", "x"));
  EXPECT_EQ(1u, SetRegKeyDword(kNoKey, "Flag", 1, REG_DWORD));
  HKEY absent = nullptr;
  EXPECT_NE(ERROR_SUCCESS, ::RegOpenKeyExA(HKEY_LOCAL_MACHINE, kNoKey, 0, KEY_READ | KEY_WOW64_32KEY, &absent));
  EXPECT_EQ((Lines{kNoKey, "Name", "x", "RegOpenKeyEx error", kNoKey, "Flag", "RegOpenKeyEx error"}), messages());
}

TEST(IntegerText, DecimalForms) {
  EXPECT_EQ("-1", Int64ToText(-1));
  EXPECT_EQ("9223372036854775807", Int64ToText(LLONG_MAX));
  EXPECT_EQ("-9223372036854775808", Int64ToText(LLONG_MIN));
  EXPECT_EQ("2147483647", IntToText(INT_MAX));
}

}  // namespace
}  // namespace dorvane
