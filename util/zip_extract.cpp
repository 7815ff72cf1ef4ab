// Streaming one entry's data, unpacked and checked, into a sink.
#include <zlib.h>

#include <algorithm>
#include <new>

#include "util/zip_core.h"
#include "util/zip_crc.h"

namespace dorvane::zip {

namespace {

constexpr uint32_t kLocalSignature = 0x04034b50;
constexpr size_t kLocalSize = 30;
constexpr uint16_t kEncryptedFlag = 0x0001;
constexpr uint16_t kStored = 0;
constexpr uint16_t kDeflated = 8;

// Passes the entry's bytes on, never beyond its declared size, and keeps
// their CRC and count.
class Checked {
 public:
  Checked(Sink& sink, uint64_t limit) : sink_(sink), limit_(limit) {}

  ZipResult Write(const unsigned char* data, size_t size) {
    if (size == 0) return kZipOk;
    if (size > limit_ - written_) return kZipCorrupt;
    const ZipResult result = sink_.Write(data, size);
    if (result != kZipOk) return result;
    crc_ = Crc32(crc_, data, size);
    written_ += size;
    return kZipOk;
  }
  uint64_t written() const { return written_; }
  uint32_t crc() const { return crc_; }

 private:
  Sink& sink_;
  uint64_t limit_;
  uint64_t written_ = 0;
  uint32_t crc_ = 0;
};

}  // namespace

struct Unpacker::Inflater {
  z_stream stream = {};
  bool ready = false;
  ~Inflater() {
    if (ready) inflateEnd(&stream);
  }
};

Unpacker::Unpacker() = default;
Unpacker::~Unpacker() = default;

ZipResult Unpacker::Prepare() {
  if (inflater_) return kZipOk;
  in_.reset(new (std::nothrow) unsigned char[kBufferSize]);
  out_.reset(new (std::nothrow) unsigned char[kBufferSize]);
  std::unique_ptr<Inflater> inflater(new (std::nothrow) Inflater);
  if (!in_ || !out_ || !inflater) return kZipNoMemory;
  // Raw deflate data: no zlib header, the full 32 KiB window.
  if (inflateInit2(&inflater->stream, -MAX_WBITS) != Z_OK) return kZipNoMemory;
  inflater->ready = true;
  inflater_ = std::move(inflater);
  return kZipOk;
}

ZipResult Unpacker::Locate(Source& source, const EntryInfo& entry, uint64_t limit,
                           uint64_t* data_at) {
  if (entry.flags & kEncryptedFlag) return kZipPassword;
  if (entry.local_offset > limit || limit - entry.local_offset < kLocalSize) return kZipCorrupt;
  unsigned char local[kLocalSize];
  if (!source.ReadAt(entry.local_offset, local, kLocalSize)) return kZipReadError;
  if (Le32(local) != kLocalSignature) return kZipCorrupt;
  const uint64_t start = entry.local_offset + kLocalSize + Le16(local + 26) + Le16(local + 28);
  if (start > limit || entry.compressed_size > limit - start) return kZipCorrupt;
  if (!entry.folder) {
    if (entry.method != kStored && entry.method != kDeflated) return kZipCorrupt;
    if (entry.method == kStored && entry.compressed_size != entry.size) return kZipCorrupt;
  }
  *data_at = start;
  return kZipOk;
}

ZipResult Unpacker::Stream(Source& source, const EntryInfo& entry, uint64_t at, Sink& sink) {
  ZipResult result = Prepare();
  if (result != kZipOk) return result;
  Checked out(sink, entry.size);
  uint64_t left = entry.compressed_size;
  if (entry.method == kStored) {
    while (left > 0) {
      const size_t chunk = static_cast<size_t>(std::min<uint64_t>(left, kBufferSize));
      if (!source.ReadAt(at, in_.get(), chunk)) return kZipReadError;
      at += chunk;
      left -= chunk;
      if ((result = out.Write(in_.get(), chunk)) != kZipOk) return result;
    }
  } else {
    z_stream& stream = inflater_->stream;
    inflateReset(&stream);
    stream.avail_in = 0;
    for (;;) {
      if (stream.avail_in == 0 && left > 0) {
        const size_t chunk = static_cast<size_t>(std::min<uint64_t>(left, kBufferSize));
        if (!source.ReadAt(at, in_.get(), chunk)) return kZipReadError;
        at += chunk;
        left -= chunk;
        stream.next_in = in_.get();
        stream.avail_in = static_cast<uInt>(chunk);
      }
      stream.next_out = out_.get();
      stream.avail_out = static_cast<uInt>(kBufferSize);
      const int z = inflate(&stream, Z_NO_FLUSH);
      if ((result = out.Write(out_.get(), kBufferSize - stream.avail_out)) != kZipOk) return result;
      if (z == Z_STREAM_END) break;
      if (z == Z_MEM_ERROR) return kZipNoMemory;
      // Damaged data, or data that ends before its stream does.
      if (z != Z_OK) return kZipCorrupt;
    }
    // The stream must take exactly the declared compressed size.
    if (left != 0 || stream.avail_in != 0) return kZipCorrupt;
  }
  return out.written() == entry.size && out.crc() == entry.crc ? kZipOk : kZipCorrupt;
}

}  // namespace dorvane::zip
