#include "tools/dorvanectl/log_happenings.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace dorvane::logread {

namespace {

// The service's texts that mark a happening.
const char kStartEnter[] = "[Information][CServiceStart::StartWork] Service start, StartWork Enter  >> ";
const char kStopDone[] = "[Infomation][CServiceStart::StopWork] Stop work success.";
const char kArrival[] = "----------------[Info][CMbnChangeEvent::OnInterfaceArrival]";
const char kRemoval[] = "----------------[Info][CMbnChangeEvent::OnInterfaceRemoval]";
const char kHomeProvider[] = "[CStateWork::GetSimInfo] GetHomeProvider str_mccmnc is ";
const char kRegister[] = "\n\n------------------------[CStateWork::Work] register event-------------------\n";
const char kSuspend[] = "[Infomation][CStateWork::Work] Into S4 Event.\n";
const char kResume[] = "[Infomation][CStateWork::Work] Resume from S4 Event.\n";
const char kReopen[] = "Set SetLogPath-----";
const char kBanner[] = "---------------log start------------------";

bool StartsWith(const std::string& text, const char* prefix) {
  return text.compare(0, std::strlen(prefix), prefix) == 0;
}

// The number in "PREFIX<digits>SUFFIX", or nullopt when `text` is not of
// that shape.
std::optional<long> NumberIn(const std::string& text, const char* prefix, const char* suffix) {
  const size_t p = std::strlen(prefix), s = std::strlen(suffix);
  if (!StartsWith(text, prefix) || text.size() < p + s + 1 ||
      text.compare(text.size() - s, s, suffix) != 0) {
    return std::nullopt;
  }
  const std::string digits = text.substr(p, text.size() - p - s);
  size_t at = digits[0] == '-' ? 1 : 0;
  if (at == digits.size() || digits.size() > 11) return std::nullopt;
  for (; at < digits.size(); ++at) {
    if (digits[at] < '0' || digits[at] > '9') return std::nullopt;
  }
  return std::strtol(digits.c_str(), nullptr, 10);
}

// Days from 1970-01-01 of a date of the proleptic Gregorian calendar.
int64_t DaysFromCivil(int64_t y, int m, int d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const int64_t yoe = y - era * 400;
  const int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

}  // namespace

const char* KindName(Kind kind) {
  switch (kind) {
    case Kind::kServiceStart: return "service-start";
    case Kind::kServiceStop: return "service-stop";
    case Kind::kModemArrival: return "modem-arrival";
    case Kind::kModemRemoval: return "modem-removal";
    case Kind::kSim: return "sim";
    case Kind::kRegistryChange: return "registry-change";
    case Kind::kSuspend: return "suspend";
    case Kind::kResume: return "resume";
    case Kind::kLogReopen: return "log-reopen";
    case Kind::kError: return "error";
  }
  return "?";
}

Stamp Stamp::Of(const LogRecord& record) {
  Stamp stamp;
  stamp.known = record.level != LogLevel::kBanner;
  stamp.year = record.year;
  stamp.month = record.month;
  stamp.day = record.day;
  stamp.hour = record.hour;
  stamp.minute = record.minute;
  stamp.second = record.second;
  stamp.millisecond = record.millisecond;
  return stamp;
}

int64_t Stamp::Ms(int first_year) const {
  const int64_t days = DaysFromCivil(first_year + year, month, day);
  return ((days * 24 + hour) * 60 + minute) * 60000 + second * 1000 + millisecond;
}

std::string Stamp::Text() const {
  if (!known) return "";
  char text[32];
  std::snprintf(text, sizeof text, "%02d-%02d %02d:%02d:%02d.%03d", month, day, hour, minute,
                second, millisecond);
  return text;
}

std::string TimeText(const Stamp& t, int first_year) {
  if (!t.known) return "";
  if (first_year == 0) return t.Text();
  char text[48];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03d", first_year + t.year, t.month,
                t.day, t.hour, t.minute, t.second, t.millisecond);
  return text;
}

std::string LengthText(int64_t ms) {
  if (ms < 0) ms = 0;
  const long long s = ms / 1000, m = s / 60, h = m / 60, d = h / 24;
  char text[64];
  if (d > 0) {
    std::snprintf(text, sizeof text, "%lld d %lld h", d, h % 24);
  } else if (h > 0) {
    std::snprintf(text, sizeof text, "%lld h %lld min", h, m % 60);
  } else if (m > 0) {
    std::snprintf(text, sizeof text, "%lld min %lld s", m, s % 60);
  } else if (s >= 10) {
    std::snprintf(text, sizeof text, "%lld s", s);
  } else {
    std::snprintf(text, sizeof text, "%lld.%03lld s", s, static_cast<long long>(ms % 1000));
  }
  return text;
}

std::string OriginalLine(const Happening& happening) {
  if (happening.level == LogLevel::kBanner) return kBanner;
  const Stamp& t = happening.time;
  const char* tag = happening.level == LogLevel::kError     ? "[ERROR] "
                    : happening.level == LogLevel::kWarning ? "[WARNING] "
                                                            : "[DETAIL]";
  char prefix[64];
  std::snprintf(prefix, sizeof prefix, "%s %02d-%02d %02d:%02d:%02d:%03d: ", tag, t.month, t.day,
                t.hour, t.minute, t.second, t.millisecond);
  return prefix + happening.text;
}

bool IsFailure(const LogRecord& r) {
  switch (r.level) {
    case LogLevel::kError:
      return !StartsWith(r.text, kHomeProvider);
    case LogLevel::kDetail: {
      if (StartsWith(r.text, "OpenSCManager failed (")) return true;
      if (const auto code = NumberIn(r.text, "OpenService failed (", ")")) {
        return *code != 1060;  // ERROR_SERVICE_DOES_NOT_EXIST: nothing to remove
      }
      if (r.text == "Service stop Failed." || r.text == "Service removed Failed") return true;
      // WinExec's result: above 31 when the sc command started.
      if (const auto code = NumberIn(r.text, "service Properties->recovery ,Code=", "(should >31)")) {
        return *code <= 31;
      }
      return false;
    }
    default:
      return false;
  }
}

HappeningReader::HappeningReader(std::function<void(const Happening&)> on_happening)
    : on_happening_(std::move(on_happening)),
      records_([this](const LogRecord& record) { Record(record); }) {
  records_.OnUnreadable([this](size_t line) {
    if (!first_unreadable_) first_unreadable_ = std::make_pair(file_, line);
  });
}

void HappeningReader::Feed(size_t file, const char* data, size_t size) {
  file_ = file;
  records_.Feed(data, size);
}

void HappeningReader::Finish() { records_.Finish(); }

void HappeningReader::End() {
  if (banner_ && !reopen_pending_) Emit(std::move(*banner_));
  banner_.reset();
}

void HappeningReader::Emit(Happening happening) { on_happening_(happening); }

void HappeningReader::Record(const LogRecord& record) {
  if (record.level == LogLevel::kBanner) {
    End();  // a banner after a banner: the first opened a run (or the reopened log)
    Happening start;
    start.kind = Kind::kServiceStart;
    start.file = file_;
    start.line = record.line;
    start.level = LogLevel::kBanner;
    start.previous = last_;
    start.previous_file = last_file_;
    start.previous_line = last_line_;
    banner_ = std::move(start);
    return;
  }
  const Stamp stamp = Stamp::Of(record);
  if (!first_.known) first_ = stamp;
  last_ = stamp;
  last_file_ = file_;
  last_line_ = record.line;
  if (banner_) {
    // The log is reopened with a banner every three hours. A banner opens a
    // run unless it is that reopen's, which the run's first line then does
    // not follow.
    if (!reopen_pending_ || record.text == kStartEnter) {
      banner_->time = stamp;
      Emit(std::move(*banner_));
    }
    banner_.reset();
    reopen_pending_ = false;
  }
  Happening h;
  h.file = file_;
  h.line = record.line;
  h.time = stamp;
  h.level = record.level;
  const std::string& text = record.text;
  if (record.level == LogLevel::kDetail) {
    static const std::pair<const char*, Kind> kExact[] = {
        {kArrival, Kind::kModemArrival}, {kRemoval, Kind::kModemRemoval},
        {kRegister, Kind::kRegistryChange}, {kSuspend, Kind::kSuspend},
        {kResume, Kind::kResume}, {kReopen, Kind::kLogReopen}};
    const auto exact = std::find_if(std::begin(kExact), std::end(kExact),
                                    [&text](const auto& known) { return text == known.first; });
    if (StartsWith(text, kStopDone)) {
      h.kind = Kind::kServiceStop;
    } else if (exact != std::end(kExact)) {
      h.kind = exact->second;
      reopen_pending_ = reopen_pending_ || h.kind == Kind::kLogReopen;
    } else if (!IsFailure(record)) {
      return;
    }
  } else if (record.level == LogLevel::kError && StartsWith(text, kHomeProvider)) {
    h.kind = Kind::kSim;
    h.mccmnc = text.substr(std::strlen(kHomeProvider));
  } else if (!IsFailure(record)) {
    return;
  }
  h.text = text;
  Emit(std::move(h));
}

std::optional<ClockTime> ParseClockTime(const std::string& text) {
  auto two = [&text](size_t at) {
    return at + 2 <= text.size() && text[at] >= '0' && text[at] <= '9' && text[at + 1] >= '0' &&
                   text[at + 1] <= '9'
               ? (text[at] - '0') * 10 + (text[at + 1] - '0')
               : -1;
  };
  if (text.size() != 5 && text.size() != 11) return std::nullopt;
  ClockTime t;
  t.month = two(0);
  t.day = two(3);
  if (text[2] != '-' || t.month < 1 || t.month > 12 || t.day < 1 || t.day > 31) return std::nullopt;
  static const int kDays[] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (t.day > kDays[t.month - 1]) return std::nullopt;
  if (text.size() == 11) {
    t.has_time = true;
    t.hour = two(6);
    t.minute = two(9);
    if (text[5] != ' ' || text[8] != ':' || t.hour < 0 || t.hour > 23 || t.minute < 0 ||
        t.minute > 59) {
      return std::nullopt;
    }
  }
  return t;
}

namespace {

// `clock` in the first year count at which the log, starting at `first`, has
// reached it.
Stamp Place(const ClockTime& clock, const Stamp& first) {
  Stamp s;
  s.known = true;
  s.month = clock.month;
  s.day = clock.day;
  s.hour = clock.hour;
  s.minute = clock.minute;
  s.year = first.year;
  // Compared at the precision given: a day alone with the first record's day.
  Stamp reached = first;
  reached.second = 0;
  reached.millisecond = 0;
  if (!clock.has_time) reached.hour = reached.minute = 0;
  if (s.Ms() < reached.Ms()) ++s.year;
  return s;
}

}  // namespace

void Window::Anchor(const Stamp& first) {
  if (since_ms_ || until_ms_ || !first.known) return;
  if (since_) since_ms_ = Place(*since_, first).Ms();
  if (until_) {
    // The end of the minute, or of the day for a day alone.
    until_ms_ = Place(*until_, first).Ms() + (until_->has_time ? 60000 : 86400000) - 1;
  }
}

bool Window::Contains(const Stamp& time) const {
  if (!time.known) return !Limited();
  const int64_t ms = time.Ms();
  return (!since_ms_ || ms >= *since_ms_) && (!until_ms_ || ms <= *until_ms_);
}

bool Window::Before(const Stamp& time) const {
  return time.known && since_ms_ && time.Ms() < *since_ms_;
}

void Summary::CloseRun(std::optional<Point> end, RunEnd how) {
  if (!open_) return;
  Run run = std::move(*open_);
  open_.reset();
  run.end = end;
  run.how = how;
  // Listed when some of it lies in the window.
  const bool ends_before = run.end && window.Before(run.end->time);
  const bool starts_after = run.start && run.start->time.known && window.until_ms() &&
                            run.start->time.Ms() > *window.until_ms();
  if (!ends_before && !starts_after) runs.Add(std::move(run));
}

void Summary::Add(const Happening& h) {
  const Point at{h.time, h.file, h.line};
  if (h.kind == Kind::kServiceStart) {
    CloseRun(h.previous.known ? std::optional<Point>(Point{h.previous, h.previous_file, h.previous_line})
                              : std::nullopt,
             RunEnd::kRestarted);
    open_ = Run{at, std::nullopt, RunEnd::kLogEnds};
  } else if (h.kind == Kind::kServiceStop) {
    if (!open_) open_ = Run{std::nullopt, std::nullopt, RunEnd::kLogEnds};
    CloseRun(at, RunEnd::kStopped);
  } else if (!open_ && !seen_run_) {
    // Lines of a run that began before the log does.
    open_ = Run{std::nullopt, std::nullopt, RunEnd::kLogEnds};
  }
  seen_run_ = true;
  if (!window.Contains(h.time)) return;
  ++counts[static_cast<int>(h.kind)];
  if (h.kind == Kind::kServiceStart || h.kind == Kind::kServiceStop) return;
  if (h.kind == Kind::kError) {
    auto found = error_index_.find(h.text);
    if (found == error_index_.end()) {
      if (errors.size() >= kMaxErrorTexts) {
        ++other_errors;
      } else {
        error_index_.emplace(h.text, errors.size());
        errors.push_back(Error{h.text, at, at, 1});
      }
    } else {
      Error& e = errors[found->second];
      e.last = at;
      ++e.count;
    }
  } else if (h.kind == Kind::kSim) {
    const std::string key = h.iccid + "\n" + h.mccmnc;
    auto found = sim_index_.find(key);
    if (found == sim_index_.end()) {
      if (sims.size() >= kMaxErrorTexts) {
        ++sims_dropped;
      } else {
        sim_index_.emplace(key, sims.size());
        sims.push_back(Sim{h.mccmnc, h.iccid, at, at, 1});
      }
    } else {
      Sim& s = sims[found->second];
      s.last = at;
      ++s.count;
    }
  }
  marks.Add(Mark{h.kind, at, OriginalLine(h), h.kind == Kind::kSim ? h.mccmnc : h.text});
}

void Summary::Finish(const Stamp& last, size_t file, size_t line) {
  if (open_) CloseRun(last.known ? std::optional<Point>(Point{last, file, line}) : std::nullopt, RunEnd::kLogEnds);
}

}  // namespace dorvane::logread
