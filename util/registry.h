// Registry helpers: one value under HKEY_LOCAL_MACHINE per call, always in the
// 32-bit view (also from this 64-bit build: the installation's values live
// there). Results: 0 for success, 1 for failure. Each call opens the key, does
// one thing, closes the key and logs what it did.
#pragma once

#include <windows.h>

#include <string>

namespace dorvane {

inline constexpr REGSAM kRegReadAccess = KEY_READ | KEY_WOW64_32KEY;    // 0x20219
inline constexpr REGSAM kRegWriteAccess = KEY_WRITE | KEY_WOW64_32KEY;  // 0x20206
static_assert(kRegReadAccess == 0x20219 && kRegWriteAccess == 0x20206, "access masks");

// The largest string value that can be read, terminator included, in bytes.
inline constexpr DWORD kRegTextBuffer = 125;

// Reads a string value. `value_type` goes to the query as its type slot and so
// comes back as the type the registry holds (callers pass REG_SZ). On failure
// `value` is emptied.
DWORD GetRegKeyValue(std::string key_path, std::string value_name, std::string& value,
                     DWORD& value_type);
// Reads a value's raw bytes into `data`, whose size in bytes the caller gives in
// `size`; `size` comes back as the number of bytes the registry reported.
DWORD GetRegKeyValue(std::string key_path, std::string value_name, BYTE* data, DWORD& value_type,
                     DWORD& size);
// Writes a REG_SZ of the text's bytes without a terminating zero. The key must
// exist; nothing is created.
DWORD SetRegKeyValue(std::string key_path, std::string value_name, std::string value);
// Writes a 4-byte value with the caller's type (REG_DWORD in practice).
DWORD SetRegKeyDword(std::string key_path, std::string value_name, DWORD value, DWORD value_type);

// Why the most recent of the calls above on this thread gave 1: the step that
// failed ("RegOpenKeyEx", "RegQueryValueEx", "RegSetValueEx") and the system's
// error number. Null `step` after a call that gave 0. The calls' results and
// log lines are the same whether or not anyone asks.
struct RegistryFailure {
  const char* step = nullptr;
  LONG error = ERROR_SUCCESS;
};
RegistryFailure LastRegistryFailure();

// Decimal text of a 64-bit and of a 32-bit integer.
std::string Int64ToText(long long value);
std::string IntToText(int value);

}  // namespace dorvane
