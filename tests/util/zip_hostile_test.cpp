// Archives made to turn the reader against the machine: names that leave the
// target folder or reach a device, look-alike names, absurd counts, and
// entries that share their data to fill the disk.
#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "support/links.h"
#include "support/zip_builder.h"
#include "support/zip_fixture.h"
#include "util/file_ops.h"
#include "util/package.h"
#include "util/zip_reader.h"

namespace dorvane {
namespace {

using testing::BuildZip;
using testing::PutLe16;
using testing::PutLe32;
using testing::TreeOf;
using testing::ZipItem;
using testing::ZipLayout;
using testing::ZipText;

using Lines = std::vector<std::string>;
using ZipHostileTest = testing::ZipFixture;

constexpr uint16_t kUtf8 = 0x0800;

TEST(ZipOutputPaths, OnlyPathsThatStayInTheirFolderAndNameFilesArePassed) {
  const Lines passed = {"C:\\t\\a.txt", "C:/t/sub/b.bin", "rel\\c", "C:\\t\\.\\d.txt",
                        "\\\\server\\share\\e.txt", "C:\\t\\folder\\", "C:\\t\\x.y.z",
                        "C:\\t\\console.txt", "C:\\t\\com10", "C:\\t\\.profile"};
  const Lines refused = {"C:\\t\\../x", "C:\\t\\..", "..\\x", "C:\\t\\a\\..\\..\\x",
                         "C:\\t\\a.txt:stream", "C:\\t\\b:", "C:\\t\\x:$DATA",
                         "C:\\t\\CON", "C:\\t\\nul.txt", "C:\\t\\sub\\Aux", "C:\\t\\com1.log",
                         "C:\\t\\LPT9", "C:\\t\\prn .txt", "C:\\t\\conout$", "C:\\t\\COM\xB9",
                         "C:\\t\\trail.", "C:\\t\\trail ", "C:\\t\\dir.\\f", "C:\\t\\...",
                         "C:\\t\\a*b", "C:\\t\\a?b", "C:\\t\\a|b", "C:\\t\\a<b", "C:\\t\\a\"b",
                         "C:\\t\\tab\there", "\\\\.\\PhysicalDrive0", "\\\\?\\C:\\t\\x", "//./nul",
                         ""};
  for (const std::string& path : passed) EXPECT_EQ(kZipOk, CheckOutputPath(path.c_str())) << path;
  for (const std::string& path : refused) {
    EXPECT_EQ(kZipNoFile, CheckOutputPath(path.c_str())) << path;
  }
  EXPECT_EQ(kZipNoFile, CheckOutputPath(nullptr));
}

// Names that are handed out as the cleaning rules make them but would leave
// the target, reach a device or an alternate stream: refused, nothing made.
TEST_F(ZipHostileTest, EntriesThatWouldLeaveTheTargetOrReachADeviceAreRefusedAndNothingIsMade) {
  const Lines hostile = {"d/../../x",  "a\\..",       "../USBDriver/Install_Inf.bat",
                         "CON",        "sub/nul.txt", "com1.log",
                         "a.txt:evil", "trail.",      "trail ",
                         "dir./f.txt", "star*.txt",   "nul"};
  std::vector<ZipItem> items = {{"ok.txt", "fine"}};
  for (const std::string& name : hostile) items.push_back({name, "hostile " + name});
  items.push_back({"./dot/ok2.txt", "fine too"});
  ASSERT_NE(nullptr, Open(BuildZip(items)));
  int count = 0;
  ASSERT_EQ(kZipOk, Count(&count));
  ASSERT_EQ(static_cast<int>(items.size()), count);
  EXPECT_EQ("../x", Name(1)) << "names are handed out exactly as cleaned";
  EXPECT_EQ("../USBDriver/Install_Inf.bat", Name(3));
  EXPECT_EQ(kZipOk, Unpack(0));
  for (int i = 1; i <= static_cast<int>(hostile.size()); ++i) {
    EXPECT_EQ(kZipNoFile, Unpack(i)) << items[static_cast<size_t>(i)].name;
    EXPECT_EQ("Couldn't create/open file", ZipText(kZipRecent));
  }
  EXPECT_EQ(kZipOk, Unpack(count - 1));
  EXPECT_EQ((Lines{"a.zip", "out/", "out/dot/", "out/dot/ok2.txt", "out/ok.txt"}), TreeOf(dir_));
}

// The chain a package could use: an entry that replaces the USB driver's
// install batch file beside the image folder, which the driver installation
// then runs. Unpacked as the installation does, it goes nowhere.
TEST_F(ZipHostileTest, APackageCannotReplaceAFileBesideItsTargetFolder) {
  const std::string data = dir_ + "\\FirmwareData\\";
  testing::WriteFileBytes(dir_ + "\\pkg.zip",
                          BuildZip({{"image/fw.bin", "firmware"},
                                    {"../USBDriver/Install_Inf.bat", "@echo owned\r\n"},
                                    {"x/../../USBDriver/Uninstall_Inf.bat", "@echo owned\r\n"}}));
  ::CreateDirectoryA(data.c_str(), nullptr);
  ::CreateDirectoryA((data + "USBDriver").c_str(), nullptr);
  testing::WriteFileBytes(data + "USBDriver\\Install_Inf.bat", "@echo genuine\r\n");
  EXPECT_EQ(1, UnzipPackage(dir_ + "\\", "pkg.zip", data, "image"));
  EXPECT_EQ("@echo genuine\r\n", testing::ReadFileBytes(data + "USBDriver\\Install_Inf.bat"));
  EXPECT_EQ((Lines{"FirmwareData/", "FirmwareData/USBDriver/",
                   "FirmwareData/USBDriver/Install_Inf.bat", "FirmwareData/image/",
                   "FirmwareData/image/image/", "FirmwareData/image/image/fw.bin", "pkg.zip"}),
            TreeOf(dir_, {"Dorvane.log"}));
}

// Links that already stand inside the target folder (made as Wine makes links:
// Unix symbolic links, to a folder with the reparse-point attribute, to a file
// without): the entries' folders are never entered through one, and a file is
// never written through one. The caller's own target may be a link.
TEST_F(ZipHostileTest, LinksStandingInTheTargetAreNeitherEnteredNorWrittenThrough) {
  if (!testing::UnderWine()) GTEST_SKIP() << "the links are Unix symbolic links";
  const std::vector<ZipItem> items = {{"ok.txt", "fine"},         {"lnk/pwn.txt", "pwn"},
                                      {"lnk/sub/pwn2.txt", "pwn2"}, {"lnk/", ""},
                                      {"to-file", "new"},          {"sub/ok2.txt", "fine too"}};
  const ZipResult expected[] = {kZipOk, kZipNoFile, kZipNoFile, kZipNoFile, kZipOk, kZipOk};
  testing::WriteFileBytes(dir_ + "\\links.zip", BuildZip(items));
  struct Run {
    const char* how;
    unsigned threads;  // 0: one entry at a time through UnzipItem
  };
  for (const Run& run : {Run{"UnzipItem", 0}, Run{"one thread", 1}, Run{"two threads", 2}}) {
    SCOPED_TRACE(run.how);
    const std::string base = dir_ + "\\" + std::to_string(run.threads);
    const std::string target = base + "\\out\\";
    MakeFolders(target);
    ::CreateDirectoryA((base + "\\outside").c_str(), nullptr);
    testing::WriteFileBytes(base + "\\outside\\f.txt", "target");
    ASSERT_TRUE(testing::MakeUnixLink(target + "lnk", base + "\\outside"));
    ASSERT_TRUE(testing::MakeUnixLink(target + "to-file", base + "\\outside\\f.txt"));
    ZipHandle zip = OpenZip((dir_ + "\\links.zip").c_str());
    ASSERT_NE(nullptr, zip);
    if (run.threads == 0) {
      for (int i = 0; i < static_cast<int>(items.size()); ++i) {
        ZipEntry entry;
        ASSERT_EQ(kZipOk, GetZipItem(zip, i, &entry));
        EXPECT_EQ(expected[i], UnzipItem(zip, i, (target + entry.name).c_str())) << entry.name;
      }
    } else {
      EXPECT_EQ(kZipOk, UnzipEntries(zip, target, run.threads)) << "the last entry's result";
    }
    CloseZip(zip);
    EXPECT_EQ(Lines{"f.txt"}, TreeOf(base + "\\outside")) << "nothing written through the link";
    EXPECT_EQ("target", testing::ReadFileBytes(base + "\\outside\\f.txt"));
    // The file link is replaced by the entry; no temporary file stays.
    EXPECT_EQ((Lines{"lnk/", "lnk/f.txt", "ok.txt", "sub/", "sub/ok2.txt", "to-file"}),
              TreeOf(target));
    EXPECT_EQ("new", testing::ReadFileBytes(target + "to-file"));
    EXPECT_EQ("fine too", testing::ReadFileBytes(target + "sub\\ok2.txt"));
  }

  // The target itself is the caller's to choose, a link included.
  ::CreateDirectoryA((dir_ + "\\real").c_str(), nullptr);
  ASSERT_TRUE(testing::MakeUnixLink(dir_ + "\\via-link", dir_ + "\\real"));
  EXPECT_EQ(1, UnzipAllItems(dir_ + "\\via-link\\", dir_ + "\\links.zip"));
  EXPECT_EQ((Lines{"lnk/", "lnk/pwn.txt", "lnk/sub/", "lnk/sub/pwn2.txt", "ok.txt", "sub/",
                   "sub/ok2.txt", "to-file"}),
            TreeOf(dir_ + "\\real"));
}

// Paths are cut at 259 characters. A target the cut would shorten, or leave
// no room for a name after, would put every entry outside it: each is refused
// and nothing is made. Below that an entry's name is cut as it always was.
TEST_F(ZipHostileTest, ATargetTheCutWouldShortenIsRefusedForEveryEntry) {
  testing::WriteFileBytes(dir_ + "\\pkg.zip",
                          BuildZip({{"ok.txt", "fine"}, {"a-name-that-the-cut-shortens.txt", "cut"},
                                    {"sub/x.txt", "x"}}));
  std::string deep = dir_;
  while (deep.size() < 300) deep += "\\folder-" + std::to_string(deep.size());
  for (const std::string& target : {deep + "\\", deep.substr(0, 258) + "\\"}) {
    SCOPED_TRACE(target.size());
    ZipHandle zip = OpenZip((dir_ + "\\pkg.zip").c_str());
    EXPECT_EQ(kZipNoFile, UnzipEntries(zip, target, 1));
    CloseZip(zip);
    EXPECT_EQ(1, UnzipAllItems(target, dir_ + "\\pkg.zip"));
  }
  const std::string parent = deep.substr(0, deep.rfind('\\'));
  EXPECT_EQ(1, UnzipPackage(dir_ + "\\", "pkg.zip", parent + "\\", "sub"));
  EXPECT_EQ(Lines{"pkg.zip"}, TreeOf(dir_, {"Dorvane.log"})) << "nothing made anywhere";

  // A folder of 248 characters, the longest Windows makes: 10 left for names.
  const std::string target = deep.substr(0, 248) + "\\";
  EXPECT_EQ(1, UnzipAllItems(target, dir_ + "\\pkg.zip"));
  EXPECT_EQ((Lines{"a-name-tha", "ok.txt", "sub/", "sub/x.txt"}), TreeOf(target));
  EXPECT_EQ("cut", testing::ReadFileBytes(target + "a-name-tha"));
}

// UTF-8 names are turned into the ANSI code page exactly. Fullwidth "．．／"
// would best-fit to "../"; such names are shown with stand-ins and refused.
TEST_F(ZipHostileTest, Utf8NamesConvertExactlyOrAreRefused) {
  ASSERT_EQ(1252u, ::GetACP()) << "the test prefix runs in the Western code page";
  ASSERT_EQ(437u, ::GetOEMCP()) << "and in the US OEM code page";
  const std::string fullwidth = "a\xEF\xBC\x8F\xEF\xBC\x8E\xEF\xBC\x8E\xEF\xBC\x8F"
                                "\xEF\xBC\x8E\xEF\xBC\x8E\xEF\xBC\x8Fx";  // a／．．／．．／x
  const std::vector<ZipItem> items = {
      {fullwidth, "look-alike", false, false, kUtf8},
      {"C\xC3\xB4te d\xE2\x80\x99Ivoire.txt", "exact", false, false, kUtf8},  // Côte d’Ivoire
      {"\xE6\x97\xA5\xE6\x9C\xAC.txt", "no ANSI form", false, false, kUtf8},    // 日本
      {"bad\xC3(.txt", "not UTF-8", false, false, kUtf8},
      {"\xC0\xAE\xC0\xAE/z.txt", "overlong dots", false, false, kUtf8},
      {"\x82t\x82.txt", "OEM bytes, no flag", false, false, 0},           // été in IBM 437
      {"\xE9t\xE9.txt", "no flag: \xE9 is OEM theta", false, false, 0},  // Θ: no ANSI form
  };
  ASSERT_NE(nullptr, Open(BuildZip(items)));
  int count = 0;
  ASSERT_EQ(kZipOk, Count(&count));
  EXPECT_EQ("a???????x", Name(0));
  EXPECT_EQ("C\xF4te d\x92Ivoire.txt", Name(1));
  EXPECT_EQ("??.txt", Name(2));
  EXPECT_EQ("bad?(.txt", Name(3));
  EXPECT_EQ("\xE9t\xE9.txt", Name(5));
  EXPECT_EQ("?t?.txt", Name(6));
  const ZipResult expected[] = {kZipNoFile, kZipOk,     kZipNoFile, kZipNoFile,
                                kZipNoFile, kZipOk,     kZipNoFile};
  for (int i = 0; i < count; ++i) EXPECT_EQ(expected[i], Unpack(i)) << i;
  // The tree lists names in UTF-8.
  EXPECT_EQ((Lines{"a.zip", "out/", "out/C\xC3\xB4te d\xE2\x80\x99Ivoire.txt",
                   "out/\xC3\xA9t\xC3\xA9.txt"}),
            TreeOf(dir_));
  EXPECT_EQ("exact", Out("C\xF4te d\x92Ivoire.txt"));
}

// A sparse archive: `size` bytes of zeros as its directory, then the tail.
void WriteSparseArchive(const std::string& path, uint64_t count, uint64_t size) {
  testing::MakeFileOfSize(path, static_cast<long long>(size));
  HANDLE file = ::CreateFileA(path.c_str(), FILE_APPEND_DATA, 0, nullptr, OPEN_EXISTING, 0, nullptr);
  ASSERT_NE(INVALID_HANDLE_VALUE, file);
  const std::string tail = testing::Zip64EndRecords(size, count, size, 0);
  DWORD written = 0;
  EXPECT_TRUE(::WriteFile(file, tail.data(), static_cast<DWORD>(tail.size()), &written, nullptr));
  ::CloseHandle(file);
}

TEST_F(ZipHostileTest, EntryCountsAreCheckedAgainstTheFileAndALimitBeforeAnyAllocation) {
  // A count that no file can hold: corrupt, whatever the directory says.
  ZipLayout at;
  std::string bytes = BuildZip({{"a.txt", "a"}}, true, &at);
  const size_t record = at.end - 76;
  for (size_t field : {24u, 32u}) {
    PutLe32(bytes, record + field, 0);
    PutLe32(bytes, record + field + 4, 0x40000000);
  }
  ASSERT_NE(nullptr, Open(bytes));
  int count = -1;
  EXPECT_EQ(kZipCorrupt, Count(&count));

  // Counts the file could hold, around the reader's limit (sparse files of
  // about 48 MB of zeros as the directory).
  const std::string big = dir_ + "\\big.zip";
  for (uint64_t entries : {zip::kMaxEntries + 1, zip::kMaxEntries}) {
    SCOPED_TRACE(entries);
    WriteSparseArchive(big, entries, entries * 46);
    ZipHandle zip = OpenZip(big.c_str());
    ASSERT_NE(nullptr, zip);
    ZipEntry all;
    // Above the limit nothing is allocated; at it, the zeros are no record.
    EXPECT_EQ(entries > zip::kMaxEntries ? kZipNoMemory : kZipCorrupt, GetZipItem(zip, -1, &all));
    CloseZip(zip);
  }
  EXPECT_TRUE(::DeleteFileA(big.c_str()));
}

// The archive of `copies` central records that all point at the first
// entry's local header and data.
std::string SharedBlockArchive(const std::string& data, int copies) {
  ZipLayout at;
  const std::string one = BuildZip({{"f0", data}}, false, &at);
  const std::string central = one.substr(at.central[0], at.end - at.central[0]);
  std::string bytes = one.substr(0, at.end);
  for (int i = 1; i < copies; ++i) {
    std::string copy = central;
    copy[46 + 1] = static_cast<char>('0' + i % 10);  // "f1", "f2", ...: distinct names
    bytes += copy;
  }
  std::string end = one.substr(at.end);
  PutLe16(end, testing::kEndDiskCountField, static_cast<uint16_t>(copies));
  PutLe16(end, testing::kEndCountField, static_cast<uint16_t>(copies));
  PutLe32(end, testing::kEndSizeField, static_cast<uint32_t>(central.size() * copies));
  return bytes + end;
}

// Entries that share or overlap their data in other ways: ZipCore.SharedAndOverlappingDataIsRefused
// (native, under the sanitizers).
TEST_F(ZipHostileTest, EntriesThatShareDataMakeTheArchiveCorrupt) {
  // Ten names for one stored block of 1 MiB: 10 MiB from a 1 MiB archive.
  const std::string block(1 << 20, 'z');
  testing::WriteFileBytes(dir_ + "\\shared.zip", SharedBlockArchive(block, 10));
  EXPECT_EQ(1, UnzipAllItems(target_, dir_ + "\\shared.zip"));
  EXPECT_EQ(Lines{"shared.zip"}, TreeOf(dir_, {"Dorvane.log"})) << "nothing unpacked";
  ZipHandle shared = OpenZip((dir_ + "\\shared.zip").c_str());
  ZipEntry all;
  EXPECT_EQ(kZipCorrupt, GetZipItem(shared, -1, &all));
  CloseZip(shared);
}

// Entries need not be in the directory in the order of their data, nor
// packed tightly; and entries read in any order give their own records.
TEST_F(ZipHostileTest, EntriesInAnyOrderAndWithGapsReadTheirOwnRecords) {
  std::vector<ZipItem> items;
  for (int i = 0; i < 70000; ++i) items.push_back({"n/" + std::to_string(i), std::to_string(i * 7)});
  ZipLayout at;
  std::string bytes = BuildZip(items, true, &at);
  ASSERT_NE(nullptr, Open(bytes));
  int count = 0;
  ASSERT_EQ(kZipOk, Count(&count));
  ASSERT_EQ(70000, count);
  std::vector<int> order(70000);
  for (int i = 0; i < 70000; ++i) order[static_cast<size_t>(i)] = i;
  std::mt19937 random(20261122);
  std::shuffle(order.begin(), order.end(), random);
  order.resize(2000);
  for (int i : order) ASSERT_EQ("n/" + std::to_string(i), Name(i));
  for (int i : {69999, 0, 12345}) {
    ASSERT_EQ(kZipOk, Unpack(i));
    EXPECT_EQ(std::to_string(i * 7), Out("n\\" + std::to_string(i)));
  }

  // Two entries whose central records are in the reverse order of their
  // data, with 100 bytes of padding between the data and the directory.
  ZipLayout two;
  const std::string pair = BuildZip({{"first", "1111"}, {"second", "22"}}, false, &two);
  const std::string c0 = pair.substr(two.central[0], two.central[1] - two.central[0]);
  const std::string c1 = pair.substr(two.central[1], two.end - two.central[1]);
  std::string end = pair.substr(two.end);
  PutLe32(end, testing::kEndOffsetField, static_cast<uint32_t>(two.central[0] + 100));
  ASSERT_NE(nullptr, Open(pair.substr(0, two.central[0]) + std::string(100, '\0') + c1 + c0 + end));
  ASSERT_EQ(kZipOk, Count(&count));
  EXPECT_EQ("second", Name(0));
  EXPECT_EQ(kZipOk, Unpack(0));
  EXPECT_EQ(kZipOk, Unpack(1));
  EXPECT_EQ("22", Out("second"));
  EXPECT_EQ("1111", Out("first"));
}

}  // namespace
}  // namespace dorvane
