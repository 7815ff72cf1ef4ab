#include "log/logger.h"

#include <direct.h>
#include <io.h>
#include <share.h>

#include <new>

namespace dorvane {

namespace {

const char kBanner[] = "---------------log start------------------\n";

const char* TagFor(unsigned level) {
  switch (level) {
    case kLogError:
      return "[ERROR] ";
    case kLogWarning:
      return "[WARNING] ";
    default:
      return "[DETAIL]";
  }
}

// Size as the stream reports it after seeking to the end; -1 reads as "small".
long FileSize(const std::string& path) {
  FILE* f = std::fopen(path.c_str(), "r");
  if (f == nullptr) return -1;
  std::fseek(f, 0, SEEK_END);
  long size = std::ftell(f);
  std::fclose(f);
  return size;
}

}  // namespace

Logger* Logger::GetInstance() {
  static Logger* instance = new (std::nothrow) Logger();
  return instance;
}

Logger::Logger() : lock_(::CreateEventA(nullptr, FALSE, TRUE, nullptr)) {}

Logger::~Logger() {
  if (file_ != nullptr) std::fclose(file_);
  if (lock_ != nullptr) ::CloseHandle(lock_);
}

void Logger::SetLogPath(std::string path) {
  path_ = std::move(path);
  const std::string backup = path_ + "bk";
  if (_access(path_.c_str(), 0) == -1) return;
  if (FileSize(path_) >= kLogRotateSize) {
    if (_access(backup.c_str(), 0) != -1) ::DeleteFileA(backup.c_str());
    std::rename(path_.c_str(), backup.c_str());
  }
}

void Logger::Enable(bool on) {
  enabled_ = on;
  if (!initialised_) {
    level_ = 4;
    OpenStep();
    initialised_ = true;
  }
}

void Logger::OpenStep() {
  if (opened_) return;
  // Make every folder of the chain; "C:" and folders that exist just fail.
  for (size_t pos = path_.find('\\'); pos != std::string::npos; pos = path_.find('\\', pos + 1)) {
    _mkdir(path_.substr(0, pos).c_str());
  }
  if (enabled_) file_ = _fsopen(path_.c_str(), "a+", _SH_DENYNO);
  if (file_ == nullptr) return;
  std::fputs(kBanner, file_);
  std::fflush(file_);
  opened_ = true;
}

int Logger::Write(unsigned level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  int n = WriteV(level, format, args);
  va_end(args);
  return n;
}

int Logger::Write(unsigned level, std::string text) {
  int n = Write(level, "%s", text.c_str());
  std::string().swap(text);
  return n;
}

int Logger::WriteV(unsigned level, const char* format, va_list args) {
  ::WaitForSingleObject(lock_, INFINITE);
  if (!initialised_) {
    level_ = 4;
    OpenStep();
    initialised_ = true;
  }
  if (file_ == nullptr) {
    // The lock stays taken: see the class comment.
    return 0;
  }
  SYSTEMTIME t;
  ::GetLocalTime(&t);
  std::fprintf(file_, "%s %02d-%02d %02d:%02d:%02d:%03d: ", TagFor(level), t.wMonth, t.wDay,
               t.wHour, t.wMinute, t.wSecond, t.wMilliseconds);
  int n = std::vfprintf(file_, format, args);
  std::fputs("\n", file_);
  std::fflush(file_);
  ::SetEvent(lock_);
  return n;
}

void Logger::Close() {
  if (file_ == nullptr) return;
  ::WaitForSingleObject(lock_, INFINITE);
  std::fclose(file_);
  initialised_ = false;
  opened_ = false;
  file_ = nullptr;
  ::SetEvent(lock_);
}

}  // namespace dorvane
