// What a file's findings give as its status, for each lowest failing severity.
#include <gtest/gtest.h>

#include <string>

#include "tools/dorvanectl/lint.h"

namespace dorvane::lint {
namespace {

TEST(LintStatus, FindingsFailFromTheLowestFailingSeverityUp) {
  FileResult result;
  EXPECT_EQ(0, result.Status(Severity::kNote)) << "no findings";
  const struct {
    Severity found;
    int on_note, on_warning, on_error;
  } cases[] = {
      {Severity::kNote, 1, 0, 0},
      {Severity::kWarning, 1, 1, 0},
      {Severity::kError, 1, 1, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(SeverityName(c.found));
    result.findings = {{1, Severity::kNote, "n"}, {2, c.found, "f"}};
    EXPECT_EQ(c.on_note, result.Status(Severity::kNote));
    EXPECT_EQ(c.on_warning, result.Status(Severity::kWarning));
    EXPECT_EQ(c.on_warning, result.Status()) << "a warning fails by default";
    EXPECT_EQ(c.on_error, result.Status(Severity::kError));
    result.problem = "cannot read it";
    EXPECT_EQ(2, result.Status(Severity::kError)) << "a problem wins";
    result.problem.clear();
  }
}

}  // namespace
}  // namespace dorvane::lint
