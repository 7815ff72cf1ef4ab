// dorvanectl lint: the table checker on the command line (the checks are in
// lint.h). An argument is a table, a folder (every .xml file directly in it)
// or a name with * or ? in its last part, which the command expands itself:
// Windows shells hand them over as they are.
#include <windows.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <exception>
#include <memory>

#include "tools/dorvanectl/ctl.h"
#include "tools/dorvanectl/lint.h"
#include "util/scoped_handle.h"

namespace dorvane::ctl {

namespace {

struct LintArgs {
  std::vector<std::string> files;
  std::string kind;  // empty: recognised from each table's structure
  std::string fail_on = "warning";
};

// A file to check, or an argument that gives none, with why.
struct Target {
  std::string file;
  std::string problem;
};

// Names in the order a listing shows them: ASCII letters compared without
// regard to case, names that differ only in case by their bytes.
bool NameBefore(const std::string& a, const std::string& b) {
  auto lower = [](char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); };
  const auto [at_a, at_b] = std::mismatch(a.begin(), a.end(), b.begin(), b.end(),
                                          [&lower](char x, char y) { return lower(x) == lower(y); });
  if (at_a == a.end() || at_b == b.end()) return at_b != b.end() || (at_a == a.end() && a < b);
  return static_cast<unsigned char>(lower(*at_a)) < static_cast<unsigned char>(lower(*at_b));
}

bool EndsWithXml(const std::string& name) {
  static const char kXml[] = ".xml";
  const size_t n = sizeof kXml - 1;
  if (name.size() <= n) return false;
  for (size_t i = 0; i < n; ++i) {
    if (std::tolower(static_cast<unsigned char>(name[name.size() - n + i])) != kXml[i]) return false;
  }
  return true;
}

// The files (not folders) that FindFirstFileA gives for `pattern`, in name
// order; an empty list when nothing matches. On a failure, "FindFirstFileA:
// TEXT (error N)" or the same of FindNextFileA.
std::vector<std::string> FilesMatching(const std::string& pattern, std::string* failure) {
  std::vector<std::string> names;
  WIN32_FIND_DATAA found;
  UniqueFindHandle listing(::FindFirstFileA(pattern.c_str(), &found));
  if (!listing) {
    const DWORD error = ::GetLastError();
    if (error != ERROR_FILE_NOT_FOUND) *failure = "FindFirstFileA: " + SystemText(error);
    return names;
  }
  do {
    if ((found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0) names.push_back(found.cFileName);
  } while (::FindNextFileA(listing.get(), &found));
  const DWORD error = ::GetLastError();
  if (error != ERROR_NO_MORE_FILES) *failure = "FindNextFileA: " + SystemText(error);
  std::sort(names.begin(), names.end(), NameBefore);
  return names;
}

// What one argument stands for: each file under the path as given with the
// file's name in place of the pattern, or after the folder.
std::vector<Target> Targets(const std::string& argument) {
  const size_t last_part = argument.find_last_of("\\/:") + 1;  // npos + 1 is 0
  // The ? of "\\?\", the prefix of a path that is not parsed, is no wildcard.
  const size_t wildcards_from = argument.rfind("\\\\?\\", 0) == 0 ? 4 : 0;
  if (argument.find_first_of("*?", wildcards_from) < last_part) {
    return {{argument, "* and ? are expanded only in the last part of a path, not in its folders"}};
  }
  const bool pattern = argument.find_first_of("*?", last_part) != std::string::npos;
  if (!pattern) {
    const DWORD attributes = ::GetFileAttributesA(argument.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
      return {{argument, ""}};  // a table, or what LintFile says about it
    }
  }
  std::string folder = pattern ? argument.substr(0, last_part) : argument;
  if (!pattern && last_part != argument.size()) {
    // After the folder, the separator that the argument uses.
    folder += last_part > 0 && argument[last_part - 1] == '/' ? '/' : '\\';
  }
  std::string failure;
  std::vector<std::string> names = FilesMatching(pattern ? argument : folder + "*", &failure);
  if (!failure.empty()) {
    return {{argument, std::string(pattern ? "cannot list the files it matches (" : "cannot list it (") +
                           failure + ")"}};
  }
  if (!pattern) names.erase(std::remove_if(names.begin(), names.end(), [](const std::string& name) {
                              return !EndsWithXml(name);
                            }), names.end());
  if (names.empty()) return {{argument, pattern ? "no file matches" : "no .xml file in it"}};
  std::vector<Target> targets;
  for (const std::string& name : names) targets.push_back({folder + name, ""});
  return targets;
}

nlohmann::json ToJson(const lint::FileResult& result) {
  nlohmann::json findings = nlohmann::json::array();
  for (const lint::Finding& f : result.findings) {
    findings.push_back({{"line", f.line},
                        {"severity", lint::SeverityName(f.severity)},
                        {"message", TableText(f.message)}});
  }
  nlohmann::json object = {{"file", Text(result.file)},
                           {"kind", result.kind ? nlohmann::json(lint::KindName(*result.kind))
                                                : nlohmann::json(nullptr)},
                           {"findings", findings}};
  if (!result.problem.empty()) object["problem"] = Text(result.problem);
  return object;
}

// Prints one file's findings (or why it was not checked) and gives its status.
int Show(const Common& common, const lint::FileResult& result, lint::Severity fail_on) {
  if (!result.problem.empty()) {
    std::fprintf(stderr, "dorvanectl: lint: %s: %s\n", result.file.c_str(), result.problem.c_str());
  }
  if (common.json) {
    PrintJson(ToJson(result));
  } else if (result.problem.empty() && result.findings.empty() && result.kind) {
    std::printf("%s: clean (%s)\n", result.file.c_str(), lint::KindName(*result.kind));
  } else {
    for (const lint::Finding& f : result.findings) std::printf("%s\n", lint::FormatLine(result.file, f).c_str());
  }
  return result.Status(fail_on);
}

int Lint(const Common& common, const LintArgs& args) {
  std::optional<lint::Kind> kind;
  if (!args.kind.empty()) kind = lint::KindByName(args.kind);
  const lint::Severity fail_on = lint::SeverityByName(args.fail_on).value_or(lint::Severity::kWarning);
  int status = kOk;
  for (const std::string& argument : args.files) {
    // Nothing may escape into the command line's parser: an argument that
    // cannot be checked for any reason is reported like an unreadable file.
    std::vector<Target> targets;
    try {
      targets = Targets(argument);
    } catch (const std::exception& e) {
      targets = {{argument, std::string("cannot check it: ") + e.what()}};
    }
    for (const Target& target : targets) {
      lint::FileResult result;
      result.file = target.file;
      result.problem = target.problem;
      if (result.problem.empty()) {
        try {
          result = lint::LintFile(target.file, kind);
        } catch (const std::exception& e) {
          result = lint::FileResult();
          result.file = target.file;
          result.problem = std::string("cannot check it: ") + e.what();
        }
      }
      status = std::max(status, Show(common, result, fail_on));
    }
  }
  std::fflush(stdout);
  return status;
}

}  // namespace

void AddLintCommand(CLI::App& app, Common& common) {
  auto args = std::make_shared<LintArgs>();
  CLI::App* sub = app.add_subcommand(
      "lint",
      "check configuration tables as the lookups read them; prints file:line: severity: message "
      "per finding and FILE: clean (KIND) for a file without any (with --json one object per "
      "file). An error is an entry or a part of the table that the lookups can never use, or a "
      "lookup that hangs; a warning, what works but probably not as meant; a note, a list that the "
      "table does not have, so that its lookup answers \"not found\". A folder stands for every "
      ".xml file directly in it, and a name with * or ? in its last part for the files it matches. "
      "Exit status: 1 when a finding is of --fail-on's severity or above (by default a warning or an "
      "error), else 0; 2, before either, for a file that cannot be read or parsed or whose kind "
      "cannot be told, and for a folder or name that gives no file");
  sub->add_option("file", args->files, "the tables, folders of tables or names with * and ?")->required();
  std::vector<std::string> kinds;
  for (lint::Kind kind : lint::AllKinds()) kinds.push_back(lint::KindName(kind));
  sub->add_option("--kind", args->kind, "check every file as this kind instead of telling it from "
                                        "the table's structure")
      ->check(CLI::IsMember(kinds));
  sub->add_option("--fail-on", args->fail_on, "the lowest severity that makes the exit status 1: "
                                              "error, warning (the default) or note")
      ->check(CLI::IsMember({"error", "warning", "note"}));
  sub->callback([&common, args] { common.exit_code = Lint(common, *args); });
}

}  // namespace dorvane::ctl
