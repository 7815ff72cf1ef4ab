// mbnsimctl: sets up and drives the Mobile Broadband simulator's modem.
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "tools/mbnsim/scenario.h"

namespace {

const char kUsage[] =
    "usage: mbnsimctl COMMAND [ARGS]\n"
    "  register [DLL]            register mbnsim.dll (default: beside this program)\n"
    "  unregister [DLL]          remove its registration\n"
    "  reset [N]                 forget interfaces, failures and counters; make N\n"
    "                            default interfaces (default 1, 0 for no modem)\n"
    "  set INDEX FIELD VALUE     FIELD: InterfaceID ReadyState ICCID SubscriberID\n"
    "                            HomeProviderID HomeProviderName RegisteredProviderID\n"
    "  inject CALL WHAT [INDEX]  make CALL fail: WHAT is an HRESULT (0x80004005),\n"
    "                            null, wrongtype, nullelement, or clear; INDEX limits\n"
    "                            it to one interface. For a completion (CALL.Complete,\n"
    "                            e.g. SetCommand.Complete): none, an HRESULT (its\n"
    "                            status), wrongid, empty, early, twice or split\n"
    "  delay CALL MS             make CALL (or CALL.Complete) MS milliseconds late\n"
    "                            (0 clears)\n"
    "  option NAME VALUE|clear   DeliveryThreads (default 2), MaxCommandSize (4096)\n"
    "  reply COMMAND TEXT        answer the AT COMMAND with TEXT (escapes \\r \\n \\xHH);\n"
    "                            TEXT clear goes back to the built-in answer\n"
    "  session INDEX open|closed set the AT service's command session state\n"
    "  last                      print the last command sent (id, type, bytes)\n"
    "  arrive [FIELD=VALUE...]   add an interface and announce its arrival\n"
    "  remove INDEX              announce an interface's removal and take it away\n"
    "  cycle COUNT               interface 0 leaves and comes back, COUNT times\n"
    "  swap-sim COUNT            a new SIM (ICCID, home provider) in interface 0,\n"
    "                            COUNT times; a moment without interface is skipped\n"
    "  show                      print the interfaces\n"
    "  counters                  print each process's leftovers and mistakes, and the\n"
    "                            interface events its sinks were given\n";

int Usage() {
  std::fputs(kUsage, stderr);
  return 2;
}

int Fail(const char* what) {
  std::fprintf(stderr, "mbnsimctl: %s\n", what);
  return 1;
}

int CallServerFunction(const std::vector<std::string>& args, const char* function) {
  std::string dll;
  if (args.size() > 2) {
    dll = args[2];
  } else {
    char self[MAX_PATH];
    DWORD n = ::GetModuleFileNameA(nullptr, self, MAX_PATH);
    dll.assign(self, n);
    dll = dll.substr(0, dll.find_last_of("\\/") + 1) + "mbnsim.dll";
  }
  HMODULE module = ::LoadLibraryA(dll.c_str());
  if (module == nullptr) return Fail(("cannot load " + dll).c_str());
  auto fn = reinterpret_cast<HRESULT(__stdcall*)()>(
      reinterpret_cast<void*>(::GetProcAddress(module, function)));
  HRESULT hr = fn ? fn() : E_NOINTERFACE;
  ::FreeLibrary(module);
  if (FAILED(hr)) return Fail((std::string(function) + " failed").c_str());
  std::printf("%s: %s\n", function, dll.c_str());
  return 0;
}

// Reads C-style escapes: \r \n \t \\ and \xHH.
bool Unescape(const std::string& text, std::string* out) {
  out->clear();
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      out->push_back(text[i]);
      continue;
    }
    if (++i == text.size()) return false;
    switch (text[i]) {
      case 'r': out->push_back('\r'); break;
      case 'n': out->push_back('\n'); break;
      case 't': out->push_back('\t'); break;
      case '\\': out->push_back('\\'); break;
      case 'x': {
        const std::string digits = text.substr(i + 1, 2);
        char* end = nullptr;
        long value = std::strtol(digits.c_str(), &end, 16);
        if (digits.size() != 2 || *end != '\0') return false;
        out->push_back(static_cast<char>(value));
        i += 2;
        break;
      }
      default:
        return false;
    }
  }
  return true;
}

void Show() {
  const auto all = mbnsim::ReadInterfaces();
  std::printf("%zu interface(s)\n", all.size());
  for (size_t i = 0; i < all.size(); ++i) {
    const auto& f = all[i];
    std::printf("%zu: InterfaceID=%s ReadyState=%lu ICCID=%s SubscriberID=%s HomeProviderID=%s "
                "HomeProviderName=%s RegisteredProviderID=%s\n",
                i, f.interface_id.c_str(), static_cast<unsigned long>(f.ready_state),
                f.iccid.c_str(), f.subscriber_id.c_str(), f.home_provider_id.c_str(),
                f.home_provider_name.c_str(), f.registered_provider_id.c_str());
  }
}

// Interface 0 leaves and the same modem comes back, `count` times.
int Cycle(int count) {
  int removals = 0;
  int arrivals = 0;
  for (int i = 0; i < count; ++i) {
    const auto all = mbnsim::ReadInterfaces();
    mbnsim::InterfaceInfo info = all.empty() ? mbnsim::DefaultInterface(0) : all.front();
    if (!all.empty() && mbnsim::Remove(0)) ++removals;
    mbnsim::Arrive(info);
    ++arrivals;
  }
  std::printf("%d removal(s), %d arrival(s) announced\n", removals, arrivals);
  return 0;
}

// A different SIM in interface 0, `count` times: ICCID and home provider change
// together. While another process has taken the interface away there is
// nothing to change; that round is skipped.
int SwapSim(int count) {
  int changed = 0;
  for (int i = 0; i < count; ++i) {
    char iccid[32];
    std::snprintf(iccid, sizeof iccid, "8949%016d", i);
    const char* provider = i % 2 ? "26201" : "310260";
    if (mbnsim::SetField(0, "ICCID", iccid) && mbnsim::SetField(0, "HomeProviderID", provider)) {
      ++changed;
    }
  }
  std::printf("%d SIM change(s), %d skipped\n", changed, count - changed);
  return 0;
}

int Run(const std::vector<std::string>& args) {
  if (args.size() < 2) return Usage();
  const std::string& cmd = args[1];
  if (cmd == "register") return CallServerFunction(args, "DllRegisterServer");
  if (cmd == "unregister") return CallServerFunction(args, "DllUnregisterServer");
  if (cmd == "reset") {
    const int n = args.size() > 2 ? std::atoi(args[2].c_str()) : 1;
    mbnsim::Reset();
    std::vector<mbnsim::InterfaceInfo> interfaces;
    for (int i = 0; i < n; ++i) interfaces.push_back(mbnsim::DefaultInterface(i));
    mbnsim::SetInterfaces(interfaces);
    return 0;
  }
  if (cmd == "set" && args.size() == 5) {
    if (!mbnsim::SetField(std::atoi(args[2].c_str()), args[3], args[4])) {
      return Fail("no such interface or field");
    }
    return 0;
  }
  if (cmd == "inject" && (args.size() == 4 || args.size() == 5)) {
    const std::string what = args[3] == "clear" ? std::string() : args[3];
    const int index = args.size() == 5 ? std::atoi(args[4].c_str()) : -1;
    if (!mbnsim::Inject(args[2], what, index)) return Fail("bad failure or interface index");
    return 0;
  }
  if (cmd == "reply" && args.size() == 4) {
    std::string bytes;
    if (args[3] != "clear" && !Unescape(args[3], &bytes)) return Fail("bad escape in TEXT");
    mbnsim::SetReply(args[2], bytes);
    return 0;
  }
  if (cmd == "session" && args.size() == 4 && (args[3] == "open" || args[3] == "closed")) {
    const int index = std::atoi(args[2].c_str());
    if (index < 0 || index >= static_cast<int>(mbnsim::ReadInterfaces().size())) {
      return Fail("no such interface");
    }
    mbnsim::SetSessionOpen(index, args[3] == "open");
    return 0;
  }
  if (cmd == "last") {
    mbnsim::SentCommand sent;
    if (!mbnsim::ReadLastCommand(&sent)) return Fail("no command was sent");
    std::printf("id=%lu type=%u count=%lu bytes=", static_cast<unsigned long>(sent.command_id),
                static_cast<unsigned>(sent.type), static_cast<unsigned long>(sent.count));
    for (unsigned char c : sent.bytes) std::printf("%02X", c);
    std::printf("\n");
    return 0;
  }
  if (cmd == "delay" && args.size() == 4) {
    mbnsim::SetDelay(args[2], static_cast<DWORD>(std::strtoul(args[3].c_str(), nullptr, 10)));
    return 0;
  }
  if (cmd == "arrive") {
    const int n = static_cast<int>(mbnsim::ReadInterfaces().size());
    mbnsim::InterfaceInfo info = mbnsim::DefaultInterface(n);
    std::vector<std::pair<std::string, std::string>> fields;
    for (size_t i = 2; i < args.size(); ++i) {
      const size_t eq = args[i].find('=');
      if (eq == std::string::npos) return Usage();
      fields.emplace_back(args[i].substr(0, eq), args[i].substr(eq + 1));
    }
    for (const auto& f : fields) {
      if (f.first == "InterfaceID") info.interface_id = f.second;
    }
    mbnsim::Arrive(info);
    for (const auto& f : fields) {
      if (!mbnsim::SetField(n, f.first, f.second)) return Fail("no such field");
    }
    return 0;
  }
  if (cmd == "remove" && args.size() == 3) {
    if (!mbnsim::Remove(std::atoi(args[2].c_str()))) return Fail("no such interface");
    return 0;
  }
  if (cmd == "option" && args.size() == 4) {
    const bool ok = args[3] == "clear"
                        ? mbnsim::ClearOption(args[2])
                        : mbnsim::SetOption(args[2], static_cast<DWORD>(
                                                         std::strtoul(args[3].c_str(), nullptr, 0)));
    return ok ? 0 : Fail("no such option");
  }
  if (cmd == "cycle" && args.size() == 3) return Cycle(std::atoi(args[2].c_str()));
  if (cmd == "swap-sim" && args.size() == 3) return SwapSim(std::atoi(args[2].c_str()));
  if (cmd == "show") {
    Show();
    return 0;
  }
  if (cmd == "counters") {
    for (const auto& entry : mbnsim::AllCounters()) {
      const auto& c = entry.second;
      std::printf(
          "pid %lu: LiveObjects=%lu AdvisedSinks=%lu BadReleases=%lu BadUnadvises=%lu "
          "PendingCompletions=%lu ArrivalsDelivered=%lu RemovalsDelivered=%lu\n",
          static_cast<unsigned long>(entry.first), static_cast<unsigned long>(c.live_objects),
          static_cast<unsigned long>(c.advised_sinks), static_cast<unsigned long>(c.bad_releases),
          static_cast<unsigned long>(c.bad_unadvises),
          static_cast<unsigned long>(c.pending_completions),
          static_cast<unsigned long>(c.arrivals_delivered),
          static_cast<unsigned long>(c.removals_delivered));
    }
    return 0;
  }
  return Usage();
}

}  // namespace

int main(int argc, char** argv) {
  return Run(std::vector<std::string>(argv, argv + argc));
}
