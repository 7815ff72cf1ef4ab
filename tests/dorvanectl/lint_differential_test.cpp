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
//       line of a sibling of an ancestor; so does every element inside it
//       whose marks its answers carry, and a DEVFirmware's Count of plain
//       digits reads as written unless a finding stands on its line. An ICCID range's own key is its min (or, when min does not
//       fall in the range, any ICCID asked that does); a "default" row
//       answers for any key; selection-rule-by-mcc answers false for every
//       key, so its entries are not judged;
//   (c) every log line that a finding says a lookup logs is logged by that
//       lookup on at least one of the calls made, and the ICCID that an
//       overlap finding names is answered by the earlier range it names;
//   (d) `unused` findings are errors that say "never".
//
// getEsimDisableType answers a number, not an entry: for (a), an element is
// used when taking its keys away (SKUValue, MCCMNCValue renamed) changes an
// answer; for (b), its own key must give the list's answer (a SKU in any
// case, as the SKU list is compared without regard to case).
//
// GetParamFirmwareBySku does not return for keys that are not under the first
// SKU_GUID, so each of its calls gets a thread of its own, looked at when the
// kind's tables are done: one that lint is silent about must have returned
// within 10 s, one that lint says never returns must still be waiting (its
// thread sleeps on until the test ends).
//
// DORVANE_LINT_SEED sets the seed (printed always), DORVANE_LINT_TABLES the
// number of tables of each kind (default 30), DORVANE_LINT_ONLY=N runs table N
// of each kind alone and DORVANE_LINT_VERBOSE=1 prints every table with its
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
// An eSIM argument left out (a null pointer).
const char kNone[] = "\x02none";
// An update-scatter selection that holds no flag's text.
const char kNoFlag[] = ";-;";
// What an overlap finding says of the ICCID that both ranges match.
const char kWitness[] = "an ICCID such as \"";
constexpr ULONGLONG kReturnMs = 10000;  // a call lint is silent about returns within
constexpr ULONGLONG kOtherMs = 300;     // any other call that returns does so within
constexpr int kMaxWaiting = 400;        // threads left sleeping at most
constexpr int kPrinted = 10;            // violations printed in full

// One-key lookups of each kind, asked with every entry's keys and more.
const std::map<Kind, std::vector<Lookup>> kOneKey = {
    {Kind::kCarrierRules, {Lookup::kCarrierIdByMccmnc, Lookup::kCarrierIdByMcc, Lookup::kSelectionRuleByMcc, Lookup::kParamFirmwareByMcc}},
    {Kind::kSelectionRules, {Lookup::kSelectionRuleByMcc}}, {Kind::kCarrierFirmware, {Lookup::kCarrierFirmware}},
    {Kind::kCustomerModel, {Lookup::kOemFirmwareByModel}}, {Kind::kPackageInfo, {Lookup::kPackageInfoFirmware}},
    {Kind::kRegion, {Lookup::kRegulatoryByMcc}}};

// The log lines of the call running, as the logger writes them:
// "<tag> MM-DD hh:mm:ss:mmm: message\n".
std::vector<std::string>* g_capture = nullptr;
void Capture(const char* line, size_t length) {
  if (g_capture == nullptr) return;
  std::string text(line, length);
  const size_t from = (text.rfind("[WARNING] ", 0) == 0 ? 10 : 8) + 21;
  text = text.size() >= from ? text.substr(from) : text;
  g_capture->push_back(!text.empty() && text.back() == '\n' ? text.substr(0, text.size() - 1) : text);
}

// The quoted text that starts at m[at] (a '"'), with lint's escapes undone;
// `end` is set past its closing quote.
std::optional<std::string> Unquote(const std::string& m, size_t at, size_t* end = nullptr) {
  if (at >= m.size() || m[at] != '"') return std::nullopt;
  std::string text;
  for (size_t i = at + 1; i < m.size(); text += m[i++]) {
    if (m[i] == '"') {
      if (end) *end = i + 1;
      return text;
    }
    if (m[i] != '\\' || i + 1 >= m.size()) continue;
    const char c = m[++i];
    if (c == 'x' && i + 2 < m.size()) text += static_cast<char>(std::strtol(m.substr(i + 1, 2).c_str(), nullptr, 16)), i += 3;
    else if (c == 'n' || c == 'r' || c == 't') text += c == 'n' ? '\n' : c == 'r' ? '\r' : '\t', ++i;
  }
  return std::nullopt;
}

// The text quoted right after `marker` (which ends with its opening quote), searched from m[from].
std::optional<std::string> QuotedAfter(const std::string& m, const std::string& marker, size_t from = 0) {
  const size_t at = m.find(marker, from);
  return at == std::string::npos ? std::nullopt : Unquote(m, at + marker.size() - 1);
}

// The quoted texts of a list written "a", "b" and "c", from m[at].
std::vector<std::string> QuotedList(const std::string& m, size_t at) {
  std::vector<std::string> items;
  for (size_t end = at; auto text = Unquote(m, at, &end);) {
    items.push_back(*text);
    if (m.compare(end, 3, ", \"") == 0) at = end + 2;
    else if (m.compare(end, 6, " and \"") == 0) at = end + 5;
    else break;
  }
  return items;
}

std::string Cased(std::string s, int (*to)(int)) {
  for (char& c : s) c = static_cast<char>(to(static_cast<unsigned char>(c)));
  return s;
}

std::string Shown(const std::string& text) {
  if (text == kNone) return "(none)";
  std::string out = "\"";
  for (char c : text) out += c == '\n' ? "\\n" : c == '\t' ? "\\t" : c == '\x01' ? "\\x01" : std::string(1, c);
  return out + "\"";
}

struct Call {
  Lookup lookup = Lookup::kCarrierIdByMccmnc;
  std::string a, b;                     // the keys in the library's order
  int slot = -1;                        // device-config: the slot that holds the key
  int entry_line = 0;                   // param-firmware-by-sku: the entry asked for
  bool ran = false, result = false;
  DWORD number = 0;                     // eSIM, region: the answer; cfg-pk-info: the count
  std::string answer, status;
  std::set<int> lines;                  // the answer's marks (update-scatter: the flags rewritten)
  std::map<int, std::string> flags;     // update-scatter: each flag's text after the call
  std::vector<std::string> log;
};

std::string Arguments(const Call& c) {
  switch (c.lookup) {
    case Lookup::kFwPackageInfo: return "(path)";
    case Lookup::kParamFirmwareBySku: case Lookup::kCfgPkInfo: case Lookup::kEsimBySku: case Lookup::kEsimByImsi: return Shown(c.a) + " " + Shown(c.b);
    case Lookup::kDeviceConfigId: return c.slot < 0 ? "(no registry value set)" : Shown(c.a) + " in slot " + std::to_string(c.slot);
    default: return Shown(c.a);
  }
}

std::string Describe(const Call& c) {
  std::string s = std::string(gen::CommandOf(c.lookup)) + " " + Arguments(c) + " -> " + c.status + (c.ran ? c.answer : "");
  for (int l : c.lines) s += " L" + std::to_string(l);
  for (size_t n = 0; n < c.log.size() && n < 8; ++n) s += (n ? " | " : "\n        log: ") + Shown(c.log[n]);
  return s;
}

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

const XMLElement* ParentOf(const XMLElement* e) { return e->Parent() ? e->Parent()->ToElement() : nullptr; }

// True when the element at `line` is the one at `outer` or lies inside it.
bool Within(const TableRun& run, int line, int outer) {
  auto it = run.at.find(line);
  for (const XMLElement* e = it == run.at.end() ? nullptr : it->second; e != nullptr; e = ParentOf(e)) {
    if (e->GetLineNum() == outer) return true;
  }
  return line == outer;
}

// A warning or an error on the element's line, an ancestor's, or a sibling's of an ancestor.
bool Excused(const TableRun& run, int line) {
  auto it = run.at.find(line);
  if (run.spoken.count(line) > 0 || it == run.at.end()) return run.spoken.count(line) > 0;
  for (const XMLElement* a = ParentOf(it->second); a != nullptr; a = ParentOf(a)) {
    for (const XMLElement* s = a->Parent()->FirstChildElement(); s != nullptr; s = s->NextSiblingElement()) {
      if (run.spoken.count(s->GetLineNum()) > 0) return true;
    }
  }
  return false;
}

std::string Name(const TableRun& run, int line) {
  auto it = run.at.find(line);
  return (it == run.at.end() ? "?" : it->second->Name()) + std::string(" at line ") + std::to_string(line);
}

CarrierFirmwareInfo UnsetRecord() {
  CarrierFirmwareInfo r;
  r.fields.fill(kUnset);
  return r;
}

// The fields [first, last] that a lookup set, and their marks.
void AddFields(Call& c, const std::string* fields, int first, int last) {
  for (int f = first; f <= last; ++f) {
    if (fields[f] == kUnset) continue;
    c.answer += " " + std::to_string(f) + "=" + Shown(fields[f]);
    for (int l : gen::AnswerLines(fields[f])) c.lines.insert(l);
  }
}

// The key as written and one variant of it: in upper or lower case, without
// its blanks or with one more.
std::vector<std::string> Keyed(const std::string& key, std::mt19937& rng) {
  std::vector<std::string> variants;
  for (const std::string& v : {Cased(key, ::toupper), Cased(key, ::tolower)}) {
    if (v != key) variants.push_back(v);
  }
  const size_t first = key.find_first_not_of(" \t"), last = key.find_last_not_of(" \t");
  if (first != std::string::npos && (first > 0 || last + 1 < key.size())) variants.push_back(key.substr(first, last - first + 1));
  else variants.push_back(rng() % 2 ? " " + key : key + " ");
  return {key, variants[rng() % variants.size()]};
}

// param-firmware-by-sku on a thread of its own.
struct SkuJob {
  std::string path, sku, area;
  CarrierFirmwareInfo record = UnsetRecord();
  bool result = false;
};

DWORD WINAPI SkuThread(void* p) {
  auto* job = static_cast<SkuJob*>(p);
  job->result = GetParamFirmwareBySku(job->sku, job->area, job->path, job->record);
  return 0;
}

struct PendingSku {
  HANDLE thread;
  SkuJob* job;
  std::shared_ptr<TableRun> run;
  size_t call;
  bool silent, never;  // lint says nothing of it / says it never returns
  ULONGLONG started;
};

// Whether lint says param-firmware-by-sku never returns for the call.
bool ClaimsNever(const TableRun& run, const Call& c) {
  for (const Finding& f : run.lint.findings) {
    const std::string& m = f.message;
    const size_t never = m.find("param-firmware-by-sku never returns");
    if (never == std::string::npos) continue;
    if (m.find("whatever it is asked", never) != std::string::npos || QuotedAfter(m, "for SKU \"", never) == c.a) return true;
    // "... never returns for its area(s) "a" and "b"" of the SKU_GUID on the finding's line.
    auto e = run.at.find(f.line);
    const size_t its = m.find("for its ", never);
    if (its == std::string::npos || e == run.at.end() || e->second->Attribute("ID") == nullptr || c.a != e->second->Attribute("ID")) continue;
    const std::vector<std::string> areas = QuotedList(m, m.find('"', its));
    if (std::find(areas.begin(), areas.end(), c.b) != areas.end()) return true;
  }
  return false;
}

uint64_t EnvNumber(const char* name, uint64_t fallback) {
  const char* v = std::getenv(name);
  return v == nullptr || *v == '\0' ? fallback : std::strtoull(v, nullptr, 0);
}

class LintDifferential : public support::LogFixture {
 protected:
  std::string Key(int i) const { return registry_root_ + (i < 0 ? "" : "\\P" + std::to_string(i)); }

  void SetUp() override {
    LogFixture::SetUp();
    Logger::GetInstance()->SetMirror(Capture);
    for (const char* folder : {"C:\\Windows\\WWAN", "C:\\Windows\\WWAN\\FwSwitchBin", kFlashDataFolder, "C:\\Windows\\WWAN\\FwSwitchBin\\SarAntData"}) {
      ::CreateDirectoryA(folder, nullptr);
    }
    // A key of this process's own: two runs at once must not share values.
    registry_root_ = "SOFTWARE\\DorvaneLintDifferential\\" + std::to_string(::GetCurrentProcessId());
    for (int i = 0; i < gen::kRegistryKeys; ++i) {
      HKEY key = nullptr;
      ASSERT_EQ(ERROR_SUCCESS, ::RegCreateKeyExA(HKEY_LOCAL_MACHINE, Key(i).c_str(), 0, nullptr, 0, KEY_ALL_ACCESS | KEY_WOW64_32KEY, nullptr, &key, nullptr));
      ::RegCloseKey(key);
    }
  }

  void TearDown() override {
    Logger::GetInstance()->SetMirror(nullptr);
    for (const std::string& f : {image_path_, scatter_path_}) ::DeleteFileA(f.c_str());
    for (int i = 0; i < gen::kRegistryKeys; ++i) ::RegDeleteKeyExA(HKEY_LOCAL_MACHINE, Key(i).c_str(), KEY_WOW64_32KEY, 0);
    ::RegDeleteKeyExA(HKEY_LOCAL_MACHINE, Key(-1).c_str(), KEY_WOW64_32KEY, 0);
    ::RegDeleteKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\DorvaneLintDifferential", KEY_WOW64_32KEY, 0);
  }

  std::string Context(const TableRun& run) const {
    std::string s = "  seed " + std::to_string(seed_) + ", kind " + KindName(kind_) + ", table " + std::to_string(run.index) +
                    " (DORVANE_LINT_SEED=" + std::to_string(seed_) + " DORVANE_LINT_ONLY=" + std::to_string(run.index) +
                    ")\n  table:\n" + gen::Numbered(run.table.xml) + "  lint:\n";
    for (const Finding& f : run.lint.findings) s += "    " + FormatLine("t.xml", f) + (f.unused ? "  [unused]" : "") + "\n";
    s += "  calls:\n";
    for (size_t n = 0; n < run.calls.size() && n < 90; ++n) s += "    " + Describe(run.calls[n]) + "\n";
    return s;
  }

  void Violation(const TableRun& run, const std::string& what) {
    if (++violations_ > kPrinted || quiet_) return;
    std::printf("\n=== VIOLATION %d (%s)\n  %s\n%s", violations_, KindName(kind_), what.c_str(), Context(run).c_str());
    std::fflush(stdout);
  }

  void PlanCalls(TableRun& run, std::mt19937& rng) {
    const gen::GeneratedTable& t = run.table;
    std::set<std::string> planned;
    auto add = [&](Lookup l, const std::string& a, const std::string& b = "", int slot = -1, int entry = 0) {
      Call c;
      c.lookup = l, c.a = a, c.b = b, c.slot = slot, c.entry_line = entry;
      const std::string id = std::to_string(static_cast<int>(l)) + "\n" + a + "\n" + b + "\n" + std::to_string(slot) + "\n" + std::to_string(entry);
      if (planned.insert(id).second) run.calls.push_back(c);
    };
    auto keys_of = [](const gen::Entry& e) {  // its key, and one written under a wrong name
      std::vector<std::string> keys;
      for (const auto& key : {e.key, e.stray_key}) {
        if (key) keys.push_back(*key);
      }
      return keys;
    };
    switch (kind_) {
      case Kind::kCarrierRules:
        for (const std::string& iccid : t.iccids) add(Lookup::kCarrierIdByIccid, iccid);
        add(Lookup::kCarrierIdByIccid, "");
        for (const Finding& f : run.lint.findings) {  // the ICCIDs that overlap findings name
          if (auto iccid = QuotedAfter(f.message, kWitness)) add(Lookup::kCarrierIdByIccid, *iccid);
        }
        break;
      case Kind::kFwPackageInfo: add(Lookup::kFwPackageInfo, ""); break;
      case Kind::kSku:  // only the entries' own keys: any other key makes the lookup wait for ever
        for (const gen::Entry& e : t.entries) {
          if (e.key && e.key2) add(Lookup::kParamFirmwareBySku, *e.key, *e.key2, -1, e.line);
        }
        break;
      case Kind::kDeviceConfig: {  // each key in each slot alone; its variant in one slot
        const int slots = static_cast<int>(t.registry.size());
        std::vector<std::string> keys = t.other_keys;
        keys.push_back("");
        for (const gen::Entry& e : t.entries) {
          for (const std::string& key : keys_of(e)) {
            const std::vector<std::string> both = Keyed(key, rng);
            keys.push_back(both[0]);
            if (slots > 0) add(Lookup::kDeviceConfigId, both[1], "", static_cast<int>(rng() % static_cast<unsigned>(slots)));
          }
        }
        for (const std::string& k : keys) {
          for (int s = 0; s < slots; ++s) add(Lookup::kDeviceConfigId, k, "", s);
        }
        add(Lookup::kDeviceConfigId, "", "", -1);
        break;
      }
      case Kind::kImageMapping:
        for (const gen::Entry& e : t.entries) {
          for (const auto& value : {e.key2, e.stray_key}) {
            if (!e.key || !value) continue;
            add(Lookup::kCfgPkInfo, *e.key, *value);
            if (rng() % 2) add(Lookup::kCfgPkInfo, Keyed(*e.key, rng)[1], *value);
            else add(Lookup::kCfgPkInfo, *e.key, Keyed(*value, rng)[1]);
          }
          if (e.key) add(Lookup::kCfgPkInfo, *e.key, "");
        }
        for (int n = 0; n < 4; ++n) {  // a few pairs of keys met and keys not held
          add(Lookup::kCfgPkInfo, t.other_keys[rng() % t.other_keys.size()], t.other_inner_keys[rng() % t.other_inner_keys.size()]);
        }
        break;
      case Kind::kEsim: {
        const std::string sku = t.other_keys.empty() ? "X00-NONE" : t.other_keys.front();
        const std::string imsi = t.other_inner_keys.empty() ? "00000" : t.other_inner_keys.front();
        for (const gen::Entry& e : t.entries) {
          const bool by_sku = e.lookup == Lookup::kEsimBySku;
          for (const std::string& key : keys_of(e)) {
            const std::vector<std::string> both = Keyed(key, rng);
            for (const std::string& k : both) add(e.lookup, by_sku ? k : kNone, by_sku ? kNone : k);
            add(e.lookup, by_sku ? both[0] : sku, by_sku ? imsi : both[0]);
          }
        }
        add(Lookup::kEsimBySku, sku, kNone);
        add(Lookup::kEsimByImsi, kNone, imsi);
        add(Lookup::kEsimBySku, sku, imsi);
        add(Lookup::kEsimBySku, kNone, kNone);
        break;
      }
      case Kind::kScatter:
        for (const gen::Entry& e : t.entries) add(Lookup::kUpdateScatter, ";" + e.key.value_or("") + ";");
        add(Lookup::kUpdateScatter, kNoFlag);
        add(Lookup::kUpdateScatter, ";true;false;");
        break;
      default: break;
    }
    // Lookups of one key: each entry's keys and a variant of each, keys the
    // table does not hold, "default" and the empty key.
    for (Lookup l : kOneKey.count(kind_) ? kOneKey.at(kind_) : std::vector<Lookup>{}) {
      for (const gen::Entry& e : t.entries) {
        for (const std::string& key : e.lookup == l ? keys_of(e) : std::vector<std::string>{}) {
          for (const std::string& v : Keyed(key, rng)) add(l, v);
        }
      }
      for (const std::string& k : t.other_keys) add(l, k);
      add(l, "default");
      add(l, "");
    }
  }

  // Every slot's value is removed, then the chosen one is set: slots that
  // share a place then all read the key.
  void SetRegistry(const TableRun& run, int slot, const std::string& value) {
    std::map<std::pair<std::string, std::string>, std::optional<std::string>> wanted;
    for (size_t s = 0; s < run.table.registry.size(); ++s) {
      std::optional<std::string>& v = wanted[{run.table.registry[s].key_path, run.table.registry[s].value_name}];
      if (static_cast<int>(s) == slot) v = value;
    }
    for (const auto& [place, v] : wanted) {
      const auto& [key, name] = place;
      auto now = registry_now_.find(place);
      if (v && (now == registry_now_.end() || now->second != *v)) {
        ASSERT_EQ(0u, SetRegKeyValue(key, name, *v)) << key << "," << name << ": " << LastRegistryFailure().step;
        registry_now_[place] = *v;
      } else if (!v && now != registry_now_.end()) {
        HKEY h = nullptr;
        if (::RegOpenKeyExA(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_SET_VALUE | KEY_WOW64_32KEY, &h) == ERROR_SUCCESS) {
          ::RegDeleteValueA(h, name.c_str());
          ::RegCloseKey(h);
        }
        registry_now_.erase(now);
      }
    }
  }

  void Execute(TableRun& run, Call& c) {
    if (c.lookup == Lookup::kDeviceConfigId) SetRegistry(run, c.slot, c.a);
    if (c.lookup == Lookup::kUpdateScatter) support::WriteFileBytes(run.path, run.table.xml);
    g_capture = &c.log;
    std::string text = kUnset;
    CarrierFirmwareInfo r = UnsetRecord();
    switch (c.lookup) {
      case Lookup::kCarrierIdByMccmnc: c.result = GetCarrierIdByMccmnc(c.a, run.path, text); break;
      case Lookup::kCarrierIdByMcc: c.result = GetCarrierIdByMcc(c.a, run.path, text); break;
      case Lookup::kCarrierIdByIccid: c.result = GetCarrierIdByIccid(c.a, run.path, text); break;
      case Lookup::kSelectionRuleByMcc: c.result = GetSelectionRuleByMcc(c.a, run.path); break;
      case Lookup::kDeviceConfigId: c.result = getWwanDeviceConfigID(run.path, text); break;
      case Lookup::kParamFirmwareByMcc: c.result = GetParamFirmwareByMcc(c.a, run.path, r); break;
      case Lookup::kCarrierFirmware: c.result = GetCarrierFirmware(c.a, run.path, r); break;
      case Lookup::kOemFirmwareByModel: c.result = GetOemFirmwareByModel(c.a, run.path, r); break;
      case Lookup::kParamFirmwareBySku: break;  // on a thread of its own
      case Lookup::kPackageInfoFirmware: {
        PackageFirmwareInfo info;
        info.fields.fill(kUnset);
        c.result = GetPackageInfoFirmware(c.a, run.path, info);
        AddFields(c, info.fields.data(), PackageFirmwareInfo::kFirmwareFile, PackageFirmwareInfo::kCustPackVersion);
        break;
      }
      case Lookup::kFwPackageInfo: {
        FwPackageInfo package;
        if (!(c.result = GetFwPackageInfo(run.path, package))) break;
        for (const std::string& v : {package.GetPackageVer(), package.GetPackageType()}) AddFields(c, &v, 0, 0);
        for (const CarrierFirmwareInfo& carrier : package.GetCarriers()) AddFields(c, carrier.fields.data(), 1, 5);
        break;
      }
      case Lookup::kCfgPkInfo: {
        CfgPackageInfo info;
        info.texts.fill(kUnset);
        if (!(c.result = getCfgPkInfo(c.a, c.b, info))) break;
        AddFields(c, info.texts.data(), CfgPackageInfo::kFile, CfgPackageInfo::kType);
        c.number = info.count;
        c.answer += " count " + std::to_string(info.count);
        break;
      }
      case Lookup::kEsimBySku:
      case Lookup::kEsimByImsi: c.number = getEsimDisableType(run.path, c.a == kNone ? nullptr : c.a.c_str(), c.b == kNone ? nullptr : c.b.c_str()); break;
      case Lookup::kRegulatoryByMcc: c.number = getRegulatoryByMcc(run.path, c.a, text); break;
      case Lookup::kUpdateScatter: {
        c.result = UpdateScatterDownloadFlags(c.a);
        tinyxml2::XMLDocument after(true, tinyxml2::PRESERVE_WHITESPACE);
        const std::string saved = support::ReadFileBytes(run.path);
        after.Parse(saved.data(), saved.size());
        for (const XMLElement* e = after.RootElement(); e != nullptr; e = e->FirstChildElement() ? e->FirstChildElement() : Next(e)) {
          // each flag by the mark in its "n", and whether it changed
          const std::vector<int> marks = gen::AnswerLines(e->Attribute("n") ? e->Attribute("n") : "");
          if (std::strcmp(e->Name(), "is_download") != 0 || marks.size() != 1) continue;
          const std::string now = e->GetText() ? e->GetText() : "";
          auto before = run.at.find(marks[0]);
          if ((c.flags[marks[0]] = now) != (before == run.at.end() || !before->second->GetText() ? "" : before->second->GetText())) {
            c.lines.insert(marks[0]);
            c.answer += " L" + std::to_string(marks[0]) + "=" + Shown(now);
          }
        }
        break;
      }
    }
    g_capture = nullptr;
    if (text != kUnset) AddFields(c, &text, 0, 0);
    AddFields(c, r.fields.data(), 7, 23);
    const bool number = c.lookup == Lookup::kEsimBySku || c.lookup == Lookup::kEsimByImsi || c.lookup == Lookup::kRegulatoryByMcc;
    c.answer = (number ? std::to_string(c.number) : std::string(c.result ? "true" : "false")) + c.answer;
    c.ran = true;
    ++calls_made_;
  }

  // The element after `e` in document order, its children aside.
  static const XMLElement* Next(const XMLElement* e) {
    for (; e != nullptr; e = ParentOf(e)) {
      if (e->NextSiblingElement()) return e->NextSiblingElement();
    }
    return nullptr;
  }

  // Looks at the param-firmware-by-sku threads; then checks their tables.
  void SettleSkuCalls() {
    for (PendingSku& p : pending_) {
      const ULONGLONG limit = p.silent ? kReturnMs : kOtherMs, spent = ::GetTickCount64() - p.started;
      Call& c = p.run->calls[p.call];
      if (::WaitForSingleObject(p.thread, spent < limit ? static_cast<DWORD>(limit - spent) : 0) != WAIT_OBJECT_0) {
        c.status = p.silent ? "[still waiting after 10 s] " : "[still waiting] ";
        ++sleeping_;  // the thread sleeps for ever, and its job with it
      } else {
        c.ran = true, c.result = p.job->result;
        c.answer = c.result ? "true" : "false";
        AddFields(c, p.job->record.fields.data(), 19, 22);
        if (p.never) Violation(*p.run, "lint says param-firmware-by-sku never returns for " + Arguments(c) + ", yet it did");
        delete p.job;
      }
      ::CloseHandle(p.thread);
    }
    pending_.clear();
    for (const auto& run : sku_runs_) {
      CheckUnused(*run);
      CheckSilent(*run);
    }
    sku_runs_.clear();
  }

  void CheckFindings(TableRun& run) {
    std::map<std::string, std::set<std::string>> logged;
    for (const Call& c : run.calls) logged[gen::CommandOf(c.lookup)].insert(c.log.begin(), c.log.end());
    for (const Finding& f : run.lint.findings) {
      const std::string& m = f.message;
      // (d) An unused finding is an error that says "never".
      if (f.unused && (f.severity != Severity::kError || m.find("never") == std::string::npos)) {
        Violation(run, "an unused finding that is not an error saying \"never\": " + FormatLine("t.xml", f));
      }
      // (c) Every log line that a finding quotes is logged by the lookup named last before it.
      for (size_t at = m.find("logs \""); at != std::string::npos; at = m.find("logs \"", at + 1)) {
        std::string command;
        size_t command_at = 0;
        for (const auto& [name, lines] : logged) {
          const size_t p = m.rfind(name, at);
          if (p != std::string::npos && (command.empty() || p > command_at || (p == command_at && name.size() > command.size()))) {
            command = name, command_at = p;
          }
        }
        for (const std::string& line : QuotedList(m, at + 5)) {
          ++checked_;
          if (command.empty() || logged[command].count(line) == 0) {
            Violation(run, "lint says " + (command.empty() ? "a lookup of another table" : command) + " logs " + Shown(line) +
                               ", but none of its calls on this table logged that line: " + FormatLine("t.xml", f));
          }
        }
      }
      // (c) The ICCID an overlap finding names gets the earlier range's answer
      // (when that range has a text to tell it by).
      const std::optional<std::string> iccid = QuotedAfter(m, kWitness);
      const size_t earlier = m.find("gives it line ");
      if (!iccid || earlier == std::string::npos) continue;
      const int line = std::atoi(m.c_str() + earlier + 14);
      for (const Call& c : run.calls) {
        if (c.lookup == Lookup::kCarrierIdByIccid && c.a == *iccid && (!c.result || (!c.lines.empty() && c.lines != std::set<int>{line}))) {
          Violation(run, "lint says " + Shown(*iccid) + " gets line " + std::to_string(line) + "'s carrier id, yet " + Describe(c) + ": " +
                             FormatLine("t.xml", f));
        }
      }
    }
  }

  // getEsimDisableType answers a number: an element is used when taking its
  // keys away changes an answer that a list gave.
  void EsimUsed(TableRun& run, const Finding& f) {
    tinyxml2::XMLDocument copy(true, tinyxml2::PRESERVE_WHITESPACE);
    copy.Parse(run.table.xml.data(), run.table.xml.size());
    bool changed = false;
    for (XMLElement* e = copy.RootElement(); e != nullptr; e = const_cast<XMLElement*>(e->FirstChildElement() ? e->FirstChildElement() : Next(e))) {
      bool inside = false;
      for (const XMLElement* a = e; a; a = ParentOf(a)) inside = inside || a->GetLineNum() == f.line;
      for (const char* name : {"SKUValue", "MCCMNCValue"}) {
        if (const char* v = inside ? e->Attribute(name) : nullptr) {
          e->SetAttribute((std::string("Off") + name).c_str(), v);
          e->DeleteAttribute(name);
          changed = true;
        }
      }
    }
    if (!changed) return;
    tinyxml2::XMLPrinter printer;
    copy.Print(&printer);
    TableRun variant;
    variant.path = In("esim-off.xml");
    support::WriteFileBytes(variant.path, printer.CStr());
    for (const Call& c : run.calls) {
      if (c.number != kEsimSkuBlackListed && c.number != kEsimImsiBlackListed) continue;
      Call again = c;
      again.answer.clear();
      Execute(variant, again);
      if (again.number != c.number) {
        return Violation(run, "lint says line " + std::to_string(f.line) + " is never used, yet taking its keys away changes " + Describe(c) +
                                  " to " + again.answer + ": " + FormatLine("t.xml", f));
      }
    }
  }

  // (a) Nothing that lint calls never used answers a call.
  void CheckUnused(TableRun& run) {
    for (const Finding& f : run.lint.findings) {
      if (!f.unused) continue;
      ++checked_;
      if (kind_ == Kind::kEsim) {
        EsimUsed(run, f);
        continue;
      }
      for (const Call& c : run.calls) {
        const auto from = std::find_if(c.lines.begin(), c.lines.end(), [&](int l) { return Within(run, l, f.line); });
        if (from == c.lines.end()) continue;
        Violation(run, "lint says line " + std::to_string(f.line) + " is never used, yet " + Describe(c) + " answers from line " +
                           std::to_string(*from) + ": " + FormatLine("t.xml", f));
        break;
      }
    }
  }

  // Whether the call asks for the entry by its own key.
  static bool Own(const gen::Entry& e, const Call& c) {
    if (c.lookup != e.lookup) return false;
    switch (e.lookup) {
      case Lookup::kCarrierIdByIccid:
        return e.min && e.max && (iccid::RangeMatches(*e.min, *e.min, *e.max) ? c.a == *e.min : iccid::RangeMatches(c.a, *e.min, *e.max));
      case Lookup::kFwPackageInfo: return true;
      case Lookup::kParamFirmwareBySku: return c.entry_line == e.line;
      case Lookup::kCfgPkInfo: return e.key && e.key2 && c.a == *e.key && c.b == *e.key2;
      case Lookup::kEsimBySku: return e.key && c.a != kNone && c.b == kNone && Cased(c.a, ::tolower) == Cased(*e.key, ::tolower);
      case Lookup::kEsimByImsi: return e.key && c.a == kNone && c.b == *e.key;
      case Lookup::kUpdateScatter: return c.a == ";" + e.key.value_or("") + ";" || c.a == kNoFlag;
      default: return e.fallback || (e.key && c.a == *e.key);
    }
  }

  // (b) Every entry that lint says nothing about answers for its own key.
  void CheckSilent(TableRun& run) {
    std::map<int, std::vector<const Call*>> own_calls;
    std::set<int> failed;
    for (const gen::Entry& e : run.table.entries) {
      if (e.lookup == Lookup::kSelectionRuleByMcc) continue;  // always false: nothing to see
      std::vector<const Call*>& own = own_calls[e.line];
      for (const Call& c : run.calls) {
        if (Own(e, c)) own.push_back(&c);
      }
      if (Excused(run, e.line)) continue;
      ++checked_;
      bool answered = false, on = false, off = false;
      std::string seen;
      for (const Call* c : own) {
        seen += "\n    " + Describe(*c);
        if (e.lookup == Lookup::kEsimBySku) answered = c->number == kEsimSkuBlackListed && (answered || c == own.front());
        else if (e.lookup == Lookup::kEsimByImsi) answered = answered || c->number == kEsimImsiBlackListed;
        else if (e.lookup == Lookup::kUpdateScatter) {
          // Rewritten to true by its own text, and to false by a selection without it.
          const std::string text = c->flags.count(e.line) ? c->flags.at(e.line) : "?";
          (c->a == kNoFlag ? off : on) |= text == (c->a == kNoFlag ? "false" : "true");
          answered = on && off;
        } else {
          for (int l : c->lines) answered = answered || Within(run, l, e.line);
        }
      }
      if (answered) continue;
      failed.insert(e.line);
      Violation(run, "lint says nothing about " + Name(run, e.line) + (e.proper ? "" : " (misnamed)") + " (key " + Shown(e.key.value_or("(none)")) +
                         (e.key2 ? " " + Shown(*e.key2) : "") + "), yet " + (own.empty() ? "no call has its own key" : "its own key does not give it") + ":" + seen);
    }
    // Elements inside an entry whose marks the entry's answer carries.
    for (const gen::Holder& h : run.table.holders) {
      bool entry_answered = false, answered = false;
      std::string seen;
      for (const Call* c : own_calls[h.entry_line]) {
        seen += "\n    " + Describe(*c);
        const bool mine = c->lines.count(h.line) > 0;
        answered = answered || mine;
        entry_answered = entry_answered || std::any_of(c->lines.begin(), c->lines.end(), [&](int l) { return Within(run, l, h.entry_line); });
        // A Count of plain digits that lint says nothing of on its line reads as written.
        const char* count = run.at.count(h.line) ? run.at.at(h.line)->Attribute("Count") : nullptr;
        if (mine && c->lookup == Lookup::kCfgPkInfo && count != nullptr && run.spoken.count(h.line) == 0 && std::strlen(count) < 10 &&
            std::strspn(count, "0123456789") == std::strlen(count) && c->number != std::strtoul(count, nullptr, 10)) {
          Violation(run, "lint says nothing about the Count of " + Name(run, h.line) + ", yet " + Describe(*c));
        }
      }
      if (!Excused(run, h.line) && failed.count(h.entry_line) == 0 && entry_answered && !answered) {
        Violation(run, "lint says nothing about " + Name(run, h.line) + " in " + Name(run, h.entry_line) + ", yet the entry's answers never come from it:" + seen);
      }
    }
  }

  // Holds the run's findings against the lookups.
  void Examine(const std::shared_ptr<TableRun>& run, std::mt19937& rng) {
    ASSERT_EQ(tinyxml2::XML_SUCCESS, run->doc.Parse(run->table.xml.data(), run->table.xml.size())) << run->table.xml;
    for (const XMLElement* e = run->doc.RootElement(); e != nullptr; e = e->FirstChildElement() ? e->FirstChildElement() : Next(e)) {
      run->at[e->GetLineNum()] = e;
    }
    for (const Finding& f : run->lint.findings) {
      if (f.severity != Severity::kNote) run->spoken.insert(f.line);
    }
    run->path = kind_ == Kind::kImageMapping ? image_path_ : kind_ == Kind::kScatter ? scatter_path_
                : In(kind_ == Kind::kSku ? "sku" + std::to_string(run->index) + ".xml" : "t.xml");
    support::WriteFileBytes(run->path, run->table.xml);
    PlanCalls(*run, rng);
    for (Call& c : run->calls) {
      if (c.lookup != Lookup::kParamFirmwareBySku) Execute(*run, c);
    }
    CheckFindings(*run);
    if (kind_ != Kind::kSku) {
      CheckUnused(*run);
      return CheckSilent(*run);
    }
    for (size_t i = 0; i < run->calls.size(); ++i) {
      Call& c = run->calls[i];
      const bool silent = !Excused(*run, c.entry_line), never = ClaimsNever(*run, c);
      if (!silent && sleeping_ + static_cast<int>(pending_.size()) >= kMaxWaiting) {
        c.status = "[not run: too many threads waiting] ";
        continue;
      }
      auto* job = new SkuJob{run->path, c.a, c.b};
      const HANDLE thread = ::CreateThread(nullptr, 64 * 1024, SkuThread, job, STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
      ASSERT_NE(nullptr, thread);
      pending_.push_back({thread, job, run, i, silent, never, ::GetTickCount64()});
      ++calls_made_;
    }
    sku_runs_.push_back(run);
  }

  void Run(Kind kind) {
    kind_ = kind;
    violations_ = 0;
    registry_now_.clear();
    seed_ = EnvNumber("DORVANE_LINT_SEED", 20240611);
    const int tables = static_cast<int>(EnvNumber("DORVANE_LINT_TABLES", 30));
    const int only = static_cast<int>(EnvNumber("DORVANE_LINT_ONLY", static_cast<uint64_t>(-1)));
    const ULONGLONG start = ::GetTickCount64();
    const size_t calls_before = calls_made_;
    for (int i = only >= 0 ? only : 0; i < (only >= 0 ? only + 1 : tables); ++i) {
      std::seed_seq seq{static_cast<uint32_t>(seed_), static_cast<uint32_t>(seed_ >> 32), static_cast<uint32_t>(kind), static_cast<uint32_t>(i)};
      std::mt19937 rng(seq);
      auto run = std::make_shared<TableRun>();
      run->index = i;
      run->table = gen::GenerateTable(kind, rng, registry_root_);
      run->lint = LintText(run->table.xml, kind, "t.xml");
      Examine(run, rng);
      if (EnvNumber("DORVANE_LINT_VERBOSE", 0) != 0) std::printf("\n--- table %d\n%s", i, Context(*run).c_str());
    }
    SettleSkuCalls();
    std::printf("[ lint differential ] %s: seed %llu, %d tables, %zu calls, %.1f s\n", KindName(kind), static_cast<unsigned long long>(seed_),
                only >= 0 ? 1 : tables, calls_made_ - calls_before, static_cast<double>(::GetTickCount64() - start) / 1000.0);
    EXPECT_EQ(0, violations_) << KindName(kind) << ", seed " << seed_ << " (DORVANE_LINT_SEED): lint's findings and the lookups disagree (see above)";
  }

  // The violations in the findings given for `xml` (entries as listed), not printed.
  int ViolationsOf(Kind kind, const std::string& xml, const std::vector<gen::Entry>& entries, const std::vector<Finding>& findings) {
    kind_ = kind;
    quiet_ = true;
    auto run = std::make_shared<TableRun>();
    run->table.xml = xml;
    run->table.entries = entries;
    run->lint.findings = findings;
    std::mt19937 rng(1);
    const int before = violations_;
    Examine(run, rng);
    SettleSkuCalls();
    return violations_ - before;
  }

  Kind kind_ = Kind::kCarrierRules;
  uint64_t seed_ = 0;
  std::string registry_root_;
  const std::string image_path_ = std::string(kFwSwitchBinFolder) + kSarAntDataFolder + "\\" + kImageMappingTableName;
  const std::string scatter_path_ = std::string(kFlashDataFolder) + "\\" + kScatterName;
  std::map<std::pair<std::string, std::string>, std::string> registry_now_;  // the values set, by key path and name
  std::vector<PendingSku> pending_;
  std::vector<std::shared_ptr<TableRun>> sku_runs_;
  int sleeping_ = 0, violations_ = 0;
  bool quiet_ = false;  // violations counted, not printed
  size_t calls_made_ = 0, checked_ = 0;
};

// The seeded random tables of every kind, held against the lookups. Fewer
// calls than a thousand would mean that the tables stopped asking.
TEST_F(LintDifferential, EveryKind) {
  for (Kind kind : AllKinds()) Run(kind);
  if (EnvNumber("DORVANE_LINT_ONLY", static_cast<uint64_t>(-1)) == static_cast<uint64_t>(-1)) {
    EXPECT_GT(calls_made_, 1000u);
    EXPECT_GT(checked_, 500u) << "findings and silent entries held against the lookups";
  }
}

gen::Entry EntryAt(int line, Lookup lookup, const std::string& key, const std::string& key2 = "") {
  gen::Entry e;
  e.line = line, e.lookup = lookup, e.key = key;
  if (!key2.empty()) e.key2 = key2;
  return e;
}

// Each check fails when lint's findings are wrong, and stays quiet when they
// are right: a table, lint's own findings for it, and findings made wrong.
TEST_F(LintDifferential, ChecksFailOnWrongFindings) {
  const std::string regions =
      "<RegionTable>\n<SelectionRule>\n<Region mcc=\"310\" Regulatory=\"RL3\"/>\n<Region mcc=\"310\" Regulatory=\"RL4\"/>\n"
      "<Region mcc=\"460\" Regulatory=\"RL5\"/>\n</SelectionRule>\n</RegionTable>\n";
  const std::vector<gen::Entry> rows = {EntryAt(3, Lookup::kRegulatoryByMcc, "310"), EntryAt(4, Lookup::kRegulatoryByMcc, "310"),
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

  // (c) an overlap whose ICCID the later range answers.
  const std::string rules =
      "<R><SwitchingRule><SelectionRule><MCCMNCTable/><MCCTable/>\n<ICCIDTable>\n<Range min=\"8901\" max=\"8909\">L3</Range>\n"
      "<Range min=\"8901\" max=\"8905\">L4</Range>\n</ICCIDTable></SelectionRule></SwitchingRule></R>";
  const std::string overlap = "an ICCID such as \"8903\" matches both, and carrier-id-by-iccid gives it line ";
  EXPECT_EQ(0, ViolationsOf(Kind::kCarrierRules, rules, {}, {{4, Severity::kWarning, overlap + "3's carrier id"}}));
  EXPECT_EQ(1, ViolationsOf(Kind::kCarrierRules, rules, {}, {{4, Severity::kWarning, overlap + "4's carrier id"}}));

  // A number answer: taking the SKU's key away changes it.
  const std::string esim = "<EsimTable>\n<TableEnableFlag FlagValue=\"True\"/>\n<SKU_BlackList>\n<SKU SKUValue=\"X13-CN\"/>\n"
                           "</SKU_BlackList>\n<IMSI_BlackList>\n</IMSI_BlackList>\n</EsimTable>\n";
  const std::vector<gen::Entry> skus = {EntryAt(4, Lookup::kEsimBySku, "X13-CN")};
  EXPECT_EQ(0, ViolationsOf(Kind::kEsim, esim, skus, LintText(esim, Kind::kEsim, "t.xml").findings));
  EXPECT_EQ(1, ViolationsOf(Kind::kEsim, esim, skus, {{4, Severity::kError, "never black-lists", true}}));

  // A call that lint says never returns, and that returns.
  const std::string sku = "<Skus>\n<SKU_GUID ID=\"A\">\n<Area ID=\"EU\">\n<PARAMFirmware File=\"fw_L4.bin\" Ver=\"L4\" "
                          "Type=\"T\" Count=\"1\"/>\n</Area>\n</SKU_GUID>\n</Skus>\n";
  const std::vector<gen::Entry> areas = {EntryAt(3, Lookup::kParamFirmwareBySku, "A", "EU")};
  EXPECT_EQ(0, ViolationsOf(Kind::kSku, sku, areas, LintText(sku, Kind::kSku, "t.xml").findings));
  EXPECT_EQ(1, ViolationsOf(Kind::kSku, sku, areas,
                            {{2, Severity::kError, "param-firmware-by-sku never returns, whatever it is asked", false}}));
}

}  // namespace
}  // namespace dorvane::lint
