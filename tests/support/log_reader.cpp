#include "support/log_reader.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <fstream>
#include <regex>
#include <sstream>

namespace dorvane::testing {

namespace {

// A test program's output goes to a pipe, which the C library buffers: a
// process that dies before it flushes would leave no trace of how far it got.
const bool kUnbufferedOutput = [] {
  std::setvbuf(stdout, nullptr, _IONBF, 0);
  return true;
}();

std::vector<LogRecord> ParseLog(const std::string& bytes) {
  std::string text;
  text.reserve(bytes.size());
  for (size_t i = 0; i < bytes.size(); ++i) {
    if (bytes[i] == '\r' && i + 1 < bytes.size() && bytes[i + 1] == '\n') continue;
    text.push_back(bytes[i]);
  }
  static const std::regex prefix(
      R"(^(\[ERROR\] |\[WARNING\] |\[DETAIL\]) (\d\d-\d\d \d\d:\d\d:\d\d:\d\d\d): )");
  std::vector<LogRecord> records;
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    std::smatch m;
    if (std::regex_search(line, m, prefix, std::regex_constants::match_continuous)) {
      records.push_back({m[1].str(), m[2].str(), m.suffix().str()});
    } else if (line == "---------------log start------------------") {
      records.push_back({"banner", "", ""});
    } else if (!records.empty() && records.back().tag != "banner") {
      records.back().message += "\n" + line;
    } else {
      records.push_back({"stray", "", line});
    }
  }
  return records;
}

}  // namespace

std::string ReadFileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

std::vector<LogRecord> ReadLog(const std::string& path) { return ParseLog(ReadFileBytes(path)); }

std::vector<std::string> Messages(const std::vector<LogRecord>& records) {
  std::vector<std::string> out;
  for (const auto& r : records) {
    if (r.tag != "banner") out.push_back(r.message);
  }
  return out;
}

std::vector<std::string> Tagged(const std::string& path) {
  std::vector<std::string> out;
  for (const LogRecord& r : ReadLog(path)) out.push_back(r.tag == "banner" ? r.tag : r.tag + r.message);
  return out;
}

int IndexOf(const std::vector<std::string>& messages, const std::string& text, int from) {
  for (size_t i = static_cast<size_t>(std::max(from, 0)); i < messages.size(); ++i) {
    if (messages[i] == text) return static_cast<int>(i);
  }
  return -1;
}

int CountOf(const std::vector<std::string>& messages, const std::string& text) {
  return static_cast<int>(std::count(messages.begin(), messages.end(), text));
}

bool WaitForMessage(const std::string& path, const std::string& text, DWORD timeout_ms) {
  DWORD start = ::GetTickCount();
  for (;;) {
    if (IndexOf(Messages(ReadLog(path)), text) >= 0) return true;
    if (::GetTickCount() - start > timeout_ms) return false;
    ::Sleep(20);
  }
}

std::string MakeTempDir(const std::string& label) {
  static std::atomic<int> counter{0};
  char base[MAX_PATH];
  ::GetTempPathA(MAX_PATH, base);
  // Process ids repeat between runs under Wine: only a folder this call
  // created itself is known to be empty.
  for (;;) {
    std::string dir = std::string(base) + "dorvane-" + label + "-" +
                      std::to_string(::GetCurrentProcessId()) + "-" +
                      std::to_string(::GetTickCount()) + "-" + std::to_string(counter++);
    if (::CreateDirectoryA(dir.c_str(), nullptr)) return dir;
  }
}

void WriteFileBytes(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << bytes;
}

void MakeFileOfSize(const std::string& path, long long size) {
  // Shared, so that it also works on a log the logger holds open.
  HANDLE h = ::CreateFileA(path.c_str(), GENERIC_WRITE,
                           FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                           OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE) return;
  LARGE_INTEGER pos;
  pos.QuadPart = size;
  ::SetFilePointerEx(h, pos, nullptr, FILE_BEGIN);
  ::SetEndOfFile(h);
  ::CloseHandle(h);
}

bool FileExists(const std::string& path) { return ::GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

long long FileSize(const std::string& path) {
  WIN32_FILE_ATTRIBUTE_DATA data;
  if (!::GetFileAttributesExA(path.c_str(), GetFileExInfoStandard, &data)) return -1;
  return (static_cast<long long>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
}

}  // namespace dorvane::testing

#include "log/logger.h"

namespace dorvane::testing {

void LogFixture::SetUp() {
  dir_ = MakeTempDir("test");
  log_ = dir_ + "\\Dorvane.log";
  Logger::GetInstance()->Close();
  Logger::GetInstance()->SetLogPath(log_);
  Logger::GetInstance()->Enable(true);
}

std::vector<std::string> LogFixture::messages() const { return Messages(ReadLog(log_)); }

std::vector<std::string> LogFixture::tagged() const {
  std::vector<std::string> out = Tagged(log_);
  out.erase(std::remove(out.begin(), out.end(), "banner"), out.end());
  return out;
}

void LogFixture::ClearLog() {
  Logger::GetInstance()->Close();
  ::DeleteFileA(log_.c_str());
}

std::string LogFixture::WriteTable(const std::string& text, const std::string& name) {
  const std::string path = dir_ + "\\" + (name.empty() ? "t" + std::to_string(tables_++) + ".xml" : name);
  WriteFileBytes(path, text);
  return path;
}

}  // namespace dorvane::testing
