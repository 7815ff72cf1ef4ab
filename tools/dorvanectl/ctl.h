// What the subcommands of dorvanectl share: the common options, the exit
// statuses and the output helpers. Each group of subcommands lives in a file of
// its own and adds itself to the application through an Add...Commands function.
#pragma once

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <optional>
#include <string>

namespace dorvane::ctl {

enum ExitCode {
  kOk = 0,         // the operation returned its success value
  kFailed = 1,     // it returned a failure or not-found value
  kUsageError = 2, // bad arguments, or an argument that cannot be read
  kNoModem = 3,    // no Mobile Broadband interface or stack to talk to
  kGaveUp = 4,     // the operation did not return in time
};

struct Common {
  bool json = false;
  std::optional<std::string> preset;  // what every output starts as, instead of ""
  std::string log;                    // where the library's log lines go
  int exit_code = kOk;
};

// The preset text, or the empty text when none was given.
std::string Initial(const Common& common);

// Narrow (ANSI) bytes as JSON text: each byte becomes the code point of the same
// number, so that any byte string is shown and can be read back.
nlohmann::json Text(const std::string& bytes);
nlohmann::json Texts(const std::vector<std::string>& list);
// A table's text as JSON: the tables are UTF-8, so valid UTF-8 is kept as it
// stands and each byte that is not part of a valid sequence is shown as the
// four characters \xNN.
nlohmann::json TableText(const std::string& bytes);
nlohmann::json TableTexts(const std::vector<std::string>& list);

// Prints an operation's bare result ({"result": ...} or "result: ...") and
// gives the exit status for `success`.
int ReportResult(const Common& common, const nlohmann::json& result, bool success);

// Prints one JSON object and a line end.
void PrintJson(const nlohmann::json& object);
// Prints text as it is (no conversion of line ends).
void PrintRaw(const std::string& text);

void AddAtCommands(CLI::App& app, Common& common);
void AddTableCommands(CLI::App& app, Common& common);
void AddRegistryCommands(CLI::App& app, Common& common);
void AddFileCommands(CLI::App& app, Common& common);
void AddLintCommand(CLI::App& app, Common& common);

}  // namespace dorvane::ctl
