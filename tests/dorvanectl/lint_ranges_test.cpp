// The checks of the ICCID ranges, and what the lookup itself does with the
// ranges they flag: a range said never to match is never the answer.
#include <gtest/gtest.h>

#include <random>

#include "config/carrier_rules.h"
#include "support/log_reader.h"
#include "tests/dorvanectl/lint_expect.h"

namespace dorvane::lint {
namespace {

using testing::Contains;
using testing::LintOf;
using testing::Listing;
constexpr Severity kError = Severity::kError;
constexpr Severity kWarning = Severity::kWarning;

// A rules table whose ICCIDTable holds `ranges`, the first of them on line 3.
std::string Rules(const std::string& ranges) {
  return "<Rules><SwitchingRule><SelectionRule><MCCMNCTable/><MCCTable/>\n<ICCIDTable>\n" + ranges +
         "</ICCIDTable></SelectionRule></SwitchingRule></Rules>";
}

std::string Range(const std::string& min, const std::string& max, const std::string& text) {
  return "<Range min=\"" + min + "\" max=\"" + max + "\">" + text + "</Range>\n";
}

TEST(LintIccid, ARangeWhoseMinEqualsMaxMatchesOnlyARemainderOfZero) {
  const auto findings = LintOf(Rules(Range("8901260", "8901260", "TMO")));
  ASSERT_EQ(1u, findings.size()) << Listing(findings);
  EXPECT_EQ("t.xml:3: error: Range min=\"8901260\" max=\"8901260\": min equals max, so carrier-id-by-iccid "
            "matches only ICCIDs that begin with \"8901260\" and whose remainder reads 0 (that ICCID itself, "
            "or it followed by zeros), not every ICCID that begins with it",
            FormatLine("t.xml", findings[0]));
  EXPECT_TRUE(iccid::RangeMatches("8901260000", "8901260", "8901260"));
  EXPECT_FALSE(iccid::RangeMatches("8901260123456789012", "8901260", "8901260"));
}

TEST(LintIccid, ARangeWhoseMinReadsAboveItsMaxNeverMatches) {
  const auto findings = LintOf(Rules(Range("8901269", "8901261", "A") + Range("89012615", "8901269", "B")));
  EXPECT_EQ(2u, findings.size()) << Listing(findings);
  EXPECT_FINDING(findings, 3, kError, "min's tail \"9\" after the shared prefix \"890126\" reads 0x9, above max's "
                 "tail \"1\" (0x1), so carrier-id-by-iccid never matches this range");
  // Tails of unequal length: "15" reads 0x15, above "9".
  EXPECT_FINDING(findings, 4, kError, "min's tail \"15\"", "reads 0x15, above max's tail \"9\" (0x9)");
}

TEST(LintIccid, TailsTooLargeFor32BitsSaturate) {
  const auto findings = LintOf(Rules(Range("89012600000000000000", "89012609999999999999", "A") +
                                     Range("89021000000000000", "89029999999999999", "B") +
                                     Range("893000000000", "893080000000", "C")));
  EXPECT_EQ(3u, findings.size()) << Listing(findings);
  EXPECT_FINDING(findings, 3, kWarning, "max's tail \"9999999999999\" after the shared prefix \"8901260\" is too "
                 "large for a 32-bit number and reads 0x7FFFFFFF, so carrier-id-by-iccid takes every ICCID that "
                 "begins with \"8901260\" and goes on with nine digits or more, or eight from 80000000 on (leading "
                 "zeros aside), whatever its digits");
  EXPECT_FINDING(findings, 4, kWarning, "both tails after the shared prefix \"8902\" are too large for a 32-bit "
                 "number and read 0x7FFFFFFF");
  // Eight digits are enough from 80000000 on.
  EXPECT_FINDING(findings, 5, kWarning, "max's tail \"80000000\" after the shared prefix \"8930\" is too large");
  EXPECT_TRUE(iccid::RangeMatches("8930FFFFFFFF", "893000000000", "893080000000"));
  EXPECT_TRUE(iccid::RangeMatches("89012609999999999999999", "89012600000000000000", "89012609999999999999"))
      << "even an ICCID above max";
}

TEST(LintIccid, ShortBoundsMatchWholeIccidsOnlyWithZerosAfterThePrefix) {
  const auto findings = LintOf(Rules(Range("8901", "890123", "A") + Range("8901260000", "8901269999", "B") +
                                     Range("8903000000000000000", "8903000000000099999", "C") +
                                     Range("891000000000000001", "891000000079999999", "D")));
  EXPECT_EQ(3u, findings.size()) << Listing(findings);
  EXPECT_FINDING(findings, 3, kWarning, "an ICCID of 19 or 20 digits has 19 digits or more (min and max share no "
                 "prefix, so whole ICCIDs are read as numbers), and nine of them without leading zeros read "
                 "0x7FFFFFFF, above max's 0x890123: carrier-id-by-iccid matches such an ICCID only when that part "
                 "begins with zeros");
  EXPECT_FINDING(findings, 4, kWarning, "has 13 digits or more after the shared prefix \"890126\"");
  EXPECT_FINDING(findings, 6, kWarning, "has 9 digits or more after the shared prefix \"8910000000\"");
  EXPECT_FALSE(iccid::RangeMatches("8901260123456789012", "8901260000", "8901269999"));
  EXPECT_TRUE(iccid::RangeMatches("8903000000000012345", "8903000000000000000", "8903000000000099999"));
  // What the warning leaves open: keys of the bounds' own length, and longer
  // ones whose remainder begins with zeros.
  EXPECT_TRUE(iccid::RangeMatches("891000000012345678", "891000000000000001", "891000000079999999"));
  EXPECT_TRUE(iccid::RangeMatches("8910000000012345678", "891000000000000001", "891000000079999999"));
  EXPECT_FALSE(iccid::RangeMatches("8910000000123456789", "891000000000000001", "891000000079999999"));
}

TEST(LintIccid, CharactersOtherThanDigits) {
  const auto findings = LintOf(Rules(Range("89A1", "89A9", "A") + Range("890126000000000000A0", "890126000000000000F0", "B") +
                                     Range("8901260000000000000", "8901260000000000x99", "C")));
  EXPECT_EQ(4u, findings.size()) << Listing(findings);
  EXPECT_FINDING(findings, 3, kError, "the shared prefix \"89A\" holds the non-digit \"A\", so no ICCID of digits "
                 "begins with it: carrier-id-by-iccid matches this range only for keys that hold \"A\" there");
  EXPECT_FINDING(findings, 4, kWarning, "min's tail \"A0\" holds the non-digit \"A\"",
                 "reads tails as hexadecimal numbers, in which \"A\" is a digit worth 10");
  EXPECT_FINDING(findings, 4, kWarning, "max's tail \"F0\" holds the non-digit \"F\"", "worth 15");
  EXPECT_FINDING(findings, 5, kWarning, "max's tail \"x99\" holds the non-digit \"x\"",
                 "which end at the first character that is not a hexadecimal digit");
}

TEST(LintIccid, RangesWithoutBoundsAreSkipped) {
  const auto findings = LintOf(Rules("<Range min=\"1\">A</Range>\n<Range>B</Range>\n<Range min='8901260000000000001' max='8901260000000000002'/>\n"));
  EXPECT_EQ(3u, findings.size()) << Listing(findings);
  EXPECT_FINDING(findings, 3, kError, "Range has no max: carrier-id-by-iccid skips it");
  EXPECT_FINDING(findings, 4, kError, "Range has no min and max");
  EXPECT_FINDING(findings, 5, kWarning, "max=\"8901260000000000002\" has no text");
}

TEST(LintIccid, ARangeThatEarlierRangesCoverIsNeverReturned) {
  const auto findings = LintOf(Rules(Range("8901260000000000000", "8901260000000000059", "A") +
                                     Range("8901260000000000050", "8901260000000000099", "B") +
                                     Range("8901260000000000040", "8901260000000000060", "C") +
                                     Range("8901260000000000000", "8901260000000000059", "D") +
                                     Range("8901260000000000010", "8901260000000000020", "E")));
  EXPECT_EQ(4u, findings.size()) << Listing(findings);
  EXPECT_FINDING(findings, 4, kWarning, "overlaps the earlier range at line 3");
  EXPECT_FINDING(findings, 5, kError, "is shadowed by the earlier ranges at lines 3 and 4: every ICCID it matches "
                 "is matched there first, so carrier-id-by-iccid never returns it");
  EXPECT_FINDING(findings, 6, kError, "min=\"8901260000000000000\" max=\"8901260000000000059\" is shadowed by the "
                 "earlier range at line 3:");
  EXPECT_FINDING(findings, 7, kError, "is shadowed by the earlier range at line 3:");
}

TEST(LintIccid, AnEarlierRangeWithAShorterPrefixThatSaturatesTakesEveryLaterOne) {
  const auto findings = LintOf(Rules(Range("89000000000000000000", "89999999999999999999", "A") +
                                     Range("8901260000000000000", "8901260000000000099", "B") +
                                     Range("8810", "8819", "C") + Range("881500", "881599", "D") +
                                     Range("0", "99999999999999999999", "E") + Range("7700", "7799", "F")));
  EXPECT_FINDING(findings, 4, kError, "is shadowed by the earlier range at line 3, whose shorter shared prefix "
                 "\"89\" takes every ICCID this one matches (what follows that prefix always reads within its "
                 "tails), so carrier-id-by-iccid never returns it");
  EXPECT_FINDING(findings, 8, kError, "is shadowed by the earlier range at line 7, which shares no prefix, takes "
                 "every ICCID this one matches (the whole ICCID always reads within its tails)");
  // Line 5 ends below saturation: keys of line 6 that run longer than its
  // bounds read above it.
  EXPECT_TRUE(testing::On(findings, 6, {"shadowed"}).empty()) << Listing(findings);
  EXPECT_TRUE(iccid::RangeMatches("881500000", "881500", "881599"));
  EXPECT_FALSE(iccid::RangeMatches("881500000", "8810", "8819"));
  for (const char* key : {"8901260000000000042", "89012600000000000990", "890126 5", "8901260000000000000000000"}) {
    SCOPED_TRACE(key);
    EXPECT_TRUE(iccid::RangeMatches(key, "89000000000000000000", "89999999999999999999"));
  }
}

TEST(LintIccid, OverlapsNameAnIccidThatBothMatch) {
  const auto findings = LintOf(Rules(Range("8901260000000000000", "8901260000000000099", "A") +
                                     Range("8901260000000000050", "8901260000000000150", "B") +
                                     Range("89012600000000000000", "89012609999999999999", "C") +
                                     Range("8902", "8902", "D") + Range("8903000000000000000", "8903000000000000099", "E")));
  const auto overlaps = testing::On(findings, 4, {"overlaps the earlier range at line 3"});
  ASSERT_EQ(1u, overlaps.size()) << Listing(findings);
  EXPECT_EQ(kWarning, overlaps[0].severity);
  EXPECT_TRUE(Contains(overlaps[0].message, "an ICCID such as \"8901260000000000099\" matches both, and "
                                            "carrier-id-by-iccid gives it line 3's carrier id"))
      << overlaps[0].message;
  EXPECT_EQ(1u, testing::On(findings, 5, {"overlaps the earlier range at line 3"}).size()) << Listing(findings);
  EXPECT_EQ(0u, testing::On(findings, 7, {"overlaps"}).size()) << "other prefixes never overlap";
}

// The ICCID that an overlap finding quotes.
std::string Witness(const std::string& message) {
  const std::string before = "an ICCID such as \"";
  const size_t from = message.find(before);
  if (from == std::string::npos) return "";
  const size_t start = from + before.size();
  return message.substr(start, message.find('"', start) - start);
}

class LintIccidLookups : public dorvane::testing::LogFixture {};

// On random tables of ranges around a few prefixes: no ICCID is ever answered
// by a range that a finding says never matches or is shadowed, and the ICCID
// that an overlap finding names gets the earlier range's answer.
TEST_F(LintIccidLookups, FindingsAgreeWithTheLookupOnRandomTables) {
  std::mt19937 random(20240611);
  const char* const prefixes[] = {"8901260", "89012600000000", "890126000000000000", "8902", ""};
  auto digits = [&](size_t n) {
    std::string s;
    for (size_t i = 0; i < n; ++i) s += static_cast<char>('0' + random() % 10);
    return s;
  };
  auto bound = [&] {
    const std::string prefix = prefixes[random() % 5];
    const size_t length = 8 + random() % 14;
    return prefix.size() >= length ? prefix : prefix + digits(length - prefix.size());
  };
  int never_checked = 0, overlaps_checked = 0;
  for (int round = 0; round < 40; ++round) {
    std::vector<std::pair<std::string, std::string>> bounds;
    std::string ranges;
    for (int i = 0; i < 8; ++i) {
      std::string min = bound(), max = random() % 3 == 0 ? min.substr(0, min.size() - random() % 4) + digits(random() % 6) : bound();
      if (random() % 2 && min > max) std::swap(min, max);
      bounds.push_back({min, max});
      ranges += Range(min, max, "R" + std::to_string(i));
    }
    const std::string xml = Rules(ranges);
    const auto findings = LintOf(xml);
    // Which range (by its line) the lookup answers an ICCID with, or 0.
    auto answer = [&](const std::string& iccid) {
      for (size_t i = 0; i < bounds.size(); ++i) {
        if (iccid::RangeMatches(iccid, bounds[i].first, bounds[i].second)) return static_cast<int>(i) + 3;
      }
      return 0;
    };
    std::vector<std::string> samples;
    for (const auto& [min, max] : bounds) {
      for (const std::string& b : {min, max}) {
        samples.push_back(b);
        for (int k = 0; k < 6; ++k) {
          const size_t keep = random() % (b.size() + 1);
          samples.push_back(b.substr(0, keep) + digits(random() % 22));
        }
      }
    }
    for (const Finding& f : findings) {
      if (Contains(f.message, "never matches this range") || Contains(f.message, "is shadowed by")) {
        for (const std::string& s : samples) ASSERT_NE(f.line, answer(s)) << s << "\n" << Listing(findings);
        ++never_checked;
      }
      if (const std::string w = Witness(f.message); !w.empty()) {
        const int earlier = std::stoi(f.message.substr(f.message.find("earlier range at line ") + 22));
        EXPECT_EQ(earlier, answer(w)) << f.message;
        const auto& mine = bounds[static_cast<size_t>(f.line - 3)];
        EXPECT_TRUE(iccid::RangeMatches(w, mine.first, mine.second)) << f.message;
        ++overlaps_checked;
      }
    }
    if (round == 0) {
      // Once through the real lookup, from a file.
      const std::string path = WriteTable(xml);
      for (const std::string& s : samples) {
        std::string out = "none";
        const int line = answer(s);
        EXPECT_EQ(line != 0, GetCarrierIdByIccid(s, path, out)) << s;
        EXPECT_EQ(line != 0 ? "R" + std::to_string(line - 3) : "none", out) << s;
      }
    }
  }
  EXPECT_GT(never_checked, 10) << "the random tables gave few ranges that never match";
  EXPECT_GT(overlaps_checked, 10) << "the random tables gave few overlaps";
}

}  // namespace
}  // namespace dorvane::lint
