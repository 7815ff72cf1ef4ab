// dorvanectl: the command line of the WWAN Dorvane library.
//
//   dorvanectl [--json] [--preset TEXT] [--log FILE] COMMAND ARGS...
//
// The library's log lines go to FILE (default: dorvanectl.log in the temporary
// folder). Exit status: see ExitCode.
#include <windows.h>
#include <winver.h>
#include <fcntl.h>
#include <io.h>

#include <cstdio>
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

int ReportResult(const Common& common, const nlohmann::json& result, bool success) {
  if (common.json) {
    PrintJson({{"result", result}});
  } else {
    std::printf("result: %s\n", result.dump().c_str());
  }
  return success ? kOk : kFailed;
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

int Run(int argc, char** argv) {
  CLI::App app("dorvanectl: the command line of the WWAN Dorvane library.\n"
               "Exit status: 0 success, 1 failure or not found, 2 usage or unreadable\n"
               "argument, 3 no modem, 4 the operation did not return in time.");
  app.set_version_flag("--version", "dorvanectl " + OwnVersion(), "print the version and exit");
  app.require_subcommand(1);
  app.fallthrough();
  Common common;
  common.log = DefaultLog();
  app.add_flag("--json", common.json, "print one JSON object instead of text");
  app.add_option("--preset", common.preset,
                 "every output starts as this text instead of empty, to show what a failed "
                 "lookup leaves untouched");
  app.add_option("--log", common.log, "file for the library's log lines")->capture_default_str();
  AddAtCommands(app, common);
  AddTableCommands(app, common);
  AddRegistryCommands(app, common);
  AddFileCommands(app, common);

  // The logger needs a usable file before the first line: a write that finds
  // none leaves it locked for good.
  app.parse_complete_callback([&common] {
    Logger* log = Logger::GetInstance();
    log->SetLogPath(common.log);
    log->Enable(true);
  });
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    app.exit(e);
    return kUsageError;
  }
  return common.exit_code;
}

}  // namespace
}  // namespace dorvane::ctl

int main(int argc, char** argv) { return dorvane::ctl::Run(argc, argv); }
