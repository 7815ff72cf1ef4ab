// Writing files and folders inside a folder without going through what already
// stands there.
//
// The service runs as LocalSystem, and the folders it unpacks and copies into
// may hold links left by a package, an earlier run or a user: a junction or a
// folder symbolic link leads anywhere on the machine, a file link to any file.
// A folder that is a link is never entered, and nothing that stands is opened
// for writing: a file is either made new under its name (which fails when
// anything, a link included, stands there) or written as a temporary file
// beside it and moved into place, which replaces a link of that name instead
// of writing through it. A file that fails half-way is removed either way.
//
// Windows shows every link by its reparse-point attribute. Wine shows a link
// to a folder so, but a link to a file looks like the file; there the move is
// what keeps the file it points to as it was.
//
//   if (MakeFoldersInside(path, target.size()) != Placing::kReady) return refused;
//   ReplacingFile file;
//   if (file.Create(path) != Placing::kReady) return refused;
//   ...WriteFile(file.handle(), ...)...
//   if (!file.Commit()) return refused;   // the temporary file is gone either way
#pragma once

#include <windows.h>

#include <string>

#include "util/scoped_handle.h"

namespace dorvane {

// True for the attributes of a link: a junction, a folder or file symbolic
// link, any other reparse point.
bool IsLinkAttributes(DWORD attributes);

enum class Placing {
  kReady,    // done, or ready to write
  kLink,     // a link stands where a folder or the file would be
  kBlocked,  // something else is in the way: a file where a folder belongs, a
             // folder or a protected file where the file belongs, no room
};

// The folder the caller named in `path`: the text up to and including the
// last "\" or "/" at or before `caller_length` (0 when there is none).
size_t CallerFolderLength(const std::string& path, size_t caller_length);

// Makes the folders of `path` that lie after the caller's folder (see
// CallerFolderLength), one at a time, each before every text after a "\" or
// "/"; the text after the last separator is not made. The caller's folder
// itself is made with MakeFolders when it is missing, as given. kLink when a
// folder on the way stands as a link, kBlocked when one cannot be made or is
// a file; nothing further is made then.
Placing MakeFoldersInside(const std::string& path, size_t caller_length);

// A file written under a temporary name in the folder of its final path and
// moved over that path when done. Used by one thread; the temporary file is
// removed unless Commit succeeded.
class ReplacingFile {
 public:
  ReplacingFile() = default;
  ~ReplacingFile();
  ReplacingFile(const ReplacingFile&) = delete;
  ReplacingFile& operator=(const ReplacingFile&) = delete;

  // kInPlaceWhenNew: when nothing stands at the path, the file is made there
  // at once, as a new file (which no link can be), and removed again unless
  // committed; a path where something stands is always replaced by a move.
  enum class Where { kBeside, kInPlaceWhenNew };

  // Opens a new temporary file for writing beside `path`. kLink when `path`
  // shows as a link; kBlocked when it is a folder, read-only, hidden or a
  // system file (which Windows refuses to overwrite), or when no temporary
  // file can be made there. The system's last error then tells why.
  Placing Create(const std::string& path, Where where = Where::kBeside);
  HANDLE handle() const { return file_.get(); }
  const std::string& temporary() const { return temporary_; }
  // Closes the temporary file, leaving it in place (for CopyFile to fill).
  void Close() { file_.reset(); }
  // Closes the temporary file and moves it over the final path; false when the
  // move fails, and the temporary file is removed.
  bool Commit();

 private:
  void Discard();

  UniqueHandle file_;
  std::string path_;
  std::string temporary_;  // the file being written: `path_` itself when in_place_
  bool in_place_ = false;
};

// Copies `source` to `destination` through a temporary file and a move, as
// CopyFileA(source, destination, FALSE) would, but never writing through a
// file link at `destination`. False, with the system's last error, when
// `destination` is refused as by Create or when the copy or the move fails; no
// temporary file stays then.
bool CopyFileReplacing(const std::string& source, const std::string& destination);

}  // namespace dorvane
