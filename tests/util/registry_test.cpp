// The registry helpers against Wine's real registry, 32-bit and 64-bit views.
#include "util/registry.h"

#include <gtest/gtest.h>

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
    key_ = Create(kKey, KEY_WOW64_32KEY);
  }
  void TearDown() override { ::RegCloseKey(key_); }
  // Creates a key in one view and returns it open for writing.
  static HKEY Create(const char* path, REGSAM view) {
    HKEY key = nullptr;
    EXPECT_EQ(ERROR_SUCCESS, ::RegCreateKeyExA(HKEY_LOCAL_MACHINE, path, 0, nullptr, 0, KEY_ALL_ACCESS | view, nullptr,
                                               &key, nullptr));
    return key;
  }
  static void Put(HKEY key, const char* name, DWORD type, const void* data, DWORD size) {
    ::RegSetValueExA(key, name, 0, type, static_cast<const BYTE*>(data), size);
  }
  HKEY key_ = nullptr;
};

// Values are read from the 32-bit view; a key only in the 64-bit view is not
// found, and no key stays open, also after a failure.
TEST_F(RegistryTest, ValuesAreReadFromThe32BitView) {
  const std::string longest(124, 'a'), too_long(125, 'b');
  const BYTE bytes[] = {0x01, 0xA5, 0x00, 0xFF};
  Put(key_, "Name", REG_SZ, "ThinkPad X13", 13);
  Put(key_, "Longest", REG_SZ, longest.c_str(), 125);
  Put(key_, "TooLong", REG_SZ, too_long.c_str(), 126);
  Put(key_, "Blob", REG_BINARY, bytes, sizeof bytes);
  HKEY only64 = Create(kKey64Only, KEY_WOW64_64KEY);
  Put(only64, "Name", REG_SZ, "x", 2);
  ::RegCloseKey(only64);
  DWORD before = 0, after = 0;
  ::GetProcessHandleCount(::GetCurrentProcess(), &before);
  // Key, value name, result, the value read, and the error logged.
  using Case = std::tuple<const char*, const char*, DWORD, std::string, std::string>;
  for (const auto& [key, name, result, expected_value, error] : {Case{kKey, "Name", 0, "ThinkPad X13", ""},
                        Case{kKey, "Longest", 0, longest, ""},  // 124 characters and the terminator fit
                        Case{kKey, "TooLong", 1, "", "RegQueryValueEx error"},  // not in the 125-byte buffer
                        Case{kKey, "Missing", 1, "", "RegQueryValueEx error"},
                        Case{kKey64Only, "Name", 1, "", "RegOpenKeyEx error"}}) {
    SCOPED_TRACE(name);
    ClearLog();
    std::string value = "preset";
    DWORD type = REG_SZ;
    EXPECT_EQ(result, GetRegKeyValue(key, name, value, type));
    EXPECT_EQ(expected_value, value) << "emptied on failure";
    Lines expected = {"GetRegKeyValue enter.", key, name, error, "GetRegKeyValue done."};
    if (error.empty()) expected.erase(expected.begin() + 3);
    EXPECT_EQ(expected, messages());
  }
  BYTE raw[16] = {};
  DWORD type = REG_SZ, size = sizeof raw;  // the caller's type is overwritten
  EXPECT_EQ(0u, GetRegKeyValue(kKey, "Blob", raw, type, size));
  EXPECT_EQ(static_cast<DWORD>(REG_BINARY), type);
  EXPECT_EQ(std::string("\x01\xA5\x00\xFF", 4), std::string(reinterpret_cast<char*>(raw), size));
  size = 2;
  EXPECT_EQ(1u, GetRegKeyValue(kKey, "Blob", raw, type, size)) << "does not fit";
  ::GetProcessHandleCount(::GetCurrentProcess(), &after);
  EXPECT_EQ(before, after) << "every key closed";
  ::RegDeleteKeyExA(HKEY_LOCAL_MACHINE, kKey64Only, KEY_WOW64_64KEY, 0);
}

// Checked through the registry itself, not through our reader.
TEST_F(RegistryTest, WritesStoreTextWithoutTerminatorAndNeverCreateKeys) {
  EXPECT_EQ(0u, SetRegKeyValue(kKey, "Three", "abc"));
  EXPECT_EQ(0u, SetRegKeyDword(kKey, "Flag", 0x12345678, REG_DWORD));
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

}  // namespace
}  // namespace dorvane
