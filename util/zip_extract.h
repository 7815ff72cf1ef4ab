// Inside the zip reader: unpacking one entry to a file.
#pragma once

#include <windows.h>

#include <cstdint>
#include <memory>

#include "util/zip_directory.h"

namespace dorvane::zip {

// Unpacks entries through two buffers of fixed size and one inflate state,
// made at the first use and reused for every later entry of the archive.
class Extractor {
 public:
  // Size of each of the two buffers (compressed and unpacked bytes).
  static constexpr DWORD kBufferSize = 512 * 1024;

  Extractor();
  ~Extractor();
  Extractor(const Extractor&) = delete;
  Extractor& operator=(const Extractor&) = delete;

  // Unpacks `entry` of `archive` to `path`, or makes the folder for a folder
  // entry. The entry's data must end before `data_end`.
  ZipResult Extract(HANDLE archive, const DirEntry& entry, uint64_t data_end, const char* path);

 private:
  struct Output;
  ZipResult Prepare();
  ZipResult Copy(HANDLE archive, uint64_t at, const DirEntry& entry, Output& out);
  ZipResult Inflate(HANDLE archive, uint64_t at, const DirEntry& entry, Output& out);

  std::unique_ptr<unsigned char[]> in_;
  std::unique_ptr<unsigned char[]> out_;
  struct Inflater;
  std::unique_ptr<Inflater> inflater_;
};

}  // namespace dorvane::zip
