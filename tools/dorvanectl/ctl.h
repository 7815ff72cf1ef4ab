// What the subcommands of dorvanectl share: the common options, the exit
// statuses and the output helpers. Each group of subcommands lives in a file of
// its own and adds itself to the application through an Add...Commands function.
#pragma once

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

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
  bool verbose = false;               // the library's log lines also on standard error
  bool check_tables = true;           // refuse a table that cannot be read before a lookup
  bool no_table_check = false;        // --no-table-check, read into check_tables
  std::string command;                // the command given, for messages
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

// A name or path as one line of a text listing: control characters, which no
// Windows name can hold but an archive's entry names can, are shown as \r,
// \n, \t or \xNN, so that one entry stays one line and nothing reaches the
// terminal as a command. (--json gives the names exactly.)
std::string Shown(const std::string& bytes);

// Ends a command with an error: "dorvanectl: MESSAGE" on standard error and,
// with --json, `object` with "error": MESSAGE added as the one object printed
// (by default {"result": null}: the operation gave no result). Returns `status`.
int Fail(const Common& common, int status, const std::string& message,
         nlohmann::json object = {{"result", nullptr}});

// Bytes as two hex digits each, one blank between them: "0D 0A FF".
std::string HexBytes(const unsigned char* bytes, size_t count);

// The system's text for an error number: "Access is denied (error 5)".
std::string SystemText(unsigned long error);

// A line the library logged while the command ran: its level (1 error, 2
// warning, 4 detail) and its text. The library states why an operation failed
// in these lines, so a command quotes them rather than guess.
struct LoggedLine {
  unsigned level = 0;
  std::string text;
};
// The lines logged so far (at most the first 2,000), in their order.
std::vector<LoggedLine> LoggedLines();
// The texts of the error lines logged so far, or of the given level and above.
std::vector<std::string> LoggedErrors(unsigned up_to_level = 1);

// Prints one JSON object and a line end.
void PrintJson(const nlohmann::json& object);
// Prints text as it is (no conversion of line ends).
void PrintRaw(const std::string& text);

// Numbers on dorvanectl's command line are decimal digits, or "0x" (or "0X")
// and hexadecimal digits: no sign, no blanks, and a leading zero is still
// decimal ("010" is ten, never octal). False for anything else or for a value
// outside [min, max].
bool ParseNumber(const std::string& text, uint64_t min, uint64_t max, uint64_t* value);
// ParseNumber as a CLI11 transform for options bound to numbers: refuses what
// it refuses and hands the option the value's decimal form.
CLI::Validator Number(uint64_t min, uint64_t max);

// Why a file that a command reads cannot serve ("PATH: no such file", "...: is
// a folder, not a file", "...: is empty", ...), or the empty text. Checked
// before the library runs, so that a file that cannot be read is not taken for
// a key that is not there. `what` names the file's role for the empty path;
// `missing`, when given, tells a path with nothing there (or an empty path).
std::string FileProblem(const std::string& path, const char* what, bool* missing = nullptr);
// FileProblem, then the table as the lookups load it (tinyxml2's error name
// and line when it is not well-formed) and its root element.
std::string TableProblem(const std::string& path);
// Checks the table a lookup will read; on a problem reports it (`note` added
// in brackets when not empty) as a usage error and returns false. With
// --no-table-check it checks nothing and returns true.
bool TableReadable(const Common& common, const std::string& path, const std::string& note = "");

// Suggestions for a mistyped command: the closest of `known` by edit distance
// (case ignored, a swap of two neighbours counts once) when it is close enough,
// else every command that begins with `word`; the empty list when none fits.
std::vector<std::string> ClosestNames(const std::string& word, const std::vector<std::string>& known);
// Adds the `help` command, and an example to every command's help.
void AddHelp(CLI::App& app, Common& common);
// The message for a failed parse: names an unknown command (with suggestions)
// and the command a message belongs to.
std::string ParseErrorMessage(const CLI::App& app, const CLI::ParseError& error);

void AddAtCommands(CLI::App& app, Common& common);
void AddTableCommands(CLI::App& app, Common& common);
void AddRegistryCommands(CLI::App& app, Common& common);
void AddFileCommands(CLI::App& app, Common& common);
void AddLintCommand(CLI::App& app, Common& common);
void AddLogCommand(CLI::App& app, Common& common);

}  // namespace dorvane::ctl
