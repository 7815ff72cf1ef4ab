// The process-wide log file of the service.
//
// Every line is "<tag> <MM-DD hh:mm:ss:mmm>: <message>\n", flushed at once so the
// file is complete even if the process is killed. The tag is "[ERROR] " for level
// 1, "[WARNING] " for level 2 and "[DETAIL]" for any other level (the widths
// differ on purpose: field tools parse the columns as they are).
//
// Threads: Write and Close may be called from any thread; they serialise on an
// auto-reset event. SetLogPath and Enable are meant for start-up and for the
// worker's periodic size check, which runs while other threads write: a write
// between the check's Close and SetLogPath reopens the file on the path as it
// stands.
//
// Failure: once a write finds no open file (the log could not be opened), the lock
// is left taken and every later Write blocks for ever. Deployed services behave
// this way and support scripts rely on a stalled log meaning "log not writable",
// so it is kept.
//
//   Logger* log = Logger::GetInstance();
//   log->SetLogPath(kServiceLogPath);
//   log->Enable(true);
//   log->Write(4, "service Properties->recovery ,Code=%d(should >31)", code);
#pragma once

#include <windows.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <string>

namespace dorvane {

inline constexpr char kServiceLogPath[] = "C:\\Windows\\WWAN\\DorvaneBin\\Dorvane.log";
// A log of at least this many bytes is renamed to the backup at the next size check.
inline constexpr long kLogRotateSize = 52428800;

enum LogLevel : unsigned { kLogError = 1, kLogWarning = 2, kLogDetail = 4 };

class Logger {
 public:
  // The process-wide logger, created on first call and never destroyed.
  // Returns null only if the allocation failed.
  static Logger* GetInstance();

  // A private logger; the service uses GetInstance, tests make their own.
  Logger();
  ~Logger();
  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  // Stores the path and, if the file there has reached kLogRotateSize bytes,
  // renames it to the path with "bk" appended (replacing an older backup).
  // The file stays closed until the next Enable or Write.
  void SetLogPath(std::string path);

  // Stores the flag; on first use also opens the file (writing the banner).
  void Enable(bool on);

  // Writes one line. `format` is a printf format filled from the further
  // arguments. Returns the number of characters of the message part, 0 when
  // no file is open (and then the logger stays locked, see above).
  int Write(unsigned level, const char* format, ...)
      __attribute__((format(printf, 3, 4)));
  // Writes a ready-made text as it stands (a '%' in it is not a directive).
  // The string is released before return.
  int Write(unsigned level, std::string text);

  // Closes the file; the next Write reopens it and writes a new banner.
  void Close();

  // Opens `path` for appending as the logger opens its file, after making
  // every folder of its chain; null when it cannot. For a caller that must
  // know beforehand that the log can be written.
  static FILE* OpenFile(const std::string& path);

  // Receives each line that Write puts into the file, exactly as written there
  // (tag, time, message, "\n"), while that line's lock is held: lines come one
  // at a time and in the file's order, each once, on the writing thread. The
  // banner and lines that find no open file are not passed on. A mirror must
  // not call the logger.
  using Mirror = void (*)(const char* line, size_t length);
  // Sets the mirror (null: none), before the first Write. The service never
  // sets one; dorvanectl -v shows the library's lines on its standard error.
  void SetMirror(Mirror mirror) { mirror_.store(mirror); }

  std::string path() const;

 private:
  int WriteV(unsigned level, const char* format, va_list args);
  // Formats the line once more for the mirror; called under lock_.
  static void MirrorLine(Mirror mirror, const char* prefix, const char* format, va_list args);
  void OpenStep();

  // Guards path_ alone: a writer reopening the log reads it while the periodic
  // check stores it again. Never held while waiting on lock_.
  mutable SRWLOCK path_lock_ = SRWLOCK_INIT;
  std::string path_;
  // Written under lock_; Close reads it first without the lock (a closed log must
  // not wait on a lock that a failed open left taken), hence atomic.
  std::atomic<FILE*> file_{nullptr};
  int level_ = 4;
  bool initialised_ = false;
  // Auto-reset event used as the logger's mutex. Never closed for the process-wide
  // logger, which lives until the process ends.
  HANDLE lock_ = nullptr;
  char buffer_[1024] = {};
  bool enabled_ = false;
  bool opened_ = false;
  // Set once before the first line, read under lock_ by every writer.
  std::atomic<Mirror> mirror_{nullptr};
};

}  // namespace dorvane
