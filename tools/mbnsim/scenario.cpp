#include "tools/mbnsim/scenario.h"

#include <cctype>
#include <cstring>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>

#include "tools/mbnsim/registry.h"

namespace mbnsim {

using dorvane::UniqueRegKey;
using reg::Access;

namespace {

// What the tests and mbnsimctl set up: watched, and read through the cache.
const char kRoot[] = "SOFTWARE\\Dorvane\\MbnSim";
// What the simulator itself writes as it runs: outside the watched tree, so
// that its own writes do not throw the cache away.
const char kStateRoot[] = "SOFTWARE\\Dorvane\\MbnSimState";

std::string Path(const std::string& sub) { return sub.empty() ? kRoot : std::string(kRoot) + "\\" + sub; }
std::string StatePath(const std::string& sub) {
  return sub.empty() ? kStateRoot : std::string(kStateRoot) + "\\" + sub;
}
std::string InterfacePath(int index) { return Path("Interfaces\\" + std::to_string(index)); }
std::string InjectPath(int index) {
  return index < 0 ? Path("Inject") : InterfacePath(index) + "\\Inject";
}

InterfaceInfo ReadInterfaceKey(HKEY key) {
  InterfaceInfo info;
  for (const TextField& field : kTextFields) info.*field.member = reg::ReadString(key, field.name);
  reg::ReadDword(key, kReadyStateField, &info.ready_state);
  return info;
}

void WriteInterfaceKey(int index, const InterfaceInfo& info) {
  UniqueRegKey key = reg::Open(InterfacePath(index), Access::kCreate);
  for (const TextField& field : kTextFields) reg::WriteString(key.get(), field.name, info.*field.member);
  reg::WriteDword(key.get(), kReadyStateField, info.ready_state);
}

std::map<std::string, std::string> ReadStrings(const std::string& path) {
  std::map<std::string, std::string> out;
  UniqueRegKey key = reg::Open(path, Access::kRead);
  for (const reg::Value& v : reg::Values(key.get())) {
    if (v.type == REG_SZ || v.type == REG_BINARY) out[v.name] = v.data;
  }
  return out;
}

// -- the cached scenario ---------------------------------------------------------
//
// Every simulated call reads the scenario, and a round trip of one AT command
// makes dozens of calls: reading the registry each time would cost milliseconds.
// The copy is reloaded whenever the registry reports a change under the root;
// the report is signalled before the writer's call returns, so a change is seen
// by the very next call, in this process or any other.

struct ScenarioData {
  std::vector<InterfaceInfo> interfaces;
  std::vector<std::map<std::string, std::string>> interface_injections;
  std::map<std::string, std::string> injections;
  std::map<std::string, DWORD> delays;
  std::map<std::string, DWORD> options;
  std::map<std::string, std::string> replies;
};

std::map<std::string, DWORD> ReadDwords(const std::string& path) {
  std::map<std::string, DWORD> out;
  UniqueRegKey key = reg::Open(path, Access::kRead);
  for (const reg::Value& v : reg::Values(key.get())) {
    DWORD value = 0;
    if (v.type == REG_DWORD && v.data.size() == sizeof value) {
      std::memcpy(&value, v.data.data(), sizeof value);
      out[v.name] = value;
    }
  }
  return out;
}

std::shared_ptr<const ScenarioData> LoadScenario() {
  auto data = std::make_shared<ScenarioData>();
  for (int i = 0;; ++i) {
    UniqueRegKey key = reg::Open(InterfacePath(i), Access::kRead);
    if (!key) break;
    data->interfaces.push_back(ReadInterfaceKey(key.get()));
    data->interface_injections.push_back(ReadStrings(InjectPath(i)));
  }
  data->injections = ReadStrings(InjectPath(-1));
  data->replies = ReadStrings(Path("Replies"));
  data->delays = ReadDwords(Path("Delay"));
  data->options = ReadDwords(Path("Options"));
  return data;
}

class ScenarioCache {
 public:
  std::shared_ptr<const ScenarioData> Get() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!watch_) {
      reg::Open(kRoot, Access::kCreate);
      watch_ = reg::Open(kRoot, Access::kRead);
      changed_.reset(::CreateEventA(nullptr, TRUE, TRUE, nullptr));
    }
    if (!data_ || !armed_ || ::WaitForSingleObject(changed_.get(), 0) == WAIT_OBJECT_0) {
      ::ResetEvent(changed_.get());
      // Armed before reading, so that a change during the read is not missed.
      // Thread-agnostic: the calling thread may end before the next change.
      armed_ = ::RegNotifyChangeKeyValue(watch_.get(), TRUE,
                                         REG_NOTIFY_CHANGE_NAME | REG_NOTIFY_CHANGE_LAST_SET |
                                             REG_NOTIFY_THREAD_AGNOSTIC,
                                         changed_.get(), TRUE) == ERROR_SUCCESS;
      data_ = LoadScenario();
    }
    return data_;
  }

 private:
  std::mutex mutex_;
  UniqueRegKey watch_;
  dorvane::UniqueHandle changed_;
  bool armed_ = false;
  std::shared_ptr<const ScenarioData> data_;
};

std::shared_ptr<const ScenarioData> Scenario() {
  static ScenarioCache* cache = new ScenarioCache();  // lives until the process ends
  return cache->Get();
}

void PostEvent(const char* kind, const std::string& interface_id) {
  UniqueRegKey key = reg::Open(Path("Events"), Access::kCreate);
  DWORD seq = 0;
  reg::ReadDword(key.get(), "Seq", &seq);
  ++seq;
  reg::WriteString(key.get(), ("E" + std::to_string(seq)).c_str(), std::string(kind) + " " + interface_id);
  // The sequence number last: a reader that sees it finds the event written.
  reg::WriteDword(key.get(), "Seq", seq);
}

}  // namespace

InterfaceInfo DefaultInterface(int n) {
  char buf[64];
  InterfaceInfo info;
  std::snprintf(buf, sizeof buf, "{4D0C1A3E-5F6B-4C2D-9E8F-0A1B2C3D4E%02X}", n & 0xFF);
  info.interface_id = buf;
  std::snprintf(buf, sizeof buf, "89012604%011d", 123456789 + n);
  info.iccid = buf;
  std::snprintf(buf, sizeof buf, "3102601%08d", 23456789 + n);
  info.subscriber_id = buf;
  info.home_provider_id = n == 0 ? "310260" : "26201";
  info.home_provider_name = n == 0 ? "T-Mobile" : "Telekom.de";
  info.registered_provider_id = info.home_provider_id;
  return info;
}

// -- reading -----------------------------------------------------------------------

std::vector<InterfaceInfo> ReadInterfaces() { return Scenario()->interfaces; }

int FindInterface(const std::string& interface_id, InterfaceInfo* info) {
  const auto data = Scenario();
  for (size_t i = 0; i < data->interfaces.size(); ++i) {
    if (data->interfaces[i].interface_id == interface_id) {
      if (info) *info = data->interfaces[i];
      return static_cast<int>(i);
    }
  }
  return -1;
}

bool ParseInjection(const std::string& text, Injection* out) {
  Injection inj;
  if (text.empty()) {
    *out = inj;
    return true;
  }
  for (const InjectionWord& word : kInjectionWords) {
    if (text == word.text) {
      inj.kind = word.kind;
      *out = inj;
      return true;
    }
  }
  char* end = nullptr;
  unsigned long value = std::strtoul(text.c_str(), &end, 0);
  if (end == text.c_str() || *end != '\0') return false;
  inj.kind = Injection::kFail;
  inj.hr = static_cast<HRESULT>(value);
  *out = inj;
  return true;
}

bool CallTakes(Call call, Injection::Kind kind) {
  for (const InjectionWord& word : kInjectionWords) {
    if (word.kind == kind) return (Info(call).traits & word.needs) != 0;
  }
  return true;  // kNone, kFail
}

Injection ReadInjection(Call call, int index) {
  const auto data = Scenario();
  const std::string name = CallName(call);
  Injection inj;
  if (index >= 0 && static_cast<size_t>(index) < data->interface_injections.size()) {
    const auto& own = data->interface_injections[static_cast<size_t>(index)];
    auto it = own.find(name);
    if (it != own.end() && ParseInjection(it->second, &inj) && inj.kind != Injection::kNone) return inj;
  }
  auto it = data->injections.find(name);
  if (it == data->injections.end() || !ParseInjection(it->second, &inj)) return Injection();
  return inj;
}

DWORD ReadDelay(Call call) {
  const auto data = Scenario();
  auto it = data->delays.find(CallName(call));
  return it == data->delays.end() ? 0 : it->second;
}

DWORD ReadOption(const std::string& name, DWORD fallback) {
  const auto data = Scenario();
  auto it = data->options.find(name);
  return it == data->options.end() ? fallback : it->second;
}

std::string NormaliseCommand(const std::string& payload) {
  size_t begin = 0;
  size_t end = payload.size();
  auto blank = [](char c) { return c == '\r' || c == '\n' || c == ' ' || c == '\0'; };
  while (begin < end && blank(payload[begin])) ++begin;
  while (end > begin && blank(payload[end - 1])) --end;
  std::string out = payload.substr(begin, end - begin);
  for (char& c : out) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return out;
}

bool ReadReply(const std::string& command, std::string* bytes) {
  const auto data = Scenario();
  auto it = data->replies.find(NormaliseCommand(command));
  if (it == data->replies.end()) return false;
  *bytes = it->second;
  return true;
}

DWORD EventSeq() {
  UniqueRegKey key = reg::Open(Path("Events"), Access::kRead);
  DWORD seq = 0;
  reg::ReadDword(key.get(), "Seq", &seq);
  return seq;
}

bool ReadEvent(DWORD seq, Event* event) {
  UniqueRegKey key = reg::Open(Path("Events"), Access::kRead);
  const std::string text = reg::ReadString(key.get(), ("E" + std::to_string(seq)).c_str());
  const size_t blank = text.find(' ');
  if (blank == std::string::npos) return false;
  const std::string kind = text.substr(0, blank);
  if (kind != "arrival" && kind != "removal") return false;
  event->kind = kind == "arrival" ? Event::kArrival : Event::kRemoval;
  event->interface_id = text.substr(blank + 1);
  return true;
}

// -- the simulator's state -------------------------------------------------------------

namespace {

std::string SessionPath(int index) {
  const auto data = Scenario();
  if (index < 0 || static_cast<size_t>(index) >= data->interfaces.size()) return std::string();
  return StatePath("Sessions\\" + data->interfaces[static_cast<size_t>(index)].interface_id);
}

}  // namespace

bool SessionOpen(int index) {
  const std::string path = SessionPath(index);
  if (path.empty()) return false;
  UniqueRegKey key = reg::Open(path, Access::kRead);
  DWORD open = 0;
  reg::ReadDword(key.get(), "Open", &open);
  return open != 0;
}

void SetSessionOpen(int index, bool open) {
  const std::string path = SessionPath(index);
  if (path.empty()) return;
  UniqueRegKey key = reg::Open(path, Access::kCreate);
  const char* counter = open ? "Opens" : "Closes";
  DWORD count = 0;
  reg::ReadDword(key.get(), counter, &count);
  reg::WriteDword(key.get(), counter, count + 1);
  reg::WriteDword(key.get(), "Open", open ? 1 : 0);
}

void SessionCounts(int index, DWORD* opens, DWORD* closes) {
  *opens = 0;
  *closes = 0;
  const std::string path = SessionPath(index);
  if (path.empty()) return;
  UniqueRegKey key = reg::Open(path, Access::kRead);
  reg::ReadDword(key.get(), "Opens", opens);
  reg::ReadDword(key.get(), "Closes", closes);
}

void RecordCommand(const SentCommand& sent) {
  UniqueRegKey key = reg::Open(StatePath("LastCommand"), Access::kCreate);
  DWORD count = 0;
  reg::ReadDword(key.get(), "Count", &count);
  reg::WriteDword(key.get(), "ID", sent.command_id);
  reg::WriteDword(key.get(), "Type", sent.type);
  reg::WriteBinary(key.get(), "Bytes", sent.bytes);
  reg::WriteDword(key.get(), "Count", count + 1);
}

bool ReadLastCommand(SentCommand* sent) {
  UniqueRegKey key = reg::Open(StatePath("LastCommand"), Access::kRead);
  DWORD type = VT_EMPTY;
  if (!reg::ReadBinary(key.get(), "Bytes", &sent->bytes)) return false;
  reg::ReadDword(key.get(), "ID", &sent->command_id);
  reg::ReadDword(key.get(), "Type", &type);
  reg::ReadDword(key.get(), "Count", &sent->count);
  sent->type = static_cast<VARTYPE>(type);
  return true;
}

// One binary value per process, written through a key kept open: objects come
// and go dozens of times per AT command, and each change is published at once.
namespace {

struct CounterRecord {
  DWORD values[7];
};

CounterRecord Pack(const Counters& c) {
  return CounterRecord{{c.live_objects, c.advised_sinks, c.bad_releases, c.bad_unadvises,
                        c.pending_completions, c.arrivals_delivered, c.removals_delivered}};
}

}  // namespace

void PublishCounters(DWORD pid, const Counters& c) {
  static DWORD open_pid = 0;
  static UniqueRegKey* key = new UniqueRegKey();  // kept open until the process ends
  const CounterRecord record = Pack(c);
  const std::string bytes(reinterpret_cast<const char*>(&record), sizeof record);
  // A second try after a reset has deleted the key under us.
  for (int attempt = 0; attempt < 2; ++attempt) {
    if (!*key || open_pid != pid) {
      *key = reg::Open(StatePath("Counters\\" + std::to_string(pid)), Access::kCreate);
      open_pid = pid;
    }
    if (reg::WriteBinary(key->get(), "Counters", bytes) == ERROR_SUCCESS) return;
    key->reset();
  }
}

bool ReadCounters(DWORD pid, Counters* c) {
  UniqueRegKey key = reg::Open(StatePath("Counters\\" + std::to_string(pid)), Access::kRead);
  std::string bytes;
  if (!reg::ReadBinary(key.get(), "Counters", &bytes) || bytes.size() != sizeof(CounterRecord)) {
    return false;
  }
  CounterRecord r;
  std::memcpy(&r, bytes.data(), sizeof r);
  *c = Counters{r.values[0], r.values[1], r.values[2], r.values[3],
                r.values[4], r.values[5], r.values[6]};
  return true;
}

std::vector<std::pair<DWORD, Counters>> AllCounters() {
  std::vector<std::pair<DWORD, Counters>> out;
  UniqueRegKey key = reg::Open(StatePath("Counters"), Access::kRead);
  for (const std::string& name : reg::Subkeys(key.get())) {
    Counters c;
    DWORD pid = static_cast<DWORD>(std::strtoul(name.c_str(), nullptr, 10));
    if (ReadCounters(pid, &c)) out.emplace_back(pid, c);
  }
  return out;
}

// -- control -----------------------------------------------------------------------------

void Reset() {
  for (const char* sub : {"Interfaces", "Inject", "Delay", "Replies", "Options"}) {
    reg::DeleteTree(Path(sub));
  }
  reg::DeleteTree(kStateRoot);
  reg::Open(Path("Interfaces"), Access::kCreate);
  reg::Open(Path("Events"), Access::kCreate);
}

void SetInterfaces(const std::vector<InterfaceInfo>& interfaces) {
  reg::DeleteTree(Path("Interfaces"));
  reg::Open(Path("Interfaces"), Access::kCreate);
  for (size_t i = 0; i < interfaces.size(); ++i) WriteInterfaceKey(static_cast<int>(i), interfaces[i]);
}

std::vector<std::string> InterfaceFieldNames() {
  std::vector<std::string> names;
  for (const TextField& field : kTextFields) names.push_back(field.name);
  names.insert(names.begin() + 1, kReadyStateField);
  return names;
}

bool SetField(int index, const std::string& field, const std::string& value) {
  UniqueRegKey key = reg::Open(InterfacePath(index), Access::kWrite);
  if (!key || index < 0) return false;
  InterfaceInfo info = ReadInterfaceKey(key.get());
  if (field == kReadyStateField) {
    info.ready_state = static_cast<DWORD>(std::strtoul(value.c_str(), nullptr, 0));
  } else {
    const TextField* text = nullptr;
    for (const TextField& known : kTextFields) {
      if (field == known.name) text = &known;
    }
    if (text == nullptr) return false;
    info.*text->member = value;
  }
  WriteInterfaceKey(index, info);
  return true;
}

bool Inject(const std::string& call, const std::string& what, int index) {
  Injection parsed;
  if (!ParseInjection(what, &parsed)) return false;
  if (index >= 0 && !reg::Open(InterfacePath(index), Access::kRead)) return false;
  UniqueRegKey key = reg::Open(InjectPath(index), Access::kCreate);
  if (what.empty()) {
    ::RegDeleteValueA(key.get(), call.c_str());
  } else {
    reg::WriteString(key.get(), call.c_str(), what);
  }
  return true;
}

void SetDelay(const std::string& call, DWORD ms) {
  UniqueRegKey key = reg::Open(Path("Delay"), Access::kCreate);
  if (ms == 0) {
    ::RegDeleteValueA(key.get(), call.c_str());
  } else {
    reg::WriteDword(key.get(), call.c_str(), ms);
  }
}

namespace {

bool KnownOption(const std::string& name) {
  for (const char* known : kOptionNames) {
    if (name == known) return true;
  }
  return false;
}

}  // namespace

bool SetOption(const std::string& name, DWORD value) {
  if (!KnownOption(name)) return false;
  UniqueRegKey key = reg::Open(Path("Options"), Access::kCreate);
  reg::WriteDword(key.get(), name.c_str(), value);
  return true;
}

bool ClearOption(const std::string& name) {
  if (!KnownOption(name)) return false;
  UniqueRegKey key = reg::Open(Path("Options"), Access::kCreate);
  ::RegDeleteValueA(key.get(), name.c_str());
  return true;
}

void SetReply(const std::string& command, const std::string& bytes) {
  UniqueRegKey key = reg::Open(Path("Replies"), Access::kCreate);
  const std::string name = NormaliseCommand(command);
  if (bytes.empty()) {
    ::RegDeleteValueA(key.get(), name.c_str());
  } else {
    reg::WriteBinary(key.get(), name.c_str(), bytes);
  }
}

void Arrive(const InterfaceInfo& info) {
  int count = 0;
  while (reg::Open(InterfacePath(count), Access::kRead)) ++count;
  WriteInterfaceKey(count, info);
  PostEvent("arrival", info.interface_id);
}

bool Remove(int index) {
  std::vector<InterfaceInfo> all;
  for (int i = 0;; ++i) {
    UniqueRegKey key = reg::Open(InterfacePath(i), Access::kRead);
    if (!key) break;
    all.push_back(ReadInterfaceKey(key.get()));
  }
  if (index < 0 || index >= static_cast<int>(all.size())) return false;
  const std::string id = all[static_cast<size_t>(index)].interface_id;
  all.erase(all.begin() + index);
  // Per-interface injections follow their index; a removal drops them all.
  SetInterfaces(all);
  PostEvent("removal", id);
  return true;
}

}  // namespace mbnsim
