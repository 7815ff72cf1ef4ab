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

TEST(ZipArchivesFromOtherWriters, ListAndUnpackExactly) {
  char self[MAX_PATH];
  std::string dir(self, ::GetModuleFileNameA(nullptr, self, MAX_PATH));
  dir = dir.substr(0, dir.find_last_of('\\')) + "\\zips\\";
  // Lines of archive, name (in the ANSI code page, as the reader hands names
  // out), size ("-" for a folder) and CRC-32 in hex, in each archive's
  // directory order.
  std::map<std::string, std::vector<std::vector<std::string>>> archives;
  std::ifstream manifest(dir + "manifest.txt");
  for (std::string line, field; std::getline(manifest, line);) {
    std::vector<std::string> fields;
    for (std::istringstream in(line); std::getline(in, field, '\t');) fields.push_back(field);
    archives[fields.at(0)].push_back(fields);
  }
  ASSERT_EQ(6u, archives.size()) << "made by the zip_archives.make fixture in " << dir;
  for (const auto& [archive, expected] : archives) {
    SCOPED_TRACE(archive);
    const std::string target = testing::MakeTempDir("archives") + "\\";
    ZipHandle zip = OpenZip((dir + archive).c_str());
    ZipEntry all;
    ASSERT_EQ(kZipOk, GetZipItem(zip, -1, &all));
    ASSERT_EQ(static_cast<int>(expected.size()), all.index);
    for (int i = 0; i < all.index; ++i) {
      const std::string& name = expected[i][1];
      const bool folder = expected[i][2] == "-";
      ZipEntry entry;
      ASSERT_EQ(kZipOk, GetZipItem(zip, i, &entry));
      EXPECT_EQ(i, entry.index);
      EXPECT_EQ(name, entry.name);
      EXPECT_EQ(folder, (entry.attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) << name;
      // Windows names hold no control characters, which the signatures' bytes
      // are: such an entry is unpacked under a stand-in name.
      std::string path = target + entry.name;
      std::replace_if(path.begin(), path.end(), [](char c) { return c > 0 && c < ' '; }, '_');
      EXPECT_EQ(kZipOk, UnzipItem(zip, i, path.c_str())) << name;
      EXPECT_EQ(folder, (::GetFileAttributesA(path.c_str()) & FILE_ATTRIBUTE_DIRECTORY) != 0) << name;
      const std::string bytes = folder ? "" : testing::ReadFileBytes(path);
      // The record's size; the bytes unpacked by their CRC.
      EXPECT_EQ(folder ? "-" : std::to_string(entry.size), expected[i][2]) << name;
      EXPECT_EQ(std::stoul(expected[i][3], nullptr, 16), testing::Crc32(bytes)) << name;
    }
    EXPECT_EQ(kZipOk, CloseZip(zip));
  }
}

}  // namespace
}  // namespace dorvane
