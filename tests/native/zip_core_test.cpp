// The zip reader's format core on Linux, under AddressSanitizer and
// UndefinedBehaviorSanitizer: archives in memory, sinks that fail, sources
// that claim more than they hold, and the text conversions.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "support/zip_builder.h"
#include "util/zip_core.h"
#include "util/zip_crc.h"

namespace dorvane {
namespace {

using testing::BuildZip;
using testing::PutLe16;
using testing::PutLe32;
using testing::ZipItem;
using testing::ZipLayout;

class StringSink : public zip::Sink {
 public:
  explicit StringSink(size_t fail_after = SIZE_MAX) : fail_after_(fail_after) {}
  ZipResult Write(const unsigned char* data, size_t size) override {
    if (text.size() + size > fail_after_) return kZipWriteError;
    text.append(reinterpret_cast<const char*>(data), size);
    return kZipOk;
  }
  std::string text;

 private:
  size_t fail_after_;
};

std::string Compressible(size_t size) {
  std::string out;
  for (size_t i = 0; out.size() < size; ++i) out += "record " + std::to_string(i) + ";";
  out.resize(size);
  return out;
}

// Reads the archive and unpacks entry `index` into `sink`.
ZipResult UnpackOne(const std::string& bytes, size_t index, zip::Sink& sink) {
  zip::MemorySource source(bytes.data(), bytes.size());
  zip::Directory directory;
  ZipResult result = directory.Read(source, zip::kNativeNames);
  if (result != kZipOk) return result;
  zip::EntryInfo entry;
  if ((result = directory.Entry(index, &entry)) != kZipOk) return result;
  zip::Unpacker unpacker;
  uint64_t at = 0;
  if ((result = unpacker.Locate(source, entry, directory.DataLimit(index), &at)) != kZipOk) {
    return result;
  }
  return unpacker.Stream(source, entry, at, sink);
}

// The folded CRC gives zlib's results for every length (the 64-byte blocks,
// the 16-byte folds and the tail), alignment and register, and over a long
// buffer.
TEST(ZipCore, TheFoldedCrcIsZlibs) {
  std::mt19937 random(7);
  std::vector<unsigned char> bytes(4096 + 64);
  for (unsigned char& b : bytes) b = static_cast<unsigned char>(random());
  uint32_t folded = 0;
  if (!zip::Crc32Folded(0, bytes.data(), 64, &folded)) GTEST_SKIP() << "no carry-less multiplication here";
  for (size_t size = 0; size <= 1100; ++size) {
    const size_t at = random() % 64;
    const uint32_t crc = size % 3 == 0 ? 0 : static_cast<uint32_t>(random());
    ASSERT_TRUE(zip::Crc32Folded(crc, bytes.data() + at, size, &folded));
    ASSERT_EQ(zip::Crc32Plain(crc, bytes.data() + at, size), folded) << "size " << size << ", at " << at;
    ASSERT_EQ(folded, zip::Crc32(crc, bytes.data() + at, size));
  }
  std::vector<unsigned char> big((size_t{4} << 20) + 777, 0x5A);
  ASSERT_TRUE(zip::Crc32Folded(1, big.data(), big.size(), &folded));
  EXPECT_EQ(zip::Crc32Plain(1, big.data(), big.size()), folded);
}

TEST(ZipCore, EntriesStreamIntoTheSinkWithSizesAndCrcChecked) {
  const std::string big = Compressible(1500000);  // three times the buffers
  ZipLayout at;
  const std::string bytes = BuildZip({{"s.txt", "stored"}, {"d.txt", big, true}, {"e", ""},
                                      {"z.bin", big, false, true}},
                                     true, &at);
  for (size_t i = 0; i < 4; ++i) {
    StringSink sink;
    EXPECT_EQ(kZipOk, UnpackOne(bytes, i, sink)) << i;
    EXPECT_EQ((std::vector<std::string>{"stored", big, "", big})[i], sink.text) << i;
  }
  // A sink that fails stops the entry with its own result.
  StringSink failing(600000);
  EXPECT_EQ(kZipWriteError, UnpackOne(bytes, 1, failing));
  EXPECT_LE(failing.text.size(), 600000u);

  // A declared size smaller than the data: never more than declared.
  std::string small = bytes;
  PutLe32(small, at.central[1] + testing::kCentralSizeField, 1000);
  StringSink capped;
  EXPECT_EQ(kZipCorrupt, UnpackOne(small, 1, capped));
  EXPECT_LE(capped.text.size(), 1000u);

  std::string bad_crc = bytes;
  PutLe32(bad_crc, at.central[0] + testing::kCentralCrcField, 0xDEADBEEF);
  StringSink whole;
  EXPECT_EQ(kZipCorrupt, UnpackOne(bad_crc, 0, whole));
  EXPECT_EQ("stored", whole.text) << "what was written stays";
}

// A source that claims `size` bytes of zeros ending in the given tail,
// without holding them.
class ClaimingSource : public zip::Source {
 public:
  ClaimingSource(uint64_t size, std::string tail) : size_(size), tail_(std::move(tail)) {}
  uint64_t Size() const override { return size_; }
  bool ReadAt(uint64_t offset, void* buffer, size_t size) override {
    if (offset > size_ || size > size_ - offset) return false;
    unsigned char* out = static_cast<unsigned char*>(buffer);
    const uint64_t tail_at = size_ - tail_.size();
    for (size_t i = 0; i < size; ++i) {
      const uint64_t pos = offset + i;
      out[i] = pos >= tail_at ? static_cast<unsigned char>(tail_[pos - tail_at]) : 0;
    }
    reads += size;
    return true;
  }
  uint64_t reads = 0;

 private:
  uint64_t size_;
  std::string tail_;
};

TEST(ZipCore, CountsBeyondTheLimitOrTheBytesAreRefusedBeforeReadingTheDirectory) {
  const uint64_t dir = 1ull << 40;  // a terabyte of directory, claimed only
  struct Case {
    uint64_t count;
    ZipResult expected;
  };
  for (const Case& c : {Case{dir / 46 + 1, kZipCorrupt}, Case{zip::kMaxEntries + 1, kZipNoMemory},
                        Case{~0ull, kZipCorrupt}}) {
    ClaimingSource source(dir + 98, testing::Zip64EndRecords(dir, c.count, dir, 0));
    zip::Directory directory;
    EXPECT_EQ(c.expected, directory.Read(source, zip::kNativeNames)) << c.count;
    EXPECT_EQ(0u, directory.count());
    EXPECT_LT(source.reads, 200000u) << "refused from the end records alone";
  }
}

// Reads the archive and unpacks every entry: the first result that is not
// kZipOk, or kZipOk with the number of entries in `count`.
ZipResult UnpackAll(const std::string& bytes, size_t* count, uint64_t* prefix = nullptr) {
  zip::MemorySource source(bytes.data(), bytes.size());
  zip::Directory directory;
  ZipResult result = directory.Read(source, zip::kNativeNames);
  *count = directory.count();
  if (prefix != nullptr) *prefix = directory.prefix();
  zip::Unpacker unpacker;
  for (size_t i = 0; result == kZipOk && i < directory.count(); ++i) {
    zip::EntryInfo entry;
    uint64_t data = 0;
    StringSink sink;
    if ((result = directory.Entry(i, &entry)) == kZipOk &&
        (result = unpacker.Locate(source, entry, directory.DataLimit(i), &data)) == kZipOk) {
      result = unpacker.Stream(source, entry, data, sink);
    }
  }
  return result;
}

std::string Le(uint64_t value, size_t bytes) {
  std::string out;
  for (size_t i = 0; i < bytes; ++i) out.push_back(static_cast<char>(value >> (8 * i)));
  return out;
}

const std::string kZip64End("PK\x06\x06", 4);
const std::string kLocator("PK\x06\x07", 4);

struct EndCase {
  const char* what;
  std::string bytes;
  ZipResult expected;
  size_t entries;
};

void ExpectEnds(const std::vector<EndCase>& cases) {
  for (const EndCase& c : cases) {
    size_t count = 0;
    EXPECT_EQ(c.expected, UnpackAll(c.bytes, &count)) << c.what;
    EXPECT_EQ(c.expected == kZipOk ? c.entries : 0, count) << c.what;
  }
}

// Names end right before the end record, where a Zip64 locator would sit, and
// may hold any bytes: a locator counts only with its record where it points.
TEST(ZipCore, AZip64LocatorCountsOnlyWithItsRecordInPlace) {
  const ZipItem first{"a.txt", "first"};
  // The last name holds a locator whose "record" is the Zip64 end signature
  // in the name before it, followed by name bytes as its size.
  auto pointing_into_names = [&](const std::string& total_disks) {
    ZipLayout at;
    const ZipItem holder{"zip64 " + kZip64End + " end.txt", "2"};
    const std::string tail = "locator " + kLocator + Le(0, 4) + Le(0, 8) + total_disks;
    BuildZip({first, holder, {tail, "3"}}, false, &at);
    const size_t pointed = at.central[1] + 46 + 6;
    return BuildZip({first, holder, {tail.substr(0, 16) + Le(pointed, 8) + total_disks, "3"}});
  };
  // The last name ends in a whole Zip64 record and locator that name the
  // directory the name itself lies in, as the end record does.
  auto whole_record_in_name = [&]() {
    ZipLayout at;
    const std::string placeholder(80, 'w');
    BuildZip({first, {placeholder, "2"}}, false, &at);
    const std::string records =
        testing::Zip64EndRecords(at.end - 76, 2, at.end - at.central[0], at.central[0]);
    return BuildZip({first, {placeholder.substr(76) + records.substr(0, 76), "2"}});
  };
  const std::string records = testing::Zip64EndRecords(0, 1, 46, 0);
  ExpectEnds({
      {"the Zip64 end signature in a name", BuildZip({first, {"zip64 " + kZip64End + ".txt", "2"}}), kZipOk, 2},
      {"the locator signature in a name", BuildZip({first, {"mid " + kLocator + " name.txt", "2"}}), kZipOk, 2},
      {"a locator of name bytes pointing past itself",
       BuildZip({first, {"tail " + kLocator + std::string(16, 'x'), "2"}}), kZipOk, 2},
      {"a locator of name bytes pointing at a signature in a name", pointing_into_names("zzzz"), kZipOk, 3},
      {"the same, the locator naming one disk", pointing_into_names(Le(1, 4)), kZipOk, 3},
      {"a record of name bytes right before a locator pointing short of it",
       BuildZip({first, {kZip64End + std::string(52, 'y') + kLocator + "zzzz" + Le(0, 8) + "zzzz", "2"}}),
       kZipOk, 2},
      {"a whole Zip64 record of name bytes naming the directory around it", whole_record_in_name(), kZipOk, 2},
      // Only the end record of all ones is left, which names nothing: corrupt,
      // and never a read before the start of the file.
      {"a locator with no room for its record", records.substr(56), kZipCorrupt, 0},
      {"the same after 35 bytes", std::string(35, 'x') + records.substr(56), kZipCorrupt, 0},
  });
}

// A Zip64 record that is not whole is no Zip64 record: the end record is read
// alone, which reads when it names the directory in full and names nothing
// when it holds all ones.
TEST(ZipCore, ADamagedZip64RecordLeavesTheEndRecordAlone) {
  ZipLayout at;
  const std::string zip64 = BuildZip({{"a.txt", "first"}, {"b.txt", "second"}}, true, &at);
  const size_t record = at.end - 76;
  std::string in_full = zip64;
  PutLe16(in_full, at.end + testing::kEndDiskCountField, 2);
  PutLe16(in_full, at.end + testing::kEndCountField, 2);
  PutLe32(in_full, at.end + testing::kEndSizeField, static_cast<uint32_t>(record - at.central[0]));
  PutLe32(in_full, at.end + testing::kEndOffsetField, static_cast<uint32_t>(at.central[0]));
  struct Damage {
    const char* what;
    size_t at;
    uint32_t value;
  };
  for (const Damage& d : {Damage{"no signature", record, 0x06064b51},
                          Damage{"too short", record + 4, 43},
                          Damage{"running into its locator", record + 4, 45},
                          Damage{"naming a directory behind it", record + 48, static_cast<uint32_t>(record)},
                          Damage{"its locator pointing past it", at.end - 20 + 8, static_cast<uint32_t>(record + 1)}}) {
    std::string full = in_full, ones = zip64;
    PutLe32(full, d.at, d.value);
    PutLe32(ones, d.at, d.value);
    size_t count = 0;
    EXPECT_EQ(kZipOk, UnpackAll(full, &count)) << d.what;
    EXPECT_EQ(2u, count) << d.what;
    EXPECT_EQ(kZipCorrupt, UnpackAll(ones, &count)) << d.what;
  }
}

// The end record's fields hold all ones where the Zip64 record holds the
// value; any other difference between the two has one reading or none.
TEST(ZipCore, TheEndRecordAndTheZip64RecordGiveOneWholeReadingOrNone) {
  ZipLayout at;
  const std::string zip64 = BuildZip({{"a.txt", "first"}, {"b.txt", "second"}}, true, &at);
  const size_t record = at.end - 76;
  const uint32_t size = static_cast<uint32_t>(record - at.central[0]);
  const uint32_t first_only = static_cast<uint32_t>(at.central[1] - at.central[0]);
  struct Fields {
    uint16_t count;
    uint32_t size;
    uint32_t offset;
  };
  // `end` goes into the end record; `zip64_count` and `zip64_size` into the Zip64 record.
  auto with = [&](Fields end, uint64_t zip64_count = 2, uint64_t zip64_size = 0) {
    std::string bytes = zip64;
    PutLe16(bytes, at.end + testing::kEndDiskCountField, end.count);
    PutLe16(bytes, at.end + testing::kEndCountField, end.count);
    PutLe32(bytes, at.end + testing::kEndSizeField, end.size);
    PutLe32(bytes, at.end + testing::kEndOffsetField, end.offset);
    for (size_t field : {24u, 32u}) PutLe32(bytes, record + field, static_cast<uint32_t>(zip64_count));
    if (zip64_size != 0) PutLe32(bytes, record + 40, static_cast<uint32_t>(zip64_size));
    return bytes;
  };
  const uint32_t offset = static_cast<uint32_t>(at.central[0]);
  // With 65535 entries the end record's count is all ones and true at once; a
  // Zip64 record that names one entry less still leaves no whole reading.
  ZipLayout many;
  std::string most = BuildZip(std::vector<ZipItem>(0xFFFF, ZipItem{"n", "1"}), true, &many);
  const size_t most_record = many.end - 76;
  PutLe32(most, many.end + testing::kEndSizeField, static_cast<uint32_t>(most_record - many.central[0]));
  PutLe32(most, many.end + testing::kEndOffsetField, static_cast<uint32_t>(many.central[0]));
  for (size_t field : {24u, 32u}) PutLe32(most, most_record + field, 0xFFFE);
  PutLe32(most, most_record + 40, static_cast<uint32_t>(many.central[0xFFFE] - many.central[0]));
  ExpectEnds({
      {"all ones", zip64, kZipOk, 2},
      {"both in full, the same", with({2, size, offset}), kZipOk, 2},
      {"the count given, the offset all ones", with({2, size, 0xFFFFFFFF}), kZipOk, 2},
      {"the end record names both entries, the Zip64 record one", with({2, size, offset}, 1, first_only),
       kZipOk, 2},
      {"the end record names one entry, the Zip64 record both", with({1, first_only, offset}), kZipOk, 1},
      {"all ones but a count that differs", with({1, 0xFFFFFFFF, 0xFFFFFFFF}), kZipCorrupt, 0},
      {"all ones but a size that differs", with({0xFFFF, first_only, 0xFFFFFFFF}), kZipCorrupt, 0},
      {"the count all ones, an offset that differs", with({0xFFFF, size, offset + 1}), kZipCorrupt, 0},
      {"65535 entries, the Zip64 record naming one less", most, kZipCorrupt, 0},
  });
}

TEST(ZipCore, SharedAndOverlappingDataIsRefusedForTheWholeArchive) {
  ZipLayout at;
  const std::string good = BuildZip({{"a", std::string(3000, 'a')}, {"b", "b"}, {"c", "c"}},
                                    false, &at);
  auto pointing = [&](size_t entry, size_t offset) {
    std::string bytes = good;
    PutLe32(bytes, at.central[entry] + 42, static_cast<uint32_t>(offset));
    return bytes;
  };
  zip::Directory directory;
  zip::MemorySource ok(good.data(), good.size());
  ASSERT_EQ(kZipOk, directory.Read(ok, zip::kNativeNames));
  EXPECT_EQ(at.local[1], directory.DataLimit(0));
  EXPECT_EQ(at.central[0], directory.DataLimit(2)) << "the last entry ends at the directory";
  for (const std::string& bytes : {pointing(2, at.local[1]), pointing(1, at.data[0] + 7),
                                   pointing(0, at.central[1]), pointing(2, at.central[0] - 29)}) {
    zip::MemorySource source(bytes.data(), bytes.size());
    EXPECT_EQ(kZipCorrupt, directory.Read(source, zip::kNativeNames));
    EXPECT_EQ(0u, directory.count());
  }
}

TEST(ZipCore, Utf8IsDecodedStrictly) {
  std::u16string wide;
  EXPECT_TRUE(zip::Utf8ToUtf16("a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", &wide));
  EXPECT_EQ(u"a\u00E9\u20AC\U0001F600", wide);
  const std::vector<std::string> invalid = {
      "\xC0\xAE",           // overlong "."
      "\xE0\x80\xAE",       // overlong "." in three bytes
      "\xED\xA0\x80",       // a surrogate
      "\xF4\x90\x80\x80",   // above U+10FFFF
      "\xC3",               // cut
      "\x80",               // a continuation byte alone
      "\xFF",               // never valid
      "\xE2\x82(",          // cut by an ASCII byte
  };
  for (const std::string& text : invalid) {
    EXPECT_FALSE(zip::Utf8ToUtf16(text, &wide)) << text;
    EXPECT_NE(std::u16string::npos, wide.find(u'\uFFFD')) << text;
  }
  EXPECT_TRUE(zip::Utf8ToUtf16("x\xE2\x82(", &wide) == false && wide == u"x\uFFFD(");
}

TEST(ZipCore, TheNativeCodePageIsWindows1252Exactly) {
  std::string ansi;
  EXPECT_TRUE(zip::ExactCp1252(u"C\u00F4te d\u2019Ivoire \u20AC\u0178\u00FF", &ansi));
  EXPECT_EQ("C\xF4te d\x92Ivoire \x80\x9F\xFF", ansi);
  // Look-alikes have no exact form: fullwidth "./" and a division slash.
  EXPECT_FALSE(zip::ExactCp1252(u"\uFF0E\uFF0E\uFF0F\u2215x", &ansi));
  EXPECT_EQ("????x", ansi);
}

TEST(ZipCore, UnusableNamesAreMarkedAndShownWithStandIns) {
  const std::string bytes = BuildZip({{"a\xEF\xBC\x8F..", "1", false, false, 0x0800},
                                      {"\xC3\xA9t\xC3\xA9", "2", false, false, 0x0800},
                                      {"\x82t\x82", "3"}});
  zip::MemorySource source(bytes.data(), bytes.size());
  zip::Directory directory;
  ASSERT_EQ(kZipOk, directory.Read(source, zip::kNativeNames));
  zip::EntryInfo entry;
  ASSERT_EQ(kZipOk, directory.Entry(0, &entry));
  EXPECT_EQ("a?..", entry.name);
  EXPECT_FALSE(entry.usable);
  ASSERT_EQ(kZipOk, directory.Entry(1, &entry));
  EXPECT_EQ("\xE9t\xE9", entry.name);
  EXPECT_TRUE(entry.usable);
  ASSERT_EQ(kZipOk, directory.Entry(2, &entry));
  EXPECT_EQ("\xE9t\xE9", entry.name) << "names without the flag are IBM 437";
  EXPECT_TRUE(entry.usable);
  EXPECT_EQ(kZipBadArguments, directory.Entry(3, &entry));
}

// The Unicode Path extra field for `raw`, naming it `utf8`.
std::string UnicodePathField(const std::string& raw, const std::string& utf8, uint32_t crc_delta = 0) {
  std::string field(9, '\0');
  field[0] = 0x75, field[1] = 0x70;
  const size_t size = 5 + utf8.size();
  field[2] = static_cast<char>(size & 0xFF), field[3] = static_cast<char>(size >> 8);
  field[4] = 1;
  PutLe32(field, 5, testing::Crc32(raw) + crc_delta);
  return field + utf8;
}

// An archive of one stored entry named `raw`, with `extra` in its central record.
std::string WithExtra(const std::string& raw, const std::string& extra) {
  ZipLayout at;
  std::string bytes = BuildZip({{raw, "data"}}, false, &at);
  const size_t central = at.central[0];
  bytes[central + 30] = static_cast<char>(extra.size() & 0xFF);
  bytes[central + 31] = static_cast<char>(extra.size() >> 8);
  bytes.insert(central + 46 + raw.size(), extra);
  PutLe32(bytes, at.end + 4 + extra.size() + 8, static_cast<uint32_t>(at.end - central + extra.size()));
  return bytes;
}

std::string NameOf(const std::string& bytes, bool* usable = nullptr) {
  zip::MemorySource source(bytes.data(), bytes.size());
  zip::Directory directory;
  if (directory.Read(source, zip::kNativeNames) != kZipOk) return "(unreadable)";
  zip::EntryInfo entry;
  if (directory.Entry(0, &entry) != kZipOk) return "(no entry)";
  if (usable != nullptr) *usable = entry.usable;
  return entry.name;
}

TEST(ZipCoreNames, LegacyNamesAreOemAndTheUnicodePathFieldWinsWhenItsCrcMatches) {
  bool usable = false;
  EXPECT_EQ("\xE9t\xE9.txt", NameOf(BuildZip({{"\x82t\x82.txt", "1"}}), &usable)) << "IBM 437 é";
  EXPECT_TRUE(usable);
  EXPECT_EQ("?t?", NameOf(BuildZip({{"\xE9t\xE9", "1"}}), &usable)) << "IBM 437 theta";
  EXPECT_FALSE(usable);
  // Info-ZIP's zip writes the bytes as they are and the UTF-8 form beside them.
  const std::string raw = "C\xC3\xB4te.txt";
  EXPECT_EQ("C\xF4te.txt", NameOf(WithExtra(raw, UnicodePathField(raw, "C\xC3\xB4te.txt")), &usable));
  EXPECT_TRUE(usable);
  // A field written for another name (its CRC differs) is ignored.
  // (C3 and B4 are box-drawing characters in IBM 437: no Western form.)
  EXPECT_EQ("C??te.txt", NameOf(WithExtra(raw, UnicodePathField(raw, "X.txt", 1)), &usable));
  EXPECT_FALSE(usable);
  // With the UTF-8 flag the name itself is UTF-8, whatever the field says.
  EXPECT_EQ("C\xF4te", NameOf(BuildZip({{"C\xC3\xB4te", "1", false, false, 0x0800}})));
  // The field's name is cleaned as any other.
  EXPECT_EQ("x.txt", NameOf(WithExtra("a", UnicodePathField("a", "../../x.txt"))));
}

TEST(ZipCoreNames, NamesWrittenOnUnixAreUtf8WhenTheyReadSoAndElseTheirBytes) {
  auto on_unix = [](const std::string& raw) {
    ZipLayout at;
    std::string bytes = BuildZip({{raw, "1"}}, false, &at);
    bytes[at.central[0] + 5] = 3;  // made by: Unix
    return bytes;
  };
  bool usable = false;
  EXPECT_EQ("C\xF4te.txt", NameOf(on_unix("C\xC3\xB4te.txt"), &usable));
  EXPECT_TRUE(usable);
  EXPECT_EQ("\xE9t\xE9.txt", NameOf(on_unix("\xE9t\xE9.txt"), &usable)) << "Latin-1 bytes";
  EXPECT_TRUE(usable);
  EXPECT_EQ("?.txt", NameOf(on_unix("\xE6\x97\xA5.txt"), &usable)) << "UTF-8 without a Western form";
  EXPECT_FALSE(usable);
}

TEST(ZipCoreNames, DataInFrontOfTheArchiveIsFoundAndSkipped) {
  ZipLayout at;
  const std::string archive = BuildZip({{"a.txt", "first"}, {"b.bin", std::string(3000, 'b'), true}},
                                       false, &at);
  ZipLayout z;
  const std::string zip64 = BuildZip({{"z.txt", "zip64", false, true}}, true, &z);
  // A Zip64 locator points short of its record by the data in front, here at
  // a Zip64 end signature that begins no record.
  std::string decoy(1000, '\0');
  decoy.replace(z.end - 76, 4, kZip64End);
  struct Front {
    const char* what;
    std::string bytes;
  };
  for (const Front& front : {Front{"zeros", std::string(1000, '\0')},
                             Front{"a stub", std::string("MZ stub") + std::string(4089, 'x')},
                             Front{"a decoy signature", decoy}}) {
    for (const std::string& inner : {archive, zip64}) {
      size_t count = 0;
      uint64_t prefix = 0;
      EXPECT_EQ(kZipOk, UnpackAll(front.bytes + inner, &count, &prefix)) << front.what;
      EXPECT_EQ(inner == archive ? 2u : 1u, count) << front.what;
      EXPECT_EQ(front.bytes.size(), prefix) << front.what;
    }
  }
  // Offsets that fit no shift stay corrupt: the directory is neither where the
  // end record says nor where it would end at the end record.
  std::string moved = archive;
  PutLe32(moved, at.end + 16, static_cast<uint32_t>(at.central[0] - 5));
  moved.insert(at.central[0], "junk!");
  zip::MemorySource source(moved.data(), moved.size());
  zip::Directory directory;
  EXPECT_EQ(kZipCorrupt, directory.Read(source, zip::kNativeNames));
}

}  // namespace
}  // namespace dorvane
