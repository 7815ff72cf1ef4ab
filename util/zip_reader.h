// Reading zip packages: list the entries and unpack single entries to files.
//
// The reader handles stored and deflated entries (through zlib), Zip64
// archives and entries written with data descriptors. It streams every entry
// through fixed-size buffers, so its memory does not grow with the archive or
// the entry, and it checks each entry's CRC-32 and both sizes; any mismatch,
// and anything else it cannot make sense of, gives kZipCorrupt.
//
// Entry names are made safe before they are handed out (see CleanEntryName),
// and callers join them to a target folder as they are.
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

#include "util/path_buffer.h"

namespace dorvane {

using ZipResult = DWORD;

inline constexpr ZipResult kZipOk = 0x0;
inline constexpr ZipResult kZipRecent = 0x1;  // only for FormatZipMessage
inline constexpr ZipResult kZipNoDuplicate = 0x100;
inline constexpr ZipResult kZipNoFile = 0x200;        // archive or output file
inline constexpr ZipResult kZipNoMemory = 0x300;
inline constexpr ZipResult kZipWriteError = 0x400;
inline constexpr ZipResult kZipNotFound = 0x500;
inline constexpr ZipResult kZipMoreData = 0x600;
inline constexpr ZipResult kZipCorrupt = 0x700;
inline constexpr ZipResult kZipReadError = 0x800;
inline constexpr ZipResult kZipPassword = 0x1000;     // an encrypted entry
inline constexpr ZipResult kZipBadArguments = 0x10000;
inline constexpr ZipResult kZipNotMemoryZip = 0x20000;
inline constexpr ZipResult kZipMemorySize = 0x30000;
inline constexpr ZipResult kZipPreviousError = 0x40000;
inline constexpr ZipResult kZipEnded = 0x50000;
inline constexpr ZipResult kZipWrongSize = 0x60000;
inline constexpr ZipResult kZipPartlyUnzipped = 0x70000;
inline constexpr ZipResult kZipWrongMode = 0x80000;   // not a handle opened for reading
inline constexpr ZipResult kZipNotInitialised = 0x1000000;
inline constexpr ZipResult kZipUnseekable = 0x2000000;
inline constexpr ZipResult kZipNoChange = 0x4000000;
inline constexpr ZipResult kZipFlation = 0x5000000;

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
// for an encrypted entry, kZipNoFile when the file cannot be created,
// kZipWriteError, kZipReadError, and kZipCorrupt for an entry that is damaged
// or that this reader cannot unpack; what was written then stays. Handle and
// index errors as for GetZipItem.
ZipResult UnzipItem(ZipHandle zip, int index, const char* path);

// Closes the archive; the handle is invalid afterwards.
ZipResult CloseZip(ZipHandle zip);

// Copies the text of `code` (kZipRecent: of the most recent result) into
// `buffer`, cut to `size` - 1 characters and terminated, and returns the
// length of the whole text. Unknown codes have the text
// "unknown zip result code".
unsigned FormatZipMessage(ZipResult code, char* buffer, unsigned size);

// The name rules applied to every entry name, repeated until none applies:
// a leading drive prefix (any character, then ":") is dropped; a leading "\" or
// "/" is dropped; when the name contains "\..\", "\../", "/../" or "/..\",
// everything up to and including the earliest such sequence is dropped.
// So "..\..\x.txt" and "C:\x.txt" become "x.txt"; "d/../../x" becomes "../x",
// one level above the target: kept, because the installation has always
// unpacked such names this way (the README's security notes say so).
std::string CleanEntryName(std::string name);

}  // namespace dorvane
