#include "util/registry.h"

#include <cstdio>
#include <cstring>

#include "log/logger.h"
#include "util/path_buffer.h"
#include "util/scoped_handle.h"

namespace dorvane {

namespace {

// Key paths and value names go through 260-character buffers in the setters and
// the raw reader: longer ones are cut, as deployed.
std::string Cut(const std::string& text) { return PathBuffer(text).str(); }

thread_local RegistryFailure g_last_failure;

// Keeps why a step failed for LastRegistryFailure; gives the helpers' 1.
DWORD Failed(const char* step, LONG error) {
  g_last_failure = RegistryFailure{step, error};
  return 1;
}

// Opens the key, logging the failure. Invalid owner on failure.
UniqueRegKey OpenKey(const std::string& key_path, REGSAM access) {
  g_last_failure = RegistryFailure();
  UniqueRegKey key;
  const LONG error = ::RegOpenKeyExA(HKEY_LOCAL_MACHINE, key_path.c_str(), 0, access, key.put());
  if (error != ERROR_SUCCESS) {
    Logger::GetInstance()->Write(kLogError, "RegOpenKeyEx error");
    Failed("RegOpenKeyEx", error);
    key.reset();
  }
  return key;
}

void LogEnter(const std::string& key_path, const std::string& value_name) {
  Logger* log = Logger::GetInstance();
  log->Write(kLogDetail, "GetRegKeyValue enter.");
  log->Write(kLogDetail, key_path);
  log->Write(kLogDetail, value_name);
}

// Queries into `data` of `size` bytes; logs a failure. The key is closed by its owner.
DWORD Query(const std::string& key_path, const std::string& value_name, BYTE* data,
            DWORD& value_type, DWORD& size) {
  UniqueRegKey key = OpenKey(key_path, kRegReadAccess);
  if (!key) return 1;
  const LONG error =
      ::RegQueryValueExA(key.get(), value_name.c_str(), nullptr, &value_type, data, &size);
  if (error != ERROR_SUCCESS) {
    Logger::GetInstance()->Write(kLogError, "RegQueryValueEx error");
    return Failed("RegQueryValueEx", error);
  }
  return 0;
}

DWORD SetValue(const std::string& key_path, const std::string& value_name, DWORD type,
               const BYTE* data, DWORD size) {
  UniqueRegKey key = OpenKey(key_path, kRegWriteAccess);
  if (!key) return 1;
  const LONG error = ::RegSetValueExA(key.get(), value_name.c_str(), 0, type, data, size);
  if (error != ERROR_SUCCESS) {
    Logger::GetInstance()->Write(kLogError, "RegSetValueEx error");
    return Failed("RegSetValueEx", error);
  }
  return 0;
}

}  // namespace

DWORD GetRegKeyValue(std::string key_path, std::string value_name, std::string& value,
                     DWORD& value_type) {
  LogEnter(key_path, value_name);
  char buffer[kRegTextBuffer] = {};
  DWORD size = kRegTextBuffer;
  DWORD result = Query(key_path, value_name, reinterpret_cast<BYTE*>(buffer), value_type, size);
  // Up to the first zero, and never past the buffer: a value stored without a
  // terminator may fill it completely.
  value = result == 0 ? std::string(buffer, ::strnlen(buffer, kRegTextBuffer)) : std::string();
  Logger::GetInstance()->Write(kLogDetail, "GetRegKeyValue done.");
  return result;
}

DWORD GetRegKeyValue(std::string key_path, std::string value_name, BYTE* data, DWORD& value_type,
                     DWORD& size) {
  key_path = Cut(key_path);
  value_name = Cut(value_name);
  LogEnter(key_path, value_name);
  DWORD result = Query(key_path, value_name, data, value_type, size);
  Logger::GetInstance()->Write(kLogDetail, "GetRegKeyValue done.");
  return result;
}

DWORD SetRegKeyValue(std::string key_path, std::string value_name, std::string value) {
  key_path = Cut(key_path);
  value_name = Cut(value_name);
  Logger* log = Logger::GetInstance();
  log->Write(kLogDetail, key_path);
  log->Write(kLogDetail, value_name);
  log->Write(kLogDetail, value);
  // The size counts the characters only, not the terminator: kept, the
  // installation's readers expect values stored that way. The system quietly
  // counts a terminator in when the byte after the data is zero, so the text is
  // handed over followed by a non-zero byte to be stored exactly as sized.
  std::string data = value + '\x01';
  return SetValue(key_path, value_name, REG_SZ, reinterpret_cast<const BYTE*>(data.data()),
                  static_cast<DWORD>(value.size()));
}

DWORD SetRegKeyDword(std::string key_path, std::string value_name, DWORD value, DWORD value_type) {
  key_path = Cut(key_path);
  value_name = Cut(value_name);
  Logger* log = Logger::GetInstance();
  log->Write(kLogDetail, key_path);
  log->Write(kLogDetail, value_name);
  return SetValue(key_path, value_name, value_type, reinterpret_cast<const BYTE*>(&value),
                  sizeof value);
}

RegistryFailure LastRegistryFailure() { return g_last_failure; }

std::string Int64ToText(long long value) {
  char text[32];
  std::snprintf(text, sizeof text, "%lld", value);
  return text;
}

std::string IntToText(int value) {
  char text[16];
  std::snprintf(text, sizeof text, "%d", value);
  return text;
}

}  // namespace dorvane
