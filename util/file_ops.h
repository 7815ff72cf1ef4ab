// Folder and file operations of the firmware-switching installation: copying
// and deleting folders, testing for a file, making a folder chain.
//
// Paths are narrow (ANSI) strings passed to the A-form file functions; every
// path they build is cut at 259 characters (see path_buffer.h). Each failure is
// one log line and a result; nothing throws, and partial work (files already
// copied or deleted, folders already made) stays in place.
//
//   if (IsFileExist(package)) MakeFolders(target + "\\");
//   CopyFileInDir(driver_folder, driver_folder + "x64\\");
#pragma once

#include <functional>
#include <string>

#include "util/failures.h"

namespace dorvane {

// Results of CopyFileInDir.
inline constexpr int kCopyWalked = 1;
inline constexpr int kCopyEmptyArgument = -1;   // 0xFFFFFFFF
inline constexpr int kCopySourceUnlisted = -3;  // 0xFFFFFFFD

// Copies every file directly in `source` into `destination`, replacing files of
// the same name; the destination folder is not created. A sub-folder S of the
// source is handed to a nested call with the two arguments swapped, that is,
// the files of destination\S are copied into source\S (installers depend on
// this direction). A link on either side (a junction, a folder or file
// symbolic link, anything with the reparse-point attribute) is neither entered
// nor written into: it is skipped with a warning that names it. A file is
// copied beside its destination and moved over it, so a file link there that
// does not show as one (Wine's) is replaced, not written through. Returns
// kCopyWalked when the walk ran (single failed copies are logged and skipped),
// kCopyEmptyArgument when either argument is empty, kCopySourceUnlisted when
// the source cannot be listed.
int CopyFileInDir(const std::string& destination, const std::string& source);
// The same copy, telling `failed` each file not copied and each link skipped.
int CopyFileInDir(const std::string& destination, const std::string& source,
                  const FailureFn& failed);

// Deletes `folder` with everything in it. The first entry the listing hands out
// is never looked at (on every file system this runs on, that is "."). Links
// (directory symbolic links, junctions, file symbolic links: entries with the
// reparse-point attribute) are never followed: the link is removed and what it
// points to is left as it is; a `folder` that is itself such a link is removed
// as a link, not emptied. A link that cannot be opened as itself (Wine's Unix
// symbolic links) is left in place, and so the folders holding it are too.
// Returns 1 when the folder itself was removed, 0 otherwise (logged).
int DeleteDir(const std::string& folder);
// The same deletion, telling `failed` each file, link and folder not removed.
int DeleteDir(const std::string& folder, const FailureFn& failed);

// One step of DeleteDir's walk: a file deleted, a folder removed after what it
// holds, a link removed as a link, or a link that cannot be opened as itself
// and so stays (with the folders holding it).
enum class DeleteStep { kFile, kFolder, kLink, kKeptLink };
using DeleteStepFn = std::function<void(DeleteStep step, const std::string& path)>;

// Takes the walk DeleteDir(folder) would take and calls `step` for each step in
// its order, children before their folder and `folder` last; removes nothing
// and logs nothing. For a preview of a deletion that cannot drift from it.
void WalkDeleteDir(const std::string& folder, const DeleteStepFn& step);

// True when `path` (file or folder) exists; otherwise logs the path with the
// platform's error number and returns false.
bool IsFileExist(const std::string& path);

// Creates, after turning every "/" into "\", the folder named by the text
// before each backslash, so "C:\a\b\" makes C:\a and C:\a\b; the text after the
// last backslash is not made. Failures (a folder that exists) are ignored.
void MakeFolders(const std::string& path);

}  // namespace dorvane
