// The zip reader's format core on Linux, under AddressSanitizer and
// UndefinedBehaviorSanitizer: archives in memory, sinks that fail, sources
// that claim more than they hold, names and output paths.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "support/zip_builder.h"
#include "util/zip_core.h"
#include "util/zip_crc.h"

namespace dorvane {
namespace {

using namespace testing;  // dorvane::testing
using Lines = std::vector<std::string>;

constexpr uint16_t kUtf8 = 0x0800;

struct StringSink : zip::Sink {
  explicit StringSink(size_t limit) : fail_after(limit) {}
  ZipResult Write(const unsigned char* data, size_t size) override {
    if (text.size() + size > fail_after) return kZipWriteError;
    text.append(reinterpret_cast<const char*>(data), size);
    return kZipOk;
  }
  size_t fail_after;
  std::string text;
};

// Reading an archive and unpacking its entries in order, each into a sink that
// fails beyond `fail_after` bytes: the first result that is not kZipOk (or
// kZipOk), the entries listed, and the bytes each entry reached gave.
struct Unpacked {
  ZipResult result;
  size_t count;
  uint64_t prefix;
  Lines texts;
};

Unpacked UnpackAll(const std::string& bytes, size_t fail_after = SIZE_MAX) {
  zip::MemorySource source(bytes.data(), bytes.size());
  zip::Directory directory;
  Unpacked out{directory.Read(source, zip::kNativeNames), directory.count(), directory.prefix(), {}};
  zip::Unpacker unpacker;
  for (size_t i = 0; out.result == kZipOk && i < directory.count(); ++i) {
    zip::EntryInfo entry;
    uint64_t at = 0;
    StringSink sink(fail_after);
    if ((out.result = directory.Entry(i, &entry)) == kZipOk &&
        (out.result = unpacker.Locate(source, entry, directory.DataLimit(i), &at)) == kZipOk) {
      out.result = unpacker.Stream(source, entry, at, sink);
    }
    out.texts.push_back(sink.text);
  }
  return out;
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

// Sizes and CRCs are asked under Wine (ZipReader.DamagedArchives...); here, a
// sink that fails stops the entry with its own result.
TEST(ZipCore, ASinkThatFailsStopsTheEntryWithItsResult) {
  std::string big;  // three times the buffers
  for (size_t i = 0; big.size() < 1500000; ++i) big += "record " + std::to_string(i) + ";";
  for (const std::string& bytes : {BuildZip({{"s.txt", "stored"}, {"d.txt", big, true}}),
                                   BuildZip({{"s.txt", "stored"}, {"z.bin", big, false, true}}, true)}) {
    EXPECT_TRUE(UnpackAll(bytes).texts == (Lines{"stored", big}));
    const Unpacked failed = UnpackAll(bytes, 600000);
    EXPECT_EQ(kZipWriteError, failed.result);
    EXPECT_EQ(2u, failed.texts.size());
  }
}

// A source that claims `size` bytes of zeros ending in the given tail,
// without holding them.
struct ClaimingSource : zip::Source {
  ClaimingSource(uint64_t claimed, std::string bytes) : size(claimed), tail(std::move(bytes)) {}
  uint64_t Size() const override { return size; }
  bool ReadAt(uint64_t offset, void* buffer, size_t count) override {
    if (offset > size || count > size - offset) return false;
    for (size_t i = 0; i < count; ++i) {
      const uint64_t from_end = size - (offset + i);
      static_cast<char*>(buffer)[i] = from_end <= tail.size() ? tail[tail.size() - from_end] : '\0';
    }
    reads += count;
    return true;
  }
  uint64_t size, reads = 0;
  std::string tail;
};

TEST(ZipCore, CountsBeyondTheLimitOrTheBytesAreRefusedBeforeReadingTheDirectory) {
  const uint64_t dir = 1ull << 40;  // a terabyte of directory, claimed only
  using Count = std::pair<uint64_t, ZipResult>;
  for (const auto& [count, expected] :
       {Count{dir / 46 + 1, kZipCorrupt}, Count{zip::kMaxEntries + 1, kZipNoMemory}, Count{~0ull, kZipCorrupt}}) {
    ClaimingSource source(dir + 98, EndRecords(count, dir, 0, true, dir));
    zip::Directory directory;
    EXPECT_EQ(expected, directory.Read(source, zip::kNativeNames)) << count;
    EXPECT_EQ(0u, directory.count());
    EXPECT_LT(source.reads, 200000u) << "refused from the end records alone";
  }
}

// What the case is, the archive, and the result and entry count it reads with.
using EndCase = std::tuple<std::string, std::string, ZipResult, size_t>;

// A Zip64 locator counts only with its whole record in place; the end record
// holds all ones where the Zip64 record holds the value, and any other
// difference between the two has one reading or none.
TEST(ZipCore, TheEndRecordsGiveOneWholeReadingOrNone) {
  const std::string sig64("PK\x06\x06", 4), locator("PK\x06\x07", 4);
  const ZipItem first{"a.txt", "first"};
  // Names end right before the end record, where a Zip64 locator would sit, and
  // may hold any bytes. (A locator in a name pointing at a Zip64 signature in
  // the name before it is asked on an archive of Python's zipfile.)
  ZipLayout at;
  // The last name ends in a whole Zip64 record and locator that name the
  // directory the name itself lies in, as the end record does.
  const std::string placeholder(80, 'w');
  BuildZip({first, {placeholder, "2"}}, false, &at);
  const std::string in_name = EndRecords(2, at.end - at.central[0], at.central[0], true, at.end - 76);
  const std::string records = EndRecords(1, 46, 0, true);
  std::vector<EndCase> cases = {
      {"the signatures in a name", BuildZip({first, {"zip64 " + sig64 + " mid " + locator + ".txt", "2"}}), kZipOk, 2},
      {"a locator of name bytes pointing past itself",
       BuildZip({first, {"tail " + locator + std::string(16, 'x'), "2"}}), kZipOk, 2},
      {"a record of name bytes right before a locator pointing short of it",
       BuildZip({first, {sig64 + std::string(52, 'y') + locator + "zzzz" + Le(0, 8) + "zzzz", "2"}}), kZipOk, 2},
      {"a whole Zip64 record of name bytes naming the directory around it",
       BuildZip({first, {placeholder.substr(76) + in_name.substr(0, 76), "2"}}), kZipOk, 2},
      // Only the end record of all ones is left, which names nothing: corrupt,
      // and never a read before the start of the file.
      {"a locator with no room for its record", records.substr(56), kZipCorrupt, 0},
      {"the same after 35 bytes", std::string(35, 'x') + records.substr(56), kZipCorrupt, 0},
  };
  const std::string zip64 = BuildZip({{"a.txt", "first"}, {"b.txt", "second"}}, true, &at);
  const size_t record = at.end - 76;
  const uint32_t size = static_cast<uint32_t>(record - at.central[0]), offset = static_cast<uint32_t>(at.central[0]);
  const uint32_t first_only = static_cast<uint32_t>(at.central[1] - at.central[0]);
  // The end record's count, size and offset; the Zip64 record's count and size.
  auto with = [&](uint16_t count, uint32_t end_size, uint32_t end_offset, uint64_t zip64_count = 2,
                  uint32_t zip64_size = 0) {
    std::string bytes = zip64.substr(0, at.end) + EndRecords(count, end_size, end_offset);
    for (size_t field : {24u, 32u}) PutLe32(bytes, record + field, static_cast<uint32_t>(zip64_count));
    if (zip64_size != 0) PutLe32(bytes, record + 40, zip64_size);
    return bytes;
  };
  cases.insert(cases.end(), {
      {"all ones", zip64, kZipOk, 2},
      {"both in full, the same", with(2, size, offset), kZipOk, 2},
      {"the count given, the offset all ones", with(2, size, 0xFFFFFFFF), kZipOk, 2},
      {"the end record names both entries, the Zip64 record one", with(2, size, offset, 1, first_only), kZipOk, 2},
      {"the end record names one entry, the Zip64 record both", with(1, first_only, offset), kZipOk, 1},
      {"all ones but a count that differs", with(1, 0xFFFFFFFF, 0xFFFFFFFF), kZipCorrupt, 0},
      {"all ones but a size that differs", with(0xFFFF, first_only, 0xFFFFFFFF), kZipCorrupt, 0},
      {"the count all ones, an offset that differs", with(0xFFFF, size, offset + 1), kZipCorrupt, 0},
  });
  // A Zip64 record that is not whole is no Zip64 record: the end record is
  // read alone, which reads when it names the directory in full and names
  // nothing when it holds all ones.
  for (const auto& [what, field, value] :
       {std::tuple{"no signature", record, 0x06064b51u}, std::tuple{"too short", record + 4, 43u},
        std::tuple{"running into its locator", record + 4, 45u},
        std::tuple{"naming a directory behind it", record + 48, static_cast<uint32_t>(record)},
        std::tuple{"its locator pointing past it", at.end - 12, static_cast<uint32_t>(record + 1)}}) {
    std::string full = with(2, size, offset), ones = zip64;
    PutLe32(full, field, value);
    PutLe32(ones, field, value);
    cases.push_back({std::string("a Zip64 record ") + what + ", the end record in full", full, kZipOk, 2});
    cases.push_back({std::string("a Zip64 record ") + what + ", the end record all ones", ones, kZipCorrupt, 0});
  }
  for (const auto& [what, bytes, expected, entries] : cases) {
    const Unpacked got = UnpackAll(bytes);
    EXPECT_EQ(expected, got.result) << what;
    EXPECT_EQ(entries, got.count) << what;
  }
}

// Data shared or overlapping between entries is refused for the whole
// archive; data in any order and with gaps is not.
TEST(ZipCore, EntryDataMayLieInAnyOrderButNeverSharedOrOverlapping) {
  ZipLayout at;
  const std::string good = BuildZip({{"a", std::string(3000, 'a')}, {"b", "b"}, {"c", "c"}}, false, &at);
  zip::Directory directory;
  zip::MemorySource ok(good.data(), good.size());
  ASSERT_EQ(kZipOk, directory.Read(ok, zip::kNativeNames));
  EXPECT_EQ(at.local[1], directory.DataLimit(0));
  EXPECT_EQ(at.central[0], directory.DataLimit(2)) << "the last entry ends at the directory";
  for (const auto& [entry, offset] : {std::pair{2, at.local[1]}, std::pair{1, at.data[0] + 7},
                                      std::pair{0, at.central[1]}, std::pair{2, at.central[0] - 29}}) {
    std::string bytes = good;
    PutLe32(bytes, at.central[entry] + 42, static_cast<uint32_t>(offset));
    const Unpacked got = UnpackAll(bytes);
    EXPECT_EQ(kZipCorrupt, got.result) << entry << " at " << offset;
    EXPECT_EQ(0u, got.count);
  }
  // Entries need not be in the directory in the order of their data, nor
  // packed tightly: central records in the reverse order of their data, 100
  // bytes of padding between the data and the directory.
  ZipLayout two;
  const std::string pair = BuildZip({{"first", "1111"}, {"second", "22"}}, false, &two);
  const Unpacked got = UnpackAll(pair.substr(0, two.central[0]) + std::string(100, '\0') +
                                 pair.substr(two.central[1], two.end - two.central[1]) +
                                 pair.substr(two.central[0], two.central[1] - two.central[0]) +
                                 EndRecords(2, two.end - two.central[0], two.central[0] + 100));
  EXPECT_EQ(kZipOk, got.result);
  EXPECT_EQ((Lines{"22", "1111"}), got.texts);
}

TEST(ZipCore, DataInFrontOfTheArchiveIsFoundAndSkipped) {
  ZipLayout at, z;
  const std::string archive = BuildZip({{"a.txt", "first"}, {"b.bin", std::string(3000, 'b'), true}}, false, &at);
  const std::string zip64 = BuildZip({{"z.txt", "zip64", false, true}}, true, &z);
  // A Zip64 locator points short of its record by the data in front, here at
  // a Zip64 end signature that begins no record.
  std::string decoy(1000, '\0');
  decoy.replace(z.end - 76, 4, "PK\x06\x06");
  for (const auto& [what, front] : {std::pair{"zeros", std::string(1000, '\0')},
                                    std::pair{"a stub", "MZ stub" + std::string(4089, 'x')}, std::pair{"a decoy", decoy}}) {
    for (const std::string& inner : {archive, zip64}) {
      const Unpacked got = UnpackAll(front + inner);
      EXPECT_EQ(kZipOk, got.result) << what;
      EXPECT_EQ(inner == archive ? 2u : 1u, got.count) << what;
      EXPECT_EQ(front.size(), got.prefix) << what;
    }
  }
  // Offsets that fit no shift stay corrupt: the directory is neither where the
  // end record says nor where it would end at the end record.
  std::string moved = archive;
  PutLe32(moved, at.end + kEndOffsetField, static_cast<uint32_t>(at.central[0] - 5));
  moved.insert(at.central[0], "junk!");
  EXPECT_EQ(kZipCorrupt, UnpackAll(moved).result);
}

// The Unicode Path extra field for `raw`, naming it `utf8`.
std::string UnicodePath(const std::string& raw, const std::string& utf8, uint32_t crc_delta = 0) {
  return Le(0x7075, 2) + Le(5 + utf8.size(), 2) + Le(1, 1) + Le(Crc32(raw) + crc_delta, 4) + utf8;
}

// Names are UTF-8 with the flag; else the Unicode Path field's when its CRC
// matches; else OEM (IBM 437) when a DOS or Windows host wrote them, and
// elsewhere UTF-8 when they read so and else their bytes. What has no exact
// Western form is shown with stand-ins and unusable.
TEST(ZipCoreNames, NamesAreReadByTheirFlagFieldAndHost) {
  const std::string cote = "C\xC3\xB4te.txt";  // C3 B4 are box-drawing characters in IBM 437
  const std::string oem = "\x82t\x82.txt";     // été in IBM 437
  const std::string wide_name = std::string(100, 'd') + "/" + std::string(199, 'f');
  // What the case is, the entry, the name read, and whether it is usable.
  std::vector<std::tuple<std::string, ZipItem, std::string, bool>> cases = {
      {"Unix: not UTF-8, the bytes", {oem, "1", false, false, 0, 3}, oem, true},
      {"Unix: UTF-8", {cote, "1", false, false, 0, 3}, "C\xF4te.txt", true},
      {"Unix: UTF-8 without a Western form", {"\xE6\x97\xA5.txt", "1", false, false, 0, 3}, "?.txt", false},
      {"MS-DOS: IBM 437 box drawing", {cote, "1"}, "C??te.txt", false},
      {"UTF-8 flag, Windows-1252", {"C\xC3\xB4te d\xE2\x80\x99Ivoire \xE2\x82\xAC\xC5\xB8\xC3\xBF", "1", false, false, kUtf8},
       "C\xF4te d\x92Ivoire \x80\x9F\xFF", true},
      // Look-alikes have no exact form: fullwidth "/" and ".", a division slash.
      {"UTF-8 flag, look-alikes", {"a\xEF\xBC\x8F\xEF\xBC\x8E\xE2\x88\x95..", "1", false, false, kUtf8}, "a???..", false},

      {"UTF-8 flag over a field", {cote, "1", false, false, kUtf8, 0, UnicodePath(cote, "X")}, "C\xF4te.txt", true},
      {"Unicode Path field", {cote, "1", false, false, 0, 0, UnicodePath(cote, cote)}, "C\xF4te.txt", true},
      {"Unicode Path field of another name", {cote, "1", false, false, 0, 0, UnicodePath(cote, "X", 1)},
       "C??te.txt", false},
      {"Unicode Path field, cleaned", {"a", "1", false, false, 0, 0, UnicodePath("a", "../../x.txt")}, "x.txt", true},
      {"cut at 259 characters", {wide_name, "1"}, wide_name.substr(0, 259), true},
  };
  // MS-DOS, OS/2 HPFS, NTFS, VFAT.
  for (uint8_t host : {0, 6, 11, 14}) {
    cases.push_back({"host " + std::to_string(host), {oem, "1", false, false, 0, host}, "\xE9t\xE9.txt", true});
  }
  // UTF-8 is decoded strictly: overlong ".", in two and three bytes; a
  // surrogate; above U+10FFFF; cut; a continuation byte alone; never valid;
  // cut by an ASCII byte.
  for (const auto& [raw, name] : {std::pair{"\xC0\xAE", "?"}, std::pair{"\xE0\x80\xAE", "?"}, std::pair{"\xED\xA0\x80", "?"},
                                  std::pair{"\xF4\x90\x80\x80", "?"}, std::pair{"x\xC3", "x?"}, std::pair{"\x80x", "?x"},
                                  std::pair{"\xFF", "?"}, std::pair{"x\xE2\x82(", "x?("}}) {
    cases.push_back({"invalid UTF-8", {raw, "1", false, false, kUtf8}, name, false});
  }
  for (const auto& [what, item, name, usable] : cases) {
    SCOPED_TRACE(what + ": " + item.name);
    const std::string bytes = BuildZip({item});
    zip::MemorySource source(bytes.data(), bytes.size());
    zip::Directory directory;
    zip::EntryInfo entry;
    ASSERT_EQ(kZipOk, directory.Read(source, zip::kNativeNames));
    ASSERT_EQ(kZipOk, directory.Entry(0, &entry));
    EXPECT_EQ(name, entry.name);
    EXPECT_EQ(usable, entry.usable);
    EXPECT_EQ(kZipBadArguments, directory.Entry(1, &entry));
  }
}

TEST(ZipCoreNames, EntryNamesAreCleanedRoundAfterRoundUntilNoRuleApplies) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"plain/name.txt", "plain/name.txt"}, {"..\\..\\x.txt", "x.txt"}, {"C:\\x.txt", "x.txt"},
      {"d/../../x", "../x"},  // kept: the rest starts with two dots and no rule applies
      {"../x", "../x"}, {"..", ".."}, {"/abs/x", "abs/x"}, {"\\\\server\\share\\x", "server\\share\\x"},
      {"C:C:/x", "x"}, {"a/..\\b/../c", "c"},
      {"x/..\\..\\y", "..\\y"},  // the earliest sequence, not the first pattern
      {"/a:/../x", "x"},         // drive, slash and sequence rules apply in that order each round
      {"a..b/c..", "a..b/c.."}, {"", ""},
  };
  for (const auto& [name, cleaned] : cases) EXPECT_EQ(cleaned, CleanEntryName(name)) << name;
}

TEST(ZipCoreNames, OnlyOutputPathsThatStayInTheirFolderAndNameFilesArePassed) {
  for (const char* path : {"C:\\t\\a.txt", "C:/t/sub/b.bin", "rel\\c", "C:\\t\\.\\d.txt", "\\\\server\\share\\e.txt",
                           "C:\\t\\folder\\", "C:\\t\\x.y.z", "C:\\t\\console.txt", "C:\\t\\com10", "C:\\t\\.profile"}) {
    EXPECT_EQ(kZipOk, CheckOutputPath(path)) << path;
  }
  for (const char* path :
       {"C:\\t\\../x", "C:\\t\\..", "..\\x", "C:\\t\\a\\..\\..\\x", "C:\\t\\a.txt:stream", "C:\\t\\b:",
        "C:\\t\\x:$DATA", "C:\\t\\CON", "C:\\t\\nul.txt", "C:\\t\\sub\\Aux", "C:\\t\\com1.log", "C:\\t\\LPT9",
        "C:\\t\\prn .txt", "C:\\t\\conout$", "C:\\t\\COM\xB9", "C:\\t\\trail.", "C:\\t\\trail ", "C:\\t\\dir.\\f",
        "C:\\t\\...", "C:\\t\\a*b", "C:\\t\\a?b", "C:\\t\\a|b", "C:\\t\\a<b", "C:\\t\\a\"b", "C:\\t\\tab\there",
        "\\\\.\\PhysicalDrive0", "\\\\?\\C:\\t\\x", "//./nul", ""}) {
    EXPECT_EQ(kZipNoFile, CheckOutputPath(path)) << path;
  }
  EXPECT_EQ(kZipNoFile, CheckOutputPath(nullptr));
}

// The texts are a fixed table; asked here are its ends, the legacy spelling
// kept, and codes between or beside the listed ones.
TEST(ZipCoreNames, ResultCodesHaveTheirTextsAndOthersOneForAll) {
  const std::vector<std::pair<ZipResult, std::string>> texts = {
      {0x0, "Success"}, {0x100, "Culdn't duplicate handle"}, {0x700, "Zipfile is corrupt or not a zipfile"},
      {0x5000000, "Zip-bug: an internal error during flation"}, {0x2, "unknown zip result code"},
      {0x701, "unknown zip result code"}, {0x90000, "unknown zip result code"}};
  for (const auto& [code, text] : texts) EXPECT_EQ(text, ZipResultText(code)) << std::hex << code;
}

}  // namespace
}  // namespace dorvane
