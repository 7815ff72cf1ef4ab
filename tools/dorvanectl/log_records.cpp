#include "tools/dorvanectl/log_records.h"

#include <cstring>
#include <utility>

namespace dorvane::logread {

namespace {

const char kBannerLine[] = "---------------log start------------------";

// The tags as the logger pads them, each followed by the stamp.
struct Tag {
  const char* text;
  LogLevel level;
};
const Tag kTags[] = {
    {"[ERROR]  ", LogLevel::kError},
    {"[WARNING]  ", LogLevel::kWarning},
    {"[DETAIL] ", LogLevel::kDetail},
};

// Reads `count` decimal digits at `at`; -1 when one is not a digit.
int Digits(const std::string& line, size_t at, size_t count) {
  if (at + count > line.size()) return -1;
  int value = 0;
  for (size_t i = at; i < at + count; ++i) {
    if (line[i] < '0' || line[i] > '9') return -1;
    value = value * 10 + (line[i] - '0');
  }
  return value;
}

// The record that `line` starts, if it starts one: level, stamp and where the
// text begins.
bool ParsePrefix(const std::string& line, LogRecord& record, size_t& text_at) {
  for (const Tag& tag : kTags) {
    const size_t n = std::strlen(tag.text);
    if (line.compare(0, n, tag.text) != 0) continue;
    // "MM-DD hh:mm:ss:mmm: "
    static const char kShape[] = "00-00 00:00:00:000: ";
    const size_t shape = sizeof kShape - 1;
    if (line.size() < n + shape) return false;
    for (size_t i = 0; i < shape; ++i) {
      const char want = kShape[i];
      const char got = line[n + i];
      if (want == '0' ? (got < '0' || got > '9') : got != want) return false;
    }
    record.level = tag.level;
    record.month = Digits(line, n, 2);
    record.day = Digits(line, n + 3, 2);
    record.hour = Digits(line, n + 6, 2);
    record.minute = Digits(line, n + 9, 2);
    record.second = Digits(line, n + 12, 2);
    record.millisecond = Digits(line, n + 15, 3);
    text_at = n + shape;
    return true;
  }
  return false;
}

}  // namespace

LogRecordReader::LogRecordReader(std::function<void(const LogRecord&)> on_record)
    : on_record_(std::move(on_record)) {}

void LogRecordReader::Feed(const char* data, size_t size) {
  const size_t limit = kMaxText + 64;  // a prefix and the longest text kept
  for (size_t i = 0; i < size;) {
    const void* found = std::memchr(data + i, '\n', size - i);
    const size_t end = found ? static_cast<size_t>(static_cast<const char*>(found) - data) : size;
    const size_t room = partial_.size() < limit ? limit - partial_.size() : 0;
    const size_t take = end - i < room ? end - i : room;
    partial_.append(data + i, take);
    if (take < end - i) partial_cut_ = true;
    if (found == nullptr) break;
    if (!partial_.empty() && partial_.back() == '\r') partial_.pop_back();
    Line(partial_);
    partial_.clear();
    partial_cut_ = false;
    i = end + 1;
  }
}

void LogRecordReader::Finish() {
  if (!partial_.empty()) {
    if (partial_.back() == '\r') partial_.pop_back();
    // A last line without its line end is torn: still read when it starts a
    // record, but never taken for a line of the record before it, whose own
    // lines all end (the logger ends every text with a line end).
    Line(partial_, /*complete=*/false);
    partial_.clear();
    partial_cut_ = false;
  }
  Flush();
  line_number_ = 0;
}

void LogRecordReader::Line(const std::string& line, bool complete) {
  ++line_number_;
  LogRecord record;
  size_t text_at = 0;
  // A line torn by a crash gets the next start's banner glued on, as the
  // logger appends: the torn part, then the banner.
  const size_t banner_size = sizeof kBannerLine - 1;
  if (line.size() > banner_size && line.compare(line.size() - banner_size, banner_size, kBannerLine) == 0) {
    --line_number_;
    Line(line.substr(0, line.size() - banner_size), /*complete=*/false);
    --line_number_;
    Line(kBannerLine);
    return;
  }
  if (line == kBannerLine) {
    Flush();
    record.level = LogLevel::kBanner;
    record.line = line_number_;
    record.year = year_;
    current_ = std::move(record);
    have_current_ = true;
    return;
  }
  if (ParsePrefix(line, record, text_at)) {
    Flush();
    if (record.month < last_month_) ++year_;
    last_month_ = record.month;
    record.line = line_number_;
    record.year = year_;
    record.text = line.substr(text_at, kMaxText);
    record.truncated = partial_cut_ || line.size() - text_at > kMaxText || !complete;
    current_ = std::move(record);
    have_current_ = true;
    return;
  }
  if (!have_current_ || current_.level == LogLevel::kBanner || !complete) {
    ++unreadable_;
    if (on_unreadable_) on_unreadable_(line_number_);
    return;
  }
  // A line of the current record's own text.
  std::string& text = current_.text;
  if (text.size() + 1 + line.size() > kMaxText || partial_cut_) current_.truncated = true;
  if (text.size() < kMaxText) {
    text += '\n';
    text.append(line, 0, kMaxText - text.size() < line.size() ? kMaxText - text.size() : line.size());
  }
}

void LogRecordReader::Flush() {
  if (!have_current_) return;
  ++records_;
  on_record_(current_);
  have_current_ = false;
  current_ = LogRecord();
}

}  // namespace dorvane::logread
