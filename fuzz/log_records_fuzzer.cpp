// The log reader on any bytes: handed over whole or in pieces, the records and
// the count of unreadable lines are the same, and no text grows beyond the cap.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "tools/dorvanectl/log_records.h"

namespace {

using dorvane::logread::LogRecord;
using dorvane::logread::LogRecordReader;

std::string Show(const LogRecord& r) {
  char head[96];
  std::snprintf(head, sizeof head, "%d %zu %d %02d-%02d %02d:%02d:%02d:%03d %d|", static_cast<int>(r.level), r.line,
                r.year, r.month, r.day, r.hour, r.minute, r.second, r.millisecond, r.truncated ? 1 : 0);
  return head + r.text;
}

struct Reading {
  std::vector<std::string> records;
  size_t unreadable = 0;
};

// Reads `data` as two files split at `file_split`, each fed in pieces of
// `piece` bytes (0: whole).
Reading Read(const std::string& data, size_t file_split, size_t piece) {
  Reading reading;
  LogRecordReader reader([&reading](const LogRecord& r) {
    if (r.text.size() > LogRecordReader::kMaxText) std::abort();
    reading.records.push_back(Show(r));
  });
  for (const std::string& file : {data.substr(0, file_split), data.substr(file_split)}) {
    const size_t step = piece == 0 ? file.size() + 1 : piece;
    for (size_t at = 0; at < file.size(); at += step) reader.Feed(file.data() + at, std::min(step, file.size() - at));
    reader.Finish();
  }
  reading.unreadable = reader.unreadable_lines();
  return reading;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  if (size < 2) return 0;
  const size_t piece = 1 + bytes[0] % 64;
  const std::string data(reinterpret_cast<const char*>(bytes + 2), size - 2);
  const size_t split = data.empty() ? 0 : bytes[1] % (data.size() + 1);
  const Reading whole = Read(data, split, 0);
  const Reading pieces = Read(data, split, piece);
  if (whole.records != pieces.records || whole.unreadable != pieces.unreadable) {
    std::fprintf(stderr, "log_records_fuzzer: pieces of %zu bytes read otherwise than the whole\n", piece);
    std::abort();
  }
  return 0;
}
