#include "tools/dorvanectl/answer.h"

#include <cstdio>

namespace dorvane::ctl {

namespace {

std::string Line(const std::string& name, const std::string& text) {
  std::string line = name + ":";
  if (!text.empty()) line += " " + text;
  while (!line.empty() && (line.back() == ' ' || line.back() == '\t')) line.pop_back();
  return line;
}

std::string Printed(const nlohmann::json& value) {
  return value.is_string() ? value.get<std::string>() : value.dump();
}

}  // namespace

std::string LookupProblem(const std::string& what) {
  std::string why = what;
  const std::vector<std::string> errors = LoggedErrors();
  for (size_t i = 0; i < errors.size(); ++i) {
    why += (i == 0 ? "; the log says: \"" : "\", \"") + errors[i];
  }
  if (!errors.empty()) why += "\"";
  return why;
}

Answer::Answer(const Common& common, std::string command)
    : common_(common), command_(std::move(command)) {
  object_["result"] = nullptr;
}

Answer& Answer::Result(const nlohmann::json& value, const std::string& text) {
  object_["result"] = value;
  result_text_ = text.empty() ? Printed(value) : text;
  return *this;
}

Answer& Answer::Field(const std::string& name, const std::string& bytes) {
  object_[name] = Text(bytes);
  lines_.emplace_back(name, Shown(bytes));
  return *this;
}

Answer& Answer::TableField(const std::string& name, const std::string& bytes) {
  object_[name] = TableText(bytes);
  lines_.emplace_back(name, Shown(bytes));
  return *this;
}

Answer& Answer::Value(const std::string& name, const nlohmann::json& value, const std::string& text) {
  object_[name] = value;
  lines_.emplace_back(name, text.empty() ? Shown(Printed(value)) : text);
  return *this;
}

Answer& Answer::List(const std::string& name, const std::vector<std::string>& items) {
  object_[name] = Texts(items);
  for (const std::string& item : items) lines_.emplace_back(name, Shown(item));
  if (items.empty()) lines_.emplace_back(name, "");
  return *this;
}

Answer& Answer::TextLine(const std::string& name, const std::string& text) {
  lines_.emplace_back(name, text);
  return *this;
}

Answer& Answer::JsonMember(const std::string& name, const nlohmann::json& value) {
  object_[name] = value;
  return *this;
}

Answer& Answer::Failed(const std::string& line, const nlohmann::json& item) {
  failures_.push_back(line);
  if (!item.is_null()) items_.push_back(item);
  return *this;
}

int Answer::Finish(bool success, const std::string& why) {
  if (!success && failures_.empty()) {
    failures_.push_back(why.empty() ? "the library gave " + result_text_ : why);
  }
  if (!items_.empty()) object_["failed"] = items_;
  if (common_.json) {
    if (!failures_.empty()) {
      std::string error = command_ + ": " + failures_.front();
      if (failures_.size() > 1) {
        error += " (and " + std::to_string(failures_.size() - 1) + " more)";
      }
      object_["error"] = Text(error);
    }
    PrintJson(object_);
  } else {
    std::string text = Line("result", result_text_) + "\n";
    for (const auto& [name, value] : lines_) text += Line(name, value) + "\n";
    PrintRaw(text);
  }
  // After the answer, so that the two streams read in order on one console.
  for (const std::string& failure : failures_) {
    std::fprintf(stderr, "dorvanectl: %s: %s\n", command_.c_str(), Shown(failure).c_str());
  }
  std::fflush(stderr);
  return failures_.empty() ? kOk : kFailed;
}

}  // namespace dorvane::ctl
