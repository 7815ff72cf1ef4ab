// dorvanectl log: the service's log (and its backup) read in one pass, with
// what happened in it as a summary, as JSON Lines for a log collector, or as
// a page with a timeline. The files are read in pieces, so a 50 MiB log takes
// little memory; they are opened sharing everything, as the running service
// keeps its log open for writing.
#include <windows.h>

#include <cstdio>
#include <exception>
#include <memory>
#include <vector>

#include "tools/dorvanectl/ctl.h"
#include "tools/dorvanectl/log_happenings.h"
#include "tools/dorvanectl/log_html.h"
#include "util/scoped_handle.h"

namespace dorvane::ctl {

namespace {

using logread::Happening;
using logread::HappeningReader;
using logread::Kind;
using logread::Stamp;
using logread::Summary;

const char kServiceLog[] = "C:\\Windows\\WWAN\\DorvaneBin\\Dorvane.log";

struct LogArgs {
  std::vector<std::string> files;
  std::string since, until;
  bool errors = false;
  std::string html;
  int year = 0;  // 0: not given
};

using logread::TimeText;

nlohmann::json TimeJson(const Stamp& t, int year) {
  return t.known ? nlohmann::json(TimeText(t, year)) : nlohmann::json(nullptr);
}

// 12345 as "12,345".
std::string Count(size_t n) {
  std::string digits = std::to_string(n);
  for (int at = static_cast<int>(digits.size()) - 3; at > 0; at -= 3) digits.insert(static_cast<size_t>(at), ",");
  return digits;
}

std::string Plural(size_t n, const char* one, const char* many) {
  return Count(n) + " " + (n == 1 ? one : many);
}

const char* EndText(Summary::RunEnd how) {
  switch (how) {
    case Summary::RunEnd::kStopped: return "stopped";
    case Summary::RunEnd::kRestarted: return "ended without a stop line (at its last line; started again later)";
    case Summary::RunEnd::kLogEnds: return "running when the log ends";
  }
  return "";
}

const char* EndName(Summary::RunEnd how) {
  switch (how) {
    case Summary::RunEnd::kStopped: return "stopped";
    case Summary::RunEnd::kRestarted: return "restarted";
    case Summary::RunEnd::kLogEnds: return "log-ends";
  }
  return "";
}

// A reading's files and their fate.
struct Input {
  std::vector<std::string> files;
  std::vector<uint64_t> bytes;
  std::string failure;  // a file that could not be read to its end
};

class Reading {
 public:
  Reading(const LogArgs& args, const Common& common, const std::vector<std::string>& files,
          logread::Window window)
      : args_(args), common_(common), files_(files), reader_([this](const Happening& h) { On(h); }) {
    summary_.window = window;
  }

  // Reads `path` as file `index`; false (with `failure` set) when it cannot be read.
  bool ReadFile(size_t index, const std::string& path, uint64_t* bytes, std::string* failure) {
    UniqueHandle file(::CreateFileA(path.c_str(), GENERIC_READ,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                    OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
    if (!file) {
      *failure = path + ": cannot be opened: " + SystemText(::GetLastError());
      return false;
    }
    std::vector<char> buffer(1 << 20);
    for (;;) {
      DWORD got = 0;
      if (!::ReadFile(file.get(), buffer.data(), static_cast<DWORD>(buffer.size()), &got, nullptr)) {
        *failure = path + ": cannot be read after " + std::to_string(*bytes) + " bytes: " +
                   SystemText(::GetLastError());
        reader_.Finish();
        return false;
      }
      if (got == 0) break;
      *bytes += got;
      reader_.Feed(index, buffer.data(), got);
    }
    reader_.Finish();
    return true;
  }

  void End() {
    reader_.End();
    summary_.Finish(reader_.last(), reader_.last_file(), reader_.last_line());
  }

  const HappeningReader& reader() const { return reader_; }
  const Summary& summary() const { return summary_; }

 private:
  void On(const Happening& h) {
    if (!anchored_ && reader_.first().known) {
      summary_.window.Anchor(reader_.first());
      anchored_ = true;
    }
    summary_.Add(h);
    if (!common_.json || !summary_.window.Contains(h.time)) return;
    if (args_.errors && h.kind != Kind::kError) return;
    nlohmann::json object = {{"happening", logread::KindName(h.kind)},
                             {"file", Text(files_.at(h.file))},
                             {"line", h.line},
                             {"time", TimeJson(h.time, args_.year)},
                             {"year", args_.year + h.time.year}};
    if (h.kind == Kind::kSim) {
      object["mccmnc"] = Text(h.mccmnc);
      if (!h.iccid.empty()) object["iccid"] = Text(h.iccid);
    }
    object["text"] = Text(h.kind == Kind::kServiceStart ? logread::OriginalLine(h) : h.text);
    PrintJson(object);
  }

  const LogArgs& args_;
  const Common& common_;
  const std::vector<std::string>& files_;
  HappeningReader reader_;
  Summary summary_;
  bool anchored_ = false;
};

std::string PointText(const std::optional<Summary::Point>& p, int year) {
  return p && p->time.known ? TimeText(p->time, year) : std::string("?");
}

nlohmann::json PointJson(const std::optional<Summary::Point>& p, int year) {
  return p ? TimeJson(p->time, year) : nlohmann::json(nullptr);
}

void PrintText(const LogArgs& args, const Input& input, const Reading& reading) {
  const Summary& s = reading.summary();
  const HappeningReader& r = reading.reader();
  const int y = args.year;
  std::string files;
  for (size_t i = 0; i < input.files.size(); ++i) {
    files += (i ? ", " : "") + Shown(input.files[i]) + " (" + Plural(input.bytes[i], "byte", "bytes") + ")";
  }
  std::printf("Read %s: %s, %s", files.c_str(), Plural(r.records(), "record", "records").c_str(),
              Plural(r.unreadable_lines(), "unreadable line", "unreadable lines").c_str());
  if (r.first_unreadable()) {
    std::printf(" (the first at %s:%zu)", Shown(input.files[r.first_unreadable()->first]).c_str(),
                r.first_unreadable()->second);
  }
  std::printf("\n");
  if (r.first().known) {
    std::printf("Period: %s to %s (%s)\n", TimeText(r.first(), y).c_str(),
                TimeText(r.last(), y).c_str(), logread::LengthText(r.last().Ms() - r.first().Ms()).c_str());
  } else {
    std::printf("Period: no timed line\n");
  }
  if (s.window.Limited()) {
    std::printf("Shown: %s to %s\n", s.window.since_ms() ? (args.since).c_str() : "the start",
                s.window.until_ms() ? args.until.c_str() : "the end");
  }
  auto more = [](size_t dropped) {
    if (dropped) std::printf("  ... and %s more (narrow the period with --since and --until)\n", Count(dropped).c_str());
  };
  auto marks_of = [&s](std::initializer_list<Kind> kinds) {
    std::vector<const Summary::Mark*> found;
    for (const Summary::Mark& m : s.marks.items) {
      for (Kind k : kinds) if (m.kind == k) found.push_back(&m);
    }
    return found;
  };

  if (!args.errors) {
    std::printf("\nService runs: %s\n", Count(s.runs.total()).c_str());
    for (const Summary::Run& run : s.runs.items) {
      const int64_t ms = run.Ms();
      std::printf("  %-18s  to  %-18s  %-12s  %s\n",
                  run.start ? PointText(run.start, y).c_str() : "(before the log)",
                  PointText(run.end, y).c_str(), ms >= 0 ? logread::LengthText(ms).c_str() : "?",
                  EndText(run.how));
    }
    more(s.runs.dropped);

    const size_t arrivals = s.counts[static_cast<int>(Kind::kModemArrival)];
    const size_t removals = s.counts[static_cast<int>(Kind::kModemRemoval)];
    std::printf("\nModem: %s, %s\n", Plural(arrivals, "arrival", "arrivals").c_str(),
                Plural(removals, "removal", "removals").c_str());
    for (const auto* m : marks_of({Kind::kModemArrival, Kind::kModemRemoval})) {
      std::printf("  %-18s  %s\n", TimeText(m->at.time, y).c_str(),
                  m->kind == Kind::kModemArrival ? "arrival" : "removal");
    }

    std::printf("\nSIMs: %s\n", Count(s.sims.size() + s.sims_dropped).c_str());
    for (const Summary::Sim& sim : s.sims) {
      std::string name = "home provider " + Shown(sim.mccmnc);
      if (!sim.iccid.empty()) name = "ICCID " + Shown(sim.iccid) + ", " + name;
      std::printf("  %s: read %s, first %s, last %s\n", name.c_str(), Plural(sim.count, "time", "times").c_str(),
                  TimeText(sim.first.time, y).c_str(), TimeText(sim.last.time, y).c_str());
    }
  }

  size_t error_lines = s.other_errors;
  for (const Summary::Error& e : s.errors) error_lines += e.count;
  std::printf("%sErrors: %s, %s\n", args.errors ? "" : "\n",
              Plural(s.errors.size(), "text", "texts").c_str(), Plural(error_lines, "line", "lines").c_str());
  for (const Summary::Error& e : s.errors) {
    std::printf("  %6s  %s .. %s  %s  (first at %s:%zu)\n", Count(e.count).c_str(),
                TimeText(e.first.time, y).c_str(), TimeText(e.last.time, y).c_str(), Shown(e.text).c_str(),
                Shown(input.files[e.first.file]).c_str(), e.first.line);
  }
  if (s.other_errors) {
    std::printf("  %6s  lines of further texts (only the first %zu texts are told apart)\n",
                Count(s.other_errors).c_str(), Summary::kMaxErrorTexts);
  }
  if (args.errors) return;

  const size_t suspends = s.counts[static_cast<int>(Kind::kSuspend)];
  const size_t resumes = s.counts[static_cast<int>(Kind::kResume)];
  std::printf("\nSuspend and resume: %s, %s\n", Plural(suspends, "suspend", "suspends").c_str(),
              Plural(resumes, "resume", "resumes").c_str());
  const Summary::Mark* asleep = nullptr;
  for (const auto* m : marks_of({Kind::kSuspend, Kind::kResume})) {
    std::string after;
    if (m->kind == Kind::kResume && asleep != nullptr) {
      after = "  (after " + logread::LengthText(m->at.time.Ms() - asleep->at.time.Ms()) + ")";
    }
    asleep = m->kind == Kind::kSuspend ? m : nullptr;
    std::printf("  %-18s  %s%s\n", TimeText(m->at.time, y).c_str(), m->kind == Kind::kSuspend ? "suspend" : "resume",
                after.c_str());
  }
  for (Kind kind : {Kind::kRegistryChange, Kind::kLogReopen}) {
    const auto found = marks_of({kind});
    std::printf("\n%s: %s", kind == Kind::kRegistryChange ? "Registry changes" : "Log reopens",
                Count(s.counts[static_cast<int>(kind)]).c_str());
    if (!found.empty()) {
      std::printf(" (first %s, last %s)", TimeText(found.front()->at.time, y).c_str(),
                  TimeText(found.back()->at.time, y).c_str());
    }
    std::printf("\n");
  }
  more(s.marks.dropped);
}

nlohmann::json SummaryJson(const LogArgs& args, const Input& input, const Reading& reading) {
  const Summary& s = reading.summary();
  const HappeningReader& r = reading.reader();
  const int y = args.year;
  nlohmann::json files = nlohmann::json::array();
  for (size_t i = 0; i < input.files.size(); ++i) {
    files.push_back({{"file", Text(input.files[i])}, {"bytes", input.bytes[i]}});
  }
  nlohmann::json summary = {
      {"files", files},
      {"records", r.records()},
      {"unreadable_lines", r.unreadable_lines()},
      {"first", TimeJson(r.first(), y)},
      {"last", TimeJson(r.last(), y)},
  };
  if (args.year) summary["year"] = args.year;
  if (!args.since.empty()) summary["since"] = args.since;
  if (!args.until.empty()) summary["until"] = args.until;
  nlohmann::json errors = nlohmann::json::array();
  for (const Summary::Error& e : s.errors) {
    errors.push_back({{"text", Text(e.text)},
                      {"count", e.count},
                      {"first", TimeJson(e.first.time, y)},
                      {"last", TimeJson(e.last.time, y)},
                      {"file", Text(input.files[e.first.file])},
                      {"line", e.first.line}});
  }
  summary["errors"] = errors;
  summary["other_error_lines"] = s.other_errors;
  if (args.errors) return {{"summary", summary}};

  nlohmann::json counts = nlohmann::json::object();
  for (int k = 0; k < logread::kKindCount; ++k) counts[logread::KindName(static_cast<Kind>(k))] = s.counts[k];
  summary["counts"] = counts;
  nlohmann::json runs = nlohmann::json::array();
  for (const Summary::Run& run : s.runs.items) {
    const int64_t ms = run.Ms();
    runs.push_back({{"start", PointJson(run.start, y)},
                    {"end", PointJson(run.end, y)},
                    {"ended", EndName(run.how)},
                    {"seconds", ms >= 0 ? nlohmann::json(ms / 1000.0) : nlohmann::json(nullptr)}});
  }
  summary["runs"] = runs;
  summary["runs_not_listed"] = s.runs.dropped;
  nlohmann::json sims = nlohmann::json::array();
  for (const Summary::Sim& sim : s.sims) {
    nlohmann::json one = {{"mccmnc", Text(sim.mccmnc)},
                          {"count", sim.count},
                          {"first", TimeJson(sim.first.time, y)},
                          {"last", TimeJson(sim.last.time, y)}};
    if (!sim.iccid.empty()) one["iccid"] = Text(sim.iccid);
    sims.push_back(one);
  }
  summary["sims"] = sims;
  return {{"summary", summary}};
}

// The default input: the backup, when there is one, then the log (which a
// rotation leaves missing until the service writes its next line).
std::vector<std::string> DefaultFiles() {
  const std::string backup = std::string(kServiceLog) + "bk";
  std::vector<std::string> files;
  if (::GetFileAttributesA(backup.c_str()) != INVALID_FILE_ATTRIBUTES) files.push_back(backup);
  if (files.empty() || ::GetFileAttributesA(kServiceLog) != INVALID_FILE_ATTRIBUTES) files.push_back(kServiceLog);
  return files;
}

int Log(const Common& common, const LogArgs& args) {
  std::optional<logread::ClockTime> since, until;
  for (const auto& [option, text, target] :
       {std::tuple<const char*, const std::string&, std::optional<logread::ClockTime>*>{"--since", args.since, &since},
        {"--until", args.until, &until}}) {
    if (text.empty()) continue;
    *target = logread::ParseClockTime(text);
    if (!*target) {
      return Fail(common, kUsageError,
                  std::string("log: ") + option + " " + text + ": not a time of the log's form MM-DD or \"MM-DD HH:MM\"");
    }
  }
  Input input;
  input.files = args.files.empty() ? DefaultFiles() : args.files;
  // Every file is checked before anything is printed.
  for (const std::string& file : input.files) {
    bool missing = false;
    std::string problem = FileProblem(file, "log", &missing);
    if (problem == file + ": is empty") problem.clear();  // an empty log is read as one
    if (!problem.empty()) return Fail(common, kUsageError, "log: " + problem);
  }
  if (!args.html.empty()) {
    const DWORD attributes = ::GetFileAttributesA(args.html.c_str());
    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY)) {
      return Fail(common, kUsageError, "log: --html " + args.html + ": is a folder, not a file");
    }
  }

  Reading reading(args, common, input.files, logread::Window(since, until));
  int status = kOk;
  for (size_t i = 0; i < input.files.size(); ++i) {
    input.bytes.push_back(0);
    if (!reading.ReadFile(i, input.files[i], &input.bytes.back(), &input.failure)) {
      std::fprintf(stderr, "dorvanectl: log: %s\n", input.failure.c_str());
      status = kUsageError;
      break;
    }
  }
  reading.End();
  while (input.bytes.size() < input.files.size()) input.bytes.push_back(0);

  if (!args.html.empty()) {
    logread::HtmlInput page;
    page.files = input.files;
    page.year = args.year;
    page.errors_only = args.errors;
    page.records = reading.reader().records();
    page.unreadable_lines = reading.reader().unreadable_lines();
    page.first = reading.reader().first();
    page.last = reading.reader().last();
    const std::string html = logread::RenderHtml(reading.summary(), page);
    UniqueHandle out(::CreateFileA(args.html.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                   FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD written = 0;
    if (!out || !::WriteFile(out.get(), html.data(), static_cast<DWORD>(html.size()), &written, nullptr) ||
        written != html.size()) {
      const std::string failure = "log: --html " + args.html + ": cannot be written: " + SystemText(::GetLastError());
      if (common.json) PrintJson(SummaryJson(args, input, reading));
      return Fail(common, kFailed, failure);
    }
  }
  if (common.json) {
    nlohmann::json summary = SummaryJson(args, input, reading);
    if (!input.failure.empty()) summary["summary"]["error"] = Text(input.failure);
    PrintJson(summary);
  } else {
    PrintText(args, input, reading);
  }
  std::fflush(stdout);
  return status;
}

}  // namespace

void AddLogCommand(CLI::App& app, Common& common) {
  auto args = std::make_shared<LogArgs>();
  CLI::App* sub = app.add_subcommand(
      "log",
      "read the service's log and tell what happened: the service's runs, the modem leaving and "
      "coming back, the SIMs read, the failures grouped by text, suspends and resumes, registry "
      "changes. Without FILE, reads C:\\Windows\\WWAN\\DorvaneBin\\Dorvane.logbk (when there is "
      "one) and then Dorvane.log. With --json, one object per happening (service-start, "
      "service-stop, modem-arrival, modem-removal, sim, registry-change, suspend, resume, "
      "log-reopen, error) and then {\"summary\": {...}}, for a log collector. The log has no year: "
      "a month lower than the one before starts the next year. Exit status 0 when the files were "
      "read, 2 when one cannot be");
  sub->add_option("file", args->files, "the log files in the order they were written (the backup "
                                       "Dorvane.logbk before Dorvane.log)");
  sub->add_option("--since", args->since, "only from this time on: MM-DD or \"MM-DD HH:MM\"");
  sub->add_option("--until", args->until, "only up to this time (to the end of the day or minute "
                                          "given): MM-DD or \"MM-DD HH:MM\"");
  sub->add_flag("--errors", args->errors, "only the failures");
  sub->add_option("--html", args->html, "also write a page with a timeline and the summary to this file");
  sub->add_option("--year", args->year, "the calendar year of the first line, to print times as "
                                        "YYYY-MM-DDThh:mm:ss.mmm")
      ->check(CLI::Range(1970, 9999));
  sub->callback([&common, args] {
    try {
      common.exit_code = Log(common, *args);
    } catch (const std::exception& e) {
      common.exit_code = Fail(common, kUsageError, std::string("log: cannot read the log: ") + e.what());
    }
  });
}

}  // namespace dorvane::ctl
