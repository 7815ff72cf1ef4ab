// mbnsimctl: sets up and drives the Mobile Broadband simulator's modem.
//
// Exit status: 0 done; 1 failed (no such interface, no command sent yet, the
// DLL could not be registered); 2 bad usage: an unknown command, call, field
// or option, a wrong number of arguments, a malformed number, injection or
// answer text. Bad usage changes nothing.
#include <windows.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <exception>
#include <string>
#include <utility>
#include <vector>

#include "tools/mbnsim/calls.h"
#include "tools/mbnsim/ctl_input.h"
#include "tools/mbnsim/scenario.h"

namespace mbnsim::ctl {
namespace {

using Args = std::vector<std::string>;  // a command's arguments, after its name

// Bad usage found in a command's arguments; Main reports it with exit status 2.
struct UsageError {
  std::string message;
};

struct Command {
  const char* name;
  const char* synopsis;  // its arguments as the usage shows them
  size_t min_args;
  size_t max_args;
  const char* help;  // the usage's description, one or more lines
  int (*run)(const Args& args);
};

// DefaultInterface repeats its ids from 256 interfaces on.
constexpr uint64_t kMaxInterfaces = 256;

int Fail(const std::string& what) {
  std::fprintf(stderr, "mbnsimctl: %s\n", what.c_str());
  return 1;
}

std::string Quoted(const std::string& text) { return "\"" + text + "\""; }

std::string Suggestion(const std::string& text, const std::vector<std::string>& known) {
  const std::string best = Closest(text, known);
  return best.empty() ? std::string() : "; did you mean " + Quoted(best) + "?";
}

// "a, b or c" (or "a, b and c")
std::string Alternatives(const std::vector<std::string>& items, const char* last = " or ") {
  std::string out;
  for (size_t i = 0; i < items.size(); ++i) {
    if (i > 0) out += i + 1 == items.size() ? last : ", ";
    out += items[i];
  }
  return out;
}

template <size_t N>
std::vector<std::string> Names(const char* const (&names)[N]) {
  return std::vector<std::string>(names, names + N);
}

// -- reading arguments (each throws UsageError) ----------------------------------

uint64_t Decimal(const std::string& text, const char* what, uint64_t min, uint64_t max) {
  uint64_t value = 0;
  if (!ParseDecimal(text, min, max, &value)) {
    throw UsageError{std::string(what) + " " + Quoted(text) + " is not a whole number from " +
                     std::to_string(min) + " to " + std::to_string(max)};
  }
  return value;
}

int Index(const std::string& text) { return static_cast<int>(Decimal(text, "INDEX", 0, INT_MAX)); }
int Count(const std::string& text) { return static_cast<int>(Decimal(text, "COUNT", 0, INT_MAX)); }

const CallInfo& KnownCall(const std::string& name) {
  if (const CallInfo* info = FindCall(name)) return *info;
  std::vector<std::string> names;
  for (const CallInfo& info : kCalls) names.push_back(info.name);
  throw UsageError{"unknown call " + Quoted(name) + Suggestion(name, names) +
                   " ('mbnsimctl calls' lists every call)"};
}

// What an injection for `call` may be, for the usage and `calls`.
std::vector<std::string> Forms(const CallInfo& call) {
  std::vector<std::string> forms = {"HRESULT"};
  for (const InjectionWord& word : kInjectionWords) {
    if (CallTakes(call.call, word.kind)) forms.push_back(word.text);
  }
  return forms;
}

// The text to store for WHAT: an HRESULT as 0x and eight digits (so that the
// simulator, which reads C's prefixes, cannot take a decimal "010" for octal),
// a word the call honours, or "" for clear.
std::string InjectionText(const CallInfo& call, const std::string& what) {
  if (what == "clear") return std::string();
  HRESULT hr = S_OK;
  if (ParseHresult(what, &hr)) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08lX", static_cast<unsigned long>(hr));
    return text;
  }
  std::vector<std::string> takes = Forms(call);
  takes.front() = "an HRESULT (0x80004005, or decimal)";
  takes.push_back("clear");
  for (const InjectionWord& word : kInjectionWords) {
    if (what == word.text && !CallTakes(call.call, word.kind)) {
      throw UsageError{std::string(call.name) + " does not honour " + Quoted(what) +
                       "; its WHAT is " + Alternatives(takes)};
    }
    if (what == word.text) return what;
  }
  throw UsageError{"WHAT " + Quoted(what) + " is none of what " + call.name + " takes: " +
                   Alternatives(takes)};
}

std::string KnownField(const std::string& field) {
  const std::vector<std::string> known = InterfaceFieldNames();
  if (std::find(known.begin(), known.end(), field) != known.end()) return field;
  throw UsageError{"unknown FIELD " + Quoted(field) + Suggestion(field, known) +
                   " (the fields are " + Alternatives(known, " and ") + ")"};
}

// A field's value as SetField takes it: ReadyState a DWORD, the others any text.
std::string FieldValue(const std::string& field, const std::string& value) {
  if (field != kReadyStateField) return value;
  return std::to_string(Decimal(value, "ReadyState", 0, MAXDWORD));
}

// -- the commands -------------------------------------------------------------------

int CallServerFunction(const Args& args, const char* function) {
  std::string dll;
  if (!args.empty()) {
    dll = args[0];
  } else {
    char self[MAX_PATH];
    DWORD n = ::GetModuleFileNameA(nullptr, self, MAX_PATH);
    dll.assign(self, n);
    dll = dll.substr(0, dll.find_last_of("\\/") + 1) + "mbnsim.dll";
  }
  HMODULE module = ::LoadLibraryA(dll.c_str());
  if (module == nullptr) return Fail("cannot load " + dll);
  auto fn = reinterpret_cast<HRESULT(__stdcall*)()>(
      reinterpret_cast<void*>(::GetProcAddress(module, function)));
  HRESULT hr = fn ? fn() : E_NOINTERFACE;
  ::FreeLibrary(module);
  if (FAILED(hr)) return Fail(std::string(function) + " failed");
  std::printf("%s: %s\n", function, dll.c_str());
  return 0;
}

int Register(const Args& args) { return CallServerFunction(args, "DllRegisterServer"); }
int Unregister(const Args& args) { return CallServerFunction(args, "DllUnregisterServer"); }

int Reset(const Args& args) {
  const int n = args.empty() ? 1 : static_cast<int>(Decimal(args[0], "N", 0, kMaxInterfaces));
  mbnsim::Reset();
  std::vector<InterfaceInfo> interfaces;
  for (int i = 0; i < n; ++i) interfaces.push_back(DefaultInterface(i));
  SetInterfaces(interfaces);
  return 0;
}

int Set(const Args& args) {
  const int index = Index(args[0]);
  const std::string field = KnownField(args[1]);
  if (!SetField(index, field, FieldValue(field, args[2]))) return Fail("no such interface");
  return 0;
}

int InjectCommand(const Args& args) {
  const CallInfo& call = KnownCall(args[0]);
  const std::string what = InjectionText(call, args[1]);
  int index = -1;
  if (args.size() == 3) {
    if (!(call.traits & kPerInterface)) {
      throw UsageError{std::string(call.name) + " is a call of no interface: it takes no INDEX"};
    }
    index = Index(args[2]);
  }
  if (!Inject(call.name, what, index)) return Fail("no such interface");
  return 0;
}

int Delay(const Args& args) {
  const CallInfo& call = KnownCall(args[0]);
  SetDelay(call.name, static_cast<DWORD>(Decimal(args[1], "MS", 0, INT_MAX)));
  return 0;
}

int Option(const Args& args) {
  const std::string& name = args[0];
  bool known = false;
  for (const char* option : kOptionNames) known = known || name == option;
  if (!known) {
    throw UsageError{"unknown option " + Quoted(name) + Suggestion(name, Names(kOptionNames)) +
                     " (the options are " + Alternatives(Names(kOptionNames), " and ") + ")"};
  }
  if (args[1] == "clear") return ClearOption(name) ? 0 : Fail("no such option");
  // The simulator runs at least one delivery thread and at most its maximum;
  // UnadviseWaits is a switch.
  uint64_t min = 0;
  uint64_t max = MAXDWORD;
  if (name == "DeliveryThreads") {
    min = 1;
    max = kMaxDeliveryThreads;
  } else if (name == "UnadviseWaits") {
    max = 1;
  }
  const uint64_t value = Decimal(args[1], "VALUE", min, max);
  return SetOption(name, static_cast<DWORD>(value)) ? 0 : Fail("no such option");
}

int Reply(const Args& args) {
  if (NormaliseCommand(args[0]).empty()) throw UsageError{"COMMAND " + Quoted(args[0]) + " is empty"};
  std::string bytes;
  if (args[1] != "clear" && !Unescape(args[1], &bytes)) {
    throw UsageError{"TEXT " + Quoted(args[1]) +
                     " has a backslash that is none of \\r \\n \\t \\\\ \\xHH"};
  }
  SetReply(args[0], bytes);
  return 0;
}

int Session(const Args& args) {
  const int index = Index(args[0]);
  if (args[1] != "open" && args[1] != "closed") {
    throw UsageError{"state " + Quoted(args[1]) + " is neither open nor closed"};
  }
  if (index >= static_cast<int>(ReadInterfaces().size())) return Fail("no such interface");
  SetSessionOpen(index, args[1] == "open");
  return 0;
}

int Last(const Args&) {
  SentCommand sent;
  if (!ReadLastCommand(&sent)) return Fail("no command was sent");
  std::printf("id=%lu type=%u count=%lu bytes=", static_cast<unsigned long>(sent.command_id),
              static_cast<unsigned>(sent.type), static_cast<unsigned long>(sent.count));
  for (unsigned char c : sent.bytes) std::printf("%02X", c);
  std::printf("\n");
  return 0;
}

int ArriveCommand(const Args& args) {
  std::vector<std::pair<std::string, std::string>> fields;
  for (const std::string& arg : args) {
    const size_t eq = arg.find('=');
    if (eq == std::string::npos) throw UsageError{Quoted(arg) + " is not FIELD=VALUE"};
    const std::string field = KnownField(arg.substr(0, eq));
    fields.emplace_back(field, FieldValue(field, arg.substr(eq + 1)));
  }
  const int n = static_cast<int>(ReadInterfaces().size());
  InterfaceInfo info = DefaultInterface(n);
  for (const auto& f : fields) {
    if (f.first == "InterfaceID") info.interface_id = f.second;
  }
  Arrive(info);
  for (const auto& f : fields) {
    if (!SetField(n, f.first, f.second)) return Fail("the new interface is gone");
  }
  return 0;
}

int RemoveCommand(const Args& args) {
  return Remove(Index(args[0])) ? 0 : Fail("no such interface");
}

// Interface 0 leaves and the same modem comes back, `count` times.
int Cycle(const Args& args) {
  const int count = Count(args[0]);
  int removals = 0;
  int arrivals = 0;
  for (int i = 0; i < count; ++i) {
    const auto all = ReadInterfaces();
    InterfaceInfo info = all.empty() ? DefaultInterface(0) : all.front();
    if (!all.empty() && Remove(0)) ++removals;
    Arrive(info);
    ++arrivals;
  }
  std::printf("%d removal(s), %d arrival(s) announced\n", removals, arrivals);
  return 0;
}

// A different SIM in interface 0, `count` times: ICCID and home provider change
// together. While another process has taken the interface away there is
// nothing to change; that round is skipped.
int SwapSim(const Args& args) {
  const int count = Count(args[0]);
  int changed = 0;
  for (int i = 0; i < count; ++i) {
    char iccid[32];
    std::snprintf(iccid, sizeof iccid, "8949%016d", i);
    const char* provider = i % 2 ? "26201" : "310260";
    if (SetField(0, "ICCID", iccid) && SetField(0, "HomeProviderID", provider)) ++changed;
  }
  std::printf("%d SIM change(s), %d skipped\n", changed, count - changed);
  return 0;
}

int Show(const Args&) {
  const auto all = ReadInterfaces();
  std::printf("%zu interface(s)\n", all.size());
  for (size_t i = 0; i < all.size(); ++i) {
    const auto& f = all[i];
    std::printf("%zu: InterfaceID=%s ReadyState=%lu ICCID=%s SubscriberID=%s HomeProviderID=%s "
                "HomeProviderName=%s RegisteredProviderID=%s\n",
                i, f.interface_id.c_str(), static_cast<unsigned long>(f.ready_state),
                f.iccid.c_str(), f.subscriber_id.c_str(), f.home_provider_id.c_str(),
                f.home_provider_name.c_str(), f.registered_provider_id.c_str());
  }
  return 0;
}

int CountersCommand(const Args&) {
  for (const auto& entry : AllCounters()) {
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

// One line per call: its name, what its WHAT may be, and whether it takes an INDEX.
int Calls(const Args&) {
  for (const CallInfo& call : kCalls) {
    std::string forms;
    for (const std::string& form : Forms(call)) forms += (forms.empty() ? "" : " ") + form;
    if (call.traits & kPerInterface) forms += ", INDEX";
    std::printf("%-56s %s\n", call.name, forms.c_str());
  }
  return 0;
}

int Help(const Args& args);

const Command kCommands[] = {
    {"register", "[DLL]", 0, 1, "register mbnsim.dll (default: beside this program)", Register},
    {"unregister", "[DLL]", 0, 1, "remove its registration", Unregister},
    {"reset", "[N]", 0, 1,
     "forget interfaces, failures and counters; make N\n"
     "default interfaces (default 1, 0 for no modem, at\n"
     "most 256)",
     Reset},
    {"set", "INDEX FIELD VALUE", 3, 3,
     "FIELD: InterfaceID ReadyState ICCID SubscriberID\n"
     "HomeProviderID HomeProviderName RegisteredProviderID",
     Set},
    {"inject", "CALL WHAT [INDEX]", 2, 3,
     "make CALL fail: WHAT is an HRESULT (0x80004005 or\n"
     "decimal), null, wrongtype, nullelement, or clear;\n"
     "INDEX limits it to one interface. For a completion\n"
     "(CALL.Complete, e.g. SetCommand.Complete): none, an\n"
     "HRESULT (its status), wrongid, empty, early, twice\n"
     "or split. What each CALL takes: mbnsimctl calls",
     InjectCommand},
    {"delay", "CALL MS", 2, 2,
     "make CALL (or CALL.Complete) MS milliseconds late\n"
     "(0 clears)",
     Delay},
    {"option", "NAME VALUE|clear", 2, 2,
     "DeliveryThreads (default 2, 1 to 16), MaxCommandSize\n"
     "(default 4096), UnadviseWaits (default 1; 0: Unadvise\n"
     "returns at once, while a completion may still run\n"
     "inside the sink)",
     Option},
    {"reply", "COMMAND TEXT", 2, 2,
     "answer the AT COMMAND with TEXT (escapes \\r \\n \\t\n"
     "\\\\ \\xHH); TEXT clear: back to the built-in answer",
     Reply},
    {"session", "INDEX open|closed", 2, 2, "set the AT service's command session state", Session},
    {"last", "", 0, 0, "print the last command sent (id, type, bytes)", Last},
    {"arrive", "[FIELD=VALUE...]", 0, SIZE_MAX, "add an interface and announce its arrival",
     ArriveCommand},
    {"remove", "INDEX", 1, 1, "announce an interface's removal and take it away", RemoveCommand},
    {"cycle", "COUNT", 1, 1, "interface 0 leaves and comes back, COUNT times", Cycle},
    {"swap-sim", "COUNT", 1, 1,
     "a new SIM (ICCID, home provider) in interface 0,\n"
     "COUNT times; a moment without interface is skipped",
     SwapSim},
    {"show", "", 0, 0, "print the interfaces", Show},
    {"counters", "", 0, 0,
     "print each process's leftovers and mistakes, and the\n"
     "interface events its sinks were given",
     CountersCommand},
    {"calls", "", 0, 0,
     "list every CALL that inject and delay take, with\n"
     "what its WHAT may be and whether it takes an INDEX",
     Calls},
    {"help", "[COMMAND]", 0, 1, "print this, or one command's usage; also -h, --help", Help},
};

std::vector<std::string> CommandNames() {
  std::vector<std::string> names;
  for (const Command& command : kCommands) names.push_back(command.name);
  return names;
}

const Command* FindCommand(const std::string& name) {
  for (const Command& command : kCommands) {
    if (name == command.name) return &command;
  }
  return nullptr;
}

std::string Head(const Command& command) {
  return std::string(command.name) + (*command.synopsis ? " " : "") + command.synopsis;
}

// The description's lines, the first after `first`, the others after `indent`.
void PrintHelp(FILE* out, const Command& command, const std::string& first, const char* indent) {
  std::string help = command.help;
  std::string lead = first;
  for (size_t start = 0; start <= help.size();) {
    size_t end = help.find('\n', start);
    if (end == std::string::npos) end = help.size();
    std::fprintf(out, "%s%s\n", lead.c_str(), help.substr(start, end - start).c_str());
    lead = indent;
    start = end + 1;
  }
}

void PrintUsage(FILE* out) {
  std::fputs("usage: mbnsimctl COMMAND [ARGS]\n", out);
  for (const Command& command : kCommands) {
    char head[64];
    std::snprintf(head, sizeof head, "  %-25s ", Head(command).c_str());
    PrintHelp(out, command, head, "                            ");
  }
  std::fputs("exit status: 0 done, 1 failed (e.g. no such interface), 2 bad usage\n"
             "(nothing is changed)\n",
             out);
}

void PrintCommandUsage(FILE* out, const Command& command) {
  std::fprintf(out, "usage: mbnsimctl %s\n", Head(command).c_str());
  PrintHelp(out, command, "    ", "    ");
}

const Command& KnownCommand(const std::string& name) {
  if (const Command* command = FindCommand(name)) return *command;
  throw UsageError{"unknown command " + Quoted(name) + Suggestion(name, CommandNames()) +
                   " ('mbnsimctl help' lists the commands)"};
}

int Help(const Args& args) {
  if (args.empty()) {
    PrintUsage(stdout);
  } else {
    PrintCommandUsage(stdout, KnownCommand(args[0]));
  }
  return 0;
}

int Main(const Args& argv) {
  if (argv.size() < 2) {
    PrintUsage(stderr);
    return 2;
  }
  const std::string name = argv[1] == "-h" || argv[1] == "--help" ? "help" : argv[1];
  const Args args(argv.begin() + 2, argv.end());
  try {
    const Command& command = KnownCommand(name);
    if (args.size() < command.min_args || args.size() > command.max_args) {
      std::fprintf(stderr, "mbnsimctl: %s: wrong number of arguments\n", command.name);
      PrintCommandUsage(stderr, command);
      return 2;
    }
    return command.run(args);
  } catch (const UsageError& e) {
    const bool known = FindCommand(name) != nullptr;
    std::fprintf(stderr, "mbnsimctl: %s%s%s\n", known ? name.c_str() : "", known ? ": " : "",
                 e.message.c_str());
    return 2;
  } catch (const std::exception& e) {
    return Fail(e.what());
  }
}

}  // namespace
}  // namespace mbnsim::ctl

int main(int argc, char** argv) {
  return mbnsim::ctl::Main(std::vector<std::string>(argv, argv + argc));
}
