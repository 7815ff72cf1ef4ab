#include "util/zip_directory.h"

#include <algorithm>
#include <memory>

namespace dorvane::zip {

namespace {

constexpr uint32_t kEndSignature = 0x06054b50;
constexpr uint32_t kZip64LocatorSignature = 0x07064b50;
constexpr uint32_t kZip64EndSignature = 0x06064b50;
constexpr uint32_t kCentralSignature = 0x02014b50;
constexpr DWORD kEndSize = 22;
constexpr DWORD kZip64LocatorSize = 20;
constexpr DWORD kZip64EndSize = 56;
constexpr DWORD kCentralSize = 46;
constexpr DWORD kMaxComment = 0xFFFF;
constexpr uint16_t kZip64ExtraId = 0x0001;
constexpr uint16_t kUtf8NameFlag = 0x0800;
constexpr uint32_t kDosFolderAttribute = 0x10;

// Where the central directory lies, from the end record.
struct Bounds {
  uint64_t count = 0;
  uint64_t size = 0;
  uint64_t offset = 0;
  uint64_t limit = 0;  // the directory must end at or before this position
};

ZipResult ReadZip64End(HANDLE file, uint64_t locator_at, Bounds* bounds) {
  unsigned char locator[kZip64LocatorSize];
  if (!ReadAt(file, locator_at, locator, kZip64LocatorSize)) return kZipReadError;
  if (Le32(locator) != kZip64LocatorSignature) return kZipOk;  // an ordinary archive
  const uint64_t at = Le64(locator + 8);
  if (at > locator_at || locator_at - at < kZip64EndSize) return kZipCorrupt;
  unsigned char record[kZip64EndSize];
  if (!ReadAt(file, at, record, kZip64EndSize)) return kZipReadError;
  if (Le32(record) != kZip64EndSignature) return kZipCorrupt;
  bounds->count = Le64(record + 32);
  bounds->size = Le64(record + 40);
  bounds->offset = Le64(record + 48);
  bounds->limit = at;
  return kZipOk;
}

// The end record is the last "PK\5\6" whose comment fits in the file.
ZipResult FindEnd(HANDLE file, Bounds* bounds) {
  LARGE_INTEGER file_size;
  if (!::GetFileSizeEx(file, &file_size)) return kZipReadError;
  const uint64_t size = static_cast<uint64_t>(file_size.QuadPart);
  if (size < kEndSize) return kZipCorrupt;
  const DWORD tail = static_cast<DWORD>(std::min<uint64_t>(size, kEndSize + kMaxComment));
  std::unique_ptr<unsigned char[]> buffer(new (std::nothrow) unsigned char[tail]);
  if (!buffer) return kZipNoMemory;
  if (!ReadAt(file, size - tail, buffer.get(), tail)) return kZipReadError;
  for (DWORD pos = tail - kEndSize + 1; pos-- > 0;) {
    const unsigned char* end = buffer.get() + pos;
    if (Le32(end) != kEndSignature || pos + kEndSize + Le16(end + 20) > tail) continue;
    bounds->count = Le16(end + 10);
    bounds->size = Le32(end + 12);
    bounds->offset = Le32(end + 16);
    bounds->limit = size - tail + pos;
    if (bounds->limit < kZip64LocatorSize) return kZipOk;
    return ReadZip64End(file, bounds->limit - kZip64LocatorSize, bounds);
  }
  return kZipCorrupt;
}

// Hands out the central directory piece by piece through one fixed buffer.
class DirectoryReader {
 public:
  DirectoryReader(HANDLE file, uint64_t begin, uint64_t end) : file_(file), next_(begin), end_(end) {}

  ZipResult Init() {
    buffer_.reset(new (std::nothrow) unsigned char[kBufferSize]);
    return buffer_ ? kZipOk : kZipNoMemory;
  }

  // Points `out` at the next `size` bytes (valid until the next call).
  ZipResult Take(size_t size, const unsigned char** out) {
    if (held_ - used_ < size) {
      std::copy(buffer_.get() + used_, buffer_.get() + held_, buffer_.get());
      held_ -= used_;
      used_ = 0;
      const DWORD more = static_cast<DWORD>(std::min<uint64_t>(kBufferSize - held_, end_ - next_));
      if (!ReadAt(file_, next_, buffer_.get() + held_, more)) return kZipReadError;
      next_ += more;
      held_ += more;
      if (held_ < size) return kZipCorrupt;  // runs past the directory's end
    }
    *out = buffer_.get() + used_;
    used_ += size;
    return kZipOk;
  }

 private:
  // Room for a fixed record plus the longest name, extra field or comment.
  static constexpr size_t kBufferSize = 128 * 1024;
  HANDLE file_;
  uint64_t next_;
  uint64_t end_;
  std::unique_ptr<unsigned char[]> buffer_;
  size_t held_ = 0;
  size_t used_ = 0;
};

// Sizes and offset that do not fit 32 bits are in the Zip64 extra field, in
// this order, present only where the fixed field holds all ones.
ZipResult ApplyZip64(const unsigned char* extra, size_t length, DirEntry* entry) {
  uint64_t* fields[] = {&entry->size, &entry->compressed_size, &entry->local_offset};
  bool wanted = false;
  for (uint64_t* f : fields) wanted = wanted || *f == 0xFFFFFFFFu;
  for (size_t pos = 0; wanted && pos + 4 <= length;) {
    const uint16_t id = Le16(extra + pos);
    const size_t size = Le16(extra + pos + 2);
    const unsigned char* data = extra + pos + 4;
    pos += 4 + size;
    if (id != kZip64ExtraId || pos > length) continue;
    size_t used = 0;
    for (uint64_t* f : fields) {
      if (*f != 0xFFFFFFFFu) continue;
      if (used + 8 > size) return kZipCorrupt;
      *f = Le64(data + used);
      used += 8;
    }
    return kZipOk;
  }
  return wanted ? kZipCorrupt : kZipOk;
}

// Names flagged as UTF-8 are turned into the ANSI code page, like every other
// text of the system; a name that does not convert is kept as its bytes.
std::string AnsiName(const unsigned char* bytes, size_t size, uint16_t flags) {
  std::string raw(reinterpret_cast<const char*>(bytes), size);
  if (!(flags & kUtf8NameFlag) || raw.empty()) return raw;
  const int wide_size = ::MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, raw.data(),
                                              static_cast<int>(raw.size()), nullptr, 0);
  if (wide_size <= 0) return raw;
  std::wstring wide(static_cast<size_t>(wide_size), L'\0');
  ::MultiByteToWideChar(CP_UTF8, 0, raw.data(), static_cast<int>(raw.size()), &wide[0], wide_size);
  const int ansi_size = ::WideCharToMultiByte(CP_ACP, 0, wide.data(), wide_size, nullptr, 0,
                                              nullptr, nullptr);
  if (ansi_size <= 0) return raw;
  std::string ansi(static_cast<size_t>(ansi_size), '\0');
  ::WideCharToMultiByte(CP_ACP, 0, wide.data(), wide_size, &ansi[0], ansi_size, nullptr, nullptr);
  return ansi;
}

ZipResult ReadEntry(DirectoryReader& reader, DirEntry* entry) {
  const unsigned char* fixed = nullptr;
  ZipResult result = reader.Take(kCentralSize, &fixed);
  if (result != kZipOk) return result;
  if (Le32(fixed) != kCentralSignature) return kZipCorrupt;
  entry->flags = Le16(fixed + 8);
  entry->method = Le16(fixed + 10);
  entry->dos_time = Le16(fixed + 12);
  entry->dos_date = Le16(fixed + 14);
  entry->crc = Le32(fixed + 16);
  entry->compressed_size = Le32(fixed + 20);
  entry->size = Le32(fixed + 24);
  const size_t name_size = Le16(fixed + 28);
  const size_t extra_size = Le16(fixed + 30);
  const size_t comment_size = Le16(fixed + 32);
  entry->external_attributes = Le32(fixed + 38);
  entry->local_offset = Le32(fixed + 42);

  const unsigned char* part = nullptr;
  if ((result = reader.Take(name_size, &part)) != kZipOk) return result;
  const std::string name = AnsiName(part, name_size, entry->flags);
  entry->folder = (!name.empty() && (name.back() == '/' || name.back() == '\\')) ||
                  (entry->external_attributes & kDosFolderAttribute);
  entry->name = PathBuffer(CleanEntryName(name)).str();
  if ((result = reader.Take(extra_size, &part)) != kZipOk) return result;
  if ((result = ApplyZip64(part, extra_size, entry)) != kZipOk) return result;
  return reader.Take(comment_size, &part);
}

}  // namespace

bool ReadAt(HANDLE file, uint64_t offset, void* buffer, DWORD size) {
  OVERLAPPED at = {};
  at.Offset = static_cast<DWORD>(offset);
  at.OffsetHigh = static_cast<DWORD>(offset >> 32);
  DWORD read = 0;
  return size == 0 || (::ReadFile(file, buffer, size, &read, &at) && read == size);
}

uint16_t Le16(const unsigned char* p) { return static_cast<uint16_t>(p[0] | p[1] << 8); }
uint32_t Le32(const unsigned char* p) { return Le16(p) | static_cast<uint32_t>(Le16(p + 2)) << 16; }
uint64_t Le64(const unsigned char* p) { return Le32(p) | static_cast<uint64_t>(Le32(p + 4)) << 32; }

FILETIME DosTimeToFileTime(uint16_t dos_date, uint16_t dos_time) {
  FILETIME local = {};
  FILETIME utc = {};
  if (::DosDateTimeToFileTime(dos_date, dos_time, &local)) ::LocalFileTimeToFileTime(&local, &utc);
  return utc;
}

ZipResult ReadDirectory(HANDLE file, Directory* directory) {
  Bounds bounds;
  ZipResult result = FindEnd(file, &bounds);
  if (result != kZipOk) return result;
  // The directory lies before the end records, and every record takes at
  // least its fixed part: this also stops absurd counts before any allocation.
  if (bounds.offset > bounds.limit || bounds.size > bounds.limit - bounds.offset ||
      bounds.count > bounds.size / kCentralSize) {
    return kZipCorrupt;
  }
  DirectoryReader reader(file, bounds.offset, bounds.offset + bounds.size);
  if ((result = reader.Init()) != kZipOk) return result;
  directory->entries.clear();
  directory->entries.reserve(static_cast<size_t>(bounds.count));
  directory->data_end = bounds.offset;
  for (uint64_t i = 0; i < bounds.count; ++i) {
    DirEntry entry;
    if ((result = ReadEntry(reader, &entry)) != kZipOk) return result;
    directory->entries.push_back(std::move(entry));
  }
  return kZipOk;
}

}  // namespace dorvane::zip
