#include "tools/mbnsim/registry.h"

#include <cstring>

namespace mbnsim::reg {

using dorvane::UniqueRegKey;

UniqueRegKey Open(const std::string& path, Access access) {
  UniqueRegKey key;
  if (access == Access::kCreate) {
    ::RegCreateKeyExA(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                      key.put(), nullptr);
  } else {
    ::RegOpenKeyExA(HKEY_LOCAL_MACHINE, path.c_str(), 0,
                    access == Access::kRead ? KEY_READ : KEY_READ | KEY_WRITE, key.put());
  }
  return key;
}

namespace {

bool Query(HKEY key, const char* name, DWORD want, std::string* out) {
  DWORD size = 0;
  DWORD type = 0;
  if (key == nullptr || ::RegQueryValueExA(key, name, nullptr, &type, nullptr, &size) != ERROR_SUCCESS ||
      type != want) {
    return false;
  }
  std::string bytes(size, '\0');
  if (size > 0 && ::RegQueryValueExA(key, name, nullptr, &type, reinterpret_cast<BYTE*>(&bytes[0]),
                                     &size) != ERROR_SUCCESS) {
    return false;
  }
  bytes.resize(size);
  *out = std::move(bytes);
  return true;
}

std::string WithoutTerminator(std::string text) {
  while (!text.empty() && text.back() == '\0') text.pop_back();
  return text;
}

}  // namespace

std::string ReadString(HKEY key, const char* name) {
  std::string text;
  return Query(key, name, REG_SZ, &text) ? WithoutTerminator(text) : std::string();
}

bool ReadDword(HKEY key, const char* name, DWORD* out) {
  std::string bytes;
  if (!Query(key, name, REG_DWORD, &bytes) || bytes.size() != sizeof(DWORD)) return false;
  std::memcpy(out, bytes.data(), sizeof(DWORD));
  return true;
}

bool ReadBinary(HKEY key, const char* name, std::string* out) {
  return Query(key, name, REG_BINARY, out);
}

void WriteString(HKEY key, const char* name, const std::string& value) {
  ::RegSetValueExA(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                   static_cast<DWORD>(value.size() + 1));
}

void WriteDword(HKEY key, const char* name, DWORD value) {
  ::RegSetValueExA(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof value);
}

LONG WriteBinary(HKEY key, const char* name, const std::string& bytes) {
  return ::RegSetValueExA(key, name, 0, REG_BINARY, reinterpret_cast<const BYTE*>(bytes.data()),
                   static_cast<DWORD>(bytes.size()));
}

void DeleteTree(const std::string& path) { ::RegDeleteTreeA(HKEY_LOCAL_MACHINE, path.c_str()); }

std::vector<Value> Values(HKEY key) {
  std::vector<Value> out;
  if (key == nullptr) return out;
  for (DWORD i = 0;; ++i) {
    char name[256];
    DWORD name_size = sizeof name;
    BYTE data[4096];
    DWORD data_size = sizeof data;
    DWORD type = 0;
    LONG rc = ::RegEnumValueA(key, i, name, &name_size, nullptr, &type, data, &data_size);
    if (rc == ERROR_MORE_DATA) continue;  // too long for the simulator: skipped
    // Anything else ends the walk: the key may have been deleted meanwhile by
    // another process (ERROR_KEY_DELETED), and would answer so for ever.
    if (rc != ERROR_SUCCESS) break;
    Value v;
    v.name.assign(name, name_size);
    v.type = type;
    v.data.assign(reinterpret_cast<const char*>(data), data_size);
    if (type == REG_SZ) v.data = WithoutTerminator(v.data);
    out.push_back(std::move(v));
  }
  return out;
}

std::vector<std::string> Subkeys(HKEY key) {
  std::vector<std::string> out;
  if (key == nullptr) return out;
  for (DWORD i = 0;; ++i) {
    char name[256];
    DWORD size = sizeof name;
    if (::RegEnumKeyExA(key, i, name, &size, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS) {
      break;
    }
    out.emplace_back(name, size);
  }
  return out;
}

}  // namespace mbnsim::reg
