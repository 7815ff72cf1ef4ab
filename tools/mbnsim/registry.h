// Small helpers over the registry for the simulator's scenario and state.
#pragma once

#include <windows.h>

#include <string>
#include <utility>
#include <vector>

#include "util/scoped_handle.h"

namespace mbnsim::reg {

enum class Access { kRead, kWrite, kCreate };

// HKLM\<path>; an invalid key when it cannot be opened.
dorvane::UniqueRegKey Open(const std::string& path, Access access);

std::string ReadString(HKEY key, const char* name);
bool ReadDword(HKEY key, const char* name, DWORD* out);
bool ReadBinary(HKEY key, const char* name, std::string* out);
void WriteString(HKEY key, const char* name, const std::string& value);
void WriteDword(HKEY key, const char* name, DWORD value);
LONG WriteBinary(HKEY key, const char* name, const std::string& bytes);
void DeleteTree(const std::string& path);

struct Value {
  std::string name;
  DWORD type = REG_NONE;
  std::string data;  // raw bytes (a REG_SZ includes no terminator)
};
std::vector<Value> Values(HKEY key);
std::vector<std::string> Subkeys(HKEY key);

}  // namespace mbnsim::reg
