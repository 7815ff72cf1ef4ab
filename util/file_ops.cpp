#include "util/file_ops.h"

#include <windows.h>

#include <cstring>

#include "log/logger.h"
#include "util/failures.h"
#include "util/path_buffer.h"
#include "util/placed_file.h"
#include "util/scoped_handle.h"

namespace dorvane {

namespace {

bool IsDotOrDotDot(const char* name) {
  return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

// folder + "\" + name, cut like every other path.
PathBuffer ItemPath(const std::string& folder, const char* name) {
  PathBuffer item(folder);
  item.Append("\\").Append(name);
  return item;
}

void LogText(unsigned level, const std::string& text) {
  Logger::GetInstance()->Write(level, std::string(text));
}

// Tells the one asking, if anyone is.
void Tell(const FailureFn* failed, const Failure& failure) {
  if (failed != nullptr && *failed) (*failed)(failure);
}

// The copy neither enters nor writes into a link (a junction, a folder or file
// symbolic link) on either side: the service copies as LocalSystem, and a link
// left in an installation folder would otherwise carry the copy anywhere on the
// machine, or bring anything from there into the installation. It is skipped
// and named in the log.
void SkipLink(const PathBuffer& path, const FailureFn* failed) {
  Logger::GetInstance()->Write(kLogWarning, "CopyFileInDir skipped link %s", path.c_str());
  Tell(failed, Failure{FailureKind::kLinkSkipped, path.str(), "", 0});
}

bool StandsAsLink(const PathBuffer& path) {
  return IsLinkAttributes(::GetFileAttributesA(path.c_str()));
}

int CopyWalk(const std::string& destination, const std::string& source, const FailureFn* failed) {
  Logger* log = Logger::GetInstance();
  log->Write(kLogDetail, "CopyFileInDir enter.");
  LogText(kLogDetail, source);
  LogText(kLogDetail, destination);
  if (source.empty() || destination.empty()) {
    log->Write(kLogError, "CopyFileInDir failed.");
    return kCopyEmptyArgument;
  }
  PathBuffer pattern(source);
  pattern.Append("\\*.*");
  WIN32_FIND_DATAA found;
  UniqueFindHandle listing(::FindFirstFileA(pattern.c_str(), &found));
  if (!listing) return kCopySourceUnlisted;
  do {
    const PathBuffer source_item = ItemPath(source, found.cFileName);
    const PathBuffer destination_item = ItemPath(destination, found.cFileName);
    const bool folder = (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    if (folder && IsDotOrDotDot(found.cFileName)) continue;
    if (IsLinkAttributes(found.dwFileAttributes)) {
      SkipLink(source_item, failed);
      continue;
    }
    if (folder) {
      // The nested call runs with the arguments swapped: deployed installers
      // lay out their folders for this direction, so it is kept. It lists
      // the destination's folder of this name.
      if (StandsAsLink(destination_item)) {
        SkipLink(destination_item, failed);
      } else {
        CopyWalk(source_item.str(), destination_item.str(), failed);
      }
      continue;
    }
    LogText(kLogDetail, source_item.str());
    if (StandsAsLink(destination_item)) {
      SkipLink(destination_item, failed);
    } else if (!CopyFileReplacing(source_item.str(), destination_item.str())) {
      const DWORD error = ::GetLastError();
      log->Write(kLogError, "CopyFile faild");
      Tell(failed, Failure{FailureKind::kCopy, source_item.str(), destination_item.str(), error});
    }
  } while (::FindNextFileA(listing.get(), &found));
  return kCopyWalked;
}

}  // namespace

int CopyFileInDir(const std::string& destination, const std::string& source) {
  return CopyWalk(destination, source, nullptr);
}

int CopyFileInDir(const std::string& destination, const std::string& source,
                  const FailureFn& failed) {
  return CopyWalk(destination, source, &failed);
}

namespace {

// An entry is taken for a folder when "<path>//*" can be listed, rather than by
// its attributes: kept, as it is the test the installation has always used.
bool ListsAsFolder(const PathBuffer& path) {
  FixedText<500> pattern(path.c_str());
  pattern.Append("//*");
  WIN32_FIND_DATAA found;
  UniqueFindHandle listing(::FindFirstFileA(pattern.c_str(), &found));
  return listing.valid();
}

// Directory symbolic links, junctions and file symbolic links all carry the
// reparse-point attribute. DeleteDir removes such an entry as a link and never
// lists it: a package folder or a user may leave a link in the installation
// folder, and the service runs as LocalSystem, so following it would delete
// whatever it points to, anywhere on the machine.
// True when `path`, opened without following it, is the link itself. Windows
// opens every link so, and then RemoveDirectoryA and DeleteFileA remove the link
// alone. Wine's links are Unix symbolic links, which it follows whatever the
// flags, and its RemoveDirectoryA and DeleteFileA by such a name act on the
// target (an empty target folder would be removed): there the link is left.
bool OpensAsLink(const char* path) {
  const DWORD share = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
  const DWORD flags = FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT;
  UniqueHandle link(
      ::CreateFileA(path, FILE_READ_ATTRIBUTES, share, nullptr, OPEN_EXISTING, flags, nullptr));
  FILE_ATTRIBUTE_TAG_INFO info = {};
  return link &&
         ::GetFileInformationByHandleEx(link.get(), FileAttributeTagInfo, &info, sizeof info) &&
         IsLinkAttributes(info.FileAttributes);
}

// Tells `failed`, if anyone asks, that `step` failed on `path` with the
// system's last error.
void Report(const FailureFn* failed, FailureKind step, const std::string& path,
            DWORD error = ::GetLastError()) {
  Tell(failed, Failure{step, path, "", error});
}

// Removes the link at `path`, never what it points to.
void RemoveLink(const PathBuffer& path, DWORD attributes, const FailureFn* failed) {
  if (!OpensAsLink(path.c_str())) {
    Report(failed, FailureKind::kLinkKept, path.str(), 0);
    return;
  }
  if (attributes & FILE_ATTRIBUTE_DIRECTORY) {
    if (!::RemoveDirectoryA(path.c_str())) Report(failed, FailureKind::kDelete, path.str());
  } else if (!::DeleteFileA(path.c_str())) {
    Report(failed, FailureKind::kDelete, path.str());
  }
}

// DeleteDir and its preview share this walk. Without `preview` each step is
// carried out and logged as DeleteDir does, and what fails is told to
// `failed`; with it each step is only reported.
int Walk(const std::string& folder, const DeleteStepFn* preview, const FailureFn* failed);

// Deletes what `folder` holds; the walk again for each sub-folder.
void WalkContents(const std::string& folder, const DeleteStepFn* preview, const FailureFn* failed) {
  PathBuffer pattern(folder);
  pattern.Append("\\*.*");
  WIN32_FIND_DATAA found;
  UniqueFindHandle listing(::FindFirstFileA(pattern.c_str(), &found));
  // The first entry is never looked at (kept: it is "." wherever this runs).
  while (listing && ::FindNextFileA(listing.get(), &found)) {
    if (IsDotOrDotDot(found.cFileName)) continue;
    const PathBuffer item = ItemPath(folder, found.cFileName);
    if (IsLinkAttributes(found.dwFileAttributes)) {
      if (preview != nullptr) {
        (*preview)(OpensAsLink(item.c_str()) ? DeleteStep::kLink : DeleteStep::kKeptLink, item.str());
      } else {
        RemoveLink(item, found.dwFileAttributes, failed);
      }
    } else if (ListsAsFolder(item)) {
      if (preview == nullptr) LogText(kLogDetail, item.str());
      Walk(item.str(), preview, failed);
    } else if (preview != nullptr) {
      (*preview)(DeleteStep::kFile, item.str());
    } else if (!::DeleteFileA(item.c_str())) {
      Report(failed, FailureKind::kDelete, item.str());
    }
  }
}

int Walk(const std::string& folder, const DeleteStepFn* preview, const FailureFn* failed) {
  bool removed;
  DWORD error = 0;
  if (IsLinkAttributes(::GetFileAttributesA(folder.c_str()))) {
    // A folder that is itself a link is not emptied: only the link goes.
    const bool link = OpensAsLink(folder.c_str());
    if (preview != nullptr) {
      (*preview)(link ? DeleteStep::kLink : DeleteStep::kKeptLink, folder);
      return 1;
    }
    removed = link && ::RemoveDirectoryA(folder.c_str());
    error = ::GetLastError();
    if (!link) {
      Report(failed, FailureKind::kLinkKept, folder, 0);
      failed = nullptr;  // told once
    }
  } else {
    WalkContents(folder, preview, failed);
    if (preview != nullptr) {
      (*preview)(DeleteStep::kFolder, folder);
      return 1;
    }
    removed = ::RemoveDirectoryA(folder.c_str());
    error = ::GetLastError();
  }
  if (!removed) {
    Report(failed, FailureKind::kRemoveFolder, folder, error);
    Logger::GetInstance()->Write(kLogError, "Delete dir failed");
    LogText(kLogError, folder);
    return 0;
  }
  return 1;
}

}  // namespace

int DeleteDir(const std::string& folder) { return Walk(folder, nullptr, nullptr); }

int DeleteDir(const std::string& folder, const FailureFn& failed) {
  return Walk(folder, nullptr, &failed);
}

void WalkDeleteDir(const std::string& folder, const DeleteStepFn& step) {
  Walk(folder, &step, nullptr);
}

bool IsFileExist(const std::string& path) {
  if (::GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES) return true;
  const DWORD error = ::GetLastError();
  Logger::GetInstance()->Write(kLogError, "%s file is not exist error=%lu", path.c_str(),
                               static_cast<unsigned long>(error));
  return false;
}

void MakeFolders(const std::string& path) {
  PathBuffer folder(path);
  for (size_t i = 0; i < folder.size(); ++i) {
    if (folder[i] == '/') folder[i] = '\\';
  }
  for (size_t i = 0; i < folder.size(); ++i) {
    if (folder[i] != '\\') continue;
    folder[i] = '\0';
    ::CreateDirectoryA(folder.c_str(), nullptr);
    folder[i] = '\\';
  }
}

}  // namespace dorvane
