#include "support/zip_builder.h"

#include <zlib.h>

namespace dorvane::testing {

namespace {

// Raw deflate data of `data`, as a zip entry holds it: zlib's format without
// its two-byte header and four-byte checksum.
std::string Deflate(const std::string& data) {
  uLongf size = compressBound(static_cast<uLong>(data.size()));
  std::string out(size, '\0');
  compress2(reinterpret_cast<Bytef*>(&out[0]), &size, reinterpret_cast<const Bytef*>(data.data()),
            static_cast<uLong>(data.size()), 6);
  return out.substr(2, size - 6);
}

struct Written {
  uint32_t crc;
  uint64_t compressed, size, offset;
};

// Fields shared by local and central headers, from the version needed on.
std::string Common(const ZipItem& item, const Written& w) {
  const uint64_t ones = 0xFFFFFFFF;
  return Le(item.zip64 ? 45 : 20, 2) + Le(item.flags, 2) + Le(item.deflate ? 8 : 0, 2) +
         Le(0x6000, 2) + Le(0x5A36, 2) +  // 2025-01-22 12:00:00
         Le(w.crc, 4) + Le(item.zip64 ? ones : w.compressed, 4) + Le(item.zip64 ? ones : w.size, 4) +
         Le(item.name.size(), 2);
}

std::string Zip64Extra(const ZipItem& item, const Written& w, bool with_offset) {
  if (!item.zip64) return "";
  return Le(1, 2) + Le(with_offset ? 24 : 16, 2) + Le(w.size, 8) + Le(w.compressed, 8) +
         (with_offset ? Le(w.offset, 8) : "");
}

}  // namespace

std::string EndRecords(uint64_t count, uint64_t dir_size, uint64_t dir_offset, bool zip64, uint64_t zip64_at) {
  std::string out;
  if (zip64) {
    out = Le(0x06064b50, 4) + Le(44, 8) + Le(45, 2) + Le(45, 2) + Le(0, 8) + Le(count, 8) + Le(count, 8) +
          Le(dir_size, 8) + Le(dir_offset, 8) + Le(0x07064b50, 4) + Le(0, 4) + Le(zip64_at, 8) + Le(1, 4);
    count = dir_size = dir_offset = ~0ull;
  }
  return out + Le(0x06054b50, 4) + Le(0, 4) + Le(count, 2) + Le(count, 2) + Le(dir_size, 4) +
         Le(dir_offset, 4) + Le(0, 2);
}

std::string Le(uint64_t value, size_t bytes) {
  std::string out;
  for (size_t i = 0; i < bytes; ++i) out.push_back(static_cast<char>(value >> (8 * i)));
  return out;
}

uint32_t Crc32(const std::string& data) {
  return static_cast<uint32_t>(
      crc32(0, reinterpret_cast<const Bytef*>(data.data()), static_cast<uInt>(data.size())));
}

void PutLe32(std::string& bytes, size_t at, uint32_t value) { bytes.replace(at, 4, Le(value, 4)); }

std::string BuildZip(const std::vector<ZipItem>& items, bool zip64_end, ZipLayout* layout) {
  ZipLayout local_layout;
  ZipLayout& at = layout ? *layout : local_layout;
  at = ZipLayout();
  std::string out, central;
  for (const ZipItem& item : items) {
    const std::string stored = item.deflate ? Deflate(item.data) : item.data;
    const Written w{Crc32(item.data), stored.size(), item.data.size(), out.size()};
    at.local.push_back(out.size());
    const std::string extra = Zip64Extra(item, w, false);
    out += Le(0x04034b50, 4) + Common(item, w) + Le(extra.size(), 2) + item.name + extra;
    at.data.push_back(out.size());
    out += stored;
    const bool folder = !item.name.empty() && item.name.back() == '/';
    const std::string central_extra = Zip64Extra(item, w, true) + item.extra;
    at.central.push_back(central.size());
    central += Le(0x02014b50, 4) + Le(item.host << 8 | 45, 2) + Common(item, w) +
               Le(central_extra.size(), 2) + Le(0, 6) +  // comment, disk, internal attributes
               Le(folder ? 0x10 : 0x20, 4) + Le(item.zip64 ? 0xFFFFFFFF : w.offset, 4) + item.name +
               central_extra;
  }
  for (size_t& c : at.central) c += out.size();
  at.end = out.size() + central.size() + (zip64_end ? 76 : 0);
  return out + central + EndRecords(items.size(), central.size(), out.size(), zip64_end, at.end - 76);
}

}  // namespace dorvane::testing
