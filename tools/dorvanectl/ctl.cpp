// dorvanectl: the command line of the WWAN Dorvane library.
//
//   dorvanectl [--json] [-v] [--preset TEXT] [--log FILE] COMMAND ARGS...
//
// The library's log lines go to FILE (default: dorvanectl.log in the temporary
// folder), and with -v to standard error as well. Exit status: see ExitCode.
#include <windows.h>
#include <winver.h>
#include <fcntl.h>
#include <io.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <mutex>
#include <string>

#include "log/logger.h"
#include "tools/dorvanectl/ctl.h"

namespace dorvane::ctl {

std::string Initial(const Common& common) { return common.preset.value_or(std::string()); }

nlohmann::json Text(const std::string& bytes) {
  std::string utf8;
  for (unsigned char c : bytes) {
    if (c < 0x80) {
      utf8.push_back(static_cast<char>(c));
    } else {
      utf8.push_back(static_cast<char>(0xC0 | (c >> 6)));
      utf8.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    }
  }
  return nlohmann::json(utf8);
}

nlohmann::json Texts(const std::vector<std::string>& list) {
  nlohmann::json array = nlohmann::json::array();
  for (const std::string& s : list) array.push_back(Text(s));
  return array;
}

namespace {

// The length of the valid UTF-8 sequence at `at`, or 0.
size_t Utf8Sequence(const std::string& s, size_t at) {
  const unsigned char lead = static_cast<unsigned char>(s[at]);
  size_t length = 0;
  uint32_t value = 0;
  uint32_t least = 0;
  if (lead < 0x80) return 1;
  if ((lead & 0xE0) == 0xC0) length = 2, value = lead & 0x1F, least = 0x80;
  else if ((lead & 0xF0) == 0xE0) length = 3, value = lead & 0x0F, least = 0x800;
  else if ((lead & 0xF8) == 0xF0) length = 4, value = lead & 0x07, least = 0x10000;
  else return 0;
  if (at + length > s.size()) return 0;
  for (size_t i = 1; i < length; ++i) {
    const unsigned char c = static_cast<unsigned char>(s[at + i]);
    if ((c & 0xC0) != 0x80) return 0;
    value = value << 6 | (c & 0x3F);
  }
  const bool ok = value >= least && value <= 0x10FFFF && (value < 0xD800 || value > 0xDFFF);
  return ok ? length : 0;
}

}  // namespace

nlohmann::json TableText(const std::string& bytes) {
  std::string utf8;
  for (size_t at = 0; at < bytes.size();) {
    const size_t length = Utf8Sequence(bytes, at);
    if (length == 0) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\x%02X", static_cast<unsigned char>(bytes[at]));
      utf8 += escaped;
      ++at;
    } else {
      utf8.append(bytes, at, length);
      at += length;
    }
  }
  return nlohmann::json(utf8);
}

nlohmann::json TableTexts(const std::vector<std::string>& list) {
  nlohmann::json array = nlohmann::json::array();
  for (const std::string& s : list) array.push_back(TableText(s));
  return array;
}

std::string HexBytes(const unsigned char* bytes, size_t count) {
  std::string hex;
  char cell[4];
  for (size_t i = 0; i < count; ++i) {
    std::snprintf(cell, sizeof cell, i == 0 ? "%02X" : " %02X", bytes[i]);
    hex += cell;
  }
  return hex;
}

std::string Shown(const std::string& bytes) {
  std::string shown;
  for (const char c : bytes) {
    const unsigned char byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte != 0x7F) {
      shown.push_back(c);
    } else if (c == '\r' || c == '\n' || c == '\t') {
      shown += c == '\r' ? "\\r" : c == '\n' ? "\\n" : "\\t";
    } else {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\x%02X", byte);
      shown += escaped;
    }
  }
  return shown;
}

int Fail(const Common& common, int status, const std::string& message, nlohmann::json object) {
  std::fflush(stdout);
  std::fprintf(stderr, "dorvanectl: %s\n", message.c_str());
  std::fflush(stderr);
  if (common.json) {
    object["error"] = Text(message);
    PrintJson(object);
  }
  return status;
}

namespace {

// Every line the library logs, as the logger writes it to the file: kept for
// LoggedLines and, with -v, shown on standard error. Called under the logger's
// lock, so lines from every thread come one at a time and in the file's order;
// stderr is flushed after each, so none is lost at exit.
std::atomic<bool> g_verbose{false};
std::mutex g_logged_lock;
std::vector<LoggedLine> g_logged;  // guarded by g_logged_lock
constexpr size_t kLoggedLinesKept = 2000;

void MirrorLine(const char* line, size_t length) {
  if (g_verbose) {
    std::fwrite(line, 1, length, stderr);
    std::fflush(stderr);
  }
  // "[ERROR]  MM-DD HH:MM:SS:mmm: text": the tag, a blank, the time and ": ".
  static const struct {
    const char* tag;
    unsigned level;
  } kTags[] = {{"[ERROR] ", 1}, {"[WARNING] ", 2}, {"[DETAIL]", 4}};
  constexpr size_t kTime = 20;
  const std::string text(line, length);
  for (const auto& tag : kTags) {
    const size_t start = std::strlen(tag.tag) + 1 + kTime;
    if (text.rfind(tag.tag, 0) != 0 || text.size() < start) continue;
    std::string message = text.substr(start);
    if (!message.empty() && message.back() == '\n') message.pop_back();
    std::lock_guard<std::mutex> lock(g_logged_lock);
    if (g_logged.size() < kLoggedLinesKept) g_logged.push_back({tag.level, std::move(message)});
    return;
  }
}

}  // namespace

std::vector<LoggedLine> LoggedLines() {
  std::lock_guard<std::mutex> lock(g_logged_lock);
  return g_logged;
}

std::vector<std::string> LoggedErrors(unsigned up_to_level) {
  std::vector<std::string> texts;
  for (const LoggedLine& line : LoggedLines()) {
    if (line.level <= up_to_level) texts.push_back(line.text);
  }
  return texts;
}

void PrintJson(const nlohmann::json& object) { PrintRaw(object.dump() + "\n"); }

void PrintRaw(const std::string& text) {
  std::fflush(stdout);
  _setmode(_fileno(stdout), _O_BINARY);
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fflush(stdout);
}

namespace {

std::string DefaultLog() {
  char temp[MAX_PATH];
  DWORD n = ::GetTempPathA(MAX_PATH, temp);
  return (n > 0 && n < MAX_PATH ? std::string(temp) : std::string(".\\")) + "dorvanectl.log";
}

// The product version from this program's own version resource, so that
// --version and the file's properties can never disagree.
std::string OwnVersion() {
  char path[MAX_PATH];
  const DWORD length = ::GetModuleFileNameA(nullptr, path, MAX_PATH);
  if (length == 0 || length >= MAX_PATH) return "unknown";
  DWORD ignored = 0;
  const DWORD size = ::GetFileVersionInfoSizeA(path, &ignored);
  std::string data(size, '\0');
  void* value = nullptr;
  UINT value_size = 0;
  if (size == 0 || !::GetFileVersionInfoA(path, 0, size, &data[0]) ||
      !::VerQueryValueA(data.data(), "\\StringFileInfo\\040904B0\\ProductVersion", &value,
                        &value_size) ||
      value_size == 0) {
    return "unknown";
  }
  return std::string(static_cast<const char*>(value), value_size - 1);
}

// The log file the library will write, refused before anything runs when it
// cannot be written: the logger would otherwise stay locked at the first line,
// and the command would hang until its time limit. The folders are made as
// the logger makes them.
struct UnwritableLog {
  std::string path;
  std::string why;
};

void CheckLogIsWritable(const std::string& path) {
  const DWORD attributes = ::GetFileAttributesA(path.c_str());
  if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY)) {
    throw UnwritableLog{path, "it is a folder; give a file's path"};
  }
  FILE* file = Logger::OpenFile(path);
  if (file == nullptr) throw UnwritableLog{path, std::strerror(errno)};
  std::fclose(file);
}

// Whether --json is on the command line (before a "--"). A failed parse may
// stop before the flag is stored, and its message is due as JSON all the same.
bool JsonOnCommandLine(int argc, char** argv) {
  bool json = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--") break;
    if (arg == "--json") json = true;
    if (arg.rfind("--json=", 0) == 0) {
      try {
        json = CLI::detail::to_flag_value(arg.substr(7)) > 0;
      } catch (const std::exception&) {
        json = false;  // CLI11 refuses the value, and says so
      }
    }
  }
  return json;
}

int Run(int argc, char** argv) {
  // The C runtime leaves standard output unbuffered on a console and on NUL,
  // where every byte then costs a WriteFile of its own (seconds for the JSON
  // of a long log). Every exit path flushes, the time-out's ExitProcess too.
  std::setvbuf(stdout, nullptr, _IOFBF, 1 << 16);
  CLI::App app("dorvanectl: the command line of the WWAN Dorvane library.\n"
               "Exit status: 0 success, 1 failure or not found, 2 usage or unreadable\n"
               "argument, 3 no modem, 4 the operation did not return in time.",
               "dorvanectl");
  app.set_version_flag("--version", "dorvanectl " + OwnVersion(), "print the version and exit");
  app.require_subcommand(1);
  app.fallthrough();
  Common common;
  common.log = DefaultLog();
  app.add_flag("--json", common.json,
               "print one JSON object instead of text, also on failure (with \"error\")");
  app.add_flag("-v,--verbose", common.verbose,
               "also show the library's log lines on standard error as they are written");
  app.add_flag("--no-table-check", common.no_table_check,
               "run a lookup even when its table cannot be read, to see what the library "
               "then answers and logs");
  app.add_option("--preset", common.preset,
                 "every output starts as this text instead of empty, to show what a failed "
                 "lookup leaves untouched");
  app.add_option("--log", common.log,
                 "file for the library's log lines (default: dorvanectl.log in %TEMP%)")
      ->type_name("FILE");
  AddAtCommands(app, common);
  AddTableCommands(app, common);
  AddRegistryCommands(app, common);
  AddFileCommands(app, common);
  AddLintCommand(app, common);
  AddLogCommand(app, common);
  AddHelp(app, common);

  // The logger needs a usable file before the first line: a write that finds
  // none leaves it locked for good. `help` logs nothing and needs none.
  app.parse_complete_callback([&app, &common] {
    common.check_tables = !common.no_table_check;
    if (!app.get_subcommands().empty()) common.command = app.get_subcommands().front()->get_name();
    if (app.got_subcommand("help")) return;
    CheckLogIsWritable(common.log);
    Logger* log = Logger::GetInstance();
    g_verbose = common.verbose;
    log->SetMirror(MirrorLine);
    log->SetLogPath(common.log);
    log->Enable(true);
  });
  const bool json_on_command_line = JsonOnCommandLine(argc, argv);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    if (!json_on_command_line) return app.exit(e);
    PrintJson({{"result", nullptr}, {"help", Text(app.help())}});
    return kOk;
  } catch (const CLI::CallForVersion& e) {
    if (!json_on_command_line) return app.exit(e);
    PrintJson({{"result", nullptr}, {"version", Text(e.what())}});
    return kOk;
  } catch (const CLI::ParseError& e) {
    common.json = json_on_command_line;
    return Fail(common, kUsageError, ParseErrorMessage(app, e));
  } catch (const UnwritableLog& e) {
    return Fail(common, kUsageError, "cannot write the log file " + e.path + " (--log): " + e.why);
  } catch (const std::exception& e) {
    // Nothing the library does throws; this is the command line's own
    // trouble (out of memory), reported rather than ended in an abort.
    return Fail(common, kFailed, std::string("cannot go on: ") + e.what());
  }
  std::fflush(stdout);
  std::fflush(stderr);
  return common.exit_code;
}

}  // namespace
}  // namespace dorvane::ctl

int main(int argc, char** argv) { return dorvane::ctl::Run(argc, argv); }
