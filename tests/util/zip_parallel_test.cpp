// Unpacking on several threads gives exactly what unpacking one entry after
// the other gives: the same files, bytes and times, the same refusals and
// corrupt entries, the same last result; entries whose order matters run in
// entry order.
#include <windows.h>

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <vector>

#include "support/log_reader.h"
#include "support/tree.h"
#include "support/zip_builder.h"
#include "util/zip_reader.h"

namespace dorvane {
namespace {

using testing::BuildZip;
using testing::PutLe32;
using testing::ZipItem;
using testing::ZipLayout;

// Every file under `dir` with its bytes and modification time.
std::map<std::string, std::string> Contents(const std::string& dir) {
  std::map<std::string, std::string> out;
  for (const std::string& path : testing::TreeOf(dir)) {
    if (path.back() == '/') {
      out[path] = "(folder)";
      continue;
    }
    std::string windows = dir + "\\" + path;
    for (char& c : windows) c = c == '/' ? '\\' : c;
    std::string text = testing::ReadFileBytes(windows);
    // Unpacked files carry the entry's time; a corrupt entry's file keeps the
    // time it was written, which differs from run to run.
    WIN32_FILE_ATTRIBUTE_DATA data = {};
    if (::GetFileAttributesExA(windows.c_str(), GetFileExInfoStandard, &data)) {
      FILETIME local = {};
      WORD date = 0, time = 0;
      ::FileTimeToLocalFileTime(&data.ftLastWriteTime, &local);
      ::FileTimeToDosDateTime(&local, &date, &time);
      const bool entry_time = date == 0x5A36 && time == 0x6000;  // the builder's time
      text += entry_time ? " @entry time" : " @time of writing";
    }
    out[path] = text;
  }
  return out;
}

struct Outcome {
  ZipResult result = 0;
  std::string recent;
  std::map<std::string, std::string> files;
};

// Unpacks `bytes` into a fresh folder with `threads` threads.
Outcome Unpack(const std::string& bytes, unsigned threads) {
  const std::string dir = testing::MakeTempDir("par");
  testing::WriteFileBytes(dir + "\\a.zip", bytes);
  ZipHandle zip = OpenZip((dir + "\\a.zip").c_str());
  Outcome outcome;
  outcome.result = UnzipEntries(zip, dir + "\\out\\", threads);
  char text[128];
  FormatZipMessage(kZipRecent, text, sizeof text);
  outcome.recent = text;
  CloseZip(zip);
  ::DeleteFileA((dir + "\\a.zip").c_str());
  outcome.files = Contents(dir);
  testing::RemoveTree(dir);
  return outcome;
}

bool Independent(const std::string& bytes) {
  const std::string dir = testing::MakeTempDir("plan");
  testing::WriteFileBytes(dir + "\\a.zip", bytes);
  ZipHandle zip = OpenZip((dir + "\\a.zip").c_str());
  const bool independent = ZipEntriesAreIndependent(zip, dir + "\\out\\");
  CloseZip(zip);
  testing::RemoveTree(dir);
  return independent;
}

std::string Noise(size_t size, unsigned seed) {
  std::string out(size, '\0');
  std::mt19937 random(seed);
  for (char& c : out) c = static_cast<char>(random() % 7 == 0 ? random() : 'a' + random() % 3);
  return out;
}

TEST(ZipParallel, AFirmwareLikePackageGivesTheSameTreeOnEveryThreadCount) {
  std::vector<ZipItem> items;
  for (int i = 0; i < 120; ++i) {
    const std::string folder = "img" + std::to_string(i % 7) + "/";
    if (i < 7) items.push_back({folder, ""});
    items.push_back({folder + "part" + std::to_string(i) + ".bin",
                     Noise(static_cast<size_t>(i % 10 == 0 ? 1500000 : 3000 + i * 97), i), i % 3 != 0});
  }
  items.push_back({"empty.txt", ""});
  items.push_back({"d/../../up.txt", "refused"});       // "../up.txt"
  items.push_back({"CON", "a device"});
  items.push_back({"bad-crc.bin", Noise(70000, 99), true});
  items.push_back({"secret.bin", "encrypted", false, false, 0x0001});
  items.push_back({"last.txt", "the last entry"});
  ZipLayout at;
  std::string bytes = BuildZip(items, false, &at);
  PutLe32(bytes, at.central[items.size() - 3] + testing::kCentralCrcField, 0x12345678);
  ASSERT_TRUE(Independent(bytes));

  const Outcome one = Unpack(bytes, 1);
  EXPECT_EQ(kZipOk, one.result);
  EXPECT_EQ(one.files.end(), one.files.find("up.txt"));
  ASSERT_GT(one.files.size(), 120u);
  for (unsigned threads : {2u, 4u, 8u}) {
    const Outcome many = Unpack(bytes, threads);
    EXPECT_EQ(one.result, many.result) << threads;
    EXPECT_EQ(one.recent, many.recent) << threads;
    EXPECT_TRUE(one.files == many.files) << threads << " threads give another tree";
  }
  // The last entry's own result is the one given and kept.
  items.back() = {"last.txt", "corrupt at the end", true};
  bytes = BuildZip(items, false, &at);
  PutLe32(bytes, at.central.back() + testing::kCentralCrcField, 1);
  EXPECT_EQ(kZipCorrupt, Unpack(bytes, 4).result);
  EXPECT_EQ("Zipfile is corrupt or not a zipfile", Unpack(bytes, 4).recent);
}

TEST(ZipParallel, EntriesThatCanTouchTheSameFileOrFolderAreNotIndependent) {
  const std::vector<std::vector<ZipItem>> touching = {
      {{"a.txt", "1"}, {"b.txt", "x"}, {"a.txt", "2"}},   // the later one wins
      {{"Readme.TXT", "1"}, {"readme.txt", "2"}},         // Windows folds case
      {{"d", "a file"}, {"d/x", "in a folder of that name"}},
      {{"d/x", "first the folder"}, {"d", "then a file"}},
      {{"x/./y", "1"}, {"x/y", "2"}},
      {{"dir/", ""}, {"dir", "a file"}},
      {{"LONGNA~1.TXT", "a short name"}, {"longname.txt", "2"}},
  };
  for (const auto& items : touching) {
    SCOPED_TRACE(items[0].name + " / " + items[1].name);
    const std::string bytes = BuildZip(items);
    EXPECT_FALSE(Independent(bytes));
    const Outcome one = Unpack(bytes, 1);
    const Outcome many = Unpack(bytes, 4);
    EXPECT_TRUE(one.files == many.files);
    EXPECT_EQ(one.result, many.result);
  }
  EXPECT_TRUE(Independent(BuildZip({{"dir/", ""}, {"dir/a", "1"}, {"dir/sub/b", "2"}, {"c", "3"}})));
}

// Random small archives with colliding names, folders, refusals and damage:
// every thread count gives what one thread gives.
TEST(ZipParallel, RandomArchivesGiveTheSameResultOnEveryThreadCount) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  const std::vector<std::string> names = {"a", "A", "b", "a/b", "a/c", "B/c", "c/", "a/",
                                          "x/./y", "x/y", "../z", "nul", "d/e/f", "d/e"};
  for (int round = 0; round < 120; ++round) {
    std::vector<ZipItem> items;
    for (int n = 1 + static_cast<int>(random() % 8); n > 0; --n) {
      const std::string& name = names[random() % names.size()];
      items.push_back({name, name.back() == '/' ? "" : Noise(random() % 5000, random()),
                       random() % 2 == 0});
    }
    ZipLayout at;
    std::string bytes = BuildZip(items, false, &at);
    if (random() % 4 == 0) {
      PutLe32(bytes, at.central[random() % items.size()] + testing::kCentralCrcField, 7);
    }
    const Outcome one = Unpack(bytes, 1);
    const Outcome many = Unpack(bytes, 4);
    if (one.files != many.files) {
      for (const auto& [path, text] : one.files) {
        auto other = many.files.find(path);
        EXPECT_TRUE(other != many.files.end() && other->second == text) << path;
      }
      for (const ZipItem& item : items) ADD_FAILURE() << "entry " << item.name;
      FAIL() << "round " << round;
    }
    ASSERT_EQ(one.result, many.result) << "round " << round;
  }
}

}  // namespace
}  // namespace dorvane
