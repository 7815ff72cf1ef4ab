#include "util/zip_extract.h"

#include <zlib.h>

#include <algorithm>
#include <string>

#include "util/file_ops.h"
#include "util/scoped_handle.h"

namespace dorvane::zip {

namespace {

constexpr uint32_t kLocalSignature = 0x04034b50;
constexpr DWORD kLocalSize = 30;
constexpr uint16_t kEncryptedFlag = 0x0001;
constexpr uint16_t kStored = 0;
constexpr uint16_t kDeflated = 8;

// Checks the entry's local header and that its data lies before the central
// directory; gives the position of the data.
ZipResult LocateData(HANDLE archive, const DirEntry& entry, uint64_t data_end, uint64_t* at) {
  if (entry.local_offset > data_end || data_end - entry.local_offset < kLocalSize) {
    return kZipCorrupt;
  }
  unsigned char local[kLocalSize];
  if (!ReadAt(archive, entry.local_offset, local, kLocalSize)) return kZipReadError;
  if (Le32(local) != kLocalSignature) return kZipCorrupt;
  const uint64_t start = entry.local_offset + kLocalSize + Le16(local + 26) + Le16(local + 28);
  if (start > data_end || entry.compressed_size > data_end - start) return kZipCorrupt;
  *at = start;
  return kZipOk;
}

HANDLE CreateOutput(const char* path) {
  return ::CreateFileA(path, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                       FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
}

}  // namespace

struct Extractor::Inflater {
  z_stream stream = {};
  bool ready = false;
  ~Inflater() {
    if (ready) inflateEnd(&stream);
  }
};

// The file being written, with the CRC and count of what went into it.
struct Extractor::Output {
  UniqueHandle file;
  uint64_t limit = 0;  // the entry's declared size: nothing beyond it is written
  uint64_t written = 0;
  uint32_t crc = 0;

  ZipResult Write(const unsigned char* data, DWORD size) {
    if (size == 0) return kZipOk;
    if (size > limit - written) return kZipCorrupt;
    DWORD done = 0;
    if (!::WriteFile(file.get(), data, size, &done, nullptr) || done != size) return kZipWriteError;
    crc = static_cast<uint32_t>(crc32(crc, data, size));
    written += size;
    return kZipOk;
  }
};

Extractor::Extractor() = default;
Extractor::~Extractor() = default;

ZipResult Extractor::Prepare() {
  if (inflater_) return kZipOk;
  in_.reset(new (std::nothrow) unsigned char[kBufferSize]);
  out_.reset(new (std::nothrow) unsigned char[kBufferSize]);
  auto inflater = std::unique_ptr<Inflater>(new (std::nothrow) Inflater);
  if (!in_ || !out_ || !inflater) return kZipNoMemory;
  // Raw deflate data: no zlib header, the full 32 KiB window.
  if (inflateInit2(&inflater->stream, -MAX_WBITS) != Z_OK) return kZipNoMemory;
  inflater->ready = true;
  inflater_ = std::move(inflater);
  return kZipOk;
}

ZipResult Extractor::Extract(HANDLE archive, const DirEntry& entry, uint64_t data_end,
                             const char* path) {
  if (entry.flags & kEncryptedFlag) return kZipPassword;
  uint64_t at = 0;
  ZipResult result = LocateData(archive, entry, data_end, &at);
  if (result != kZipOk) return result;
  if (entry.folder) {
    MakeFolders(std::string(path) + "\\");
    return kZipOk;
  }
  if (entry.method != kStored && entry.method != kDeflated) return kZipCorrupt;
  if (entry.method == kStored && entry.compressed_size != entry.size) return kZipCorrupt;
  if ((result = Prepare()) != kZipOk) return result;

  Output out;
  out.limit = entry.size;
  out.file.reset(CreateOutput(path));
  if (!out.file && ::GetLastError() == ERROR_PATH_NOT_FOUND) {
    MakeFolders(path);
    out.file.reset(CreateOutput(path));
  }
  if (!out.file) return kZipNoFile;
  result = entry.method == kStored ? Copy(archive, at, entry, out) : Inflate(archive, at, entry, out);
  if (result != kZipOk) return result;
  if (out.written != entry.size || out.crc != entry.crc) return kZipCorrupt;
  const FILETIME modified = DosTimeToFileTime(entry.dos_date, entry.dos_time);
  ::SetFileTime(out.file.get(), nullptr, nullptr, &modified);
  return kZipOk;
}

ZipResult Extractor::Copy(HANDLE archive, uint64_t at, const DirEntry& entry, Output& out) {
  for (uint64_t left = entry.compressed_size; left > 0;) {
    const DWORD chunk = static_cast<DWORD>(std::min<uint64_t>(left, kBufferSize));
    if (!ReadAt(archive, at, in_.get(), chunk)) return kZipReadError;
    at += chunk;
    left -= chunk;
    const ZipResult result = out.Write(in_.get(), chunk);
    if (result != kZipOk) return result;
  }
  return kZipOk;
}

ZipResult Extractor::Inflate(HANDLE archive, uint64_t at, const DirEntry& entry, Output& out) {
  z_stream& stream = inflater_->stream;
  inflateReset(&stream);
  stream.avail_in = 0;
  uint64_t left = entry.compressed_size;
  for (;;) {
    if (stream.avail_in == 0 && left > 0) {
      const DWORD chunk = static_cast<DWORD>(std::min<uint64_t>(left, kBufferSize));
      if (!ReadAt(archive, at, in_.get(), chunk)) return kZipReadError;
      at += chunk;
      left -= chunk;
      stream.next_in = in_.get();
      stream.avail_in = chunk;
    }
    stream.next_out = out_.get();
    stream.avail_out = kBufferSize;
    const int z = inflate(&stream, Z_NO_FLUSH);
    const ZipResult result = out.Write(out_.get(), kBufferSize - stream.avail_out);
    if (result != kZipOk) return result;
    if (z == Z_STREAM_END) break;
    if (z == Z_MEM_ERROR) return kZipNoMemory;
    // Damaged data, or data that ends before its stream does.
    if (z != Z_OK) return kZipCorrupt;
  }
  // The stream must take exactly the declared compressed size.
  return left == 0 && stream.avail_in == 0 ? kZipOk : kZipCorrupt;
}

}  // namespace dorvane::zip
