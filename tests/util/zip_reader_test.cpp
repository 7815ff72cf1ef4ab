// The zip reader on archives written byte by byte: entry kinds, Zip64 fields,
// damaged archives, handles, names and result texts.
#include "util/zip_reader.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "support/log_reader.h"
#include "support/tree.h"
#include "support/zip_builder.h"
#include "support/zip_fixture.h"
#include "util/file_ops.h"

namespace dorvane {
namespace {

using testing::BuildZip;
using testing::FileExists;
using testing::FileSize;
using testing::PutLe16;
using testing::PutLe32;
using testing::ReadFileBytes;
using testing::TreeOf;
using testing::ZipItem;
using testing::ZipLayout;

using Lines = std::vector<std::string>;

// Compressible text and bytes that deflate cannot shrink, each longer than the
// reader's buffers.
std::string Compressible(size_t size) {
  std::string out;
  for (size_t i = 0; out.size() < size; ++i) out += "line " + std::to_string(i) + " of the image\n";
  out.resize(size);
  return out;
}
std::string Noise(size_t size) {
  std::string out(size, '\0');
  unsigned x = 12345;
  for (char& c : out) c = static_cast<char>((x = x * 1103515245 + 12345) >> 16);
  return out;
}

std::string TextOf(ZipResult code) { return testing::ZipText(code); }

using ZipReaderTest = testing::ZipFixture;

TEST_F(ZipReaderTest, StoredDeflatedEmptyAndFolderEntriesUnpack) {
  const std::string big = Compressible(1500000) + Noise(700000);
  ASSERT_NE(nullptr, Open(BuildZip({{"stored.txt", "plain bytes"},
                                    {"deflated.img", big, true},
                                    {"empty.txt", ""},
                                    {"empty-deflated.txt", "", true},
                                    {"folder/", ""},
                                    {"unlisted/inner.bin", Noise(600000)}})));
  int count = 0;
  ASSERT_EQ(kZipOk, Count(&count));
  ASSERT_EQ(6, count);
  for (int i = 0; i < count; ++i) EXPECT_EQ(kZipOk, Unpack(i)) << i;
  EXPECT_EQ("plain bytes", Out("stored.txt"));
  EXPECT_TRUE(Out("deflated.img") == big);
  EXPECT_EQ(0, FileSize(target_ + "empty.txt"));
  EXPECT_EQ(0, FileSize(target_ + "empty-deflated.txt"));
  EXPECT_TRUE(Out("unlisted\\inner.bin") == Noise(600000)) << "missing folders are made";
  EXPECT_EQ((Lines{"a.zip", "out/", "out/deflated.img", "out/empty-deflated.txt", "out/empty.txt",
                   "out/folder/", "out/stored.txt", "out/unlisted/", "out/unlisted/inner.bin"}),
            TreeOf(dir_));

  ZipEntry entry;
  ASSERT_EQ(kZipOk, GetZipItem(zip_, 1, &entry));
  EXPECT_EQ(1, entry.index);
  EXPECT_STREQ("deflated.img", entry.name);
  EXPECT_EQ(static_cast<long long>(big.size()), entry.size);
  EXPECT_LT(entry.compressed_size, entry.size);
  EXPECT_EQ(0u, entry.attributes & FILE_ATTRIBUTE_DIRECTORY);
  ASSERT_EQ(kZipOk, GetZipItem(zip_, 4, &entry));
  EXPECT_NE(0u, entry.attributes & FILE_ATTRIBUTE_DIRECTORY);
  SYSTEMTIME when;
  ::FileTimeToSystemTime(&entry.modified, &when);
  EXPECT_EQ(2025, when.wYear);
}

// Sizes and offset in the Zip64 extra field, and the Zip64 end records
// (archives of other writers show data descriptors and the other Zip64 forms).
TEST_F(ZipReaderTest, Zip64FieldsOfEveryKindAreRead) {
  const std::string big = Compressible(900000);
  ASSERT_NE(nullptr, Open(BuildZip({{"s.txt", "stored", false, true}, {"d.img", big, true, true}},
                                   true)));
  int count = 0;
  ASSERT_EQ(kZipOk, Count(&count));
  ASSERT_EQ(2, count);
  EXPECT_EQ(kZipOk, Unpack(0));
  EXPECT_EQ(kZipOk, Unpack(1));
  EXPECT_EQ("stored", Out("s.txt"));
  EXPECT_TRUE(Out("d.img") == big);
}

using Edit = std::function<void(std::string&, const ZipLayout&)>;

// Sets a 16- or 32-bit field of the end record, or of every central header.
Edit EndField(size_t field, int bits, uint32_t value) {
  return [=](std::string& z, const ZipLayout& at) {
    bits == 16 ? PutLe16(z, at.end + field, static_cast<uint16_t>(value))
               : PutLe32(z, at.end + field, value);
  };
}
Edit CentralField(size_t field, int bits, uint32_t value) {
  return [=](std::string& z, const ZipLayout& at) {
    for (size_t c : at.central) {
      bits == 16 ? PutLe16(z, c + field, static_cast<uint16_t>(value)) : PutLe32(z, c + field, value);
    }
  };
}
Edit Replace(std::string bytes) {
  return [=](std::string& z, const ZipLayout&) { z = bytes; };
}
Edit CutTo(double fraction) {
  return [=](std::string& z, const ZipLayout&) { z.resize(static_cast<size_t>(z.size() * fraction)); };
}

// One way of damaging an archive of a stored and a deflated entry, and what
// listing and unpacking the stored (0) and the deflated (1) entry give.
struct Damage {
  const char* label;
  Edit apply;
  ZipResult listing;
  ZipResult stored;
  ZipResult deflated;
};

TEST_F(ZipReaderTest, DamagedArchivesGiveResultCodesAndWriteNothingOutsideTheTarget) {
  const std::string text = Compressible(300000);
  const std::vector<ZipItem> items = {{"s.txt", "stored data"}, {"d.txt", text, true}};
  const ZipResult ok = kZipOk;
  const ZipResult bad = kZipCorrupt;
  const size_t kFlags = 8;
  const size_t kMethod = 10;
  const size_t kNameLength = 28;
  const std::vector<Damage> damages = {
      // Where the listing fails, nothing can be unpacked either.
      {"not a zip at all", Replace("just some text"), bad, bad, bad},
      {"empty file", Replace(""), bad, bad, bad},
      {"cut in half", CutTo(0.5), bad, bad, bad},
      {"end record cut", CutTo(0.9999), bad, bad, bad},
      {"directory beyond the file", EndField(testing::kEndOffsetField, 32, 0x7FFFFFF0), bad, bad, bad},
      {"directory offset at a local header", EndField(testing::kEndOffsetField, 32, 0), bad, bad, bad},
      {"absurd entry count", EndField(testing::kEndCountField, 16, 0xFFF0), bad, bad, bad},
      {"name running past the directory", CentralField(kNameLength, 16, 0xFFFF), bad, bad, bad},
      // The data would run over the next entry and the directory.
      {"absurd compressed size", CentralField(testing::kCentralCompressedField, 32, 0x7FFFFFFF), bad,
       bad, bad},
      // Listed, but each entry is refused.
      {"bad local header",
       [](std::string& z, const ZipLayout& at) { for (size_t l : at.local) z[l] = 'X'; }, ok, bad, bad},
      {"bad CRC", CentralField(testing::kCentralCrcField, 32, 0x12345678), ok, bad, bad},
      {"changed data",
       [](std::string& z, const ZipLayout& at) { for (size_t d : at.data) z[d + 9] ^= 0x55; }, ok,
       bad, bad},
      {"absurd size", CentralField(testing::kCentralSizeField, 32, 0xFFFFFFF0), ok, bad, bad},
      {"size too small", CentralField(testing::kCentralSizeField, 32, 4), ok, bad, bad},
      {"unknown method", CentralField(kMethod, 16, 12), ok, bad, bad},
      {"encrypted", CentralField(kFlags, 16, 1), ok, kZipPassword, kZipPassword},
      {"undamaged", [](std::string&, const ZipLayout&) {}, ok, ok, ok},
  };
  for (const Damage& d : damages) {
    SCOPED_TRACE(d.label);
    ZipLayout layout;
    std::string bytes = BuildZip(items, false, &layout);
    d.apply(bytes, layout);
    testing::RemoveTree(dir_ + "\\out");
    ASSERT_NE(nullptr, Open(bytes));
    int count = -1;
    EXPECT_EQ(d.listing, Count(&count));
    EXPECT_EQ("Zipfile is corrupt or not a zipfile" == TextOf(kZipRecent), d.listing == bad);
    if (d.listing != ok) {
      EXPECT_EQ(d.listing, UnzipItem(zip_, 0, (target_ + "x").c_str())) << "and it stays so";
      EXPECT_EQ(Lines{"a.zip"}, TreeOf(dir_));
      continue;
    }
    // A failed entry leaves nothing of itself: a file of its name stays as it
    // was (s.txt, replaced by a move), a new one is removed again (d.txt).
    MakeFolders(target_);
    testing::WriteFileBytes(target_ + "s.txt", "old");
    EXPECT_EQ(d.stored, Unpack(0));
    EXPECT_EQ(d.deflated, Unpack(1));
    for (const std::string& path : TreeOf(dir_)) {
      EXPECT_TRUE(path == "a.zip" || path.rfind("out/", 0) == 0) << path;
    }
    EXPECT_EQ(d.stored == ok ? "stored data" : "old", Out("s.txt"));
    EXPECT_EQ(d.deflated == ok, FileExists(target_ + "d.txt"));
  }
}

// Random damage anywhere in the headers: results, no crash, and nothing
// written outside the target folder.
TEST_F(ZipReaderTest, RandomlyDamagedHeadersNeverWriteOutsideTheTarget) {
  ZipLayout at;
  const std::string good = BuildZip({{"a/s.txt", std::string(3000, 's')},
                                     {"d.txt", Compressible(70000), true},
                                     {"z.txt", "zip64", false, true}},
                                    true, &at);
  unsigned x = 4711;
  auto next = [&x] { return (x = x * 1103515245 + 12345) >> 8; };
  for (int round = 0; round < 300; ++round) {
    std::string bytes = good;
    const bool in_directory = round % 2 == 0;  // else in a local header
    const size_t from = in_directory ? at.central[0] : at.local[next() % 3];
    for (int n = 1 + next() % 4; n > 0; --n) bytes[from + next() % (bytes.size() - from)] = char(next());
    if (round % 10 == 9) bytes.resize(next() % bytes.size());
    testing::RemoveTree(dir_ + "\\out");
    ASSERT_NE(nullptr, Open(bytes));
    int count = 0;
    if (Count(&count) != kZipOk) continue;
    for (int i = 0; i < count; ++i) Unpack(i);
    for (const std::string& path : TreeOf(dir_)) {
      ASSERT_TRUE(path == "a.zip" || path.rfind("out/", 0) == 0) << path << " in round " << round;
    }
  }
}

TEST_F(ZipReaderTest, HandlesThatWereNotOpenedHereAreRefused) {
  EXPECT_EQ(nullptr, OpenZip((dir_ + "\\missing.zip").c_str()));
  EXPECT_EQ("Couldn't create/open file", TextOf(kZipRecent));
  ZipEntry entry;
  EXPECT_EQ(kZipBadArguments, GetZipItem(nullptr, -1, &entry));
  EXPECT_EQ(kZipBadArguments, UnzipItem(nullptr, 0, "x"));
  EXPECT_EQ(kZipBadArguments, CloseZip(nullptr));
  int not_a_handle = 0;
  ZipHandle stranger = reinterpret_cast<ZipHandle>(&not_a_handle);
  EXPECT_EQ(kZipWrongMode, UnzipItem(stranger, 0, "x"));
  EXPECT_EQ(kZipWrongMode, GetZipItem(stranger, 0, &entry));
  EXPECT_EQ("Caller: mixing creation and opening of zip", TextOf(kZipRecent));

  ASSERT_NE(nullptr, Open(BuildZip({{"one.txt", "1"}})));
  EXPECT_EQ(kZipBadArguments, GetZipItem(zip_, 0, nullptr));
  EXPECT_EQ(kZipBadArguments, GetZipItem(zip_, 1, &entry));
  EXPECT_EQ(kZipBadArguments, GetZipItem(zip_, -2, &entry));
  EXPECT_EQ(kZipBadArguments, UnzipItem(zip_, 1, (target_ + "x").c_str()));
  EXPECT_EQ(kZipBadArguments, UnzipItem(zip_, 0, nullptr));
  EXPECT_EQ(kZipOk, Unpack(0));
  ZipHandle closed = zip_;
  EXPECT_EQ(kZipOk, CloseZip(zip_));
  zip_ = nullptr;
  EXPECT_EQ(kZipWrongMode, UnzipItem(closed, 0, (target_ + "x").c_str()));
  EXPECT_EQ(kZipWrongMode, CloseZip(closed));
}

TEST_F(ZipReaderTest, AFileThatCannotBeCreatedGivesNoFile) {
  ASSERT_NE(nullptr, Open(BuildZip({{"one.txt", "1"}})));
  ::CreateDirectoryA(target_.c_str(), nullptr);
  ::CreateDirectoryA((target_ + "one.txt").c_str(), nullptr);  // a folder in the way
  EXPECT_EQ(kZipNoFile, Unpack(0));
  EXPECT_EQ("Couldn't create/open file", TextOf(kZipRecent));
}

TEST(ZipEntryNames, AreCleanedRoundAfterRoundUntilNoRuleApplies) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"plain/name.txt", "plain/name.txt"},
      {"..\\..\\x.txt", "x.txt"},
      {"C:\\x.txt", "x.txt"},
      {"d/../../x", "../x"},  // kept: the rest starts with two dots and no rule applies
      {"../x", "../x"},
      {"..", ".."},
      {"/abs/x", "abs/x"},
      {"\\\\server\\share\\x", "server\\share\\x"},
      {"C:C:/x", "x"},
      {"a/..\\b/../c", "c"},
      {"x/..\\..\\y", "..\\y"},  // the earliest sequence, not the first pattern
      {"/a:/../x", "x"},         // drive, slash and sequence rules apply in that order each round
      {"a..b/c..", "a..b/c.."},
      {"", ""},
  };
  for (const auto& [name, cleaned] : cases) EXPECT_EQ(cleaned, CleanEntryName(name)) << name;
}

TEST(ZipResultTexts, EveryCodeHasItsTextAndBuffersCutIt) {
  const std::vector<std::pair<ZipResult, std::string>> texts = {
      {0x0, "Success"},
      {0x100, "Culdn't duplicate handle"},
      {0x200, "Couldn't create/open file"},
      {0x300, "Failed to allocate memory"},
      {0x400, "Error writing to file"},
      {0x500, "File not found in the zipfile"},
      {0x600, "Still more data to unzip"},
      {0x700, "Zipfile is corrupt or not a zipfile"},
      {0x800, "Error reading file"},
      {0x1000, "Correct password required"},
      {0x10000, "Caller: faulty arguments"},
      {0x20000, "Caller: can only get memory of a memory zipfile"},
      {0x30000, "Caller: not enough space allocated for memory zipfile"},
      {0x40000, "Caller: there was a previous error"},
      {0x50000, "Caller: additions to the zip have already been ended"},
      {0x60000, "Zip-bug: the anticipated size turned out wrong"},
      {0x70000, "Caller: the file had already been partially unzipped"},
      {0x80000, "Caller: mixing creation and opening of zip"},
      {0x1000000, "Zip-bug: internal initialisation not completed"},
      {0x2000000, "Zip-bug: trying to seek the unseekable"},
      {0x4000000, "Zip-bug: tried to change mind, but not allowed"},
      {0x5000000, "Zip-bug: an internal error during flation"},
      {0x2, "unknown zip result code"},
      {0x701, "unknown zip result code"},
  };
  for (const auto& [code, text] : texts) EXPECT_EQ(text, TextOf(code)) << std::hex << code;

  char small[8];
  EXPECT_EQ(35u, FormatZipMessage(kZipCorrupt, small, sizeof small));
  EXPECT_STREQ("Zipfile", small) << "cut to the size less one";
  EXPECT_EQ(7u, FormatZipMessage(kZipOk, nullptr, 0));
  CloseZip(nullptr);
  EXPECT_EQ("Caller: faulty arguments", TextOf(kZipRecent)) << "code 1: the most recent result";
}

}  // namespace
}  // namespace dorvane
