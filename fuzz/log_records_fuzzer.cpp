// The log reader on any bytes: handed over whole or in pieces, the records, the
// happenings and the count of unreadable lines are the same, and no text grows
// beyond the cap; the summary and its page are made from any of them, and the
// page holds no control character and no byte that is not UTF-8.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "tools/dorvanectl/log_happenings.h"
#include "tools/dorvanectl/log_html.h"
#include "tools/dorvanectl/log_records.h"

namespace {

using dorvane::logread::Happening;
using dorvane::logread::HappeningReader;
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
  std::vector<std::string> happenings;
  size_t unreadable = 0;
};

// Reads `data` for its happenings as two files, in pieces of `piece` bytes,
// and makes the summary's page with the window `since` .. `until`.
std::vector<std::string> Happenings(const std::string& data, size_t file_split, size_t piece,
                                    const std::string& since, const std::string& until) {
  std::vector<std::string> shown;
  dorvane::logread::Summary summary;
  summary.window = dorvane::logread::Window(dorvane::logread::ParseClockTime(since),
                                            dorvane::logread::ParseClockTime(until));
  bool anchored = false;
  HappeningReader reader([&](const Happening& h) {
    if (!anchored && reader.first().known) {
      summary.window.Anchor(reader.first());
      anchored = true;
    }
    summary.Add(h);
    shown.push_back(std::string(dorvane::logread::KindName(h.kind)) + " " + std::to_string(h.file) + ":" +
                    std::to_string(h.line) + " " + h.time.Text() + "|" + h.mccmnc + "|" + h.text);
  });
  size_t index = 0;
  for (const std::string& file : {data.substr(0, file_split), data.substr(file_split)}) {
    const size_t step = piece == 0 ? file.size() + 1 : piece;
    for (size_t at = 0; at < file.size(); at += step) reader.Feed(index, file.data() + at, std::min(step, file.size() - at));
    reader.Finish();
    ++index;
  }
  reader.End();
  summary.Finish(reader.last(), reader.last_file(), reader.last_line());
  dorvane::logread::HtmlInput input;
  input.files = {"Dorvane.logbk", "Dorvane.log"};
  input.first = reader.first();
  input.last = reader.last();
  const std::string html = dorvane::logread::RenderHtml(summary, input);
  for (size_t i = 0; i < html.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(html[i]);
    if ((c < 0x20 && c != '\n' && c != '\t') || c == 0x7F) {
      std::fprintf(stderr, "log_records_fuzzer: control byte 0x%02X in the page at %zu\n", c, i);
      std::abort();
    }
    if (c >= 0x80) {
      size_t n = c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : 2;
      if (c < 0xC2 || c > 0xF4 || i + n > html.size()) std::abort();
      for (size_t k = 1; k < n; ++k) {
        if ((static_cast<unsigned char>(html[i + k]) & 0xC0) != 0x80) std::abort();
      }
      i += n - 1;
    }
  }
  return shown;
}

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
  // A window from the data's own first bytes, so that the fuzzer finds times.
  const std::string since = data.substr(0, 5), until = data.size() > 5 ? data.substr(5, 11) : "";
  if (Happenings(data, split, 0, since, until) != Happenings(data, split, piece, since, until)) {
    std::fprintf(stderr, "log_records_fuzzer: pieces of %zu bytes gave other happenings\n", piece);
    std::abort();
  }
  return 0;
}
