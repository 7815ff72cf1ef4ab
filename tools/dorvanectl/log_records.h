// Reading the service's log back: the records the logger wrote, from a stream
// of bytes handed over in pieces of any size, in one pass and with bounded
// memory (a 50 MiB log is read chunk by chunk; only the record being read is
// held).
//
// A record starts with the logger's prefix, "[DETAIL] MM-DD hh:mm:ss:mmm: ",
// "[ERROR]  ...", "[WARNING]  ...", or is the banner line that opens the file
// at every (re)open. Lines that follow a record without a prefix belong to
// its text (the service writes texts with line breaks of their own). Lines
// that neither start a record nor follow one (the cut start of a file, a line
// torn by a crash) are counted as unreadable, never silently dropped. A line
// torn by a crash carries the next start's banner at its end (the logger
// appends): it is read as the torn line and then the banner; a torn line, and
// the last line of a file when it has no line end, is a record when it starts
// one (marked truncated), else unreadable.
//
// The log has no year: records come in file order, and a month lower than the
// one before starts a new year (`year` counts them from 0).
//
//   LogRecordReader reader([](const LogRecord& r) { ... });
//   reader.Feed(chunk, n);  ...  reader.Finish();
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <utility>

namespace dorvane::logread {

enum class LogLevel { kBanner, kError, kWarning, kDetail };

struct LogRecord {
  LogLevel level = LogLevel::kDetail;
  size_t line = 0;  // of the record's first line in its file, from 1
  int year = 0;     // 0 for the first year of the reading, then 1, 2, ...
  int month = 0, day = 0, hour = 0, minute = 0, second = 0, millisecond = 0;  // 0 for a banner
  // As the service passed it: the file's CR LF line ends read as LF, the
  // write's own final line end left out.
  std::string text;
  bool truncated = false;  // cut: longer than kMaxText (the rest dropped), or a torn line
};

class LogRecordReader {
 public:
  // Longest text kept of one record; a record's further bytes are dropped and
  // the record marked truncated.
  static constexpr size_t kMaxText = 64 * 1024;

  explicit LogRecordReader(std::function<void(const LogRecord&)> on_record);

  // Reads the next bytes of the current file.
  void Feed(const char* data, size_t size);
  // Ends the current file: its last record is handed over. The next Feed
  // starts a new file at line 1; the year count goes on across files.
  void Finish();

  size_t records() const { return records_; }
  // Lines that start no record and follow none.
  size_t unreadable_lines() const { return unreadable_; }
  // Told the line number (in the current file) of each unreadable line.
  void OnUnreadable(std::function<void(size_t line)> on_unreadable) {
    on_unreadable_ = std::move(on_unreadable);
  }

 private:
  void Line(const std::string& line, bool complete = true);
  void Flush();

  std::function<void(const LogRecord&)> on_record_;
  std::function<void(size_t)> on_unreadable_;
  std::string partial_;  // the current line, up to kMaxText + a prefix
  bool partial_cut_ = false;
  size_t line_number_ = 0;
  LogRecord current_;
  bool have_current_ = false;
  int last_month_ = 0;
  int year_ = 0;
  size_t records_ = 0;
  size_t unreadable_ = 0;
};

}  // namespace dorvane::logread
