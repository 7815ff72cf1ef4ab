// Reading the service's log back in tests: records split at the line prefix, and
// a temporary folder per test.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace dorvane::testing {

// One written line: its tag ("[DETAIL]", "[ERROR] ", "[WARNING] ", or "banner"
// for the "log start" banner) and the message as it was passed (own line breaks
// kept; the write's final line end removed; CR LF read back as LF).
struct LogRecord {
  std::string tag;
  std::string stamp;  // "MM-DD hh:mm:ss:mmm"
  std::string message;
};

std::string ReadFileBytes(const std::string& path);
std::vector<LogRecord> ReadLog(const std::string& path);
// The messages alone, in file order (banners left out).
std::vector<std::string> Messages(const std::vector<LogRecord>& records);
// Each record as its tag and message ("[ERROR] text", "[DETAIL]text"), a
// banner as "banner".
std::vector<std::string> Tagged(const std::string& path);

// Index of the first message equal to `text` at or after `from`, or -1.
int IndexOf(const std::vector<std::string>& messages, const std::string& text, int from = 0);
int CountOf(const std::vector<std::string>& messages, const std::string& text);

// Polls the log at `path` until `text` is a message there or `timeout_ms` passes.
bool WaitForMessage(const std::string& path, const std::string& text, DWORD timeout_ms);

// A new empty folder under the temp folder, unique to this process and call.
std::string MakeTempDir(const std::string& label);

void WriteFileBytes(const std::string& path, const std::string& bytes);
// Sets a file to exactly `size` bytes, creating it or extending it with zeros.
void MakeFileOfSize(const std::string& path, long long size);
bool FileExists(const std::string& path);
long long FileSize(const std::string& path);

}  // namespace dorvane::testing

namespace dorvane::testing {

// A test whose process-wide log goes to a file of its own, in a fresh folder
// where the test may also write its tables.
class LogFixture : public ::testing::Test {
 protected:
  void SetUp() override;
  std::vector<std::string> messages() const;
  // The messages with their tags in front: "[ERROR] text", "[DETAIL]text".
  std::vector<std::string> tagged() const;
  // Empties the log; the next line starts it again with a banner. No other
  // thread may be writing: a reopen that meets the deletion fails, and a
  // failed open leaves the logger locked for good.
  void ClearLog();
  // Writes `text` to a new file in the test's folder (or to `name` there).
  std::string WriteTable(const std::string& text, const std::string& name = "");
  // A path in the test's folder.
  std::string In(const std::string& relative) const { return dir_ + "\\" + relative; }

  std::string dir_;
  std::string log_;
  int tables_ = 0;
};

}  // namespace dorvane::testing
