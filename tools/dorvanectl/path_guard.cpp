#include "tools/dorvanectl/path_guard.h"

#include <windows.h>
#include <knownfolders.h>
#include <shlobj.h>

#include <cstdio>
#include <memory>
#include <utility>

#include "util/com_ptr.h"
#include "util/package.h"
#include "util/path_buffer.h"
#include "util/scoped_handle.h"

namespace dorvane::ctl {

namespace {

bool IsSeparator(wchar_t c) { return c == L'\\' || c == L'/'; }

bool StartsWithNoCase(const std::wstring& text, const std::wstring& prefix) {
  return text.size() >= prefix.size() &&
         ::CompareStringOrdinal(text.data(), static_cast<int>(prefix.size()), prefix.data(),
                                static_cast<int>(prefix.size()), TRUE) == CSTR_EQUAL;
}

// The form in which paths are compared: Windows compares names without case.
std::wstring Key(std::wstring text) {
  if (!text.empty()) ::CharUpperBuffW(&text[0], static_cast<DWORD>(text.size()));
  return text;
}

// Runs a call of the GetFullPathNameW kind (it gives the length it wrote, or
// the size it needs with the terminating zero, or 0 on failure) with a buffer
// that is large enough.
template <typename Call>
std::optional<std::wstring> Filled(Call call) {
  std::wstring buffer(MAX_PATH, L'\0');
  for (int attempt = 0; attempt < 3; ++attempt) {
    const DWORD length = call(&buffer[0], static_cast<DWORD>(buffer.size()));
    if (length == 0) return std::nullopt;
    if (length < buffer.size()) {
      buffer.resize(length);
      return buffer;
    }
    buffer.resize(length);
  }
  return std::nullopt;
}

// A full path as its root ("C:\" or "\\server\share") and its parts; or a
// path in the device namespace, which is not taken apart.
struct FullPath {
  std::wstring root;
  std::vector<std::wstring> parts;
  bool device = false;

  std::wstring Text() const {
    std::wstring text = root;
    for (size_t i = 0; i < parts.size(); ++i) {
      if (i > 0 || text.empty() || !IsSeparator(text.back())) text += L'\\';
      text += parts[i];
    }
    return text;
  }
  FullPath Leading(size_t count) const {
    FullPath leading = *this;
    leading.parts.resize(count);
    return leading;
  }
  void Append(const std::vector<std::wstring>& more, size_t from) {
    parts.insert(parts.end(), more.begin() + static_cast<ptrdiff_t>(from), more.end());
  }
};

bool IsDrive(const std::wstring& text) {
  return text.size() >= 2 && text[1] == L':' &&
         ((text[0] >= L'A' && text[0] <= L'Z') || (text[0] >= L'a' && text[0] <= L'z')) &&
         (text.size() == 2 || text[2] == L'\\');
}

// "\\?\", "\\.\" and "\??\" (the last as the native form) hand what follows
// to the system with little or no change.
bool HasDevicePrefix(const std::wstring& text) {
  return text.size() >= 4 && text[0] == L'\\' && text[3] == L'\\' &&
         ((text[1] == L'\\' && (text[2] == L'?' || text[2] == L'.')) ||
          (text[1] == L'?' && text[2] == L'?'));
}

// A full path (as GetFullPathNameW gives it) taken apart. Empty parts (doubled
// separators) are dropped, and so are the trailing dots and blanks of every
// part, which Windows drops from the last part and most file systems never
// store: "C:\Windows.\" counts as C:\Windows.
std::optional<FullPath> Split(const std::wstring& full) {
  FullPath path;
  size_t at = 0;
  if (IsDrive(full) && full.size() >= 3) {
    path.root = full.substr(0, 3);
    at = 3;
  } else if (full.size() >= 2 && IsSeparator(full[0]) && IsSeparator(full[1])) {
    // \\server\share: both names belong to the root.
    at = 2;
    for (int name = 0; name < 2 && at < full.size(); ++name) {
      const size_t end = full.find_first_of(L"\\/", at);
      path.root +=
          L'\\' + full.substr(at, end == std::wstring::npos ? std::wstring::npos : end - at);
      at = end == std::wstring::npos ? full.size() : end + 1;
    }
    path.root.insert(0, L"\\");
  } else {
    return std::nullopt;
  }
  while (at < full.size()) {
    size_t end = full.find_first_of(L"\\/", at);
    if (end == std::wstring::npos) end = full.size();
    std::wstring part = full.substr(at, end - at);
    while (!part.empty() && (part.back() == L'.' || part.back() == L' ')) part.pop_back();
    if (!part.empty()) path.parts.push_back(part);
    at = end + 1;
  }
  return path;
}

// `text` made full as the file functions will read it; nothing when it cannot
// be made full.
std::optional<FullPath> Full(std::wstring text) {
  for (wchar_t& c : text) {
    if (c == L'/') c = L'\\';
  }
  if (HasDevicePrefix(text)) {
    const std::wstring rest = text.substr(4);
    if (StartsWithNoCase(rest, L"UNC\\")) {
      text = L"\\\\" + rest.substr(4);
    } else if (IsDrive(rest)) {
      text = rest.size() == 2 ? rest + L"\\" : rest;  // \\.\C: is the volume itself
    } else {
      FullPath device;
      device.root = text;
      device.device = true;
      return device;
    }
  }
  const std::optional<std::wstring> full = Filled([&text](wchar_t* buffer, DWORD size) {
    return ::GetFullPathNameW(text.c_str(), size, buffer, nullptr);
  });
  if (!full) return std::nullopt;
  if (HasDevicePrefix(*full)) {  // a device name such as "nul"
    FullPath device;
    device.root = *full;
    device.device = true;
    return device;
  }
  return Split(*full);
}

// How many leading parts of `path` exist; nothing when not even its root does.
std::optional<size_t> ExistingParts(const FullPath& path) {
  for (size_t count = path.parts.size() + 1; count-- > 0;) {
    if (::GetFileAttributesW(path.Leading(count).Text().c_str()) != INVALID_FILE_ATTRIBUTES) {
      return count;
    }
  }
  return std::nullopt;
}

// `path` with the long names of its existing parts (C:\PROGRA~1 is
// C:\Program Files), and where it leads through links, when that differs.
struct Spellings {
  FullPath path;
  std::optional<FullPath> linked;
};

Spellings Spell(const FullPath& given) {
  Spellings result{given, std::nullopt};
  if (given.device) return result;
  const std::optional<size_t> existing = ExistingParts(given);
  if (!existing) return result;
  const std::wstring leading = given.Leading(*existing).Text();
  const std::optional<std::wstring> long_name = Filled([&leading](wchar_t* buffer, DWORD size) {
    return ::GetLongPathNameW(leading.c_str(), buffer, size);
  });
  if (long_name) {
    if (std::optional<FullPath> expanded = Split(*long_name)) {
      expanded->Append(given.parts, *existing);
      result.path = *expanded;
    }
  }
  const DWORD share = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
  UniqueHandle handle(::CreateFileW(leading.c_str(), FILE_READ_ATTRIBUTES, share, nullptr,
                                    OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
  if (!handle) return result;
  const std::optional<std::wstring> final_name = Filled([&handle](wchar_t* buffer, DWORD size) {
    return ::GetFinalPathNameByHandleW(handle.get(), buffer, size,
                                       FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
  });
  if (!final_name) return result;
  std::optional<FullPath> linked = Full(*final_name);
  if (!linked || linked->device) return result;
  linked->Append(given.parts, *existing);
  if (Key(linked->Text()) != Key(result.path.Text())) result.linked = *linked;
  return result;
}

// \\server\share\...: the folders of another machine.
bool IsOnShare(const FullPath& path) {
  return !path.device && path.root.size() >= 2 && path.root[0] == L'\\' && path.root[1] == L'\\';
}

struct Protected {
  std::wstring key;
  std::wstring path;
  const char* what;
};

class ProtectedFolders {
 public:
  ProtectedFolders();

  // Why `path` must not be reached, or nothing.
  std::optional<std::string> Why(const FullPath& path) const;

 private:
  void Add(const std::optional<std::wstring>& path, const char* what);
  void AddKnown(const KNOWNFOLDERID& id, const char* what);
  void AddRegistry(HKEY key, const wchar_t* subkey, const wchar_t* value, const char* what);
  void AddProfiles();

  std::vector<Protected> list_;
};

ProtectedFolders::ProtectedFolders() {
  constexpr const char* kWindows = "the Windows folder";
  constexpr const char* kSystem = "the system folder";
  constexpr const char* kProgramFiles = "a Program Files folder";
  Add(Filled(::GetWindowsDirectoryW), kWindows);
  Add(Filled(::GetSystemWindowsDirectoryW), kWindows);
  Add(Filled(::GetSystemDirectoryW), kSystem);
  Add(Filled(::GetSystemWow64DirectoryW), kSystem);
  AddKnown(FOLDERID_Windows, kWindows);
  AddKnown(FOLDERID_System, kSystem);
  AddKnown(FOLDERID_SystemX86, kSystem);
  AddKnown(FOLDERID_UserProfiles, "the Users folder");
  AddKnown(FOLDERID_Profile, "a user's profile folder");
  AddKnown(FOLDERID_Public, "the public profile folder");
  AddKnown(FOLDERID_ProgramData, "the ProgramData folder");
  AddKnown(FOLDERID_ProgramFiles, kProgramFiles);
  AddKnown(FOLDERID_ProgramFilesX86, kProgramFiles);
  AddKnown(FOLDERID_ProgramFilesX64, kProgramFiles);
  const wchar_t* version = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion";
  AddRegistry(HKEY_LOCAL_MACHINE, version, L"ProgramFilesDir", kProgramFiles);
  AddRegistry(HKEY_LOCAL_MACHINE, version, L"ProgramFilesDir (x86)", kProgramFiles);
  AddRegistry(HKEY_LOCAL_MACHINE, version, L"ProgramW6432Dir", kProgramFiles);
  AddProfiles();
}

// Every form of `path` that an argument can reach it by.
void ProtectedFolders::Add(const std::optional<std::wstring>& path, const char* what) {
  if (!path || path->empty()) return;
  const std::optional<FullPath> full = Full(*path);
  if (!full || full->device) return;
  const Spellings spellings = Spell(*full);
  for (const std::optional<FullPath>& form : {std::optional<FullPath>(spellings.path),
                                              std::optional<FullPath>(*full), spellings.linked}) {
    if (!form) continue;
    Protected entry{Key(form->Text()), form->Text(), what};
    bool known = false;
    for (const Protected& p : list_) known = known || p.key == entry.key;
    if (!known) list_.push_back(std::move(entry));
  }
}

void ProtectedFolders::AddKnown(const KNOWNFOLDERID& id, const char* what) {
  PWSTR path = nullptr;
  const HRESULT hr = ::SHGetKnownFolderPath(id, KF_FLAG_DONT_VERIFY, nullptr, &path);
  const std::unique_ptr<wchar_t, decltype(&::CoTaskMemFree)> owner(path, &::CoTaskMemFree);
  if (SUCCEEDED(hr) && path != nullptr) Add(std::wstring(path), what);
}

// A text value, with environment variables expanded. RRF_RT_REG_SZ takes
// REG_EXPAND_SZ too: expanded, it counts as REG_SZ (asking for REG_EXPAND_SZ
// itself would need RRF_NOEXPAND).
std::optional<std::wstring> RegistryText(HKEY key, const wchar_t* subkey, const wchar_t* value) {
  DWORD size = 0;
  const DWORD flags = RRF_RT_REG_SZ;
  if (::RegGetValueW(key, subkey, value, flags, nullptr, nullptr, &size) != ERROR_SUCCESS) {
    return std::nullopt;
  }
  std::wstring text(size / sizeof(wchar_t) + 1, L'\0');
  size = static_cast<DWORD>(text.size() * sizeof(wchar_t));
  if (::RegGetValueW(key, subkey, value, flags, nullptr, &text[0], &size) != ERROR_SUCCESS) {
    return std::nullopt;
  }
  text.resize(text.find(L'\0'));
  return text;
}

void ProtectedFolders::AddRegistry(HKEY key, const wchar_t* subkey, const wchar_t* value,
                                   const char* what) {
  Add(RegistryText(key, subkey, value), what);
}

// The profile list names the Users folder, ProgramData, the public and the
// default profile, and under one key per account that has logged on, each
// user's profile folder.
void ProtectedFolders::AddProfiles() {
  const wchar_t* list = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList";
  AddRegistry(HKEY_LOCAL_MACHINE, list, L"ProfilesDirectory", "the Users folder");
  AddRegistry(HKEY_LOCAL_MACHINE, list, L"ProgramData", "the ProgramData folder");
  AddRegistry(HKEY_LOCAL_MACHINE, list, L"Public", "the public profile folder");
  AddRegistry(HKEY_LOCAL_MACHINE, list, L"Default", "the default profile folder");
  UniqueRegKey key;
  if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, list, 0, KEY_READ, key.put()) != ERROR_SUCCESS) return;
  wchar_t name[256];
  for (DWORD index = 0;; ++index) {
    DWORD length = ARRAYSIZE(name);
    const LONG result =
        ::RegEnumKeyExW(key.get(), index, name, &length, nullptr, nullptr, nullptr, nullptr);
    if (result == ERROR_MORE_DATA) continue;
    if (result != ERROR_SUCCESS) break;
    AddRegistry(key.get(), name, L"ProfileImagePath", "a user's profile folder");
  }
}

std::optional<std::string> ProtectedFolders::Why(const FullPath& path) const {
  if (path.parts.empty()) {
    return std::string(IsDrive(path.root) ? "is a drive root" : "is the root of a network share");
  }
  const std::wstring key = Key(path.Text());
  for (const Protected& p : list_) {
    if (p.key == key) return std::string("is ") + p.what;
  }
  for (const Protected& p : list_) {
    if (p.key.size() > key.size() && p.key.compare(0, key.size(), key) == 0 &&
        p.key[key.size()] == L'\\') {
      return std::string("holds ") + p.what + " " + WideToAnsi(p.path.c_str());
    }
  }
  return std::nullopt;
}

const ProtectedFolders& TheProtectedFolders() {
  static const ProtectedFolders folders;
  return folders;
}

// The refusal for one spelling of a folder, or nothing.
std::optional<Refusal> Check(const GuardedFolder& folder, const std::optional<FullPath>& full) {
  Refusal refusal{folder.argument, folder.given, "", false, "", folder.action};
  if (!full || full->device) {
    refusal.path = folder.given;
    refusal.why = full ? "is a device path, which cannot be checked"
                       : "cannot be made a full path, so it cannot be checked";
    return refusal;
  }
  const Spellings spellings = Spell(*full);
  const FullPath* forms[] = {&spellings.path, spellings.linked ? &*spellings.linked : nullptr};
  for (const FullPath* form : forms) {
    if (form == nullptr) continue;
    std::optional<std::string> why = TheProtectedFolders().Why(*form);
    // The protected folders are this machine's; those of the machine that
    // serves a share (its Windows folder, its profiles) are not known here.
    if (!why && IsOnShare(*form)) {
      why = "is on the network share " + WideToAnsi(form->root.c_str()) +
            ", whose protected folders cannot be checked from this machine";
    }
    if (why) {
      refusal.path = WideToAnsi(form->Text().c_str());
      refusal.through_link = form != forms[0];
      refusal.why = *why;
      return refusal;
    }
  }
  return std::nullopt;
}

std::optional<FullPath> ParentOf(std::optional<FullPath> path) {
  if (path && !path->device && !path->parts.empty()) path->parts.pop_back();
  return path;
}

// The name that stands for an entry in the paths an operation forms: one no
// file can have, so that the path never exists and is never followed.
constexpr char kEntry[] = "|";

// folder + "\" + name, cut as the operations cut their paths.
std::string Item(const std::string& folder, const char* name) {
  return PathBuffer(folder).Append("\\").Append(name).str();
}

// A folder that the operations list with folder + "\*.*" and reach by
// folder + "\" + name.
GuardedFolder Listed(const char* argument, const std::string& folder, const char* action) {
  return GuardedFolder{
      argument, folder, {Item(folder, kEntry), Item(folder, "*.*")}, false, action};
}

}  // namespace

std::string Refusal::Reason() const {
  return path + " (" + argument + " \"" + given + "\"" + (through_link ? ", through a link" : "") +
         "): it " + why;
}

std::string Refusal::Text(const std::string& command) const {
  return command + ": refused to " + action + " " + Reason() + ". Give --force to do it anyway.";
}

std::optional<Refusal> FirstRefusal(const std::vector<GuardedFolder>& folders) {
  for (const GuardedFolder& folder : folders) {
    // The folder each formed path lies in, the folder itself when it is
    // removed, and the formed paths themselves, in case a cut path names a
    // folder of its own.
    std::vector<std::optional<FullPath>> reached;
    for (const std::string& path : folder.inside) reached.push_back(ParentOf(Full(AnsiToWide(path))));
    if (folder.removed) reached.push_back(Full(AnsiToWide(folder.given)));
    for (const std::string& path : folder.inside) reached.push_back(Full(AnsiToWide(path)));
    for (const std::optional<FullPath>& path : reached) {
      if (std::optional<Refusal> refusal = Check(folder, path)) return refusal;
    }
  }
  return std::nullopt;
}

int ReportRefusal(const Common& common, const std::string& command, const Refusal& refusal) {
  return Fail(common, kUsageError, refusal.Text(command));
}

std::vector<GuardedFolder> DeleteDirFolders(const std::string& folder) {
  GuardedFolder guarded = Listed("folder", folder, "delete from");
  guarded.removed = true;
  return {guarded};
}

std::vector<GuardedFolder> CopyDirFolders(const std::string& destination,
                                          const std::string& source) {
  // An empty argument stops the copy before anything is touched. Both folders
  // are written: a sub-folder is copied back from the destination side into
  // the source side.
  if (destination.empty() || source.empty()) return {};
  return {Listed("destination", destination, "write into"),
          Listed("source", source, "copy from and write into")};
}

std::vector<GuardedFolder> UnzipPackageFolders(const std::string& target_folder,
                                               const std::string& sub_folder) {
  PathBuffer target(target_folder);
  target.Append(sub_folder).Append("\\");
  return {GuardedFolder{"target-folder + sub-folder",
                        target.str(),
                        {PathBuffer(target.str()).Append(kEntry).str()},
                        false,
                        "write into"}};
}

std::vector<GuardedFolder> UnzipAllItemsFolders(const std::string& target_folder) {
  // Entries go to target_folder + name, with no separator between them.
  return {GuardedFolder{"target-folder",
                        target_folder,
                        {PathBuffer(target_folder).Append(kEntry).str()},
                        false,
                        "write into"}};
}

std::vector<GuardedFolder> InstallUsbDriverFolders() {
  // Fixed folders under the Windows folder, which are protected only when a
  // link makes them lead to a protected folder. The driver files are copied
  // into the driver folder, and the architecture folders are the source of
  // that copy, whose sub-folders are written too.
  std::vector<GuardedFolder> folders = {Listed("driver folder", kUsbDriverFolder, "write into")};
  for (const char* architecture : {"x64\\", "x86\\"}) {
    folders.push_back(Listed(
        "driver folder", PathBuffer(kUsbDriverFolder).Append(architecture).str(), "write into"));
  }
  return folders;
}

}  // namespace dorvane::ctl
