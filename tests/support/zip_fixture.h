// A temporary folder with one archive in it, opened through the reader, and
// a target folder beside it.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "support/log_reader.h"
#include "support/tree.h"
#include "util/zip_reader.h"

namespace dorvane::testing {

inline std::string ZipText(ZipResult code) {
  char text[128];
  FormatZipMessage(code, text, sizeof text);
  return text;
}

class ZipFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = MakeTempDir("zip");
    target_ = dir_ + "\\out\\";
  }
  void TearDown() override {
    if (zip_ != nullptr) CloseZip(zip_);
  }
  // Writes the archive beside the target folder and opens it.
  ZipHandle Open(const std::string& bytes) {
    if (zip_ != nullptr) CloseZip(zip_);
    WriteFileBytes(dir_ + "\\a.zip", bytes);
    zip_ = OpenZip((dir_ + "\\a.zip").c_str());
    return zip_;
  }
  ZipResult Count(int* count) {
    ZipEntry all;
    const ZipResult result = GetZipItem(zip_, -1, &all);
    *count = all.index;
    return result;
  }
  // Unpacks entry `index` under the target folder by its handed-out name.
  ZipResult Unpack(int index) {
    ZipEntry entry;
    const ZipResult result = GetZipItem(zip_, index, &entry);
    if (result != kZipOk) return result;
    return UnzipItem(zip_, index, (target_ + entry.name).c_str());
  }
  std::string Name(int index) {
    ZipEntry entry;
    return GetZipItem(zip_, index, &entry) == kZipOk ? entry.name : "(no entry)";
  }
  std::string Out(const std::string& name) const { return ReadFileBytes(target_ + name); }

  std::string dir_;
  std::string target_;
  ZipHandle zip_ = nullptr;
};

}  // namespace dorvane::testing
