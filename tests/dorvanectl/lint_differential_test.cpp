// Holds `dorvanectl lint` to what the lookups really do. Seeded random tables
// of every kind (table_generator.h) are linted, written where their lookups
// read them, and asked by the library lookups themselves: with every entry's
// own key and a case or blank variant of it, the keys of misnamed entries,
// "default", the empty key, keys the table does not hold, and ICCIDs around
// every range's bounds. Each answer carries the line of the element that gave
// it, and each call's log lines are caught as the logger writes them. Then:
//
//   (a) nothing that lint calls never used (an `unused` finding) answers any
//       call, nor does anything inside it;
//   (b) every entry that lint is silent about answers for its own key, unless
//       a warning or an error stands on its line, an ancestor's line, or the
//       line of a sibling of an ancestor. An ICCID range's own key is its min
//       (or, when min does not fall in the range, any ICCID asked that does);
//       a "default" row answers for any key; selection-rule-by-mcc answers
//       false for every key, so its entries are not judged;
//   (c) every log line that a finding says a lookup logs is logged by that
//       lookup on at least one of the calls made;
//   (d) `unused` findings are errors that say "never".
//
// getEsimDisableType answers a number, not an entry: for (a), an element is
// used when taking its keys away (SKUValue, MCCMNCValue renamed) changes an
// answer; for (b), its own key must give the list's answer.
//
// GetParamFirmwareBySku does not return for keys that are not under the first
// SKU_GUID, so none of its calls runs on the test's thread. A call that lint
// says never returns gets a thread of its own, which is never ended from
// outside (that could leave a lock taken) and must still be waiting when
// the test ends; the others run on worker threads, and one that lint is
// silent about must return within 10 s.
//
// DORVANE_LINT_SEED sets the seed (printed always), DORVANE_LINT_TABLES the
// number of tables of each kind (default 200; the kinds whose lookups neither
// log nor touch the registry run twice as many), DORVANE_LINT_ONLY=N runs
// table N alone and DORVANE_LINT_VERBOSE=1 prints every table with its
// findings and calls.
#include <windows.h>

#include <gtest/gtest.h>
#include <tinyxml2.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "config/carrier_rules.h"
#include "config/device_config.h"
#include "config/esim_region.h"
#include "config/firmware_info.h"
#include "config/scatter.h"
#include "log/logger.h"
#include "support/log_reader.h"
#include "tests/dorvanectl/table_generator.h"
#include "tools/dorvanectl/lint.h"
#include "util/registry.h"

namespace dorvane::lint {
namespace {

namespace gen = dorvane::lint::testing;
namespace support = dorvane::testing;
using gen::Lookup;
using tinyxml2::XMLElement;

// What an output holds before a lookup runs: a lookup that leaves it so
// answered nothing.
const char kUnset[] = "\x01unset";
// An update-scatter selection that holds no flag's text.
const char kNoFlag[] = ";-;";
// How long a call that lint is silent about may take, and one that lint says
// something else about before it counts as waiting.
constexpr ULONGLONG kReturnMs = 10000;
constexpr ULONGLONG kOtherMs = 1000;
// Threads left waiting on purpose; calls that lint speaks of otherwise that
// may be waiting (an entry lint calls never read, asked for all the same);
// calls in flight at most.
constexpr int kMaxNeverCalls = 250;
constexpr int kMaxOtherWaiting = 150;
constexpr int kMaxWaiting = 500;
// Distinct violations printed in full.
constexpr size_t kPrinted = 20;

// ---------------------------------------------------------------------------
// The log lines of one call, as the logger writes them.

std::vector<std::string>* g_capture = nullptr;

void Capture(const char* line, size_t length) {
  if (g_capture == nullptr) return;
  std::string text(line, length);
  // "<tag> MM-DD hh:mm:ss:mmm: message\n"
  const size_t from = (text.rfind("[WARNING] ", 0) == 0 ? 10 : 8) + 21;
  std::string message = text.size() >= from ? text.substr(from) : text;
  if (!message.empty() && message.back() == '\n') message.pop_back();
  g_capture->push_back(message);
}

// ---------------------------------------------------------------------------
// Reading lint's messages.

// The quoted text that starts at message[at] (a '"'), with lint's escapes
// undone; `end` is set past its closing quote.
bool Unquote(const std::string& message, size_t at, std::string& text, size_t& end) {
  if (at >= message.size() || message[at] != '"') return false;
  text.clear();
  for (size_t i = at + 1; i < message.size(); ++i) {
    const char c = message[i];
    if (c == '"') {
      end = i + 1;
      return true;
    }
    if (c != '\\' || i + 1 >= message.size()) {
      text += c;
      continue;
    }
    const char e = message[++i];
    if (e == 'n') text += '\n';
    else if (e == 'r') text += '\r';
    else if (e == 't') text += '\t';
    else if (e == 'x' && i + 2 < message.size()) {
      text += static_cast<char>(std::strtol(message.substr(i + 1, 2).c_str(), nullptr, 16));
      i += 2;
    } else {
      text += e;
    }
  }
  return false;
}

// The quoted texts of a list written "a", "b" and "c", from message[at].
std::vector<std::string> QuotedList(const std::string& message, size_t at) {
  std::vector<std::string> items;
  std::string text;
  size_t end = at;
  while (Unquote(message, at, text, end)) {
    items.push_back(text);
    if (message.compare(end, 3, ", \"") == 0) at = end + 2;
    else if (message.compare(end, 6, " and \"") == 0) at = end + 5;
    else break;
  }
  return items;
}

const std::vector<std::string>& Commands() {
  static const std::vector<std::string> commands = [] {
    std::set<std::string> names;
    for (int l = 0; l <= static_cast<int>(Lookup::kUpdateScatter); ++l) names.insert(gen::CommandOf(static_cast<Lookup>(l)));
    return std::vector<std::string>(names.begin(), names.end());
  }();
  return commands;
}

bool NamePart(char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '-'; }

// The command named last before message[at], as a whole word.
std::string CommandBefore(const std::string& message, size_t at) {
  std::string best;
  size_t best_at = 0;
  for (const std::string& name : Commands()) {
    for (size_t p = message.find(name); p != std::string::npos && p < at; p = message.find(name, p + 1)) {
      const size_t after = p + name.size();
      if ((p > 0 && NamePart(message[p - 1])) || (after < message.size() && NamePart(message[after]))) continue;
      if (best.empty() || p > best_at || (p == best_at && name.size() > best.size())) {
        best = name;
        best_at = p;
      }
    }
  }
  return best;
}

// "... <command> ... logs "a" and "b"": the lines a finding says a lookup logs.
struct LogClaim {
  std::string command;
  std::vector<std::string> lines;
};

std::vector<LogClaim> LogClaims(const std::string& message) {
  std::vector<LogClaim> claims;
  for (size_t at = message.find("logs \""); at != std::string::npos; at = message.find("logs \"", at + 1)) {
    LogClaim claim{CommandBefore(message, at), QuotedList(message, at + 5)};
    if (!claim.lines.empty()) claims.push_back(claim);
  }
  return claims;
}

// The calls of param-firmware-by-sku that a finding says never return.
struct HangClaim {
  bool all = false;           // whatever it is asked
  std::optional<std::string> sku;
  bool any_area = false;
  std::set<std::string> areas;
  bool Covers(const std::string& s, const std::string& a) const {
    return all || (sku && *sku == s && (any_area || areas.count(a) > 0));
  }
};

std::optional<HangClaim> ParseHangClaim(const Finding& f, const std::map<int, const XMLElement*>& at) {
  const std::string& m = f.message;
  if (m.find("param-firmware-by-sku") == std::string::npos) return std::nullopt;
  const size_t never = m.find("never returns");
  if (never == std::string::npos) return std::nullopt;
  HangClaim h;
  if (m.find("whatever it is asked", never) != std::string::npos) {
    h.all = true;
    return h;
  }
  const std::string lead = "never returns for ";
  size_t p = m.find(lead, never);
  if (p == std::string::npos) return std::nullopt;
  p += lead.size();
  if (m.compare(p, 5, "SKU \"") == 0) {
    std::string sku;
    size_t end = 0;
    if (!Unquote(m, p + 4, sku, end)) return std::nullopt;
    h.sku = sku;
    h.any_area = true;
    return h;
  }
  if (m.compare(p, 4, "its ") == 0) {
    auto element = at.find(f.line);
    if (element == at.end() || element->second->Attribute("ID") == nullptr) return std::nullopt;
    h.sku = element->second->Attribute("ID");
    const size_t quote = m.find('"', p);
    if (quote == std::string::npos) return std::nullopt;
    for (const std::string& a : QuotedList(m, quote)) h.areas.insert(a);
    return h;
  }
  return std::nullopt;
}

// A message with its quoted texts, numbers and keys blanked and its blanks
// run together: one shape for many tables.
std::string Shape(const std::string& message) {
  std::string out;
  for (size_t i = 0; i < message.size(); ++i) {
    std::string text;
    size_t end = 0;
    if (message[i] == '"' && Unquote(message, i, text, end)) {
      out += "\"...\"";
      i = end - 1;
    } else if (std::isdigit(static_cast<unsigned char>(message[i]))) {
      if (out.empty() || out.back() != '#') out += '#';
    } else if (message[i] != ' ' || (!out.empty() && out.back() != ' ')) {
      out += message[i];
    }
  }
  // Unquoted keys (a configuration id after its command): words with a '-'
  // and a capital letter.
  std::string shaped, word;
  auto flush = [&] {
    const bool key = word.find('-') != std::string::npos &&
                     std::any_of(word.begin(), word.end(), [](char c) { return std::isupper(static_cast<unsigned char>(c)); });
    shaped += key ? "..." : word;
    word.clear();
  };
  for (char c : out) {
    if (c == ' ') {
      flush();
      shaped += c;
    } else {
      word += c;
    }
  }
  flush();
  return shaped;
}

// ---------------------------------------------------------------------------
// One table, its findings and the calls made on it.

struct Call {
  Lookup lookup = Lookup::kCarrierIdByMccmnc;
  std::string a, b;                     // the keys in the library's order
  bool a_null = false, b_null = false;  // eSIM: the argument left out
  int slot = -1;                        // device-config: the slot that holds the key
  int entry_line = 0;                   // param-firmware-by-sku: the entry asked for
  // What it did.
  bool ran = false;
  bool result = false;
  DWORD number = 0;
  std::string answer;
  std::set<int> lines;                  // the answer's marks (update-scatter: the flags rewritten)
  std::map<int, std::string> flags;     // update-scatter: each flag's text after the call
  std::vector<std::string> log;
  std::string status;                   // param-firmware-by-sku: how its thread stands
};

struct TableRun {
  int index = 0;
  gen::GeneratedTable table;
  FileResult lint;
  std::string path;
  tinyxml2::XMLDocument doc{true, tinyxml2::PRESERVE_WHITESPACE};
  std::map<int, const XMLElement*> at;  // the elements by line
  std::set<int> spoken;                 // lines with a warning or an error
  std::vector<Call> calls;
};

const XMLElement* ParentOf(const XMLElement* e) {
  const tinyxml2::XMLNode* p = e->Parent();
  return p == nullptr ? nullptr : p->ToElement();
}

// True when the element at `line` is the one at `outer` or lies inside it.
bool Within(const TableRun& run, int line, int outer) {
  auto it = run.at.find(line);
  if (it == run.at.end()) return line == outer;
  for (const XMLElement* e = it->second; e != nullptr; e = ParentOf(e)) {
    if (e->GetLineNum() == outer) return true;
  }
  return false;
}

// A warning or an error on the element's line, an ancestor's, or a sibling's of an ancestor.
bool Excused(const TableRun& run, int line) {
  if (run.spoken.count(line) > 0) return true;
  auto it = run.at.find(line);
  if (it == run.at.end()) return false;
  for (const XMLElement* a = ParentOf(it->second); a != nullptr; a = ParentOf(a)) {
    for (const XMLElement* s = a->Parent()->FirstChildElement(); s != nullptr; s = s->NextSiblingElement()) {
      if (run.spoken.count(s->GetLineNum()) > 0) return true;
    }
  }
  return false;
}

std::string Name(const TableRun& run, int line) {
  auto it = run.at.find(line);
  return it == run.at.end() ? "?" : it->second->Name();
}

std::string Shown(const std::string& text) {
  std::string out = "\"";
  for (char c : text) {
    if (c == '\n') out += "\\n";
    else if (c == '\t') out += "\\t";
    else if (c == '\x01') out += "\\x01";
    else out += c;
  }
  return out + "\"";
}

std::string Arguments(const Call& c) {
  switch (c.lookup) {
    case Lookup::kFwPackageInfo: return "(path)";
    case Lookup::kParamFirmwareBySku:
    case Lookup::kCfgPkInfo: return Shown(c.a) + " " + Shown(c.b);
    case Lookup::kEsimBySku:
    case Lookup::kEsimByImsi:
      return std::string("--sku ") + (c.a_null ? "(none)" : Shown(c.a)) + " --imsi " + (c.b_null ? "(none)" : Shown(c.b));
    case Lookup::kDeviceConfigId:
      return c.slot < 0 ? "(no registry value set)" : Shown(c.a) + " in slot " + std::to_string(c.slot);
    default: return Shown(c.a);
  }
}

std::string Describe(const TableRun& run, const Call& c) {
  std::string s = std::string(gen::CommandOf(c.lookup)) + " " + Arguments(c) + " -> ";
  if (!c.status.empty()) s += "[" + c.status + "] ";
  if (c.ran) {
    s += c.answer;
    if (!c.lines.empty()) {
      s += " (from line";
      for (int l : c.lines) s += " " + std::to_string(l) + ":" + Name(run, l);
      s += ")";
    }
  }
  if (!c.log.empty()) {
    s += "\n        log:";
    size_t n = 0;
    for (const std::string& l : c.log) {
      if (++n > 14) {
        s += " | ...";
        break;
      }
      s += " | " + Shown(l);
    }
  }
  return s;
}

// ---------------------------------------------------------------------------

std::string FirmwareAnswer(const CarrierFirmwareInfo& record, int first, int last, std::set<int>& lines) {
  std::string s;
  for (int f = first; f <= last; ++f) {
    const std::string& v = record.fields[static_cast<size_t>(f)];
    if (v == kUnset) continue;
    s += (s.empty() ? "" : " ") + std::to_string(f) + "=" + Shown(v);
    for (int l : gen::AnswerLines(v)) lines.insert(l);
  }
  return s;
}

CarrierFirmwareInfo UnsetRecord() {
  CarrierFirmwareInfo r;
  r.fields.fill(kUnset);
  return r;
}

struct SkuJob {
  std::string path, sku, area;
  CarrierFirmwareInfo record = UnsetRecord();
  bool result = false;
};

// A call that lint says never returns: a thread of its own, never ended.
DWORD WINAPI SkuThread(void* p) {
  auto* job = static_cast<SkuJob*>(p);
  job->result = GetParamFirmwareBySku(job->sku, job->area, job->path, job->record);
  return 0;
}

// The other calls: a thread that takes one call after another, as long as
// each returns (creating a thread costs milliseconds under Wine).
struct SkuWorker {
  HANDLE thread = nullptr;
  HANDLE go = ::CreateEventA(nullptr, FALSE, FALSE, nullptr);
  HANDLE done = ::CreateEventA(nullptr, FALSE, FALSE, nullptr);
  SkuJob* job = nullptr;  // null: leave
};

DWORD WINAPI SkuWorkerLoop(void* p) {
  auto* w = static_cast<SkuWorker*>(p);
  for (;;) {
    ::WaitForSingleObject(w->go, INFINITE);
    if (w->job == nullptr) return 0;
    SkuThread(w->job);
    ::SetEvent(w->done);
  }
}

// Small stacks: the lookup needs little, and some threads stay for good.
constexpr SIZE_T kSkuStack = 128 * 1024;

enum class SkuCategory { kSilent, kNever, kOther };

struct PendingSku {
  HANDLE thread = nullptr;      // its own thread, or
  SkuWorker* worker = nullptr;  // the worker that runs it
  SkuJob* job = nullptr;
  std::shared_ptr<TableRun> run;
  size_t call = 0;
  SkuCategory category = SkuCategory::kOther;
  ULONGLONG started = 0;
  bool finished = false;
};

uint64_t EnvNumber(const char* name, uint64_t fallback) {
  const char* v = std::getenv(name);
  return v == nullptr || *v == '\0' ? fallback : std::strtoull(v, nullptr, 0);
}

class LintDifferential : public support::LogFixture {
 protected:
  void SetUp() override {
    LogFixture::SetUp();
    Logger::GetInstance()->SetMirror(Capture);
    for (const char* folder : {"C:\\Windows\\WWAN", "C:\\Windows\\WWAN\\FwSwitchBin", kFlashDataFolder,
                               "C:\\Windows\\WWAN\\FwSwitchBin\\SarAntData"}) {
      ::CreateDirectoryA(folder, nullptr);
    }
    fixed_paths_ = ::CreateMutexA(nullptr, FALSE, "DorvaneLintDifferentialFixedPaths");
    ASSERT_NE(nullptr, fixed_paths_);
    image_path_ = std::string(kFwSwitchBinFolder) + kSarAntDataFolder + "\\" + kImageMappingTableName;
    scatter_path_ = std::string(kFlashDataFolder) + "\\" + kScatterName;
    // A key of this process's own: two runs at once must not share values.
    registry_root_ = "SOFTWARE\\DorvaneLintDifferential\\" + std::to_string(::GetCurrentProcessId());
    for (int i = 0; i < gen::kRegistryKeys; ++i) {
      HKEY key = nullptr;
      const std::string path = registry_root_ + "\\P" + std::to_string(i);
      ASSERT_EQ(ERROR_SUCCESS, ::RegCreateKeyExA(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, 0,
                                                 KEY_ALL_ACCESS | KEY_WOW64_32KEY, nullptr, &key, nullptr));
      ::RegCloseKey(key);
    }
  }

  void TearDown() override {
    Logger::GetInstance()->SetMirror(nullptr);
    ::WaitForSingleObject(fixed_paths_, INFINITE);
    ::DeleteFileA(image_path_.c_str());
    ::DeleteFileA(scatter_path_.c_str());
    ::ReleaseMutex(fixed_paths_);
    ::CloseHandle(fixed_paths_);
    for (int i = 0; i < gen::kRegistryKeys; ++i) {
      const std::string path = registry_root_ + "\\P" + std::to_string(i);
      ::RegDeleteKeyExA(HKEY_LOCAL_MACHINE, path.c_str(), KEY_WOW64_32KEY, 0);
    }
    ::RegDeleteKeyExA(HKEY_LOCAL_MACHINE, registry_root_.c_str(), KEY_WOW64_32KEY, 0);
    ::RegDeleteKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\DorvaneLintDifferential", KEY_WOW64_32KEY, 0);
    for (const std::string& f : files_) ::DeleteFileA(f.c_str());
  }

  void Run(Kind kind);
  // Lints nothing: holds the run's findings against the lookups.
  void Examine(const std::shared_ptr<TableRun>& run, std::mt19937& rng);
  // The violations found in the findings `lint` gives for `xml` (entries as
  // listed), printed or not; SKU calls are settled at once.
  int ViolationsOf(Kind kind, const std::string& xml, const std::vector<gen::Entry>& entries,
                   const std::vector<Finding>& findings);

 private:
  // Setting up and running calls.
  void Write(TableRun& run);
  void PlanCalls(TableRun& run, std::mt19937& rng);
  void Execute(TableRun& run, Call& call);
  void SetRegistry(const TableRun& run, int slot, const std::string& value);
  void StartSkuCalls(const std::shared_ptr<TableRun>& run);
  void PollSku(bool final_wait);
  void Finish(PendingSku& p);
  // The checks.
  void CheckFindings(TableRun& run);
  void CheckUnused(TableRun& run);
  void CheckSilent(TableRun& run);
  void CheckEsimUnused(TableRun& run, const Finding& f);
  void CheckNeverReturned();
  // Reporting.
  void Violation(const TableRun& run, const std::string& check, const std::string& shape, const std::string& what);
  std::string Context(const TableRun& run) const;

  Kind kind_ = Kind::kCarrierRules;
  uint64_t seed_ = 0;
  std::string image_path_, scatter_path_, registry_root_;
  HANDLE fixed_paths_ = nullptr;  // a mutex for the fixed paths' tables
  std::vector<std::string> files_;
  std::map<std::string, std::string> registry_now_;  // "key\nvalue" -> value set, for the calls' slots
  std::vector<PendingSku> pending_;
  std::vector<size_t> active_;  // pending calls still looked at
  std::vector<SkuWorker*> idle_;
  std::vector<std::shared_ptr<TableRun>> sku_runs_;
  int never_calls_ = 0, skipped_sku_calls_ = 0, waiting_ = 0;
  int other_waiting_ = 0;  // calls lint speaks of, without saying they never return, still waiting
  int other_in_flight_ = 0;
  // Violations: by shape, how often, and the first of each in full.
  std::map<std::string, int> shapes_;
  std::vector<std::string> order_;
  int violations_ = 0;
  bool quiet_ = false;  // violations counted, not printed
  size_t calls_made_ = 0;
  // What was held against the lookups: log lines quoted, unused findings,
  // entries lint is silent about.
  size_t claims_checked_ = 0, unused_checked_ = 0, silent_checked_ = 0;
};

std::string LintDifferential::Context(const TableRun& run) const {
  std::string s = "  seed " + std::to_string(seed_) + ", kind " + KindName(kind_) + ", table " +
                  std::to_string(run.index) + " (DORVANE_LINT_SEED=" + std::to_string(seed_) +
                  " DORVANE_LINT_ONLY=" + std::to_string(run.index) + ")\n";
  s += "  table:\n" + gen::Numbered(run.table.xml);
  s += "  lint:\n";
  if (run.lint.findings.empty()) s += "    (no findings)\n";
  for (const Finding& f : run.lint.findings) {
    s += "    " + FormatLine("t.xml", f) + (f.unused ? "  [unused]" : "") + "\n";
  }
  if (!run.lint.problem.empty()) s += "    problem: " + run.lint.problem + "\n";
  s += "  calls:\n";
  size_t n = 0;
  for (const Call& c : run.calls) {
    if (++n > 90) {
      s += "    ... " + std::to_string(run.calls.size() - 90) + " more\n";
      break;
    }
    s += "    " + Describe(run, c) + "\n";
  }
  return s;
}

void LintDifferential::Violation(const TableRun& run, const std::string& check, const std::string& shape,
                                 const std::string& what) {
  ++violations_;
  const std::string key = check + " | " + KindName(kind_) + " | " + shape;
  if (shapes_[key]++ > 0) return;
  order_.push_back(key);
  if (order_.size() > kPrinted || quiet_) return;
  std::printf("\n=== VIOLATION %zu (%s) %s\n  %s\n%s", order_.size(), check.c_str(), KindName(kind_), what.c_str(),
              Context(run).c_str());
  std::fflush(stdout);
}

void LintDifferential::Write(TableRun& run) {
  switch (kind_) {
    case Kind::kImageMapping: run.path = image_path_; break;
    case Kind::kScatter: run.path = scatter_path_; break;
    case Kind::kSku: run.path = In("sku" + std::to_string(run.index) + ".xml"); break;
    default: run.path = In("t.xml");
  }
  support::WriteFileBytes(run.path, run.table.xml);
  if (std::find(files_.begin(), files_.end(), run.path) == files_.end()) files_.push_back(run.path);
}

// The key as written and one variant of it: in upper or lower case, without
// its blanks or with one more.
std::vector<std::string> Keyed(const std::string& key, std::mt19937& rng) {
  std::vector<std::string> variants;
  std::string upper = key, lower = key;
  for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (upper != key) variants.push_back(upper);
  if (lower != key) variants.push_back(lower);
  const size_t first = key.find_first_not_of(" \t"), last = key.find_last_not_of(" \t");
  if (first != std::string::npos && (first > 0 || last + 1 < key.size())) {
    variants.push_back(key.substr(first, last - first + 1));
  } else {
    variants.push_back(rng() % 2 ? " " + key : key + " ");
  }
  return {key, variants[rng() % variants.size()]};
}

void LintDifferential::PlanCalls(TableRun& run, std::mt19937& rng) {
  const gen::GeneratedTable& t = run.table;
  std::set<std::string> planned;
  auto add = [&](Call c) {
    const std::string id = std::to_string(static_cast<int>(c.lookup)) + "\n" + c.a + "\n" + c.b + "\n" +
                           (c.a_null ? "-" : "+") + (c.b_null ? "-" : "+") + std::to_string(c.slot) + "\n" +
                           std::to_string(c.entry_line);
    if (planned.insert(id).second) run.calls.push_back(c);
  };
  auto simple = [&](Lookup l, const std::string& key) {
    Call c;
    c.lookup = l;
    c.a = key;
    add(c);
  };
  // A few of the pairs of two lists.
  auto some = [&](size_t n, size_t count) {
    std::vector<size_t> picked;
    for (size_t i = 0; i < n; ++i) picked.push_back(i);
    std::shuffle(picked.begin(), picked.end(), rng);
    picked.resize(std::min(picked.size(), count));
    return picked;
  };
  std::vector<Lookup> lookups;
  switch (kind_) {
    case Kind::kCarrierRules:
      lookups = {Lookup::kCarrierIdByMccmnc, Lookup::kCarrierIdByMcc, Lookup::kSelectionRuleByMcc,
                 Lookup::kParamFirmwareByMcc};
      break;
    case Kind::kSelectionRules: lookups = {Lookup::kSelectionRuleByMcc}; break;
    case Kind::kCarrierFirmware: lookups = {Lookup::kCarrierFirmware}; break;
    case Kind::kCustomerModel: lookups = {Lookup::kOemFirmwareByModel}; break;
    case Kind::kPackageInfo: lookups = {Lookup::kPackageInfoFirmware}; break;
    case Kind::kRegion: lookups = {Lookup::kRegulatoryByMcc}; break;
    default: break;
  }
  // Lookups of one key: each entry's keys and a variant of each, keys the
  // table does not hold, "default" and the empty key.
  for (Lookup l : lookups) {
    for (const gen::Entry& e : t.entries) {
      if (e.lookup != l) continue;
      for (const auto& key : {e.key, e.stray_key}) {
        if (!key) continue;
        for (const std::string& v : Keyed(*key, rng)) simple(l, v);
      }
    }
    for (const std::string& k : t.other_keys) simple(l, k);
    simple(l, "default");
    simple(l, "");
  }
  switch (kind_) {
    case Kind::kCarrierRules:
      for (const std::string& iccid : t.iccids) simple(Lookup::kCarrierIdByIccid, iccid);
      simple(Lookup::kCarrierIdByIccid, "");
      break;
    case Kind::kFwPackageInfo: {
      Call c;
      c.lookup = Lookup::kFwPackageInfo;
      add(c);
      break;
    }
    case Kind::kSku:
      // Only the entries' own keys: any other key makes the lookup wait for ever.
      for (const gen::Entry& e : t.entries) {
        if (!e.key || !e.key2) continue;
        Call c;
        c.lookup = Lookup::kParamFirmwareBySku;
        c.a = *e.key;
        c.b = *e.key2;
        c.entry_line = e.line;
        add(c);
      }
      break;
    case Kind::kDeviceConfig: {
      // Each key in each slot alone; its variant in one slot.
      const int slots = static_cast<int>(t.registry.size());
      auto in = [&](const std::string& key, int slot) {
        Call c;
        c.lookup = Lookup::kDeviceConfigId;
        c.a = key;
        c.slot = slot;
        add(c);
      };
      std::vector<std::string> keys = t.other_keys;
      keys.push_back("");
      for (const gen::Entry& e : t.entries) {
        for (const auto& key : {e.key, e.stray_key}) {
          if (!key) continue;
          const std::vector<std::string> both = Keyed(*key, rng);
          keys.push_back(both[0]);
          if (slots > 0) in(both[1], static_cast<int>(rng() % static_cast<unsigned>(slots)));
        }
      }
      for (const std::string& k : keys) {
        for (int s = 0; s < slots; ++s) in(k, s);
      }
      in("", -1);
      break;
    }
    case Kind::kImageMapping: {
      auto pair = [&](const std::string& id, const std::string& mcc) {
        Call c;
        c.lookup = Lookup::kCfgPkInfo;
        c.a = id;
        c.b = mcc;
        add(c);
      };
      for (const gen::Entry& e : t.entries) {
        if (!e.key) continue;
        for (const auto& value : {e.key2, e.stray_key}) {
          if (!value) continue;
          pair(*e.key, *value);
          if (rng() % 2) pair(Keyed(*e.key, rng)[1], *value);
          else pair(*e.key, Keyed(*value, rng)[1]);
        }
        pair(*e.key, "");
      }
      const size_t inner = t.other_inner_keys.size();
      for (size_t n : some(t.other_keys.size() * inner, 4)) pair(t.other_keys[n / inner], t.other_inner_keys[n % inner]);
      break;
    }
    case Kind::kEsim: {
      auto esim = [&](Lookup l, const std::optional<std::string>& sku, const std::optional<std::string>& imsi) {
        Call c;
        c.lookup = l;
        c.a_null = !sku;
        c.b_null = !imsi;
        c.a = sku.value_or("");
        c.b = imsi.value_or("");
        add(c);
      };
      const std::string other_sku = t.other_keys.empty() ? "X00-NONE" : t.other_keys.front();
      const std::string other_imsi = t.other_inner_keys.empty() ? "00000" : t.other_inner_keys.front();
      for (const gen::Entry& e : t.entries) {
        for (const auto& key : {e.key, e.stray_key}) {
          if (!key) continue;
          const std::vector<std::string> both = Keyed(*key, rng);
          if (e.lookup == Lookup::kEsimBySku) {
            esim(Lookup::kEsimBySku, both[0], std::nullopt);
            esim(Lookup::kEsimBySku, both[1], std::nullopt);
            esim(Lookup::kEsimBySku, both[0], other_imsi);
          } else {
            esim(Lookup::kEsimByImsi, std::nullopt, both[0]);
            esim(Lookup::kEsimByImsi, std::nullopt, both[1]);
            esim(Lookup::kEsimByImsi, other_sku, both[0]);
          }
        }
      }
      esim(Lookup::kEsimBySku, other_sku, std::nullopt);
      esim(Lookup::kEsimByImsi, std::nullopt, other_imsi);
      esim(Lookup::kEsimBySku, other_sku, other_imsi);
      esim(Lookup::kEsimBySku, std::nullopt, std::nullopt);
      break;
    }
    case Kind::kScatter:
      for (const gen::Entry& e : t.entries) simple(Lookup::kUpdateScatter, ";" + e.key.value_or("") + ";");
      simple(Lookup::kUpdateScatter, kNoFlag);
      simple(Lookup::kUpdateScatter, ";true;false;");
      break;
    default:
      break;
  }
}

void LintDifferential::SetRegistry(const TableRun& run, int slot, const std::string& value) {
  // Every slot's value is removed, then the chosen one is set: slots that
  // share a place then all read the key.
  std::map<std::string, std::optional<std::string>> wanted;
  for (int s = 0; s < static_cast<int>(run.table.registry.size()); ++s) {
    const gen::RegistrySlot& r = run.table.registry[static_cast<size_t>(s)];
    const std::string place = r.key_path + "\n" + r.value_name;
    if (s == slot) wanted[place] = value;
    else wanted.emplace(place, std::nullopt);
  }
  for (auto& [place, v] : wanted) {
    const size_t cut = place.find('\n');
    const std::string key = place.substr(0, cut), name = place.substr(cut + 1);
    auto now = registry_now_.find(place);
    if (v) {
      if (now != registry_now_.end() && now->second == *v) continue;
      ASSERT_EQ(0u, SetRegKeyValue(key, name, *v)) << key << "," << name << ": " << LastRegistryFailure().step;
      registry_now_[place] = *v;
    } else {
      if (now == registry_now_.end()) continue;
      HKEY h = nullptr;
      if (::RegOpenKeyExA(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_SET_VALUE | KEY_WOW64_32KEY, &h) == ERROR_SUCCESS) {
        ::RegDeleteValueA(h, name.c_str());
        ::RegCloseKey(h);
      }
      registry_now_.erase(now);
    }
  }
}

void LintDifferential::Execute(TableRun& run, Call& c) {
  if (c.lookup == Lookup::kDeviceConfigId) SetRegistry(run, c.slot, c.a);
  if (c.lookup == Lookup::kUpdateScatter) support::WriteFileBytes(run.path, run.table.xml);
  g_capture = &c.log;
  switch (c.lookup) {
    case Lookup::kCarrierIdByMccmnc:
    case Lookup::kCarrierIdByMcc:
    case Lookup::kCarrierIdByIccid: {
      std::string id = kUnset;
      c.result = c.lookup == Lookup::kCarrierIdByMccmnc ? GetCarrierIdByMccmnc(c.a, run.path, id)
                 : c.lookup == Lookup::kCarrierIdByMcc  ? GetCarrierIdByMcc(c.a, run.path, id)
                                                        : GetCarrierIdByIccid(c.a, run.path, id);
      if (id != kUnset) {
        c.answer = Shown(id);
        for (int l : gen::AnswerLines(id)) c.lines.insert(l);
      }
      break;
    }
    case Lookup::kSelectionRuleByMcc:
      c.result = GetSelectionRuleByMcc(c.a, run.path);
      break;
    case Lookup::kParamFirmwareByMcc: {
      CarrierFirmwareInfo r = UnsetRecord();
      c.result = GetParamFirmwareByMcc(c.a, run.path, r);
      c.answer = FirmwareAnswer(r, 19, 22, c.lines);
      break;
    }
    case Lookup::kCarrierFirmware: {
      CarrierFirmwareInfo r = UnsetRecord();
      c.result = GetCarrierFirmware(c.a, run.path, r);
      c.answer = FirmwareAnswer(r, 7, 18, c.lines);
      break;
    }
    case Lookup::kOemFirmwareByModel: {
      CarrierFirmwareInfo r = UnsetRecord();
      c.result = GetOemFirmwareByModel(c.a, run.path, r);
      c.answer = FirmwareAnswer(r, 19, 23, c.lines);
      break;
    }
    case Lookup::kPackageInfoFirmware: {
      PackageFirmwareInfo info;
      info.fields.fill(kUnset);
      c.result = GetPackageInfoFirmware(c.a, run.path, info);
      for (int f = PackageFirmwareInfo::kFirmwareFile; f <= PackageFirmwareInfo::kCustPackVersion; ++f) {
        const std::string& v = info.fields[static_cast<size_t>(f)];
        if (v == kUnset) continue;
        c.answer += (c.answer.empty() ? "" : " ") + std::to_string(f) + "=" + Shown(v);
        for (int l : gen::AnswerLines(v)) c.lines.insert(l);
      }
      break;
    }
    case Lookup::kFwPackageInfo: {
      FwPackageInfo package;
      c.result = GetFwPackageInfo(run.path, package);
      if (c.result) {
        c.answer = "ver " + Shown(package.GetPackageVer()) + " type " + Shown(package.GetPackageType());
        for (const std::string& v : {package.GetPackageVer(), package.GetPackageType()}) {
          for (int l : gen::AnswerLines(v)) c.lines.insert(l);
        }
        for (const CarrierFirmwareInfo& carrier : package.GetCarriers()) {
          c.answer += " carrier{";
          for (int f = 0; f <= 5; ++f) {
            const std::string& v = carrier.fields[static_cast<size_t>(f)];
            c.answer += (f ? " " : "") + Shown(v);
            if (f > 0) {
              for (int l : gen::AnswerLines(v)) c.lines.insert(l);
            }
          }
          c.answer += "}";
        }
      }
      break;
    }
    case Lookup::kDeviceConfigId: {
      std::string id = kUnset;
      c.result = getWwanDeviceConfigID(run.path, id);
      if (id != kUnset) {
        c.answer = Shown(id);
        for (int l : gen::AnswerLines(id)) c.lines.insert(l);
      }
      break;
    }
    case Lookup::kCfgPkInfo: {
      CfgPackageInfo info;
      info.texts.fill(kUnset);
      c.result = getCfgPkInfo(c.a, c.b, info);
      if (c.result) {
        for (int f = CfgPackageInfo::kFile; f <= CfgPackageInfo::kMcc; ++f) {
          const std::string& v = info.texts[static_cast<size_t>(f)];
          c.answer += (c.answer.empty() ? "" : " ") + Shown(v);
          if (f != CfgPackageInfo::kMcc) {
            for (int l : gen::AnswerLines(v)) c.lines.insert(l);
          }
        }
      }
      break;
    }
    case Lookup::kEsimBySku:
    case Lookup::kEsimByImsi: {
      c.number = getEsimDisableType(run.path, c.a_null ? nullptr : c.a.c_str(), c.b_null ? nullptr : c.b.c_str());
      char text[16];
      std::snprintf(text, sizeof text, "0x%lX", static_cast<unsigned long>(c.number));
      c.answer = text;
      break;
    }
    case Lookup::kRegulatoryByMcc: {
      std::string region = kUnset;
      c.number = getRegulatoryByMcc(run.path, c.a, region);
      c.answer = std::to_string(c.number) + (region == kUnset ? "" : " " + Shown(region));
      if (region != kUnset) {
        for (int l : gen::AnswerLines(region)) c.lines.insert(l);
      }
      break;
    }
    case Lookup::kUpdateScatter: {
      c.result = UpdateScatterDownloadFlags(c.a);
      tinyxml2::XMLDocument after(true, tinyxml2::PRESERVE_WHITESPACE);
      const std::string saved = support::ReadFileBytes(run.path);
      after.Parse(saved.data(), saved.size());
      std::vector<const XMLElement*> stack;
      if (after.RootElement()) stack.push_back(after.RootElement());
      while (!stack.empty()) {
        const XMLElement* e = stack.back();
        stack.pop_back();
        for (const XMLElement* k = e->FirstChildElement(); k; k = k->NextSiblingElement()) stack.push_back(k);
        if (std::strcmp(e->Name(), "is_download") != 0 || e->Attribute("n") == nullptr) continue;
        const std::vector<int> marks = gen::AnswerLines(e->Attribute("n"));
        if (marks.size() != 1) continue;
        const std::string text = e->GetText() ? e->GetText() : "";
        c.flags[marks[0]] = text;
        auto before = run.at.find(marks[0]);
        const std::string was = before == run.at.end() || !before->second->GetText() ? "" : before->second->GetText();
        if (text != was) c.lines.insert(marks[0]);
      }
      c.answer = c.result ? "true" : "false";
      for (int l : c.lines) c.answer += " " + std::to_string(l) + "=" + Shown(c.flags[l]);
      break;
    }
    case Lookup::kParamFirmwareBySku:
      break;  // on a thread of its own: StartSkuCalls
  }
  g_capture = nullptr;
  if (c.lookup != Lookup::kEsimBySku && c.lookup != Lookup::kEsimByImsi && c.lookup != Lookup::kRegulatoryByMcc &&
      c.lookup != Lookup::kUpdateScatter) {
    c.answer = std::string(c.result ? "true" : "false") + (c.answer.empty() ? "" : " " + c.answer);
  }
  c.ran = true;
  ++calls_made_;
}

// ---------------------------------------------------------------------------
// param-firmware-by-sku on threads.

void LintDifferential::StartSkuCalls(const std::shared_ptr<TableRun>& run) {
  std::vector<HangClaim> claims;
  for (const Finding& f : run->lint.findings) {
    if (auto h = ParseHangClaim(f, run->at)) claims.push_back(*h);
  }
  PollSku(false);
  for (size_t i = 0; i < run->calls.size(); ++i) {
    Call& c = run->calls[i];
    if (c.lookup != Lookup::kParamFirmwareBySku) continue;
    SkuCategory category = SkuCategory::kOther;
    if (!Excused(*run, c.entry_line)) {
      category = SkuCategory::kSilent;
    } else if (std::any_of(claims.begin(), claims.end(), [&](const HangClaim& h) { return h.Covers(c.a, c.b); })) {
      category = SkuCategory::kNever;
    }
    const bool room = waiting_ < kMaxWaiting && (category != SkuCategory::kNever || never_calls_ < kMaxNeverCalls) &&
                      (category != SkuCategory::kOther || other_in_flight_ < kMaxOtherWaiting);
    if (!room) {
      c.status = "not run: too many threads waiting";
      ++skipped_sku_calls_;
      continue;
    }
    auto* job = new SkuJob{run->path, c.a, c.b};
    HANDLE thread = nullptr;
    SkuWorker* worker = nullptr;
    if (category == SkuCategory::kNever) {
      thread = ::CreateThread(nullptr, kSkuStack, SkuThread, job, STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
      ASSERT_NE(nullptr, thread);
    } else {
      if (idle_.empty()) {
        worker = new SkuWorker;
        worker->thread =
            ::CreateThread(nullptr, kSkuStack, SkuWorkerLoop, worker, STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
        ASSERT_NE(nullptr, worker->thread);
      } else {
        worker = idle_.back();
        idle_.pop_back();
      }
      worker->job = job;
      ::SetEvent(worker->go);
    }
    if (category == SkuCategory::kNever) ++never_calls_;
    if (category == SkuCategory::kOther) ++other_in_flight_;
    ++waiting_;
    c.status = category == SkuCategory::kSilent ? "lint silent: must return"
               : category == SkuCategory::kNever ? "lint: never returns"
                                                 : "lint speaks of it";
    if (category != SkuCategory::kNever) active_.push_back(pending_.size());
    pending_.push_back({thread, worker, job, run, i, category, ::GetTickCount64(), false});
    ++calls_made_;
  }
}

void LintDifferential::Finish(PendingSku& p) {
  p.finished = true;
  --waiting_;
  if (p.category == SkuCategory::kOther) --other_in_flight_;
  Call& c = p.run->calls[p.call];
  c.ran = true;
  c.result = p.job->result;
  c.answer = std::string(c.result ? "true" : "false") + " " + FirmwareAnswer(p.job->record, 19, 22, c.lines);
  c.status += ", returned";
  if (p.worker != nullptr) {
    idle_.push_back(p.worker);
    p.worker = nullptr;
  } else {
    ::CloseHandle(p.thread);
    p.thread = nullptr;
  }
  delete p.job;
  p.job = nullptr;
}

// A call's thread or worker has returned from it.
bool Returned(const PendingSku& p, DWORD wait) {
  return ::WaitForSingleObject(p.worker != nullptr ? p.worker->done : p.thread, wait) == WAIT_OBJECT_0;
}

void LintDifferential::PollSku(bool final_wait) {
  // The calls that lint says never return are looked at only at the end; the
  // others until they return or their time is up.
  std::vector<size_t> still;
  for (size_t i : active_) {
    PendingSku& p = pending_[i];
    const ULONGLONG limit = p.category == SkuCategory::kSilent ? kReturnMs : kOtherMs;
    const ULONGLONG spent = ::GetTickCount64() - p.started;
    const DWORD wait = final_wait && spent < limit ? static_cast<DWORD>(limit - spent) : 0;
    if (Returned(p, wait)) {
      Finish(p);
    } else if (::GetTickCount64() - p.started < limit) {
      still.push_back(i);
    }
  }
  active_ = still;
}

void LintDifferential::CheckNeverReturned() {
  PollSku(true);
  for (PendingSku& p : pending_) {
    // A call that returns does so within milliseconds; one started just now
    // is given a second before it counts as waiting.
    const ULONGLONG spent = ::GetTickCount64() - p.started;
    if (!p.finished && Returned(p, spent >= kOtherMs ? 0 : static_cast<DWORD>(kOtherMs - spent))) Finish(p);
    Call& c = p.run->calls[p.call];
    if (p.finished) {
      if (p.category == SkuCategory::kNever) {
        Violation(*p.run, "never-returns", "a call lint says never returns returned",
                  "lint says param-firmware-by-sku never returns for " + Arguments(c) + ", yet it returned: " +
                      c.answer);
      }
      continue;
    }
    // The thread sleeps for ever, and its job with it.
    c.status += p.category == SkuCategory::kSilent ? ", still waiting after 10 s" : ", still waiting";
    if (p.category == SkuCategory::kOther) ++other_waiting_;
  }
  for (const auto& run : sku_runs_) {
    CheckUnused(*run);
    CheckSilent(*run);
  }
  // Workers that are free leave; the others sleep on in their calls.
  for (SkuWorker* w : idle_) {
    w->job = nullptr;
    ::SetEvent(w->go);
    ::WaitForSingleObject(w->thread, 5000);
    ::CloseHandle(w->thread);
    ::CloseHandle(w->go);
    ::CloseHandle(w->done);
    delete w;
  }
  idle_.clear();
}

// ---------------------------------------------------------------------------
// The checks.

void LintDifferential::CheckFindings(TableRun& run) {
  // (d) An unused finding is an error that says "never".
  for (const Finding& f : run.lint.findings) {
    if (f.unused && (f.severity != Severity::kError || f.message.find("never") == std::string::npos)) {
      Violation(run, "d", Shape(f.message), "an unused finding that is not an error saying \"never\": " +
                                                FormatLine("t.xml", f));
    }
  }
  // (c) Every log line that a finding quotes is logged by the lookup it names.
  std::map<std::string, std::set<std::string>> logged;
  std::set<std::string> asked;
  for (const Call& c : run.calls) {
    asked.insert(gen::CommandOf(c.lookup));
    logged[gen::CommandOf(c.lookup)].insert(c.log.begin(), c.log.end());
  }
  for (const Finding& f : run.lint.findings) {
    for (const LogClaim& claim : LogClaims(f.message)) {
      for (const std::string& line : claim.lines) {
        if (claim.command.empty()) {
          Violation(run, "c", Shape(f.message), "a finding quotes a log line without naming the lookup: " +
                                                    FormatLine("t.xml", f));
        } else if (asked.count(claim.command) == 0) {
          Violation(run, "c", Shape(f.message) + " | " + claim.command,
                    "a finding names " + claim.command + ", which does not read this kind of table: " +
                        FormatLine("t.xml", f));
        } else if (++claims_checked_, logged[claim.command].count(line) == 0) {
          Violation(run, "c", Shape(f.message) + " | " + line,
                    "lint says " + claim.command + " logs " + Shown(line) + ", but none of its " +
                        "calls on this table logged that line: " + FormatLine("t.xml", f));
        }
      }
    }
  }
}

void LintDifferential::CheckEsimUnused(TableRun& run, const Finding& f) {
  // getEsimDisableType answers a number, not an entry: an element is used
  // when taking its keys away changes an answer.
  auto it = run.at.find(f.line);
  if (it == run.at.end()) return;
  tinyxml2::XMLDocument copy(true, tinyxml2::PRESERVE_WHITESPACE);
  copy.Parse(run.table.xml.data(), run.table.xml.size());
  std::vector<XMLElement*> stack;
  if (copy.RootElement()) stack.push_back(copy.RootElement());
  bool changed = false;
  while (!stack.empty()) {
    XMLElement* e = stack.back();
    stack.pop_back();
    for (XMLElement* k = e->FirstChildElement(); k; k = k->NextSiblingElement()) stack.push_back(k);
    bool inside = false;
    for (const XMLElement* a = e; a; a = ParentOf(a)) inside = inside || a->GetLineNum() == f.line;
    if (!inside) continue;
    for (const char* name : {"SKUValue", "MCCMNCValue"}) {
      if (const char* v = e->Attribute(name)) {
        const std::string value = v;
        e->DeleteAttribute(name);
        e->SetAttribute((std::string("Off") + name).c_str(), value.c_str());
        changed = true;
      }
    }
  }
  if (!changed) return;
  tinyxml2::XMLPrinter printer;
  copy.Print(&printer);
  TableRun variant;
  variant.index = run.index;
  variant.table.xml = printer.CStr();
  variant.path = In("esim-off.xml");
  support::WriteFileBytes(variant.path, variant.table.xml);
  if (std::find(files_.begin(), files_.end(), variant.path) == files_.end()) files_.push_back(variant.path);
  for (const Call& c : run.calls) {
    // Taking keys away can only change an answer that a list gave.
    if (c.number != kEsimSkuBlackListed && c.number != kEsimImsiBlackListed) continue;
    Call again = c;
    again.log.clear();
    Execute(variant, again);
    if (again.number != c.number) {
      Violation(run, "a", Shape(f.message),
                "lint says line " + std::to_string(f.line) + " is never used, yet taking its keys away changes " +
                    "esim-disable-type " + Arguments(c) + " from " + c.answer + " to " + again.answer + ": " +
                    FormatLine("t.xml", f));
      return;
    }
  }
}

// (a) Nothing that lint calls never used answers a call.
void LintDifferential::CheckUnused(TableRun& run) {
  for (const Finding& f : run.lint.findings) {
    if (!f.unused) continue;
    ++unused_checked_;
    if (kind_ == Kind::kEsim) {
      CheckEsimUnused(run, f);
      continue;
    }
    bool reported = false;
    for (const Call& c : run.calls) {
      for (int line : c.lines) {
        if (reported || !Within(run, line, f.line)) continue;
        Violation(run, "a", Shape(f.message),
                  "lint says line " + std::to_string(f.line) + " is never used, yet " + gen::CommandOf(c.lookup) +
                      " " + Arguments(c) + " answers from line " + std::to_string(line) + ": " +
                      FormatLine("t.xml", f));
        reported = true;
      }
    }
  }
}

// The path of element names from below the root down to the element, with
// "#2" on an element that is not the first of its name among its siblings.
std::string Path(const TableRun& run, int line) {
  auto it = run.at.find(line);
  if (it == run.at.end()) return "?";
  std::vector<std::string> parts;
  for (const XMLElement* e = it->second; e && ParentOf(e); e = ParentOf(e)) {
    std::string part = e->Name();
    if (ParentOf(e)->FirstChildElement(e->Name()) != e) part += "#2";
    parts.push_back(part);
  }
  std::string path;
  for (auto p = parts.rbegin(); p != parts.rend(); ++p) path += (path.empty() ? "" : "/") + *p;
  return path;
}

// (b) Every entry that lint says nothing about answers for its own key.
void LintDifferential::CheckSilent(TableRun& run) {
  const gen::GeneratedTable& t = run.table;
  std::set<int> failed_entries;
  std::map<int, std::vector<const Call*>> own_calls;
  for (const gen::Entry& e : t.entries) {
    if (e.lookup == Lookup::kSelectionRuleByMcc) continue;  // always false: nothing to see
    std::vector<const Call*> own;
    for (const Call& c : run.calls) {
      if (!c.ran && c.lookup != Lookup::kParamFirmwareBySku) continue;
      bool mine = false;
      switch (e.lookup) {
        case Lookup::kCarrierIdByIccid:
          if (c.lookup == e.lookup && e.min && e.max) {
            mine = iccid::RangeMatches(*e.min, *e.min, *e.max) ? c.a == *e.min
                                                                 : iccid::RangeMatches(c.a, *e.min, *e.max);
          }
          break;
        case Lookup::kFwPackageInfo: mine = c.lookup == e.lookup; break;
        case Lookup::kParamFirmwareBySku: mine = c.lookup == e.lookup && c.entry_line == e.line; break;
        case Lookup::kCfgPkInfo: mine = c.lookup == e.lookup && e.key && e.key2 && c.a == *e.key && c.b == *e.key2; break;
        case Lookup::kEsimBySku: mine = c.lookup == e.lookup && e.key && !c.a_null && c.b_null && c.a == *e.key; break;
        case Lookup::kEsimByImsi: mine = c.lookup == e.lookup && e.key && c.a_null && !c.b_null && c.b == *e.key; break;
        case Lookup::kUpdateScatter: mine = c.lookup == e.lookup && (c.a == ";" + e.key.value_or("") + ";" || c.a == kNoFlag); break;
        default: mine = c.lookup == e.lookup && (e.fallback || (e.key && c.a == *e.key)); break;
      }
      if (mine) own.push_back(&c);
    }
    own_calls[e.line] = own;
    if (e.lookup == Lookup::kParamFirmwareBySku && !own.empty() && own.front()->status.rfind("not run", 0) == 0) {
      continue;  // no thread was left for it
    }
    bool answered = false;
    std::string seen;
    bool on = false, off = false;
    for (const Call* c : own) {
      seen += "\n    " + Describe(run, *c);
      if (e.lookup == Lookup::kEsimBySku) {
        answered = answered || c->number == kEsimSkuBlackListed;
      } else if (e.lookup == Lookup::kEsimByImsi) {
        answered = answered || c->number == kEsimImsiBlackListed;
      } else if (e.lookup == Lookup::kUpdateScatter) {
        // Rewritten to true by its own text, and to false by a selection without it.
        auto flag = c->flags.find(e.line);
        const std::string text = flag == c->flags.end() ? "?" : flag->second;
        if (c->a == kNoFlag) off = off || text == "false";
        else on = on || text == "true";
        answered = on && off;
      } else {
        for (int l : c->lines) answered = answered || Within(run, l, e.line);
      }
    }
    if (Excused(run, e.line)) continue;
    ++silent_checked_;
    if (answered) continue;
    failed_entries.insert(e.line);
    const std::string what = Name(run, e.line) + " at line " + std::to_string(e.line) +
                             (e.key ? " (key " + Shown(*e.key) + (e.key2 ? " " + Shown(*e.key2) : "") + ")" : " (no key)");
    std::string reason;
    if (own.empty() && e.lookup == Lookup::kDeviceConfigId && e.key) {
      reason = "no RegistryPath of the table names a value that the lookup reads, so no call can give it its key";
    } else if (own.empty()) reason = "there is no call with its own key: it has none";
    else if (e.lookup == Lookup::kParamFirmwareBySku && !own.front()->ran) reason = "param-firmware-by-sku never returned for it";
    else reason = "its own key does not give it";
    Violation(run, "b", Path(run, e.line) + (e.proper ? "" : " (misnamed)") + " | " + reason,
              "lint says nothing about " + what + ", yet " + reason + ":" + seen);
  }
  // Elements inside an entry whose marks the entry's answer carries.
  for (const gen::Holder& h : t.holders) {
    if (failed_entries.count(h.entry_line) > 0 || Excused(run, h.line)) continue;
    auto own = own_calls.find(h.entry_line);
    if (own == own_calls.end()) continue;
    bool entry_answered = false, answered = false;
    std::string seen;
    for (const Call* c : own->second) {
      seen += "\n    " + Describe(run, *c);
      for (int l : c->lines) {
        entry_answered = entry_answered || Within(run, l, h.entry_line);
        answered = answered || l == h.line;
      }
    }
    if (!entry_answered || answered) continue;
    Violation(run, "b", Path(run, h.line) + " | never copied",
              "lint says nothing about " + Name(run, h.line) + " at line " + std::to_string(h.line) + " in " +
                  Name(run, h.entry_line) + " at line " + std::to_string(h.entry_line) +
                  ", yet the entry's answers never come from it:" + seen);
  }
}

// ---------------------------------------------------------------------------

void LintDifferential::Examine(const std::shared_ptr<TableRun>& run, std::mt19937& rng) {
  if (run->doc.Parse(run->table.xml.data(), run->table.xml.size()) != tinyxml2::XML_SUCCESS) {
    ADD_FAILURE() << "the generated table does not parse:\n" << gen::Numbered(run->table.xml);
    return;
  }
  std::vector<const XMLElement*> stack;
  if (run->doc.RootElement()) stack.push_back(run->doc.RootElement());
  while (!stack.empty()) {
    const XMLElement* e = stack.back();
    stack.pop_back();
    run->at[e->GetLineNum()] = e;
    for (const XMLElement* k = e->FirstChildElement(); k; k = k->NextSiblingElement()) stack.push_back(k);
  }
  for (const Finding& f : run->lint.findings) {
    if (f.severity != Severity::kNote) run->spoken.insert(f.line);
  }
  // The installation's fixed paths are shared by every process in the
  // prefix: another run of this test waits while a table is there.
  const bool fixed_path = kind_ == Kind::kImageMapping || kind_ == Kind::kScatter;
  if (fixed_path) ::WaitForSingleObject(fixed_paths_, INFINITE);
  Write(*run);
  PlanCalls(*run, rng);
  for (Call& c : run->calls) {
    if (c.lookup != Lookup::kParamFirmwareBySku) Execute(*run, c);
  }
  CheckFindings(*run);
  if (kind_ == Kind::kSku) {
    StartSkuCalls(run);
    sku_runs_.push_back(run);
  } else {
    CheckUnused(*run);
    CheckSilent(*run);
  }
  if (fixed_path) ::ReleaseMutex(fixed_paths_);
}

void LintDifferential::Run(Kind kind) {
  kind_ = kind;
  const std::vector<Kind> kinds = AllKinds();
  const uint64_t kind_number = static_cast<uint64_t>(std::find(kinds.begin(), kinds.end(), kind) - kinds.begin());
  seed_ = EnvNumber("DORVANE_LINT_SEED", 20240611);
  // The kinds whose lookups neither log nor touch the registry cost a few
  // milliseconds a table under Wine: they run twice as many.
  const bool cheap = kind == Kind::kSelectionRules || kind == Kind::kCarrierFirmware ||
                     kind == Kind::kCustomerModel || kind == Kind::kPackageInfo || kind == Kind::kFwPackageInfo ||
                     kind == Kind::kRegion || kind == Kind::kScatter;
  const int tables = static_cast<int>(EnvNumber("DORVANE_LINT_TABLES", 200)) * (cheap ? 2 : 1);
  const int only = static_cast<int>(EnvNumber("DORVANE_LINT_ONLY", static_cast<uint64_t>(-1)));
  const bool verbose = EnvNumber("DORVANE_LINT_VERBOSE", 0) != 0;
  std::printf("[ lint differential ] %s: seed %llu, %d tables (DORVANE_LINT_SEED, DORVANE_LINT_TABLES)\n",
              KindName(kind), static_cast<unsigned long long>(seed_), tables);
  std::fflush(stdout);
  const ULONGLONG start = ::GetTickCount64();
  int ran = 0;
  for (int i = 0; i < tables; ++i) {
    if (only >= 0 && i != only) continue;
    ++ran;
    std::seed_seq seq{static_cast<uint32_t>(seed_), static_cast<uint32_t>(seed_ >> 32),
                      static_cast<uint32_t>(kind_number), static_cast<uint32_t>(i)};
    std::mt19937 rng(seq);
    auto run = std::make_shared<TableRun>();
    run->index = i;
    run->table = gen::GenerateTable(kind, rng, registry_root_);
    run->lint = LintText(run->table.xml, kind, "t.xml");
    Examine(run, rng);
    if (verbose) std::printf("\n--- table %d\n%s", i, Context(*run).c_str());
  }
  CheckNeverReturned();
  const double seconds = static_cast<double>(::GetTickCount64() - start) / 1000.0;
  std::printf("[ lint differential ] %s: %d tables, %zu calls in %.1f s (%.0f ms per 1000 tables)", KindName(kind),
              ran, calls_made_, seconds, ran ? seconds * 1e6 / ran : 0.0);
  if (kind == Kind::kSku) {
    std::printf("; %d calls left waiting as lint says, %d more that lint speaks of otherwise, %d not run", never_calls_,
                other_waiting_, skipped_sku_calls_);
  }
  std::printf("\n[ lint differential ] %s: held against the lookups: %zu quoted log lines, %zu unused findings, "
              "%zu entries lint is silent about\n",
              KindName(kind), claims_checked_, unused_checked_, silent_checked_);
  if (violations_ > 0) {
    std::printf("[ lint differential ] %s: %d violations of %zu kinds (seed %llu):\n", KindName(kind), violations_,
                order_.size(), static_cast<unsigned long long>(seed_));
    for (const std::string& key : order_) std::printf("  %5d x %s\n", shapes_[key], key.c_str());
  }
  std::fflush(stdout);
  EXPECT_EQ(0, violations_) << "seed " << seed_ << ": lint's findings and the lookups disagree (see above)";
}

int LintDifferential::ViolationsOf(Kind kind, const std::string& xml, const std::vector<gen::Entry>& entries,
                                   const std::vector<Finding>& findings) {
  kind_ = kind;
  quiet_ = true;
  auto run = std::make_shared<TableRun>();
  run->table.kind = kind;
  run->table.xml = xml;
  run->table.entries = entries;
  run->lint.findings = findings;
  std::mt19937 rng(1);
  const int before = violations_;
  Examine(run, rng);
  CheckNeverReturned();
  sku_runs_.clear();
  pending_.clear();
  return violations_ - before;
}

gen::Entry EntryAt(int line, Lookup lookup, const std::string& key, const std::string& key2 = "") {
  gen::Entry e;
  e.line = line;
  e.lookup = lookup;
  e.key = key;
  if (!key2.empty()) e.key2 = key2;
  return e;
}

// Each check fails when lint's findings are wrong, and stays quiet when they
// are right: a table, lint's own findings for it, and findings made wrong.
TEST_F(LintDifferential, ChecksFailOnWrongFindings) {
  const std::string regions = R"(<RegionTable>
  <SelectionRule>
    <Region mcc="310" Regulatory="RL3"/>
    <Region mcc="310" Regulatory="RL4"/>
    <Region mcc="460" Regulatory="RL5"/>
  </SelectionRule>
</RegionTable>
)";
  const std::vector<gen::Entry> rows = {EntryAt(3, Lookup::kRegulatoryByMcc, "310"),
                                        EntryAt(4, Lookup::kRegulatoryByMcc, "310"),
                                        EntryAt(5, Lookup::kRegulatoryByMcc, "460")};
  const std::vector<Finding> right = LintText(regions, Kind::kRegion, "t.xml").findings;
  ASSERT_EQ(1u, right.size()) << "line 4 repeats line 3";
  EXPECT_EQ(0, ViolationsOf(Kind::kRegion, regions, rows, right));
  // (a) the row that answers called unused; (b) the row that never answers left unsaid.
  EXPECT_EQ(2, ViolationsOf(Kind::kRegion, regions, rows, {{3, Severity::kError, "never returned", true}}));
  // (c) a log line that regulatory-by-mcc never writes.
  std::vector<Finding> claim = right;
  claim.push_back({5, Severity::kWarning, "regulatory-by-mcc logs \"RegionMappingTable load faild.\"", false});
  EXPECT_EQ(1, ViolationsOf(Kind::kRegion, regions, rows, claim));
  // (d) an unused finding that is a warning.
  std::vector<Finding> weak = right;
  weak[0].severity = Severity::kWarning;
  EXPECT_EQ(1, ViolationsOf(Kind::kRegion, regions, rows, weak));

  // A number answer: taking the SKU's key away changes it.
  const std::string esim = R"(<EsimTable>
  <TableEnableFlag FlagValue="True"/>
  <SKU_BlackList>
    <SKU SKUValue="X13-CN"/>
  </SKU_BlackList>
  <IMSI_BlackList>
  </IMSI_BlackList>
</EsimTable>
)";
  const std::vector<gen::Entry> skus = {EntryAt(4, Lookup::kEsimBySku, "X13-CN")};
  EXPECT_EQ(0, ViolationsOf(Kind::kEsim, esim, skus, LintText(esim, Kind::kEsim, "t.xml").findings));
  EXPECT_EQ(1, ViolationsOf(Kind::kEsim, esim, skus, {{4, Severity::kError, "never black-lists", true}}));

  // A call that lint says never returns, and that returns.
  const std::string sku = R"(<Skus>
  <SKU_GUID ID="A">
    <Area ID="EU">
      <PARAMFirmware File="fw_L4.bin" Ver="L4" Type="T" Count="1"/>
    </Area>
  </SKU_GUID>
</Skus>
)";
  const std::vector<gen::Entry> areas = {EntryAt(3, Lookup::kParamFirmwareBySku, "A", "EU")};
  EXPECT_EQ(0, ViolationsOf(Kind::kSku, sku, areas, LintText(sku, Kind::kSku, "t.xml").findings));
  EXPECT_EQ(1, ViolationsOf(Kind::kSku, sku, areas,
                            {{2, Severity::kError, "param-firmware-by-sku never returns, whatever it is asked", false}}));
}

TEST_F(LintDifferential, CarrierRules) { Run(Kind::kCarrierRules); }
TEST_F(LintDifferential, SelectionRules) { Run(Kind::kSelectionRules); }
TEST_F(LintDifferential, CarrierFirmware) { Run(Kind::kCarrierFirmware); }
TEST_F(LintDifferential, CustomerModel) { Run(Kind::kCustomerModel); }
TEST_F(LintDifferential, PackageInfo) { Run(Kind::kPackageInfo); }
TEST_F(LintDifferential, FwPackageInfo) { Run(Kind::kFwPackageInfo); }
TEST_F(LintDifferential, Sku) { Run(Kind::kSku); }
TEST_F(LintDifferential, DeviceConfig) { Run(Kind::kDeviceConfig); }
TEST_F(LintDifferential, ImageMapping) { Run(Kind::kImageMapping); }
TEST_F(LintDifferential, Esim) { Run(Kind::kEsim); }
TEST_F(LintDifferential, Region) { Run(Kind::kRegion); }
TEST_F(LintDifferential, Scatter) { Run(Kind::kScatter); }

}  // namespace
}  // namespace dorvane::lint

