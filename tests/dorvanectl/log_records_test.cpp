// The log reader against the logger itself, and against logs as the field
// hands them over: torn lines, a turn of the year, bytes in pieces of any size.
#include "tools/dorvanectl/log_records.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "log/logger.h"
#include "support/log_reader.h"

namespace dorvane::logread {
namespace {

struct Read {
  std::vector<LogRecord> records;
  size_t unreadable = 0;
};

// Reads `files` in turn, each handed over in pieces of random sizes.
Read ReadPieces(const std::vector<std::string>& files, unsigned seed) {
  Read read;
  LogRecordReader reader([&read](const LogRecord& r) { read.records.push_back(r); });
  std::mt19937 random(seed);
  for (const std::string& bytes : files) {
    for (size_t at = 0; at < bytes.size();) {
      const size_t n = std::min<size_t>(bytes.size() - at, 1 + random() % 97);
      reader.Feed(bytes.data() + at, n);
      at += n;
    }
    reader.Finish();
  }
  read.unreadable = reader.unreadable_lines();
  EXPECT_EQ(read.records.size(), reader.records());
  return read;
}

TEST(LogRecords, WhatTheLoggerWritesIsReadBackWhole) {
  const std::string path = testing::MakeTempDir("logread") + "\\Dorvane.log";
  Logger log;
  log.SetLogPath(path);
  log.Enable(true);
  log.Write(kLogError, "RegOpenKeyEx error");
  log.Write(kLogWarning, "warn %d", 7);
  log.Write(kLogDetail, "\n\n----sep----\n");
  log.Write(kLogDetail, "done.\r\n\r\n");
  log.Close();
  log.Write(kLogDetail, "after the reopen");
  log.Close();
  const std::string bytes = testing::ReadFileBytes(path);

  // Lines of the file: banner 1, error 2, warning 3, the separator's record 4
  // (with its own lines 5 to 7), "done." 8 (9, 10), banner 11.
  using Record = std::tuple<LogLevel, std::string, size_t>;
  const std::vector<Record> expected = {
      {LogLevel::kBanner, "", 1},  {LogLevel::kError, "RegOpenKeyEx error", 2},
      {LogLevel::kWarning, "warn 7", 3},  {LogLevel::kDetail, "\n\n----sep----\n", 4},
      {LogLevel::kDetail, "done.\r\n\r\n", 8},  {LogLevel::kBanner, "", 11},
      {LogLevel::kDetail, "after the reopen", 12},
  };
  for (unsigned seed = 1; seed <= 20; ++seed) {
    SCOPED_TRACE(seed);
    const Read read = ReadPieces({bytes}, seed);
    EXPECT_EQ(0u, read.unreadable);
    std::vector<Record> records;
    for (const LogRecord& r : read.records) records.emplace_back(r.level, r.text, r.line);
    EXPECT_EQ(expected, records);
  }
}

TEST(LogRecords, FieldLogs) {
  // What is read, the files, "line year/MM-DD text" of each record (" (cut)"
  // after a text cut short or torn), the lines not read.
  using Strings = std::vector<std::string>;
  const std::string banner = "---------------log start------------------\r\n";
  const std::string huge(3 * LogRecordReader::kMaxText, 'x');
  const std::tuple<const char*, Strings, Strings, size_t> cases[] = {
      {"a month that goes back starts a year; files go on with it",
       {"[DETAIL] 12-31 23:59:59:999: old\r\n[DETAIL] 01-01 00:00:00:001: new\r\n",
        "[DETAIL] 01-02 10:00:00:000: next file\r\n[DETAIL] 12-01 10:00:00:000: later\r\n"},
       {"1 0/12-31 old", "2 1/01-01 new", "1 1/01-02 next file", "2 1/12-01 later"},
       0},
      {"the cut start of a backup and a torn prefix are counted, not taken as text",
       {"of a text whose start was cut\r\n[DETAIL] 11-2\r\n" + banner + "torn after a banner\r\n"
                                                                         "[ERROR]  11-24 08:00:00:000: Esim disable xml load faild.\r\n"},
       {"3 0/00-00 ", "5 0/11-24 Esim disable xml load faild."},
       3},
      {"a torn last line that starts no record is counted, not taken for the text before it",
       {"[DETAIL] 03-04 05:06:07:008: whole\r\ngarbage torn li"},
       {"1 0/03-04 whole"},
       1},
      {"a line torn by a crash with the next start's banner glued on: the torn record, then the banner",
       {"[DETAIL] 03-04 05:06:07:008: whole\r\n[DETAIL] 03-04 05:06:07:009: tor" + banner +
        "[DETAIL] 03-05 01:00:00:000: a\r\nline of its text, tor" + banner + "[DETAIL] 03-06 01:00:00:000: b\r\n"},
       {"1 0/03-04 whole", "2 0/03-04 tor (cut)", "2 0/00-00 ", "3 0/03-05 a", "4 0/00-00 ", "5 0/03-06 b"},
       1},
      {"a last line without its line end is read; a torn prefix inside a text stays text",
       {"[WARNING]  03-04 05:06:07:008: first\n[DETAIL] 03-0\n[DETAIL] 03-04 05:06:07:009: end"},
       {"1 0/03-04 first\n[DETAIL] 03-0", "3 0/03-04 end (cut)"},
       0},
      {"a huge record keeps its start and is marked cut; the lines after it are counted",
       {"[DETAIL] 01-01 00:00:00:000: " + huge + "\r\n" + huge + "\r\n[DETAIL] 01-01 00:00:00:001: next\r\n"},
       {"1 0/01-01 " + huge.substr(0, LogRecordReader::kMaxText) + " (cut)", "3 0/01-01 next"},
       0},
  };
  for (const auto& [name, files, expected, unreadable] : cases) {
    SCOPED_TRACE(name);
    const Read read = ReadPieces(files, 7);
    std::vector<std::string> texts;
    for (const LogRecord& r : read.records) {
      char stamp[16];
      std::snprintf(stamp, sizeof stamp, " %d/%02d-%02d ", r.year, r.month, r.day);
      texts.push_back(std::to_string(r.line) + stamp + r.text + (r.truncated ? " (cut)" : ""));
    }
    EXPECT_EQ(expected, texts);
    EXPECT_EQ(unreadable, read.unreadable);
  }
}

}  // namespace
}  // namespace dorvane::logread
