// How the table checker reads a file before any check: the encodings that the
// lookups cannot read, tables that do not parse, and the status that a file's
// findings give for each lowest failing severity.
#include <gtest/gtest.h>

#include <string>

#include "support/log_reader.h"
#include "tools/dorvanectl/lint.h"

namespace dorvane::lint {
namespace {

// ASCII text in `unit` bytes a character, its byte at `at`, the others NUL.
std::string Wide(const std::string& text, size_t unit, size_t at) {
  std::string bytes;
  for (char c : text) {
    std::string character(unit, '\0');
    character[at] = c;
    bytes += character;
  }
  return bytes;
}

TEST(LintEncoding, ByteOrderMarksAndNulBytesNameTheEncoding) {
  const std::string xml = "<R><SelectionRule/></R>";
  const struct {
    std::string bytes;
    std::string encoding;
  } cases[] = {
      {"\xFF\xFE" + Wide(xml, 2, 0), "UTF-16 (little-endian, by its byte-order mark)"},
      {"\xFE\xFF" + Wide(xml, 2, 1), "UTF-16 (big-endian, by its byte-order mark)"},
      {std::string("\xFF\xFE\0\0", 4) + Wide(xml, 4, 0), "UTF-32 (little-endian, by its byte-order mark)"},
      {std::string("\0\0\xFE\xFF", 4) + Wide(xml, 4, 3), "UTF-32 (big-endian, by its byte-order mark)"},
      {Wide(xml, 2, 0), "UTF-16 (little-endian, by the NUL bytes in its first characters)"},
      {Wide(xml, 2, 1), "UTF-16 (big-endian, by the NUL bytes in its first characters)"},
      {Wide(xml, 4, 0), "UTF-32 (little-endian, by the NUL bytes in its first characters)"},
      {Wide(xml, 4, 3), "UTF-32 (big-endian, by the NUL bytes in its first characters)"},
      {Wide("<R", 2, 0), "UTF-16 (little-endian, by the NUL bytes in its first characters)"},
      // What the lookups read: 8-bit text, with or without UTF-8's mark.
      {xml, ""},
      {"\xEF\xBB\xBF" + xml, ""},
      {"<R>\xE4\xB8\xAD</R>", ""},
      // Too little to tell, or NUL bytes that are not in every character.
      {"", ""},
      {Wide("<", 2, 0), ""},
      {std::string("<R\0>\0", 5), ""},
      {Wide("<R", 2, 0).substr(0, 3), ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.bytes));
    EXPECT_EQ(c.encoding, ForeignEncoding(c.bytes));
  }
}

TEST(LintEncoding, ATableThatDoesNotParseIsAProblemWithTinyxml2sErrorAndLine) {
  const std::string broken = "<Rules>\n  <SwitchingRule>\n  </Rules>\n";
  tinyxml2::XMLDocument doc(true, tinyxml2::PRESERVE_WHITESPACE);
  doc.Parse(broken.c_str());
  ASSERT_TRUE(doc.Error());
  const std::string error = doc.ErrorStr();
  ASSERT_NE(std::string::npos, error.find("Line number=2")) << "the open element: " << error;

  FileResult result = LintText(broken, std::nullopt, "b.xml");
  EXPECT_EQ(2, result.Status());
  EXPECT_FALSE(result.kind.has_value());
  EXPECT_TRUE(result.findings.empty());
  EXPECT_EQ("the table does not load (" + error + "): every lookup of it fails", result.problem);

  result = LintText(broken, Kind::kCarrierRules, "b.xml");
  EXPECT_EQ("the table does not load (" + error + "): carrier-id-by-mccmnc fails and logs \"load xml "
            "error.\"; carrier-id-by-mcc, carrier-id-by-iccid and param-firmware-by-mcc fail silently",
            result.problem);
  EXPECT_EQ(Kind::kCarrierRules, result.kind) << "the kind that was named";
  EXPECT_EQ(2, result.Status(Severity::kError));

  result = LintText("", Kind::kEsim, "e.xml");
  EXPECT_NE(std::string::npos, result.problem.find("XML_ERROR_EMPTY_DOCUMENT")) << result.problem;
  EXPECT_NE(std::string::npos, result.problem.find("\"Esim disable xml load faild.\"")) << result.problem;
}

class LintFileEncodingTest : public dorvane::testing::LogFixture {};

TEST_F(LintFileEncodingTest, AFileInAnEncodingTheLookupsCannotReadIsAProblemThatNamesIt) {
  const std::string xml = R"(<R><SelectionRule><Region mcc="460" Regulatory="SRRC"/></SelectionRule></R>)";
  FileResult result = LintFile(WriteTable("\xFF\xFE" + Wide(xml, 2, 0)), Kind::kRegion);
  EXPECT_EQ(2, result.Status());
  EXPECT_TRUE(result.findings.empty());
  EXPECT_EQ(0u, result.problem.find("it is UTF-16 (little-endian, by its byte-order mark); the lookups read "
                                    "only 8-bit text (ASCII or UTF-8), so the table does not load (Error=XML_"))
      << result.problem;
  EXPECT_NE(std::string::npos, result.problem.find("): regulatory-by-mcc fails (0) and logs \"RegionMappingTable "
                                                   "load faild.\"")) << result.problem;

  result = LintFile(WriteTable(Wide(xml, 2, 1)), std::nullopt);
  EXPECT_EQ(0u, result.problem.find("it is UTF-16 (big-endian, by the NUL bytes in its first characters);"))
      << result.problem;

  result = LintFile(WriteTable("\xEF\xBB\xBF" + xml), std::nullopt);
  EXPECT_EQ("", result.problem) << "UTF-8's mark is read past";
  EXPECT_EQ(Kind::kRegion, result.kind);
}

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
