#include "log/logger.h"

#include <direct.h>
#include <io.h>
#include <share.h>

#include <new>

namespace dorvane {

namespace {

const char kBanner[] = "---------------log start------------------\n";
// Tag, month, day, hour, minute, second, millisecond.
#define DORVANE_LINE_PREFIX "%s %02d-%02d %02d:%02d:%02d:%03d: "

// Makes every folder of the chain before the file; "C:" and folders that
// exist just fail.
void MakeFolders(const std::string& file) {
  for (size_t pos = file.find('\\'); pos != std::string::npos; pos = file.find('\\', pos + 1)) {
    _mkdir(file.substr(0, pos).c_str());
  }
}

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
  if (FILE* f = file_.load()) std::fclose(f);
  if (lock_ != nullptr) ::CloseHandle(lock_);
}

void Logger::SetLogPath(std::string path) {
  // Copied into the buffer that path_ already has, under its own lock: the
  // periodic check stores the same path again while a writer on another thread
  // may be reopening the log with it, and must not free that buffer under it.
  ::AcquireSRWLockExclusive(&path_lock_);
  path_.assign(path);
  ::ReleaseSRWLockExclusive(&path_lock_);
  const std::string backup = path + "bk";
  if (_access(path.c_str(), 0) == -1) return;
  if (FileSize(path) >= kLogRotateSize) {
    // The rename runs under the writers' lock. A writer that reopened the log
    // while the rename held it would get a sharing violation, and since a failed
    // open leaves the logger locked for good, every thread of the service would
    // stall. Taken only when there is something to rotate, so that a logger that
    // is already locked never blocks here at start-up.
    ::WaitForSingleObject(lock_, INFINITE);
    if (_access(backup.c_str(), 0) != -1) ::DeleteFileA(backup.c_str());
    std::rename(path.c_str(), backup.c_str());
    ::SetEvent(lock_);
  }
}

std::string Logger::path() const {
  ::AcquireSRWLockShared(&path_lock_);
  std::string copy = path_;
  ::ReleaseSRWLockShared(&path_lock_);
  return copy;
}

void Logger::Enable(bool on) {
  enabled_ = on;
  if (!initialised_) {
    level_ = 4;
    OpenStep();
    initialised_ = true;
  }
}

FILE* Logger::OpenFile(const std::string& path) {
  MakeFolders(path);
  return _fsopen(path.c_str(), "a+", _SH_DENYNO);
}

void Logger::OpenStep() {
  if (opened_) return;
  const std::string where = path();
  MakeFolders(where);
  if (enabled_) file_ = _fsopen(where.c_str(), "a+", _SH_DENYNO);
  FILE* f = file_.load();
  if (f == nullptr) return;
  std::fputs(kBanner, f);
  std::fflush(f);
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
  FILE* f = file_.load();
  if (f == nullptr) {
    // The lock stays taken: see the class comment.
    return 0;
  }
  SYSTEMTIME t;
  ::GetLocalTime(&t);
  std::fprintf(f, DORVANE_LINE_PREFIX, TagFor(level), t.wMonth, t.wDay, t.wHour, t.wMinute,
               t.wSecond, t.wMilliseconds);
  const Mirror mirror = mirror_.load();
  va_list again;
  if (mirror != nullptr) va_copy(again, args);
  int n = std::vfprintf(f, format, args);
  std::fputs("\n", f);
  std::fflush(f);
  if (mirror != nullptr) {
    char prefix[64];
    std::snprintf(prefix, sizeof prefix, DORVANE_LINE_PREFIX, TagFor(level), t.wMonth, t.wDay,
                  t.wHour, t.wMinute, t.wSecond, t.wMilliseconds);
    MirrorLine(mirror, prefix, format, again);
    va_end(again);
  }
  ::SetEvent(lock_);
  return n;
}

void Logger::MirrorLine(Mirror mirror, const char* prefix, const char* format, va_list args) {
  // The file's line is already complete: a mirror that cannot be fed (no
  // memory) is skipped, and nothing may leave here with the lock taken.
  try {
    va_list measure;
    va_copy(measure, args);
    const int length = std::vsnprintf(nullptr, 0, format, measure);
    va_end(measure);
    if (length < 0) return;
    std::string line(prefix);
    const size_t at = line.size();
    line.resize(at + static_cast<size_t>(length) + 1);
    std::vsnprintf(&line[at], static_cast<size_t>(length) + 1, format, args);
    line[at + static_cast<size_t>(length)] = '\n';
    mirror(line.data(), line.size());
  } catch (...) {
  }
}

void Logger::Close() {
  if (file_.load() == nullptr) return;
  ::WaitForSingleObject(lock_, INFINITE);
  // Looked at again under the lock: another Close may have come first.
  if (FILE* f = file_.exchange(nullptr)) {
    std::fclose(f);
    initialised_ = false;
    opened_ = false;
  }
  ::SetEvent(lock_);
}

}  // namespace dorvane
