// The zip reader on archives made by other writers (Python's zipfile and
// Info-ZIP's zip, run by the zip_archives.make fixture): stored and deflated
// entries, empty files, folders, Zip64 records, data descriptors, and names
// that hold the bytes of the Zip64 signatures.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "support/log_reader.h"
#include "support/zip_builder.h"
#include "util/zip_reader.h"

namespace dorvane {
namespace {

struct Expected {
  std::string name;
  bool folder;
  long long size;
  uint32_t crc;
};

std::string FixtureDir() {
  char self[MAX_PATH];
  std::string dir(self, ::GetModuleFileNameA(nullptr, self, MAX_PATH));
  return dir.substr(0, dir.find_last_of('\\')) + "\\zips\\";
}

// The manifest's names are UTF-8; the reader hands names out in the ANSI code page.
std::string Ansi(const std::string& utf8) {
  const int n = static_cast<int>(utf8.size());
  std::wstring wide(utf8.size(), L'\0');
  wide.resize(static_cast<size_t>(::MultiByteToWideChar(CP_UTF8, 0, utf8.data(), n, &wide[0], n)));
  const int w = static_cast<int>(wide.size());
  std::string ansi(wide.size() * 2, '\0');
  ansi.resize(static_cast<size_t>(
      ::WideCharToMultiByte(CP_ACP, 0, wide.data(), w, &ansi[0], 2 * w, nullptr, nullptr)));
  return ansi;
}

std::map<std::string, std::vector<Expected>> ReadManifest() {
  std::map<std::string, std::vector<Expected>> archives;
  std::ifstream in(FixtureDir() + "manifest.txt");
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string archive, name, size, crc;
    std::getline(fields, archive, '\t');
    std::getline(fields, name, '\t');
    std::getline(fields, size, '\t');
    std::getline(fields, crc, '\t');
    archives[archive].push_back({Ansi(name), size == "-", size == "-" ? 0 : std::stoll(size),
                                 static_cast<uint32_t>(std::stoul(crc, nullptr, 16))});
  }
  return archives;
}

TEST(ZipArchivesFromOtherWriters, ListAndUnpackExactly) {
  const auto archives = ReadManifest();
  ASSERT_EQ(6u, archives.size()) << "made by the zip_archives.make fixture in " << FixtureDir();
  for (const auto& [archive, expected] : archives) {
    SCOPED_TRACE(archive);
    const std::string target = testing::MakeTempDir("archives") + "\\";
    ZipHandle zip = OpenZip((FixtureDir() + archive).c_str());
    ASSERT_NE(nullptr, zip);
    ZipEntry all;
    ASSERT_EQ(kZipOk, GetZipItem(zip, -1, &all));
    ASSERT_EQ(static_cast<int>(expected.size()), all.index);
    for (int i = 0; i < all.index; ++i) {
      const Expected& e = expected[static_cast<size_t>(i)];
      ZipEntry entry;
      ASSERT_EQ(kZipOk, GetZipItem(zip, i, &entry));
      EXPECT_EQ(e.name, entry.name);
      EXPECT_EQ(e.folder, (entry.attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) << e.name;
      // Windows names hold no control characters, which the signatures' bytes
      // are: such an entry is unpacked under a stand-in name.
      std::string path = target + entry.name;
      std::replace_if(path.begin(), path.end(), [](char c) { return c > 0 && c < ' '; }, '_');
      EXPECT_EQ(kZipOk, UnzipItem(zip, i, path.c_str())) << e.name;
      if (e.folder) {
        EXPECT_NE(0u, ::GetFileAttributesA(path.c_str()) & FILE_ATTRIBUTE_DIRECTORY) << e.name;
        continue;
      }
      const std::string bytes = testing::ReadFileBytes(path);
      EXPECT_EQ(e.size, static_cast<long long>(bytes.size())) << e.name;
      EXPECT_EQ(e.crc, testing::Crc32(bytes)) << e.name;
    }
    EXPECT_EQ(kZipOk, CloseZip(zip));
  }
}

}  // namespace
}  // namespace dorvane
