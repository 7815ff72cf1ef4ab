// What a support engineer looks for in the service's log, told from its
// records: the service starting and stopping, the modem leaving and coming
// back, the SIM read, changes of the service's registry key, suspend and
// resume, the periodic reopen of the log and the failures. And a summary of a
// reading (runs, SIMs, errors grouped by text) with bounded memory, however
// long the log.
//
// The texts recognised are the ones the service writes; they are fixed, so
// the reader keys on them exactly.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tools/dorvanectl/log_records.h"

namespace dorvane::logread {

enum class Kind {
  kServiceStart,
  kServiceStop,
  kModemArrival,
  kModemRemoval,
  kSim,
  kRegistryChange,
  kSuspend,
  kResume,
  kLogReopen,
  kError,
};
constexpr int kKindCount = 10;
// "service-start", "service-stop", "modem-arrival", "modem-removal", "sim",
// "registry-change", "suspend", "resume", "log-reopen", "error".
const char* KindName(Kind kind);

// A moment of the log: its year count (the log has no year), month, day and
// time. `known` is false for a start whose banner no timed line followed.
struct Stamp {
  bool known = false;
  int year = 0;
  int month = 0, day = 0, hour = 0, minute = 0, second = 0, millisecond = 0;

  static Stamp Of(const LogRecord& record);
  // Milliseconds on one line across year counts, the year count added to
  // `first_year` (the calendar year of the reading's first record, when the
  // reader knows it; by default one that is not a leap year, so that a 29th
  // of February counts as the 1st of March).
  int64_t Ms(int first_year = 2001) const;
  // "MM-DD hh:mm:ss.mmm"; "" when not known.
  std::string Text() const;
};

// A time as printed: "MM-DD hh:mm:ss.mmm", or, with the first line's calendar
// year known (not 0), "YYYY-MM-DDThh:mm:ss.mmm" (local time, as logged); ""
// when not known.
std::string TimeText(const Stamp& time, int first_year);
// A length of time: "3 d 4 h", "9 h 58 min", "5 min 3 s", "12 s", "0.250 s".
std::string LengthText(int64_t ms);

struct Happening {
  Kind kind = Kind::kError;
  size_t file = 0;  // index of the file in the reading's order
  size_t line = 0;  // of the record in its file, from 1
  Stamp time;
  LogLevel level = LogLevel::kDetail;
  std::string text;    // the record's text as written
  std::string mccmnc;  // sim: the home provider, MCC and MNC
  std::string iccid;   // sim: the ICCID, when a line gives it
  // service-start: the last timed record before the banner, where the run
  // before it (if it wrote no stop line) was last seen alive.
  Stamp previous;
  size_t previous_file = 0, previous_line = 0;
};

// The record as the logger wrote it: tag, stamp and text (for a start, its
// banner).
std::string OriginalLine(const Happening& happening);

// Whether a record of the service reports a failure. Every error-level line
// does but the home provider's (logged at the error level though it reports a
// success); of the detail-level lines, those of the legacy service's removal
// and of the recovery policy that say a step failed ("OpenService failed
// (1060)", the usual answer when the legacy service is not installed, is no
// failure).
bool IsFailure(const LogRecord& record);

// Reads the records of one or more files in order and hands over each
// happening, in file order.
class HappeningReader {
 public:
  explicit HappeningReader(std::function<void(const Happening&)> on_happening);

  // Feed and Finish as LogRecordReader's, for file `file`.
  void Feed(size_t file, const char* data, size_t size);
  void Finish();
  // Ends the reading: a start whose banner ended the last file is handed over
  // (without a time).
  void End();

  size_t records() const { return records_.records(); }
  size_t unreadable_lines() const { return records_.unreadable_lines(); }
  // The first and last timed records read.
  const Stamp& first() const { return first_; }
  const Stamp& last() const { return last_; }
  size_t last_file() const { return last_file_; }
  size_t last_line() const { return last_line_; }
  // The first unreadable line: its file and line, when there is one.
  std::optional<std::pair<size_t, size_t>> first_unreadable() const { return first_unreadable_; }

 private:
  void Record(const LogRecord& record);
  void Emit(Happening happening);

  std::function<void(const Happening&)> on_happening_;
  LogRecordReader records_;
  size_t file_ = 0;
  // A banner waiting for the record after it to tell whether it opened a run
  // or only the reopened log.
  std::optional<Happening> banner_;
  bool reopen_pending_ = false;  // "Set SetLogPath-----" seen, its banner not yet
  Stamp first_, last_;
  size_t last_file_ = 0, last_line_ = 0;
  std::optional<std::pair<size_t, size_t>> first_unreadable_;
};

// A window of the log given as "MM-DD" or "MM-DD HH:MM". The log has no year:
// a moment is placed in the first year of the reading at which the log has
// reached it, so "01-02" in a log from 12-28 to 01-05 is the 2nd of January
// after the turn of the year.
struct ClockTime {
  int month = 0, day = 0, hour = 0, minute = 0;
  bool has_time = false;  // "MM-DD HH:MM"; "MM-DD" stands for the whole day
};
// Parses "MM-DD" (the start of that day) or "MM-DD HH:MM"; nullopt otherwise.
std::optional<ClockTime> ParseClockTime(const std::string& text);

class Window {
 public:
  Window() = default;
  // From the start of `since` to the end of `until` (its minute, or its day).
  Window(std::optional<ClockTime> since, std::optional<ClockTime> until)
      : since_(since), until_(until) {}
  bool Limited() const { return since_ || until_; }
  // Places the limits by the first timed record of the reading.
  void Anchor(const Stamp& first);
  // Whether `time` is within. A time not known is within only an unlimited window.
  bool Contains(const Stamp& time) const;
  bool Before(const Stamp& time) const;  // `time` is before `since`
  std::optional<int64_t> since_ms() const { return since_ms_; }
  std::optional<int64_t> until_ms() const { return until_ms_; }

 private:
  std::optional<ClockTime> since_, until_;
  std::optional<int64_t> since_ms_, until_ms_;
};

// The summary of a reading, built from its happenings in order. Lists hold at
// most kMaxListed entries each (and count the rest), errors at most
// kMaxErrorTexts texts (further texts are counted together), so that a log of
// any length is summed up in bounded memory.
struct Summary {
  static constexpr size_t kMaxListed = 5000;
  static constexpr size_t kMaxErrorTexts = 1000;

  struct Point {
    Stamp time;
    size_t file = 0, line = 0;
  };
  enum class RunEnd { kStopped, kRestarted, kLogEnds };
  struct Run {
    std::optional<Point> start;  // none: the run began before the log does
    // The stop line; or, when there is none, the run's last timed record.
    std::optional<Point> end;
    RunEnd how = RunEnd::kLogEnds;
    // From start to end in milliseconds; -1 when either is not known.
    int64_t Ms() const {
      if (!start || !end || !start->time.known || !end->time.known) return -1;
      return end->time.Ms() - start->time.Ms();
    }
  };
  struct Sim {
    std::string mccmnc, iccid;
    Point first, last;
    size_t count = 0;
  };
  struct Error {
    std::string text;
    Point first, last;
    size_t count = 0;
  };
  struct Mark {
    Kind kind;
    Point at;
    std::string original;  // the log line, for showing
    std::string detail;    // sim: MCC and MNC; error: the text
  };
  template <typename T>
  struct Capped {
    std::vector<T> items;
    size_t dropped = 0;
    void Add(T item) {
      if (items.size() < kMaxListed) {
        items.push_back(std::move(item));
      } else {
        ++dropped;
      }
    }
    size_t total() const { return items.size() + dropped; }
  };

  // Happenings outside it are not counted; a run is listed when any of it
  // lies inside.
  Window window;

  size_t counts[kKindCount] = {};
  Capped<Run> runs;
  Capped<Mark> marks;  // every happening but starts and stops, in order
  std::vector<Sim> sims;  // in the order first seen
  std::vector<Error> errors;  // in the order first seen
  size_t other_errors = 0;    // lines of texts beyond kMaxErrorTexts
  size_t sims_dropped = 0;

  void Add(const Happening& happening);
  // Ends the last run at the last timed record read if it is open.
  void Finish(const Stamp& last, size_t file, size_t line);

 private:
  void CloseRun(std::optional<Point> end, RunEnd how);

  std::map<std::string, size_t> error_index_;
  std::map<std::string, size_t> sim_index_;
  std::optional<Run> open_;
  bool seen_run_ = false;  // a happening has been added: the log's first run is known
};

}  // namespace dorvane::logread
