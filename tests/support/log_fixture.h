// A fixture for tests of library operations that log: a new temporary folder
// per test, and the process-wide log in a new file inside it.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "log/logger.h"
#include "support/log_reader.h"

namespace dorvane::testing {

class LoggedTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = MakeTempDir("ops");
    log_path_ = dir_ + "\\log\\Dorvane.log";
    Logger::GetInstance()->Close();
    Logger::GetInstance()->SetLogPath(log_path_);
    Logger::GetInstance()->Enable(true);
  }

  std::vector<std::string> messages() const { return Messages(ReadLog(log_path_)); }
  std::vector<LogRecord> records() const {
    std::vector<LogRecord> out;
    for (LogRecord& r : ReadLog(log_path_)) {
      if (r.tag != "banner") out.push_back(std::move(r));
    }
    return out;
  }
  // Empties the log; the next line starts it again.
  void ClearLog() {
    Logger::GetInstance()->Close();
    ::DeleteFileA(log_path_.c_str());
  }
  // A path inside this test's folder.
  std::string In(const std::string& relative) const { return dir_ + "\\" + relative; }

  std::string dir_;
  std::string log_path_;
};

}  // namespace dorvane::testing
