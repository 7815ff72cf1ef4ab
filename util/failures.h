// What an operation could not do, told one thing at a time to a caller that
// asks, so that a command line can name each of them. An operation gives the
// same result and writes the same log lines whether or not anyone asks.
//
//   std::vector<Failure> failures;
//   CopyFileInDir(destination, source, [&](const Failure& f) { failures.push_back(f); });
#pragma once

#include <functional>
#include <string>

namespace dorvane {

enum class FailureKind {
  kCopy,          // a file not copied: `path` the source file, `other` the destination,
                  // `code` the system's error number
  kLinkSkipped,   // a link that a copy did not go through: `path` the link
  kDelete,        // a file or link not deleted: the system's error number
  kRemoveFolder,  // a folder not removed: the system's error number
  kLinkKept,      // a link that the system cannot remove by itself (Wine's Unix links):
                  // left, and so are the folders that hold it
  kArchive,       // an archive whose entries could not be listed: `code` the zip result
  kEntry,         // an entry not unpacked: `path` its name as handed out, `other` the
                  // path it was to be written to, `code` the zip result
  kBatchFile,     // a batch file that could not be started (`code` -999) or that ended
                  // with an exit code other than 0
};

struct Failure {
  FailureKind kind = FailureKind::kCopy;
  std::string path;
  std::string other;
  long long code = 0;
};

// Called once for each failure, in the order they happen, one call at a time
// (also when an operation works on several threads).
using FailureFn = std::function<void(const Failure&)>;

}  // namespace dorvane
