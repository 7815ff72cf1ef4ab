#include "util/placed_file.h"

#include <algorithm>
#include <atomic>
#include <cstdio>

#include "util/file_ops.h"
#include "util/path_buffer.h"

namespace dorvane {

namespace {

bool IsSeparator(char c) { return c == '\\' || c == '/'; }

// The longest path the A-form file functions take.
constexpr size_t kLongestPath = kPathChars - 1;

// Attributes under which Windows refuses to overwrite a file in place
// (CreateFile with CREATE_ALWAYS, CopyFile): a move over such a file would
// succeed, so they are refused first, as the write in place was.
constexpr DWORD kNotOverwritten =
    FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM;

std::atomic<unsigned> g_names{0};

// A temporary file's name of at most `room` characters. Where there is room it
// says what it is; in a folder whose path leaves little room it is as short as
// it must be, and the attempts run through other names.
std::string TemporaryName(unsigned number, size_t room) {
  char text[32];
  if (room >= 15) {
    std::snprintf(text, sizeof text, "~dv%08x.tmp", number);
    return text;
  }
  static const char kDigits[] = "0123456789abcdefghijklmnopqrstuvwxyz";
  std::string name(room, '~');
  for (size_t i = room; i-- > 0 && number > 0; number /= 36) name[i] = kDigits[number % 36];
  return name;
}

}  // namespace

bool IsLinkAttributes(DWORD attributes) {
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
}

size_t CallerFolderLength(const std::string& path, size_t caller_length) {
  for (size_t i = std::min(caller_length, path.size()); i > 0; --i) {
    if (IsSeparator(path[i - 1])) return i;
  }
  return 0;
}

Placing MakeFoldersInside(const std::string& path, size_t caller_length) {
  const size_t start = CallerFolderLength(path, caller_length);
  if (start > 0 && ::GetFileAttributesA(path.substr(0, start).c_str()) == INVALID_FILE_ATTRIBUTES) {
    MakeFolders(path.substr(0, start));
  }
  size_t part = start;
  for (size_t at = start; at < path.size(); ++at) {
    if (!IsSeparator(path[at])) continue;
    const std::string name = path.substr(part, at - part);
    part = at + 1;
    if (name.empty() || name == ".") continue;
    const std::string folder = path.substr(0, at);
    DWORD attributes = ::GetFileAttributesA(folder.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES) {
      // Another thread may make the same folder meanwhile: what counts is
      // what stands there afterwards.
      ::CreateDirectoryA(folder.c_str(), nullptr);
      attributes = ::GetFileAttributesA(folder.c_str());
    }
    if (attributes == INVALID_FILE_ATTRIBUTES) return Placing::kBlocked;
    if (IsLinkAttributes(attributes)) return Placing::kLink;
    if (!(attributes & FILE_ATTRIBUTE_DIRECTORY)) return Placing::kBlocked;
  }
  return Placing::kReady;
}

ReplacingFile::~ReplacingFile() { Discard(); }

Placing ReplacingFile::Create(const std::string& path, Where where) {
  Discard();
  const size_t folder = CallerFolderLength(path, path.size());
  const bool fits = folder < path.size() && path.size() <= kLongestPath;
  // Nothing stands there: made new under its own name, it cannot be anything
  // else's file, and the move is saved (most of a package's files). Tried
  // before asking what stands there: CREATE_NEW fails when anything does (a
  // link included), and the question costs as much as the creation again
  // (under Wine a scan of the folder for the name in another case).
  if (where == Where::kInPlaceWhenNew && fits) {
    file_.reset(::CreateFileA(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                              FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
    if (file_) {
      path_ = path;
      temporary_ = path;
      in_place_ = true;
      return Placing::kReady;
    }
    // Something stands there, came meanwhile, or cannot be made there: the other way.
  }
  const DWORD attributes = ::GetFileAttributesA(path.c_str());
  // As the write in place would have failed, and with its error.
  if (IsLinkAttributes(attributes) ||
      (attributes != INVALID_FILE_ATTRIBUTES &&
       (attributes & (FILE_ATTRIBUTE_DIRECTORY | kNotOverwritten)))) {
    ::SetLastError(ERROR_ACCESS_DENIED);
    return IsLinkAttributes(attributes) ? Placing::kLink : Placing::kBlocked;
  }
  if (!fits) {
    ::SetLastError(ERROR_FILENAME_EXCED_RANGE);
    return Placing::kBlocked;
  }
  const size_t room = kLongestPath - folder;
  const unsigned seed = static_cast<unsigned>(::GetCurrentProcessId()) << 16;
  for (int attempt = 0; attempt < 64; ++attempt) {
    std::string temporary = path.substr(0, folder) + TemporaryName(seed + g_names++, room);
    file_.reset(::CreateFileA(temporary.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                              FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
    if (file_) {
      path_ = path;
      temporary_ = std::move(temporary);
      return Placing::kReady;
    }
    const DWORD error = ::GetLastError();
    // Taken by a file, or by a folder (which Windows reports as access denied).
    if (error != ERROR_FILE_EXISTS && error != ERROR_ALREADY_EXISTS &&
        error != ERROR_ACCESS_DENIED) {
      break;
    }
  }
  return Placing::kBlocked;
}

bool ReplacingFile::Commit() {
  if (temporary_.empty()) return false;
  file_.reset();
  if (in_place_) {
    in_place_ = false;
    temporary_.clear();
    return true;
  }
  if (!::MoveFileExA(temporary_.c_str(), path_.c_str(), MOVEFILE_REPLACE_EXISTING)) {
    Discard();
    return false;
  }
  temporary_.clear();
  return true;
}

void ReplacingFile::Discard() {
  // The error of what failed before stays the error to tell.
  const DWORD error = ::GetLastError();
  file_.reset();
  if (!temporary_.empty()) {
    // CopyFile gives the copy the source's attributes, read-only among them.
    ::SetFileAttributesA(temporary_.c_str(), FILE_ATTRIBUTE_NORMAL);
    ::DeleteFileA(temporary_.c_str());
    temporary_.clear();
  }
  in_place_ = false;
  ::SetLastError(error);
}

bool CopyFileReplacing(const std::string& source, const std::string& destination) {
  ReplacingFile file;
  if (file.Create(destination) != Placing::kReady) return false;
  file.Close();
  // A failed copy leaves the temporary file to `file`, which removes it.
  return ::CopyFileA(source.c_str(), file.temporary().c_str(), FALSE) && file.Commit();
}

}  // namespace dorvane
