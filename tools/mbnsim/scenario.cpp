#include "tools/mbnsim/scenario.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>

#include "util/scoped_handle.h"

namespace mbnsim {

using dorvane::UniqueRegKey;

namespace {

const char kRoot[] = "SOFTWARE\\Dorvane\\MbnSim";

std::string Sub(const std::string& path) { return path.empty() ? kRoot : std::string(kRoot) + "\\" + path; }

enum class Access { kRead, kWrite, kCreate };

UniqueRegKey OpenKey(const std::string& path, Access access) {
  UniqueRegKey key;
  const std::string full = Sub(path);
  if (access == Access::kCreate) {
    ::RegCreateKeyExA(HKEY_LOCAL_MACHINE, full.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                      key.put(), nullptr);
  } else {
    ::RegOpenKeyExA(HKEY_LOCAL_MACHINE, full.c_str(), 0,
                    access == Access::kRead ? KEY_READ : KEY_READ | KEY_WRITE, key.put());
  }
  return key;
}

UniqueRegKey OpenKey(const std::string& path, bool create) {
  return OpenKey(path, create ? Access::kCreate : Access::kRead);
}

std::string ReadString(HKEY key, const char* name) {
  char buf[1024];
  DWORD size = sizeof buf - 1;
  DWORD type = 0;
  if (key == nullptr ||
      ::RegQueryValueExA(key, name, nullptr, &type, reinterpret_cast<BYTE*>(buf), &size) !=
          ERROR_SUCCESS ||
      type != REG_SZ) {
    return std::string();
  }
  buf[size] = '\0';
  return std::string(buf);
}

bool ReadDword(HKEY key, const char* name, DWORD* out) {
  DWORD value = 0;
  DWORD size = sizeof value;
  DWORD type = 0;
  if (key == nullptr ||
      ::RegQueryValueExA(key, name, nullptr, &type, reinterpret_cast<BYTE*>(&value), &size) !=
          ERROR_SUCCESS ||
      type != REG_DWORD) {
    return false;
  }
  *out = value;
  return true;
}

void WriteString(HKEY key, const char* name, const std::string& value) {
  ::RegSetValueExA(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                   static_cast<DWORD>(value.size() + 1));
}

void WriteDword(HKEY key, const char* name, DWORD value) {
  ::RegSetValueExA(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof value);
}

void DeleteTree(const std::string& path) {
  ::RegDeleteTreeA(HKEY_LOCAL_MACHINE, Sub(path).c_str());
}

InterfaceInfo ReadInterfaceKey(HKEY key) {
  InterfaceInfo info;
  info.interface_id = ReadString(key, "InterfaceID");
  ReadDword(key, "ReadyState", &info.ready_state);
  info.iccid = ReadString(key, "ICCID");
  info.subscriber_id = ReadString(key, "SubscriberID");
  info.home_provider_id = ReadString(key, "HomeProviderID");
  info.home_provider_name = ReadString(key, "HomeProviderName");
  info.registered_provider_id = ReadString(key, "RegisteredProviderID");
  return info;
}

void WriteInterfaceKey(int index, const InterfaceInfo& info) {
  UniqueRegKey key = OpenKey("Interfaces\\" + std::to_string(index), true);
  WriteString(key.get(), "InterfaceID", info.interface_id);
  WriteDword(key.get(), "ReadyState", info.ready_state);
  WriteString(key.get(), "ICCID", info.iccid);
  WriteString(key.get(), "SubscriberID", info.subscriber_id);
  WriteString(key.get(), "HomeProviderID", info.home_provider_id);
  WriteString(key.get(), "HomeProviderName", info.home_provider_name);
  WriteString(key.get(), "RegisteredProviderID", info.registered_provider_id);
}

std::string InjectPath(int index) {
  return index < 0 ? std::string("Inject") : "Interfaces\\" + std::to_string(index) + "\\Inject";
}

void PostEvent(const char* kind, const std::string& interface_id) {
  UniqueRegKey key = OpenKey("Events", true);
  DWORD seq = 0;
  ReadDword(key.get(), "Seq", &seq);
  ++seq;
  WriteString(key.get(), ("E" + std::to_string(seq)).c_str(), std::string(kind) + " " + interface_id);
  // The sequence number last: a reader that sees it finds the event written.
  WriteDword(key.get(), "Seq", seq);
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

std::vector<InterfaceInfo> ReadInterfaces() {
  std::vector<InterfaceInfo> out;
  for (int i = 0;; ++i) {
    UniqueRegKey key = OpenKey("Interfaces\\" + std::to_string(i), false);
    if (!key) break;
    out.push_back(ReadInterfaceKey(key.get()));
  }
  return out;
}

int FindInterface(const std::string& interface_id, InterfaceInfo* info) {
  std::vector<InterfaceInfo> all = ReadInterfaces();
  for (size_t i = 0; i < all.size(); ++i) {
    if (all[i].interface_id == interface_id) {
      if (info) *info = all[i];
      return static_cast<int>(i);
    }
  }
  return -1;
}

bool ParseInjection(const std::string& text, Injection* out) {
  Injection inj;
  if (text.empty()) {
    inj.kind = Injection::kNone;
  } else if (text == "null") {
    inj.kind = Injection::kNull;
  } else if (text == "wrongtype") {
    inj.kind = Injection::kWrongType;
  } else if (text == "nullelement") {
    inj.kind = Injection::kNullElement;
  } else if (text == "none") {
    inj.kind = Injection::kNoCompletion;
  } else if (text == "wrongid") {
    inj.kind = Injection::kWrongId;
  } else if (text == "empty") {
    inj.kind = Injection::kEmpty;
  } else {
    char* end = nullptr;
    unsigned long value = std::strtoul(text.c_str(), &end, 0);
    if (end == text.c_str() || *end != '\0') return false;
    inj.kind = Injection::kFail;
    inj.hr = static_cast<HRESULT>(value);
  }
  *out = inj;
  return true;
}

Injection ReadInjection(const std::string& call, int index) {
  Injection inj;
  if (index >= 0) {
    UniqueRegKey own = OpenKey(InjectPath(index), false);
    if (own && ParseInjection(ReadString(own.get(), call.c_str()), &inj) &&
        inj.kind != Injection::kNone) {
      return inj;
    }
  }
  UniqueRegKey global = OpenKey(InjectPath(-1), false);
  if (!global || !ParseInjection(ReadString(global.get(), call.c_str()), &inj)) return Injection();
  return inj;
}

bool SessionOpen(int index) {
  UniqueRegKey key = OpenKey("Interfaces\\" + std::to_string(index), false);
  DWORD open = 0;
  ReadDword(key.get(), "CommandSessionOpen", &open);
  return open != 0;
}

void SetSessionOpen(int index, bool open) {
  UniqueRegKey key = OpenKey("Interfaces\\" + std::to_string(index), Access::kWrite);
  if (!key) return;
  DWORD opens = 0;
  DWORD closes = 0;
  ReadDword(key.get(), "SessionOpens", &opens);
  ReadDword(key.get(), "SessionCloses", &closes);
  WriteDword(key.get(), open ? "SessionOpens" : "SessionCloses", (open ? opens : closes) + 1);
  WriteDword(key.get(), "CommandSessionOpen", open ? 1 : 0);
}

void SessionCounts(int index, DWORD* opens, DWORD* closes) {
  UniqueRegKey key = OpenKey("Interfaces\\" + std::to_string(index), false);
  *opens = 0;
  *closes = 0;
  ReadDword(key.get(), "SessionOpens", opens);
  ReadDword(key.get(), "SessionCloses", closes);
}

namespace {

bool ReadBinary(HKEY key, const char* name, std::string* out) {
  DWORD size = 0;
  DWORD type = 0;
  if (key == nullptr || ::RegQueryValueExA(key, name, nullptr, &type, nullptr, &size) != ERROR_SUCCESS ||
      type != REG_BINARY) {
    return false;
  }
  std::string bytes(size, '\0');
  if (size > 0 && ::RegQueryValueExA(key, name, nullptr, &type, reinterpret_cast<BYTE*>(&bytes[0]),
                                     &size) != ERROR_SUCCESS) {
    return false;
  }
  bytes.resize(size);
  *out = bytes;
  return true;
}

void WriteBinary(HKEY key, const char* name, const std::string& bytes) {
  ::RegSetValueExA(key, name, 0, REG_BINARY, reinterpret_cast<const BYTE*>(bytes.data()),
                   static_cast<DWORD>(bytes.size()));
}

}  // namespace

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
  UniqueRegKey key = OpenKey("Replies", false);
  return ReadBinary(key.get(), NormaliseCommand(command).c_str(), bytes);
}

void SetReply(const std::string& command, const std::string& bytes) {
  UniqueRegKey key = OpenKey("Replies", true);
  const std::string name = NormaliseCommand(command);
  if (bytes.empty()) {
    ::RegDeleteValueA(key.get(), name.c_str());
  } else {
    WriteBinary(key.get(), name.c_str(), bytes);
  }
}

void RecordCommand(const SentCommand& sent) {
  UniqueRegKey key = OpenKey("", true);
  DWORD count = 0;
  ReadDword(key.get(), "LastCommandCount", &count);
  WriteDword(key.get(), "LastCommandID", sent.command_id);
  WriteDword(key.get(), "LastCommandType", sent.type);
  WriteBinary(key.get(), "LastCommand", sent.bytes);
  WriteDword(key.get(), "LastCommandCount", count + 1);
}

bool ReadLastCommand(SentCommand* sent) {
  UniqueRegKey key = OpenKey("", false);
  DWORD type = VT_EMPTY;
  if (!ReadBinary(key.get(), "LastCommand", &sent->bytes)) return false;
  ReadDword(key.get(), "LastCommandID", &sent->command_id);
  ReadDword(key.get(), "LastCommandType", &type);
  ReadDword(key.get(), "LastCommandCount", &sent->count);
  sent->type = static_cast<VARTYPE>(type);
  return true;
}

DWORD ReadDelay(const std::string& call) {
  UniqueRegKey key = OpenKey("Delay", false);
  DWORD ms = 0;
  ReadDword(key.get(), call.c_str(), &ms);
  return ms;
}

void SetDelay(const std::string& call, DWORD ms) {
  UniqueRegKey key = OpenKey("Delay", true);
  if (ms == 0) {
    ::RegDeleteValueA(key.get(), call.c_str());
  } else {
    WriteDword(key.get(), call.c_str(), ms);
  }
}

DWORD EventSeq() {
  UniqueRegKey key = OpenKey("Events", false);
  DWORD seq = 0;
  ReadDword(key.get(), "Seq", &seq);
  return seq;
}

bool ReadEvent(DWORD seq, Event* event) {
  UniqueRegKey key = OpenKey("Events", false);
  const std::string text = ReadString(key.get(), ("E" + std::to_string(seq)).c_str());
  const size_t blank = text.find(' ');
  if (blank == std::string::npos) return false;
  const std::string kind = text.substr(0, blank);
  if (kind != "arrival" && kind != "removal") return false;
  event->kind = kind == "arrival" ? Event::kArrival : Event::kRemoval;
  event->interface_id = text.substr(blank + 1);
  return true;
}

void PublishCounters(DWORD pid, const Counters& c) {
  UniqueRegKey key = OpenKey("Counters\\" + std::to_string(pid), true);
  WriteDword(key.get(), "LiveObjects", c.live_objects);
  WriteDword(key.get(), "AdvisedSinks", c.advised_sinks);
  WriteDword(key.get(), "BadReleases", c.bad_releases);
  WriteDword(key.get(), "BadUnadvises", c.bad_unadvises);
  WriteDword(key.get(), "PendingCompletions", c.pending_completions);
}

bool ReadCounters(DWORD pid, Counters* c) {
  UniqueRegKey key = OpenKey("Counters\\" + std::to_string(pid), false);
  if (!key) return false;
  ReadDword(key.get(), "LiveObjects", &c->live_objects);
  ReadDword(key.get(), "AdvisedSinks", &c->advised_sinks);
  ReadDword(key.get(), "BadReleases", &c->bad_releases);
  ReadDword(key.get(), "BadUnadvises", &c->bad_unadvises);
  ReadDword(key.get(), "PendingCompletions", &c->pending_completions);
  return true;
}

std::vector<std::pair<DWORD, Counters>> AllCounters() {
  std::vector<std::pair<DWORD, Counters>> out;
  UniqueRegKey key = OpenKey("Counters", false);
  if (!key) return out;
  char name[64];
  for (DWORD i = 0;; ++i) {
    DWORD size = sizeof name;
    if (::RegEnumKeyExA(key.get(), i, name, &size, nullptr, nullptr, nullptr, nullptr) !=
        ERROR_SUCCESS) {
      break;
    }
    Counters c;
    DWORD pid = static_cast<DWORD>(std::strtoul(name, nullptr, 10));
    if (ReadCounters(pid, &c)) out.emplace_back(pid, c);
  }
  return out;
}

void Reset() {
  DeleteTree("Interfaces");
  DeleteTree("Inject");
  DeleteTree("Delay");
  DeleteTree("Replies");
  DeleteTree("Counters");
  UniqueRegKey root = OpenKey("", true);
  for (const char* name : {"LastCommand", "LastCommandID", "LastCommandType", "LastCommandCount"}) {
    ::RegDeleteValueA(root.get(), name);
  }
  OpenKey("Interfaces", true);
  OpenKey("Events", true);
}

void SetInterfaces(const std::vector<InterfaceInfo>& interfaces) {
  DeleteTree("Interfaces");
  OpenKey("Interfaces", true);
  for (size_t i = 0; i < interfaces.size(); ++i) WriteInterfaceKey(static_cast<int>(i), interfaces[i]);
}

bool SetField(int index, const std::string& field, const std::string& value) {
  std::vector<InterfaceInfo> all = ReadInterfaces();
  if (index < 0 || index >= static_cast<int>(all.size())) return false;
  InterfaceInfo& info = all[static_cast<size_t>(index)];
  if (field == "InterfaceID") {
    info.interface_id = value;
  } else if (field == "ReadyState") {
    info.ready_state = static_cast<DWORD>(std::strtoul(value.c_str(), nullptr, 0));
  } else if (field == "ICCID") {
    info.iccid = value;
  } else if (field == "SubscriberID") {
    info.subscriber_id = value;
  } else if (field == "HomeProviderID") {
    info.home_provider_id = value;
  } else if (field == "HomeProviderName") {
    info.home_provider_name = value;
  } else if (field == "RegisteredProviderID") {
    info.registered_provider_id = value;
  } else {
    return false;
  }
  WriteInterfaceKey(index, info);
  return true;
}

bool Inject(const std::string& call, const std::string& what, int index) {
  Injection parsed;
  if (!ParseInjection(what, &parsed)) return false;
  if (index >= 0 && !OpenKey("Interfaces\\" + std::to_string(index), false)) return false;
  UniqueRegKey key = OpenKey(InjectPath(index), true);
  if (what.empty()) {
    ::RegDeleteValueA(key.get(), call.c_str());
  } else {
    WriteString(key.get(), call.c_str(), what);
  }
  return true;
}

void Arrive(const InterfaceInfo& info) {
  WriteInterfaceKey(static_cast<int>(ReadInterfaces().size()), info);
  PostEvent("arrival", info.interface_id);
}

bool Remove(int index) {
  std::vector<InterfaceInfo> all = ReadInterfaces();
  if (index < 0 || index >= static_cast<int>(all.size())) return false;
  const std::string id = all[static_cast<size_t>(index)].interface_id;
  all.erase(all.begin() + index);
  // Per-interface injections follow their index; a removal drops them all.
  SetInterfaces(all);
  PostEvent("removal", id);
  return true;
}

}  // namespace mbnsim
