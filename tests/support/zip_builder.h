// Zip archives written byte by byte for the reader's tests: any entry name,
// Zip64 records, and the positions of every record so that a test can damage
// exactly one field.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace dorvane::testing {

struct ZipItem {
  std::string name;
  std::string data;
  bool deflate = false;
  // Sizes and offset in a Zip64 extra field (all ones in the fixed fields).
  bool zip64 = false;
  uint16_t flags = 0;  // general purpose flags (0x0800: the name is UTF-8)
  uint8_t host = 0;    // "made by" system: 0 MS-DOS, 3 Unix, 11 NTFS, 14 VFAT
  std::string extra = "";  // more extra fields for the central header
};

// Where the records of a built archive start.
struct ZipLayout {
  std::vector<size_t> local;    // local header of each entry
  std::vector<size_t> data;     // first data byte of each entry
  std::vector<size_t> central;  // central header of each entry
  size_t end = 0;               // end-of-central-directory record
};

// Offsets of fields inside the records, for damaging them.
inline constexpr size_t kCentralCrcField = 16;
inline constexpr size_t kCentralCompressedField = 20;
inline constexpr size_t kCentralSizeField = 24;
inline constexpr size_t kEndCountField = 10;
inline constexpr size_t kEndOffsetField = 16;

// The archive bytes; with `zip64_end`, also the Zip64 end record and locator,
// the classic end record then holding all ones. `layout` is filled anew.
std::string BuildZip(const std::vector<ZipItem>& items, bool zip64_end = false,
                     ZipLayout* layout = nullptr);

// The end records alone, naming `count` entries in a directory of `dir_size`
// bytes at `dir_offset`; with `zip64`, the Zip64 record starting at `zip64_at`
// and its locator hold the values, and the classic record all ones.
std::string EndRecords(uint64_t count, uint64_t dir_size, uint64_t dir_offset, bool zip64 = false,
                       uint64_t zip64_at = 0);

// `value`'s low `bytes` bytes, little-endian.
std::string Le(uint64_t value, size_t bytes);
void PutLe32(std::string& bytes, size_t at, uint32_t value);

uint32_t Crc32(const std::string& data);

}  // namespace dorvane::testing
