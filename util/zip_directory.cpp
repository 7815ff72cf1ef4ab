// The archive's end records and central directory.
#include <zlib.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <new>

#include "util/path_buffer.h"
#include "util/zip_core.h"

namespace dorvane::zip {

namespace {

constexpr uint32_t kEndSignature = 0x06054b50;
constexpr uint32_t kZip64LocatorSignature = 0x07064b50;
constexpr uint32_t kZip64EndSignature = 0x06064b50;
constexpr uint32_t kCentralSignature = 0x02014b50;
constexpr uint32_t kLocalSignature = 0x04034b50;
constexpr size_t kEndSize = 22;
constexpr size_t kZip64LocatorSize = 20;
constexpr size_t kZip64EndSize = 56;
constexpr size_t kCentralSize = 46;
constexpr size_t kLocalSize = 30;
constexpr size_t kMaxComment = 0xFFFF;
constexpr uint16_t kZip64ExtraId = 0x0001;
constexpr uint16_t kUtf8NameFlag = 0x0800;
constexpr uint16_t kUnicodePathId = 0x7075;
constexpr uint32_t kDosFolderAttribute = 0x10;

// Where the central directory lies, from one end record.
struct Bounds {
  uint64_t count = 0;
  uint64_t size = 0;
  uint64_t offset = 0;
  uint64_t limit = 0;  // the directory must end at or before this position
};

// A Zip64 end record at `at` counts only when it is one: its signature, a
// size field that keeps it between its own start and the locator, and a
// directory that lies in front of it. Entry names and comments may hold these
// signatures anywhere, and the last record's name or comment ends right where
// a locator would be, so a signature alone proves nothing.
bool Zip64EndFits(const unsigned char* record, uint64_t at, uint64_t locator_at) {
  if (Le32(record) != kZip64EndSignature) return false;
  // The size field counts what follows it: 44 bytes, or more with an
  // extensible data sector. The caller ensures at + kZip64EndSize <= locator_at.
  const uint64_t length = Le64(record + 4);
  const uint64_t room = locator_at - at - 12;
  const uint64_t size = Le64(record + 40);
  const uint64_t offset = Le64(record + 48);
  return length >= kZip64EndSize - 12 && length <= room && offset <= at && size <= at - offset;
}

// Reads the Zip64 end record that a locator at `locator_at` points to.
// `found` stays false when there is no locator, or when what looks like one
// points to no record that fits: the archive is then an ordinary one.
ZipResult ReadZip64End(Source& source, uint64_t locator_at, Bounds* zip64, bool* found) {
  *found = false;
  unsigned char locator[kZip64LocatorSize];
  if (!source.ReadAt(locator_at, locator, kZip64LocatorSize)) return kZipReadError;
  if (Le32(locator) != kZip64LocatorSignature || locator_at < kZip64EndSize) return kZipOk;
  // With data in front of the archive the locator points short of the record,
  // which then lies right before the locator; no data explains a locator
  // that points past itself.
  const uint64_t right_before = locator_at - kZip64EndSize;
  uint64_t at = Le64(locator + 8);
  if (at > right_before) return kZipOk;
  unsigned char record[kZip64EndSize];
  if (!source.ReadAt(at, record, kZip64EndSize)) return kZipReadError;
  if (!Zip64EndFits(record, at, locator_at) && at != right_before) {
    at = right_before;
    if (!source.ReadAt(at, record, kZip64EndSize)) return kZipReadError;
  }
  if (!Zip64EndFits(record, at, locator_at)) return kZipOk;
  zip64->count = Le64(record + 32);
  zip64->size = Le64(record + 40);
  zip64->offset = Le64(record + 48);
  zip64->limit = at;
  *found = true;
  return kZipOk;
}

// A classic field that holds all ones defers to the Zip64 record. Where the
// two records name different directories, the classic one stands unless it
// defers, and a classic record that defers in some fields and contradicts
// the Zip64 record in others leaves no whole reading: the archive is corrupt.
// A mix of the two would name a directory that no writer wrote.
ZipResult Reconcile(const Bounds& classic, const Bounds& zip64, Bounds* bounds) {
  const bool count_deferred = classic.count == 0xFFFF;
  const bool size_deferred = classic.size == 0xFFFFFFFFu;
  const bool offset_deferred = classic.offset == 0xFFFFFFFFu;
  const bool agree = (count_deferred || classic.count == zip64.count) &&
                     (size_deferred || classic.size == zip64.size) &&
                     (offset_deferred || classic.offset == zip64.offset);
  if (agree) {
    *bounds = zip64;
  } else if (count_deferred || size_deferred || offset_deferred) {
    return kZipCorrupt;
  } else {
    *bounds = classic;
  }
  return kZipOk;
}

// The end record is the last "PK\5\6" whose comment fits in the file.
ZipResult FindEnd(Source& source, Bounds* bounds) {
  const uint64_t size = source.Size();
  if (size < kEndSize) return kZipCorrupt;
  const size_t tail = static_cast<size_t>(std::min<uint64_t>(size, kEndSize + kMaxComment));
  std::unique_ptr<unsigned char[]> buffer(new (std::nothrow) unsigned char[tail]);
  if (!buffer) return kZipNoMemory;
  if (!source.ReadAt(size - tail, buffer.get(), tail)) return kZipReadError;
  for (size_t pos = tail - kEndSize + 1; pos-- > 0;) {
    const unsigned char* end = buffer.get() + pos;
    if (Le32(end) != kEndSignature || pos + kEndSize + Le16(end + 20) > tail) continue;
    Bounds classic;
    classic.count = Le16(end + 10);
    classic.size = Le32(end + 12);
    classic.offset = Le32(end + 16);
    classic.limit = size - tail + pos;
    *bounds = classic;
    if (classic.limit < kZip64LocatorSize) return kZipOk;
    Bounds zip64;
    bool found = false;
    const ZipResult result =
        ReadZip64End(source, classic.limit - kZip64LocatorSize, &zip64, &found);
    if (result != kZipOk || !found) return result;
    return Reconcile(classic, zip64, bounds);
  }
  return kZipCorrupt;
}

// Sizes and offset that do not fit 32 bits are in the Zip64 extra field, in
// this order, present only where the fixed field holds all ones.
ZipResult ApplyZip64(const unsigned char* extra, size_t length, EntryInfo* entry) {
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

// The Info-ZIP Unicode Path field: the UTF-8 form of a name written in the
// OEM code page, valid while its CRC-32 matches the name it was written for.
bool UnicodePath(const unsigned char* extra, size_t length, const std::string& raw,
                 std::string* utf8) {
  for (size_t pos = 0; pos + 4 <= length;) {
    const uint16_t id = Le16(extra + pos);
    const size_t size = Le16(extra + pos + 2);
    const unsigned char* data = extra + pos + 4;
    pos += 4 + size;
    if (id != kUnicodePathId || pos > length || size < 5 || data[0] != 1) continue;
    const uint32_t crc = static_cast<uint32_t>(
        crc32(0, reinterpret_cast<const Bytef*>(raw.data()), static_cast<uInt>(raw.size())));
    if (Le32(data + 1) != crc) return false;
    utf8->assign(reinterpret_cast<const char*>(data + 5), size - 5);
    return true;
  }
  return false;
}

// The hosts whose tools write names in the OEM code page: MS-DOS and FAT,
// OS/2's HPFS, NTFS and VFAT, as the zip format numbers them.
bool IsDosHost(uint8_t host) { return host == 0 || host == 6 || host == 11 || host == 14; }

// Names become narrow names exactly: a best-fit mapping would turn look-alikes
// such as a fullwidth "．．／" into "../" after every other tool has shown the
// name as harmless. A name flagged as UTF-8 is UTF-8; any other is in the OEM
// code page when a DOS or Windows tool wrote it (as the zip format and
// Windows' own tools write names), unless a Unicode Path field gives its UTF-8
// form; one written on another system (Unix tools write the bytes of their
// locale, today UTF-8) is UTF-8 when it reads as UTF-8, and else taken as
// the bytes it is. A name that has no exact narrow
// form is unusable: it is shown with stand-ins and not unpacked.
void ConvertName(const std::string& raw, const unsigned char* extra, size_t extra_size,
                 uint16_t flags, uint8_t host, const NameCodec& names, EntryInfo* entry) {
  std::u16string wide;
  std::string utf8;
  std::string narrow;
  bool valid = true;
  bool exact = true;
  if (flags & kUtf8NameFlag) {
    valid = Utf8ToUtf16(raw, &wide);
  } else if (UnicodePath(extra, extra_size, raw, &utf8)) {
    valid = Utf8ToUtf16(utf8, &wide);
  } else if (IsDosHost(host)) {
    valid = names.oem(raw, &wide);
  } else if (!Utf8ToUtf16(raw, &wide)) {
    // Written elsewhere in a legacy code page of its own: the bytes as they are.
    narrow = raw;
    wide.clear();
  }
  if (!wide.empty() || narrow.empty()) exact = names.ansi(wide, &narrow);
  entry->usable = valid && exact;
  entry->folder = (!narrow.empty() && (narrow.back() == '/' || narrow.back() == '\\')) ||
                  (entry->external_attributes & kDosFolderAttribute);
  entry->name = PathBuffer(CleanEntryName(std::move(narrow))).str();
}

}  // namespace

// What is held per entry: where its central record begins, and the span its
// data may take.
struct Directory::Held {
  uint64_t central = 0;
  uint64_t local = 0;
  uint64_t compressed = 0;
  uint64_t limit = 0;
};

// A window of fixed size onto the central directory.
class Directory::Window {
 public:
  // Room for a fixed record plus the longest name, extra field or comment.
  static constexpr size_t kSize = 128 * 1024;

  Window(Source& source, uint64_t begin, uint64_t end) : source_(source), begin_(begin), end_(end) {}

  bool Init() {
    buffer_.reset(new (std::nothrow) unsigned char[kSize]);
    return buffer_ != nullptr;
  }
  uint64_t end() const { return end_; }

  // Points `out` at the `size` bytes at `offset` (valid until the next call).
  ZipResult At(uint64_t offset, size_t size, const unsigned char** out) {
    if (offset < begin_ || offset > end_ || size > end_ - offset) return kZipCorrupt;
    if (offset < start_ || offset - start_ > held_ || size > held_ - (offset - start_)) {
      const size_t more = static_cast<size_t>(std::min<uint64_t>(kSize, end_ - offset));
      held_ = 0;
      if (!source_.ReadAt(offset, buffer_.get(), more)) return kZipReadError;
      start_ = offset;
      held_ = more;
    }
    *out = buffer_.get() + (offset - start_);
    return kZipOk;
  }

 private:
  Source& source_;
  uint64_t begin_;
  uint64_t end_;
  std::unique_ptr<unsigned char[]> buffer_;
  uint64_t start_ = 0;
  size_t held_ = 0;
};

namespace {

// Reads the central record at `offset`; `names` null skips the name.
// `next` receives where the following record begins; `shift` is added to the
// local header's offset (data in front of the archive).
template <typename Window>
ZipResult ParseRecord(Window& window, uint64_t offset, const NameCodec* names, uint64_t shift,
                      EntryInfo* entry, uint64_t* next) {
  const unsigned char* fixed = nullptr;
  ZipResult result = window.At(offset, kCentralSize, &fixed);
  if (result != kZipOk) return result;
  if (Le32(fixed) != kCentralSignature) return kZipCorrupt;
  const uint8_t fixed_host = fixed[5];  // "version made by": its high byte
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

  uint64_t at = offset + kCentralSize;
  const unsigned char* part = nullptr;
  if ((result = window.At(at, name_size, &part)) != kZipOk) return result;
  std::string raw;
  if (names != nullptr) raw.assign(reinterpret_cast<const char*>(part), name_size);
  at += name_size;
  if ((result = window.At(at, extra_size, &part)) != kZipOk) return result;
  if ((result = ApplyZip64(part, extra_size, entry)) != kZipOk) return result;
  if (names != nullptr) {
    ConvertName(raw, part, extra_size, entry->flags, fixed_host, *names, entry);
  }
  if (entry->local_offset > UINT64_MAX - shift) return kZipCorrupt;
  entry->local_offset += shift;
  at += extra_size;
  if (comment_size > window.end() - at) return kZipCorrupt;
  *next = at + comment_size;
  return kZipOk;
}

}  // namespace

Directory::Directory() = default;
Directory::~Directory() = default;

// True when a central record's signature is at `at`.
bool CentralSignatureAt(Source& source, uint64_t at) {
  unsigned char signature[4];
  return source.ReadAt(at, signature, 4) && Le32(signature) == kCentralSignature;
}

ZipResult Directory::Read(Source& source, NameCodec names) {
  count_ = 0;
  prefix_ = 0;
  held_.reset();
  window_.reset();
  source_ = &source;
  names_ = names;
  try {
    Bounds bounds;
    ZipResult result = FindEnd(source, &bounds);
    if (result != kZipOk) return result;
    // The directory lies before the end records, and every record takes at
    // least its fixed part: absurd counts stop here, before any allocation.
    if (bounds.offset > bounds.limit || bounds.size > bounds.limit - bounds.offset ||
        bounds.count > bounds.size / kCentralSize) {
      return kZipCorrupt;
    }
    if (bounds.count > kMaxEntries) return kZipNoMemory;
    // The directory ends where the end records begin. When it is not found
    // where the end record says but where it would then begin, everything is
    // further on by the same amount: data in front of the archive.
    const uint64_t real_offset = bounds.limit - bounds.size;
    if (bounds.count > 0 && real_offset != bounds.offset &&
        !CentralSignatureAt(source, bounds.offset) && CentralSignatureAt(source, real_offset)) {
      prefix_ = real_offset - bounds.offset;
      bounds.offset = real_offset;
    }
    const size_t count = static_cast<size_t>(bounds.count);
    window_.reset(new (std::nothrow) Window(source, bounds.offset, bounds.offset + bounds.size));
    std::unique_ptr<Held[]> held(new (std::nothrow) Held[count]);
    std::unique_ptr<uint32_t[]> order(new (std::nothrow) uint32_t[count]);
    if (!window_ || !window_->Init() || !held || !order) return kZipNoMemory;

    uint64_t at = bounds.offset;
    for (size_t i = 0; i < count; ++i) {
      EntryInfo entry;
      uint64_t next = 0;
      result = ParseRecord(*window_, at, nullptr, prefix_, &entry, &next);
      if (result != kZipOk) return result;
      held[i] = Held{at, entry.local_offset, entry.compressed_size, 0};
      order[i] = static_cast<uint32_t>(i);
      at = next;
    }

    // Every entry's local header and data must fit between its own start and
    // the next entry's (or the central directory): shared or overlapping data
    // is refused for the whole archive, as Info-ZIP's unzip does.
    const uint64_t data_end = bounds.offset;
    std::sort(order.get(), order.get() + count,
              [&held](uint32_t a, uint32_t b) { return held[a].local < held[b].local; });
    for (size_t k = 0; k < count; ++k) {
      Held& entry = held[order[k]];
      const uint64_t limit = k + 1 < count ? held[order[k + 1]].local : data_end;
      if (limit > data_end || limit < entry.local || limit - entry.local < kLocalSize ||
          entry.compressed > limit - entry.local - kLocalSize) {
        return kZipCorrupt;
      }
      entry.limit = limit;
    }
    // A shift that is right puts a local header where the first entry begins.
    if (prefix_ > 0 && count > 0) {
      unsigned char signature[4];
      if (!source.ReadAt(held[order[0]].local, signature, 4)) return kZipReadError;
      if (Le32(signature) != kLocalSignature) return kZipCorrupt;
    }
    held_ = std::move(held);
    count_ = count;
    return kZipOk;
  } catch (const std::bad_alloc&) {
    return kZipNoMemory;
  }
}

ZipResult Directory::Entry(size_t index, EntryInfo* entry) {
  if (index >= count_ || entry == nullptr) return kZipBadArguments;
  try {
    *entry = EntryInfo();
    uint64_t next = 0;
    const Held& held = held_[index];
    const ZipResult result = ParseRecord(*window_, held.central, &names_, prefix_, entry, &next);
    if (result != kZipOk) return result;
    // The records were checked as a whole when the directory was read; if they
    // read differently now, the archive changed under us.
    if (entry->local_offset != held.local || entry->compressed_size != held.compressed) {
      return kZipCorrupt;
    }
    return kZipOk;
  } catch (const std::bad_alloc&) {
    return kZipNoMemory;
  }
}

uint64_t Directory::DataLimit(size_t index) const {
  return index < count_ ? held_[index].limit : 0;
}

}  // namespace dorvane::zip
