// dorvanectl lint: the table checker on the command line (the checks are in
// lint.h).
#include <algorithm>
#include <cstdio>
#include <exception>
#include <memory>

#include "tools/dorvanectl/ctl.h"
#include "tools/dorvanectl/lint.h"

namespace dorvane::ctl {

namespace {

struct LintArgs {
  std::vector<std::string> files;
  std::string kind;  // empty: recognised from each table's structure
};

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
int Show(const Common& common, const lint::FileResult& result) {
  if (!result.problem.empty()) {
    std::fprintf(stderr, "dorvanectl: lint: %s: %s\n", result.file.c_str(), result.problem.c_str());
  }
  if (common.json) {
    PrintJson(ToJson(result));
  } else {
    for (const lint::Finding& f : result.findings) std::printf("%s\n", lint::FormatLine(result.file, f).c_str());
  }
  return result.Status();
}

int Lint(const Common& common, const LintArgs& args) {
  std::optional<lint::Kind> kind;
  if (!args.kind.empty()) kind = lint::KindByName(args.kind);
  int status = kOk;
  for (const std::string& file : args.files) {
    // Nothing may escape into the command line's parser: a file that cannot
    // be checked for any reason is reported like an unreadable one.
    lint::FileResult result;
    try {
      result = lint::LintFile(file, kind);
    } catch (const std::exception& e) {
      result = lint::FileResult();
      result.file = file;
      result.problem = std::string("cannot check it: ") + e.what();
    }
    status = std::max(status, Show(common, result));
  }
  std::fflush(stdout);
  return status;
}

}  // namespace

void AddLintCommand(CLI::App& app, Common& common) {
  auto args = std::make_shared<LintArgs>();
  CLI::App* sub = app.add_subcommand(
      "lint", "check configuration tables as the lookups read them; prints file:line: severity: "
              "message (with --json one object per file). Exit status: 0 clean, 1 findings, "
              "2 a file that cannot be read or whose kind cannot be told");
  sub->add_option("file", args->files, "the tables")->required();
  std::vector<std::string> kinds;
  for (lint::Kind kind : lint::AllKinds()) kinds.push_back(lint::KindName(kind));
  sub->add_option("--kind", args->kind, "check every file as this kind instead of telling it from "
                                        "the table's structure")
      ->check(CLI::IsMember(kinds));
  sub->callback([&common, args] { common.exit_code = Lint(common, *args); });
}

}  // namespace dorvane::ctl
