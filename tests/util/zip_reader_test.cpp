// The zip reader under Wine on archives written byte by byte: entry kinds,
// damaged and hostile archives, names, links in the target, handles, and
// unpacking on several threads. (The format's fine points are asked in
// tests/native/zip_core_test.cpp, under the sanitizers.)
#include "util/zip_reader.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "support/links.h"
#include "support/log_reader.h"
#include "support/tree.h"
#include "support/zip_builder.h"
#include "util/file_ops.h"
#include "util/package.h"

namespace dorvane {
namespace {

using namespace testing;  // dorvane::testing
using Lines = std::vector<std::string>;
using Results = std::vector<ZipResult>;
using Files = std::map<std::string, std::string>;
const ZipResult ok = kZipOk, bad = kZipCorrupt, refused = kZipNoFile;

std::string Text(ZipResult code) {
  char text[128];
  FormatZipMessage(code, text, sizeof text);
  return text;
}

// Random bytes, mostly of three letters: deflate shrinks them, but not to nothing.
std::string Noise(size_t size, unsigned seed = 1) {
  std::string out(size, '\0');
  std::mt19937 random(seed);
  for (char& c : out) c = static_cast<char>(random() % 7 == 0 ? random() : 'a' + random() % 3);
  return out;
}

// Unpacking an archive in a fresh folder into its target out\: entry by entry
// through GetZipItem and UnzipItem by the names handed out (threads 0), or
// with UnzipEntries.
struct Unzipped {
  std::string dir;
  ZipResult listing = 0, last = 0;  // the last entry's result, or UnzipEntries'
  Lines names;
  Results results;
  std::string recent;  // the text of the most recent result
  bool independent = false;
  Files files;    // everything in the folder but the archive, with its bytes
  Lines stamped;  // the files that carry the entry's time
};

Unzipped Unzip(const std::string& bytes, unsigned threads = 0, const std::function<void(const std::string&)>& before = {}) {
  Unzipped run;
  run.dir = MakeTempDir("zip");
  const std::string zip = run.dir + "\\a.zip", target = run.dir + "\\out\\";
  WriteFileBytes(zip, bytes);
  if (before) before(run.dir + "\\");
  ZipHandle handle = OpenZip(zip.c_str());
  ZipEntry all;
  run.listing = GetZipItem(handle, -1, &all);
  for (int i = 0; threads == 0 && run.listing == kZipOk && i < all.index; ++i) {
    ZipEntry entry;
    EXPECT_EQ(kZipOk, GetZipItem(handle, i, &entry));
    run.names.push_back(entry.name);
    run.results.push_back(run.last = UnzipItem(handle, i, (target + entry.name).c_str()));
  }
  if (threads > 0) {
    run.independent = ZipEntriesAreIndependent(handle, target);
    run.last = UnzipEntries(handle, target, threads);
  }
  run.recent = Text(kZipRecent);
  CloseZip(handle);
  for (const std::string& path : TreeOf(run.dir, {"a.zip"})) {
    const std::filesystem::path file = std::filesystem::u8path(run.dir + "\\" + path);  // names in UTF-8
    std::ifstream in(file, std::ios::binary);
    run.files[path] = path.back() == '/' ? "" : std::string(std::istreambuf_iterator<char>(in), {});
    WIN32_FILE_ATTRIBUTE_DATA data = {};
    FILETIME local = {};
    WORD date = 0, time = 0;
    ::GetFileAttributesExW(file.c_str(), GetFileExInfoStandard, &data);
    ::FileTimeToLocalFileTime(&data.ftLastWriteTime, &local);
    ::FileTimeToDosDateTime(&local, &date, &time);
    if (date == 0x5A36 && time == 0x6000) run.stamped.push_back(path);  // the builder's time
  }
  return run;
}

// Zip64 as the builder writes it (sizes and offsets only in extra fields, both
// end records) beside plain entries; every file carries its entry's time.
// (The other entry kinds and Zip64 forms, and the entry records, are asked on
// other writers' archives.)
TEST(ZipReader, Zip64AndPlainEntriesUnpackWithTheirTimes) {
  const std::string big = Noise(1500000);
  const Unzipped run = Unzip(BuildZip({{"stored.txt", "plain bytes"}, {"folder/", ""},
                                       {"unlisted/s64.txt", "stored", false, true}, {"d64.img", big, true, true}},
                                      true));
  EXPECT_EQ(Results(4, ok), run.results);
  EXPECT_TRUE(run.files == (Files{{"out/", ""}, {"out/stored.txt", "plain bytes"}, {"out/folder/", ""},
                                  {"out/unlisted/", ""}, {"out/unlisted/s64.txt", "stored"}, {"out/d64.img", big}}));
  EXPECT_EQ((Lines{"out/d64.img", "out/stored.txt", "out/unlisted/s64.txt"}), run.stamped);
}

using Edit = std::function<void(std::string&, const ZipLayout&)>;

// Sets a field of `size` bytes in the end record, or in every central header.
Edit Set(bool in_end, size_t field, size_t size, uint32_t value) {
  return [=](std::string& z, const ZipLayout& at) {
    for (size_t record : in_end ? std::vector<size_t>{at.end} : at.central) {
      z.replace(record + field, size, Le(value, size));
    }
  };
}

// Damage to an archive of a stored and a deflated entry: what listing and
// unpacking each give. A failed entry leaves nothing of itself: a file of its
// name stays as it was (s.txt, replaced by a move), a new one is removed
// again (d.txt); nothing is written outside the target.
TEST(ZipReader, DamagedArchivesGiveResultCodesAndLeaveNothingOfAFailedEntry) {
  const bool end = true, central = false;
  // What is damaged, how, and what listing and unpacking give.
  const std::vector<std::tuple<const char*, Edit, ZipResult, Results>> damages = {
      {"not a zip at all", [](std::string& z, const ZipLayout&) { z = "just some text"; }, bad, {}},
      {"cut in half", [](std::string& z, const ZipLayout&) { z.resize(z.size() / 2); }, bad, {}},
      {"end record cut", [](std::string& z, const ZipLayout&) { z.resize(z.size() - 5); }, bad, {}},
      {"directory beyond the file", Set(end, kEndOffsetField, 4, 0x7FFFFFF0), bad, {}},
      {"directory offset at a local header", Set(end, kEndOffsetField, 4, 0), bad, {}},
      {"absurd entry count", Set(end, kEndCountField, 2, 0xFFF0), bad, {}},
      {"name running past the directory", Set(central, 28, 2, 0xFFFF), bad, {}},
      // The data would run over the next entry and the directory.
      {"absurd compressed size", Set(central, kCentralCompressedField, 4, 0x7FFFFFFF), bad, {}},
      {"bad local header", [](std::string& z, const ZipLayout& at) { for (size_t l : at.local) z[l] = 'X'; }, ok,
       {bad, bad}},
      {"bad CRC", Set(central, kCentralCrcField, 4, 0x12345678), ok, {bad, bad}},
      {"changed data", [](std::string& z, const ZipLayout& at) { for (size_t d : at.data) z[d + 9] ^= 0x55; }, ok,
       {bad, bad}},
      {"absurd size", Set(central, kCentralSizeField, 4, 0xFFFFFFF0), ok, {bad, bad}},
      {"size too small", Set(central, kCentralSizeField, 4, 4), ok, {bad, bad}},
      {"unknown method", Set(central, 10, 2, 12), ok, {bad, bad}},
      {"encrypted", Set(central, 8, 2, 1), ok, {kZipPassword, kZipPassword}},
      {"undamaged", [](std::string&, const ZipLayout&) {}, ok, {ok, ok}},
  };
  const std::string text = Noise(300000, 2);
  ZipLayout layout;
  const std::string good = BuildZip({{"s.txt", "stored data"}, {"d.txt", text, true}}, false, &layout);
  for (const auto& [label, apply, listing, results] : damages) {
    SCOPED_TRACE(label);
    std::string bytes = good;
    apply(bytes, layout);
    const Unzipped run = Unzip(bytes, 0, [](const std::string& dir) {
      MakeFolders(dir + "out\\");
      WriteFileBytes(dir + "out\\s.txt", "old");
    });
    EXPECT_EQ(listing, run.listing);
    EXPECT_EQ(results, run.results);
    EXPECT_EQ(Text(listing == ok ? results.back() : listing), run.recent) << "the most recent result";
    Files expected = {{"out/", ""}, {"out/s.txt", results == Results{ok, ok} ? "stored data" : "old"}};
    if (results == Results{ok, ok}) expected["out/d.txt"] = text;
    EXPECT_TRUE(expected == run.files);
  }
}

// Random damage anywhere in the headers: results, no crash, and nothing
// written outside the target folder.
TEST(ZipReader, RandomlyDamagedHeadersNeverWriteOutsideTheTarget) {
  ZipLayout at;
  const std::string good = BuildZip(
      {{"a/s.txt", std::string(3000, 's')}, {"d.txt", std::string(70000, 'd'), true}, {"z.txt", "zip64", false, true}},
      true, &at);
  std::mt19937 next(4711);
  for (int round = 0; round < 150; ++round) {
    std::string bytes = good;
    const size_t from = round % 2 == 0 ? at.central[0] : at.local[next() % 3];  // the directory or a local header
    for (int n = 1 + next() % 4; n > 0; --n) bytes[from + next() % (bytes.size() - from)] = char(next());
    if (round % 10 == 9) bytes.resize(next() % bytes.size());
    const Unzipped run = Unzip(bytes);
    for (const auto& [path, data] : run.files) ASSERT_EQ(0u, path.rfind("out/", 0)) << path << " in round " << round;
    RemoveTree(run.dir);
  }
}

TEST(ZipReader, HandlesThatWereNotOpenedHereAndBadArgumentsAreRefused) {
  const std::string dir = MakeTempDir("zip"), zip = dir + "\\a.zip", target = dir + "\\out\\";
  EXPECT_EQ(nullptr, OpenZip(zip.c_str()));
  EXPECT_EQ("Couldn't create/open file", Text(kZipRecent));
  ZipEntry entry;
  EXPECT_EQ(Results(3, kZipBadArguments),
            (Results{GetZipItem(nullptr, -1, &entry), UnzipItem(nullptr, 0, "x"), CloseZip(nullptr)}));
  EXPECT_EQ("Caller: faulty arguments", Text(kZipRecent));
  int not_a_handle = 0;
  ZipHandle stranger = reinterpret_cast<ZipHandle>(&not_a_handle);
  EXPECT_EQ(Results(2, kZipWrongMode), (Results{UnzipItem(stranger, 0, "x"), GetZipItem(stranger, 0, &entry)}));
  EXPECT_EQ("Caller: mixing creation and opening of zip", Text(kZipRecent));
  WriteFileBytes(zip, BuildZip({{"one.txt", "1"}, {"two.txt", "2"}}));
  ZipHandle open = OpenZip(zip.c_str());
  // No record to fill, an index beyond the last entry, no file name.
  EXPECT_EQ(Results(4, kZipBadArguments), (Results{GetZipItem(open, 0, nullptr), GetZipItem(open, 2, &entry),
                                                   UnzipItem(open, 2, target.c_str()), UnzipItem(open, 0, nullptr)}));
  EXPECT_EQ(kZipOk, UnzipItem(open, 0, (target + "one.txt").c_str()));
  ::CreateDirectoryA((target + "two.txt").c_str(), nullptr);  // a folder in the way
  EXPECT_EQ(kZipNoFile, UnzipItem(open, 1, (target + "two.txt").c_str()));
  EXPECT_EQ("Couldn't create/open file", Text(kZipRecent));
  EXPECT_EQ(kZipOk, CloseZip(open));
  EXPECT_EQ(Results(2, kZipWrongMode), (Results{UnzipItem(open, 0, target.c_str()), CloseZip(open)})) << "closed";
  char small[8];
  EXPECT_EQ(35u, FormatZipMessage(kZipCorrupt, small, sizeof small));
  EXPECT_STREQ("Zipfile", small) << "cut to the size less one";
  EXPECT_EQ(7u, FormatZipMessage(kZipOk, nullptr, 0));
}

// Names are handed out cleaned; UTF-8 names turned into the ANSI code page
// exactly and legacy names read in the OEM code page (a fullwidth "．．／"
// would best-fit to "../"). A name that would leave the target, reach a
// device, or has no exact form, is refused and makes nothing. (Cleaning,
// output paths and UTF-8 decoding are asked in full natively.)
TEST(ZipReader, NamesAreHandedOutCleanedAndConvertedAndRefusedWhereUnsafe) {
  ASSERT_EQ(1252u, ::GetACP()) << "the test prefix runs in the Western code page";
  ASSERT_EQ(437u, ::GetOEMCP()) << "and in the US OEM code page";
  const uint16_t utf8 = 0x0800;
  // The name as stored, its flags, the name handed out, and the result.
  const std::vector<std::tuple<std::string, uint16_t, std::string, ZipResult>> cases = {
      {"ok.txt", 0, "ok.txt", ok},
      {"d/../../x", 0, "../x", refused},
      {"sub/nul.txt", 0, "sub/nul.txt", refused},
      {"a\xEF\xBC\x8F\xEF\xBC\x8E\xEF\xBC\x8E\xEF\xBC\x8F\xEF\xBC\x8E\xEF\xBC\x8E\xEF\xBC\x8Fx", utf8, "a???????x",
       refused},
      {"C\xC3\xB4te d\xE2\x80\x99Ivoire.txt", utf8, "C\xF4te d\x92Ivoire.txt", ok},  // Côte d’Ivoire
      {"\xE6\x97\xA5\xE6\x9C\xAC.txt", utf8, "??.txt", refused},                      // 日本: no ANSI form
      {"\x82t\x82.txt", 0, "\xE9t\xE9.txt", ok},                                      // été in IBM 437
      {"\xE9t\xE9.txt", 0, "?t?.txt", refused},  // IBM 437 theta: no ANSI form
  };
  std::vector<ZipItem> items;
  for (const auto& [raw, flags, name, result] : cases) items.push_back({raw, "from " + raw, false, false, flags});
  const Unzipped run = Unzip(BuildZip(items));
  ASSERT_EQ(cases.size(), run.names.size());
  for (size_t i = 0; i < cases.size(); ++i) {
    EXPECT_EQ(std::get<2>(cases[i]), run.names[i]) << i;
    EXPECT_EQ(std::get<3>(cases[i]), run.results[i]) << run.names[i];
  }
  // The tree lists names in UTF-8.
  EXPECT_EQ((Files{{"out/", ""}, {"out/ok.txt", "from ok.txt"}, {"out/\xC3\xA9t\xC3\xA9.txt", "from \x82t\x82.txt"},
                   {"out/C\xC3\xB4te d\xE2\x80\x99Ivoire.txt", "from " + std::get<0>(cases[4])}}),
            run.files);
}

// Links that already stand inside the target folder (made as Wine makes links:
// Unix symbolic links, to a folder with the reparse-point attribute, to a file
// without): the entries' folders are never entered through one, and a file is
// never written through one; the file link is replaced by the entry. The
// caller's own target may be a link.
TEST(ZipReader, LinksStandingInTheTargetAreNeitherEnteredNorWrittenThrough) {
  if (!UnderWine()) GTEST_SKIP() << "the links are Unix symbolic links";
  const std::string bytes = BuildZip({{"ok.txt", "fine"}, {"lnk/pwn.txt", "pwn"}, {"lnk/sub/pwn2.txt", "pwn2"},
                                      {"lnk/", ""}, {"to-file", "new"}, {"sub/ok2.txt", "fine too"}});
  auto links = [](const std::string& dir) {
    MakeFolders(dir + "outside\\");
    MakeFolders(dir + "out\\");
    WriteFileBytes(dir + "outside\\f.txt", "target");
    ASSERT_TRUE(MakeUnixLink(dir + "out\\lnk", dir + "outside"));
    ASSERT_TRUE(MakeUnixLink(dir + "out\\to-file", dir + "outside\\f.txt"));
  };
  for (unsigned threads : {0u, 1u, 2u}) {  // 0: one entry at a time through UnzipItem
    SCOPED_TRACE(threads);
    const Unzipped run = Unzip(bytes, threads, links);
    EXPECT_EQ((threads == 0 ? Results{ok, refused, refused, refused, ok, ok} : Results{}), run.results);
    EXPECT_EQ(kZipOk, run.last) << "the last entry's result";
    EXPECT_EQ((Files{{"out/", ""}, {"out/lnk/", ""}, {"out/lnk/f.txt", "target"}, {"out/ok.txt", "fine"},
                     {"out/sub/", ""}, {"out/sub/ok2.txt", "fine too"}, {"out/to-file", "new"}, {"outside/", ""},
                     {"outside/f.txt", "target"}}),
              run.files);
  }
  const std::string dir = MakeTempDir("zip");
  WriteFileBytes(dir + "\\a.zip", bytes);
  ::CreateDirectoryA((dir + "\\real").c_str(), nullptr);
  ASSERT_TRUE(MakeUnixLink(dir + "\\via-link", dir + "\\real"));
  EXPECT_EQ(1, UnzipAllItems(dir + "\\via-link\\", dir + "\\a.zip"));
  EXPECT_EQ((Lines{"lnk/", "lnk/pwn.txt", "lnk/sub/", "lnk/sub/pwn2.txt", "ok.txt", "sub/", "sub/ok2.txt", "to-file"}),
            TreeOf(dir + "\\real"));
}

// Paths are cut at 259 characters. A target the cut would shorten, or leave
// no room for a name after, would put every entry outside it: each is refused
// and nothing is made. Below that an entry's name is cut as it always was.
TEST(ZipReader, ATargetTheCutWouldShortenIsRefusedForEveryEntry) {
  const std::string dir = MakeTempDir("zip"), zip = dir + "\\pkg.zip";
  WriteFileBytes(zip, BuildZip({{"ok.txt", "fine"}, {"a-name-that-the-cut-shortens.txt", "cut"}, {"sub/x.txt", "x"}}));
  std::string deep = dir;
  while (deep.size() < 300) deep += "\\folder-" + std::to_string(deep.size());
  for (const std::string& target : {deep + "\\", deep.substr(0, 258) + "\\"}) {
    SCOPED_TRACE(target.size());
    ZipHandle handle = OpenZip(zip.c_str());
    EXPECT_EQ(kZipNoFile, UnzipEntries(handle, target, 1));
    CloseZip(handle);
    EXPECT_EQ(1, UnzipAllItems(target, zip));
  }
  EXPECT_EQ(1, UnzipPackage(dir + "\\", "pkg.zip", deep.substr(0, deep.rfind('\\')) + "\\", "sub"));
  EXPECT_EQ(Lines{"pkg.zip"}, TreeOf(dir, {"Dorvane.log"})) << "nothing made anywhere";
  // A folder of 248 characters, the longest Windows makes: 10 left for names.
  const std::string target = deep.substr(0, 248) + "\\";
  EXPECT_EQ(1, UnzipAllItems(target, zip));
  EXPECT_EQ((Lines{"a-name-tha", "ok.txt", "sub/", "sub/x.txt"}), TreeOf(target));
  EXPECT_EQ("cut", ReadFileBytes(target + "a-name-tha"));
}

// Unpacking on several threads gives exactly what unpacking one entry after
// the other gives: the same files, bytes and times, the same refusals and
// corrupt entries, the same last result; entries whose order matters run in
// entry order.
// Returns what one thread gives.
Unzipped SameOnThreads(const std::string& bytes, std::initializer_list<unsigned> threads) {
  Unzipped one = Unzip(bytes, 1);
  for (unsigned count : threads) {
    const Unzipped many = Unzip(bytes, count);
    EXPECT_EQ(one.last, many.last) << count;
    EXPECT_EQ(one.recent, many.recent) << count;
    EXPECT_EQ(one.stamped, many.stamped) << count;
    EXPECT_TRUE(one.files == many.files) << count << " threads give another tree";
    RemoveTree(many.dir);
  }
  RemoveTree(one.dir);
  return one;
}

TEST(ZipParallel, AFirmwareLikePackageGivesTheSameTreeOnEveryThreadCount) {
  std::vector<ZipItem> items;
  for (int i = 0; i < 60; ++i) {
    const std::string folder = "img" + std::to_string(i % 7) + "/";
    if (i < 7) items.push_back({folder, ""});
    items.push_back({folder + "part" + std::to_string(i) + ".bin",
                     Noise(static_cast<size_t>(i % 30 == 0 ? 700000 : 3000 + i * 97), i), i % 3 != 0});
  }
  items.insert(items.end(), {{"empty.txt", ""}, {"d/../../up.txt", "refused"}, {"CON", "a device"},
                             {"bad-crc.bin", Noise(70000, 99), true}, {"secret.bin", "encrypted", false, false, 1},
                             {"last.txt", "the last entry"}});
  ZipLayout at;
  std::string bytes = BuildZip(items, false, &at);
  PutLe32(bytes, at.central[items.size() - 3] + kCentralCrcField, 0x12345678);
  const Unzipped one = SameOnThreads(bytes, {2, 8});
  EXPECT_TRUE(one.independent);
  EXPECT_EQ(kZipOk, one.last);
  EXPECT_EQ(0u, one.files.count("out/up.txt") + one.files.count("up.txt"));
  EXPECT_GE(one.files.size(), 69u);
  // The last entry's own result is the one given and kept.
  PutLe32(bytes, at.central.back() + kCentralCrcField, 1);
  const Unzipped last = Unzip(bytes, 4);
  EXPECT_EQ(kZipCorrupt, last.last);
  EXPECT_EQ("Zipfile is corrupt or not a zipfile", last.recent);
}

TEST(ZipParallel, EntriesThatCanTouchTheSameFileOrFolderAreNotIndependent) {
  const std::vector<std::vector<ZipItem>> touching = {
      {{"a.txt", "1"}, {"b.txt", "x"}, {"a.txt", "2"}},  // the later one wins
      {{"Readme.TXT", "1"}, {"readme.txt", "2"}},        // Windows folds case
      {{"d", "a file"}, {"d/x", "in a folder of that name"}},
      {{"d/x", "first the folder"}, {"d", "then a file"}},
      {{"x/./y", "1"}, {"x/y", "2"}},
      {{"dir/", ""}, {"dir", "a file"}},
      {{"LONGNA~1.TXT", "a short name"}, {"longname.txt", "2"}},
  };
  for (const auto& items : touching) {
    SCOPED_TRACE(items[0].name + " / " + items[1].name);
    EXPECT_FALSE(SameOnThreads(BuildZip(items), {4}).independent);
  }
  EXPECT_TRUE(Unzip(BuildZip({{"dir/", ""}, {"dir/a", "1"}, {"dir/sub/b", "2"}, {"c", "3"}}), 1).independent);
}

// Random small archives with colliding names, folders, refusals and damage:
// several threads give what one thread gives.
TEST(ZipParallel, RandomArchivesGiveTheSameResultOnEveryThreadCount) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  const Lines names = {"a", "A", "b", "a/b", "a/c", "B/c", "c/", "a/", "x/./y", "x/y", "../z", "nul", "d/e/f", "d/e"};
  for (int round = 0; round < 20 && !::testing::Test::HasFailure(); ++round) {
    std::vector<ZipItem> items;
    std::string listed = "round " + std::to_string(round) + ":";
    for (int n = 1 + static_cast<int>(random() % 8); n > 0; --n) {
      const std::string& name = names[random() % names.size()];
      items.push_back({name, name.back() == '/' ? "" : Noise(random() % 5000, random()), random() % 2 == 0});
      listed += " " + name;
    }
    ZipLayout at;
    std::string bytes = BuildZip(items, false, &at);
    if (random() % 4 == 0) PutLe32(bytes, at.central[random() % items.size()] + kCentralCrcField, 7);
    SCOPED_TRACE(listed);
    SameOnThreads(bytes, {4});
  }
}

}  // namespace
}  // namespace dorvane
