#include "support/zip_builder.h"

#include <zlib.h>

namespace dorvane::testing {

namespace {

void Add16(std::string& out, uint16_t v) {
  out.push_back(static_cast<char>(v & 0xFF));
  out.push_back(static_cast<char>(v >> 8));
}
void Add32(std::string& out, uint32_t v) {
  Add16(out, static_cast<uint16_t>(v));
  Add16(out, static_cast<uint16_t>(v >> 16));
}
void Add64(std::string& out, uint64_t v) {
  Add32(out, static_cast<uint32_t>(v));
  Add32(out, static_cast<uint32_t>(v >> 32));
}

struct Written {
  uint32_t crc;
  uint64_t compressed;
  uint64_t size;
  uint64_t offset;
};

// Fields shared by local and central headers, from the version needed on.
void AddCommon(std::string& out, const ZipItem& item, const Written& w) {
  Add16(out, item.zip64 ? 45 : 20);
  Add16(out, item.flags);
  Add16(out, item.deflate ? 8 : 0);
  Add16(out, 0x6000);  // 12:00:00
  Add16(out, 0x5A36);  // 2025-01-22
  Add32(out, w.crc);
  Add32(out, item.zip64 ? 0xFFFFFFFFu : static_cast<uint32_t>(w.compressed));
  Add32(out, item.zip64 ? 0xFFFFFFFFu : static_cast<uint32_t>(w.size));
  Add16(out, static_cast<uint16_t>(item.name.size()));
}

std::string Zip64Extra(const Written& w, bool with_offset) {
  std::string extra;
  Add16(extra, 0x0001);
  Add16(extra, with_offset ? 24 : 16);
  Add64(extra, w.size);
  Add64(extra, w.compressed);
  if (with_offset) Add64(extra, w.offset);
  return extra;
}

// The end records; a Zip64 end record is taken to start at `record`.
void AddEnd(std::string& out, uint64_t count, uint64_t cd_offset, uint64_t cd_size, bool zip64,
            uint64_t record) {
  if (zip64) {
    Add32(out, 0x06064b50);
    Add64(out, 44);
    Add16(out, 45);
    Add16(out, 45);
    Add32(out, 0);
    Add32(out, 0);
    Add64(out, count);
    Add64(out, count);
    Add64(out, cd_size);
    Add64(out, cd_offset);
    Add32(out, 0x07064b50);
    Add32(out, 0);
    Add64(out, record);
    Add32(out, 1);
  }
  Add32(out, 0x06054b50);
  Add32(out, 0);
  Add16(out, zip64 ? 0xFFFF : static_cast<uint16_t>(count));
  Add16(out, zip64 ? 0xFFFF : static_cast<uint16_t>(count));
  Add32(out, zip64 ? 0xFFFFFFFFu : static_cast<uint32_t>(cd_size));
  Add32(out, zip64 ? 0xFFFFFFFFu : static_cast<uint32_t>(cd_offset));
  Add16(out, 0);
}

}  // namespace

std::string Deflate(const std::string& data) {
  z_stream s = {};
  deflateInit2(&s, 6, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY);
  std::string out(deflateBound(&s, static_cast<uLong>(data.size())), '\0');
  s.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
  s.avail_in = static_cast<uInt>(data.size());
  s.next_out = reinterpret_cast<Bytef*>(&out[0]);
  s.avail_out = static_cast<uInt>(out.size());
  deflate(&s, Z_FINISH);
  out.resize(s.total_out);
  deflateEnd(&s);
  return out;
}

uint32_t Crc32(const std::string& data) {
  return static_cast<uint32_t>(
      crc32(0, reinterpret_cast<const Bytef*>(data.data()), static_cast<uInt>(data.size())));
}

void PutLe16(std::string& bytes, size_t at, uint16_t value) {
  bytes[at] = static_cast<char>(value & 0xFF);
  bytes[at + 1] = static_cast<char>(value >> 8);
}

void PutLe32(std::string& bytes, size_t at, uint32_t value) {
  PutLe16(bytes, at, static_cast<uint16_t>(value));
  PutLe16(bytes, at + 2, static_cast<uint16_t>(value >> 16));
}

std::string Zip64EndRecords(uint64_t at, uint64_t count, uint64_t dir_size, uint64_t dir_offset) {
  std::string out;
  AddEnd(out, count, dir_offset, dir_size, true, at);
  return out;
}

std::string BuildZip(const std::vector<ZipItem>& items, bool zip64_end, ZipLayout* layout) {
  ZipLayout local_layout;
  ZipLayout& at = layout ? *layout : local_layout;
  std::string out;
  std::vector<Written> written;
  for (const ZipItem& item : items) {
    const std::string stored = item.deflate ? Deflate(item.data) : item.data;
    Written w{Crc32(item.data), stored.size(), item.data.size(), out.size()};
    written.push_back(w);
    at.local.push_back(out.size());
    const std::string extra = item.zip64 ? Zip64Extra(w, false) : std::string();
    Add32(out, 0x04034b50);
    AddCommon(out, item, w);
    Add16(out, static_cast<uint16_t>(extra.size()));
    out += item.name + extra;
    at.data.push_back(out.size());
    out += stored;
  }
  const size_t cd_offset = out.size();
  for (size_t i = 0; i < items.size(); ++i) {
    const std::string extra = items[i].zip64 ? Zip64Extra(written[i], true) : std::string();
    at.central.push_back(out.size());
    Add32(out, 0x02014b50);
    Add16(out, 45);  // made by MS-DOS
    AddCommon(out, items[i], written[i]);
    Add16(out, static_cast<uint16_t>(extra.size()));
    Add16(out, 0);   // comment
    Add16(out, 0);   // disk
    Add16(out, 0);   // internal attributes
    const bool folder = !items[i].name.empty() && items[i].name.back() == '/';
    Add32(out, folder ? 0x10 : 0x20);
    Add32(out, items[i].zip64 ? 0xFFFFFFFFu : static_cast<uint32_t>(written[i].offset));
    out += items[i].name + extra;
  }
  const size_t cd_size = out.size() - cd_offset;
  at.end = out.size() + (zip64_end ? 76 : 0);
  AddEnd(out, items.size(), cd_offset, cd_size, zip64_end, out.size());
  return out;
}

}  // namespace dorvane::testing
