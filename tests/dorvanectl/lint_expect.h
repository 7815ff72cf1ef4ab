// Helpers of the table checker's tests: lint a table given as text and look
// for findings by line, severity and words of their message.
#pragma once

#include <gtest/gtest.h>

#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include "tools/dorvanectl/lint.h"

namespace dorvane::lint::testing {

// The findings of a table that must be checked (no problem with it).
inline std::vector<Finding> LintOf(const std::string& xml, std::optional<Kind> kind = std::nullopt) {
  const FileResult result = LintText(xml, kind, "t.xml");
  EXPECT_EQ("", result.problem);
  return result.findings;
}

// Every finding as "line: severity: message", one a line, for failure output.
inline std::string Listing(const std::vector<Finding>& findings) {
  std::string text;
  for (const Finding& f : findings) text += FormatLine("t.xml", f) + "\n";
  return text.empty() ? "(no findings)\n" : text;
}

inline bool Contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// The findings on `line` whose message holds every one of `words`.
inline std::vector<Finding> On(const std::vector<Finding>& findings, int line,
                               std::initializer_list<std::string> words) {
  std::vector<Finding> found;
  for (const Finding& f : findings) {
    bool all = f.line == line;
    for (const std::string& w : words) all = all && Contains(f.message, w);
    if (all) found.push_back(f);
  }
  return found;
}

// Exactly one finding on `line` with that severity and those words.
inline void ExpectOneFinding(const std::vector<Finding>& findings, int line, Severity expected,
                             std::initializer_list<std::string> words) {
  const std::vector<Finding> found = On(findings, line, words);
  ASSERT_EQ(1u, found.size()) << Listing(findings);
  EXPECT_EQ(expected, found[0].severity) << found[0].message;
}

#define EXPECT_FINDING(findings, line_number, expected, ...)                                  \
  do {                                                                                        \
    SCOPED_TRACE("EXPECT_FINDING");                                                           \
    ::dorvane::lint::testing::ExpectOneFinding(findings, line_number, expected, {__VA_ARGS__}); \
  } while (0)

}  // namespace dorvane::lint::testing
