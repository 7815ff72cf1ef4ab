// Reading zip packages: list the entries and unpack single entries to files.
//
// The reader handles stored and deflated entries (through zlib), Zip64
// archives and entries written with data descriptors. It streams every entry
// through fixed-size buffers and holds 32 bytes per entry of the directory
// (see zip_core.h for the limits), and it checks each entry's CRC-32 and both
// sizes; any mismatch, entries that share or overlap data, and anything else
// it cannot make sense of, give kZipCorrupt.
//
// Entry names are cleaned before they are handed out (see CleanEntryName),
// and callers join them to a target folder as they are; UnzipItem refuses any
// output path that could leave the folder or reach a device (CheckOutputPath),
// any name that has no exact form in the ANSI code page, and any way into or
// through a link that already stands inside the folder.
//
// Results: every operation returns a result code and also keeps it as the
// process's most recent result, whose text FormatZipMessage(kZipRecent, ...)
// gives. A handle is used by one thread at a time.
//
//   ZipHandle zip = OpenZip("C:\\pkg\\fw.zip");
//   ZipEntry all;
//   if (GetZipItem(zip, -1, &all) == kZipOk) {
//     for (int i = 0; i < all.index; ++i) {
//       ZipEntry item;
//       GetZipItem(zip, i, &item);
//       UnzipItem(zip, i, (target + item.name).c_str());
//     }
//   }
//   CloseZip(zip);
#pragma once

#include <windows.h>

#include <string>

#include "util/failures.h"
#include "util/path_buffer.h"
#include "util/zip_core.h"

namespace dorvane {

// One entry as the reader hands it out.
struct ZipEntry {
  int index = 0;               // for index -1: the number of entries
  char name[kPathChars] = {};  // made safe, cut at 259 characters
  DWORD attributes = 0;        // FILE_ATTRIBUTE_DIRECTORY for a folder entry
  FILETIME modified = {};      // from the entry's local date and time
  long long compressed_size = 0;
  long long size = 0;
};

class ZipArchive;
using ZipHandle = ZipArchive*;

// Opens the archive at `path` for reading (no password). Returns null when the
// file cannot be opened (kZipNoFile). The directory is read at the first
// GetZipItem or UnzipItem, and a damaged one is reported there.
ZipHandle OpenZip(const char* path);

// Fills `entry` with entry `index`, or, for index -1, sets entry->index to the
// number of entries (the other fields cleared). kZipBadArguments for a null
// handle or record or an index outside the archive; kZipWrongMode for a value
// that is not an open handle (for example one already closed); kZipCorrupt or
// kZipReadError when the archive's directory cannot be read.
ZipResult GetZipItem(ZipHandle zip, int index, ZipEntry* entry);

// Unpacks entry `index` to the file `path` (replaced if it exists), making the
// missing folders on the way; a folder entry makes the folder. kZipPassword
// for an encrypted entry, kZipNoFile when the file cannot be created or when
// `path` or the entry's name is refused (nothing is created then),
// kZipWriteError, kZipReadError, and kZipCorrupt for an entry that is damaged
// or that this reader cannot unpack. Handle and index errors as for GetZipItem.
//
// A file that stands at `path` is replaced by one written under a temporary
// name beside it and moved over it when complete, so a link of that name is
// replaced, never written through; a new one is made under its own name. A
// failed entry leaves no part of itself under its name either way. When `path` ends
// with the entry's name, the folders that name adds to the caller's are made
// or entered only as real folders: one that stands as a link (a junction, a
// folder symbolic link), or a file at `path` that shows as a link, gives
// kZipNoFile and nothing is written (see placed_file.h).
ZipResult UnzipItem(ZipHandle zip, int index, const char* path);

// The threads UnzipEntries may use at most, and the entry count above which it
// works on one thread (its plan costs memory per entry).
inline constexpr unsigned kMaxUnzipThreads = 8;
inline constexpr int kMaxParallelEntries = 65536;

// One thread per processor, at most kMaxUnzipThreads.
unsigned DefaultUnzipThreads();

// True when no two entries of `zip`, joined to `target_folder`, can touch the
// same file or folder, so that their order cannot matter: no output path names
// the same file as another's, none names a folder that another's path goes
// through (a file "a" and an entry "a/b"), and none holds a "~" (it could be
// another file's short name). False also when the archive cannot be listed.
bool ZipEntriesAreIndependent(ZipHandle zip, const std::string& target_folder);

// Unpacks every entry to `target_folder` + its name (joined as a path buffer
// joins them, cut at 259 characters), with the results of
//   for each i: GetZipItem(zip, i, &item); UnzipItem(zip, i, target + item.name);
// on up to `threads` threads. A target of 259 characters or more, which the
// cut would shorten or leave no room for a name after, is refused for every
// entry (kZipNoFile) and nothing is written. Entries run in parallel only when no two of them
// can touch the same file or folder; otherwise, or for more than
// kMaxParallelEntries entries, one by one in entry order. Gives and keeps the
// last entry's result (or the listing's, when the archive cannot be listed).
// Each further thread costs about 1 MiB (its buffers and inflate state).
ZipResult UnzipEntries(ZipHandle zip, const std::string& target_folder, unsigned threads);
// The same, telling `failed` each entry not unpacked, with its
// result: the entries' results are known only to the one asking.
ZipResult UnzipEntries(ZipHandle zip, const std::string& target_folder, unsigned threads,
                       const FailureFn& failed);

// Closes the archive; the handle is invalid afterwards.
ZipResult CloseZip(ZipHandle zip);

// Copies the text of `code` (kZipRecent: of the most recent result) into
// `buffer`, cut to `size` - 1 characters and terminated, and returns the
// length of the whole text. Unknown codes have the text
// "unknown zip result code".
unsigned FormatZipMessage(ZipResult code, char* buffer, unsigned size);

}  // namespace dorvane
