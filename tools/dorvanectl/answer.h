// What a command answers, in one form for every command: one JSON object with
// --json; otherwise "result: VALUE" first, then one "name: value" line per
// field in the order given, control characters escaped, no trailing blanks.
// What the operation could not do is one line each on standard error
// ("dorvanectl: COMMAND: ..."), with or without --json, and with --json also
// in the object ("failed", and "error" for the first).
//
//   Answer answer(common, "copy-dir");
//   answer.Result(result);
//   for (const Failure& f : failures) answer.Failed(Describe(f), Item(f));
//   return answer.Finish(result == 1);
#pragma once

#include <string>
#include <vector>

#include "tools/dorvanectl/ctl.h"

namespace dorvane::ctl {

// Why a lookup gave its failure value: `what` ("no carrier id found"), and the
// error lines the library logged meanwhile, quoted ("the log says: ...").
std::string LookupProblem(const std::string& what);

class Answer {
 public:
  Answer(const Common& common, std::string command);

  // The operation's own result, as the library gave it; `text` replaces its
  // printed form (for example "256 (0x100)").
  Answer& Result(const nlohmann::json& value, const std::string& text = "");
  // A text of the library's (narrow bytes; see Text()).
  Answer& Field(const std::string& name, const std::string& bytes);
  // A text read from a table (UTF-8; see TableText()).
  Answer& TableField(const std::string& name, const std::string& bytes);
  // A value of any other kind, printed as `text` (empty: as JSON).
  Answer& Value(const std::string& name, const nlohmann::json& value, const std::string& text = "");
  // Texts: a JSON array, printed one "name: item" line each ("name:" alone
  // for none).
  Answer& List(const std::string& name, const std::vector<std::string>& items);
  // A line of the text form only, and a member of the JSON object only.
  Answer& TextLine(const std::string& name, const std::string& text);
  Answer& JsonMember(const std::string& name, const nlohmann::json& value);
  // Something the operation could not do: `line` (it is prefixed with the
  // command) and, with --json, `item` appended to "failed".
  Answer& Failed(const std::string& line, const nlohmann::json& item = nullptr);
  bool failed() const { return !failures_.empty(); }

  // Prints the answer and gives the exit status: kOk when `success` and
  // nothing failed. Without a failure named, an unsuccessful operation is
  // named by `why` (the empty text: "COMMAND gave RESULT").
  int Finish(bool success, const std::string& why = "");

 private:
  const Common& common_;
  std::string command_;
  nlohmann::json object_ = nlohmann::json::object();
  std::vector<std::pair<std::string, std::string>> lines_;
  std::vector<std::string> failures_;
  nlohmann::json items_ = nlohmann::json::array();
  std::string result_text_;
};

}  // namespace dorvane::ctl
