#include "support/links.h"

#include "util/scoped_handle.h"

namespace dorvane::testing {

namespace {

using UnixFileNameFn = char*(__cdecl*)(LPCWSTR);
UnixFileNameFn WineUnixFileName() {
  return reinterpret_cast<UnixFileNameFn>(reinterpret_cast<void*>(
      ::GetProcAddress(::GetModuleHandleA("kernel32.dll"), "wine_get_unix_file_name")));
}

// The tests' folders have ASCII names.
std::string UnixName(const std::string& path) {
  const std::wstring wide(path.begin(), path.end());
  char* name = WineUnixFileName()(wide.c_str());
  if (name == nullptr) return "";
  std::string out(name);
  ::HeapFree(::GetProcessHeap(), 0, name);
  return out;
}

}  // namespace

bool UnderWine() { return WineUnixFileName() != nullptr; }

DWORD ListedAttributes(const std::string& path) {
  WIN32_FIND_DATAA found;
  UniqueFindHandle entry(::FindFirstFileA(path.c_str(), &found));
  return entry ? found.dwFileAttributes : INVALID_FILE_ATTRIBUTES;
}

// No Win32 call makes a Unix link, but Wine runs a Unix program named by its
// Z: path (Z: is /). It hands back no process handle for it, so the link is
// waited for.
bool MakeUnixLink(const std::string& link, const std::string& target) {
  if (!UnderWine()) return false;
  std::string command = "ln -s \"" + UnixName(target) + "\" \"" + UnixName(link) + "\"";
  STARTUPINFOA startup = {};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION started = {};
  if (!::CreateProcessA("Z:\\bin\\ln", command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                        &started)) {
    return false;
  }
  const UniqueHandle process(started.hProcess), thread(started.hThread);
  for (int i = 0; i < 250 && ListedAttributes(link) == INVALID_FILE_ATTRIBUTES; ++i) ::Sleep(20);
  return ListedAttributes(link) != INVALID_FILE_ATTRIBUTES;
}

}  // namespace dorvane::testing
