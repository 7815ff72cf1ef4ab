// Inside the zip reader: the archive's central directory and raw reads.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

#include "util/zip_reader.h"

namespace dorvane::zip {

// Reads exactly `size` bytes at `offset` of `file`; false on a failed or short read.
bool ReadAt(HANDLE file, uint64_t offset, void* buffer, DWORD size);

uint16_t Le16(const unsigned char* p);
uint32_t Le32(const unsigned char* p);
uint64_t Le64(const unsigned char* p);

// An entry's MS-DOS local date and time as a file time (UTC).
FILETIME DosTimeToFileTime(uint16_t dos_date, uint16_t dos_time);

// One central-directory record, its Zip64 values already applied.
struct DirEntry {
  std::string name;  // made safe and cut, as handed out
  bool folder = false;
  uint16_t flags = 0;
  uint16_t method = 0;
  uint16_t dos_time = 0;
  uint16_t dos_date = 0;
  uint32_t crc = 0;
  uint32_t external_attributes = 0;
  uint64_t compressed_size = 0;
  uint64_t size = 0;
  uint64_t local_offset = 0;
};

struct Directory {
  std::vector<DirEntry> entries;
  // Where the central directory begins: the data of every entry must end here.
  uint64_t data_end = 0;
};

// Reads the end record (and the Zip64 end record when there is one) and then
// the central directory, through a buffer of fixed size. kZipCorrupt when the
// structure is damaged, kZipReadError when the file cannot be read. The
// values of single entries are checked when they are unpacked.
ZipResult ReadDirectory(HANDLE file, Directory* directory);

}  // namespace dorvane::zip
