// The ICCIDTable's ranges, judged by the lookup's own range rule
// (config/carrier_rules.h): a shared prefix compared as text, then tails read
// as hexadecimal numbers that saturate at 32 bits.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <map>

#include "config/carrier_rules.h"
#include "tools/dorvanectl/lint_checks.h"

namespace dorvane::lint {

using tinyxml2::XMLElement;

namespace {

const char kCommand[] = "carrier-id-by-iccid";
// What a tail too large for a 32-bit number reads as.
constexpr long kSaturated = 2147483647;
// ICCIDs have 19 or 20 digits: a tail of nine digits or more (not starting
// with 0) saturates, and so does one of eight from 80000000 on.
constexpr size_t kShortestIccid = 19;
constexpr size_t kSaturatingDigits = 9;

struct Range {
  XMLElement* element;
  std::string min, max;
  size_t prefix;   // the shared prefix's length
  long low, high;  // what min's and max's tails read
  std::vector<std::string> samples;  // ICCIDs near the bounds, for overlaps
  size_t index = 0;  // among the ranges that can match, in table order

  std::string Prefix() const { return min.substr(0, prefix); }
  std::string Tail(const std::string& bound) const { return bound.substr(prefix); }
  std::string What() const { return "Range min=" + Quote(min) + " max=" + Quote(max); }
  bool Matches(const std::string& iccid) const { return iccid::RangeMatches(iccid, min, max); }
  // "after the shared prefix "…"", or a note that there is none.
  std::string After() const {
    return prefix > 0 ? "after the shared prefix " + Quote(Prefix())
                      : "(min and max share no prefix, so whole ICCIDs are read as numbers)";
  }
  // The ICCIDs whose tails saturate.
  std::string LongTails() const {
    const std::string big = "nine digits or more, or eight from 80000000 on (leading zeros aside)";
    return prefix > 0 ? "every ICCID that begins with " + Quote(Prefix()) + " and goes on with " + big
                      : "every ICCID of " + big;
  }
};

Range MakeRange(XMLElement* e) {
  Range r{e, e->Attribute("min"), e->Attribute("max"), 0, 0, 0, {}, 0};
  r.prefix = iccid::SharedPrefix(r.min, r.max);
  r.low = iccid::Tail(r.min, r.prefix);
  r.high = iccid::Tail(r.max, r.prefix);
  r.samples = {r.min, r.max};
  for (const std::string& base : {r.Prefix(), r.min, r.max}) {
    for (size_t length : {kShortestIccid, kShortestIccid + 1}) {
      for (char fill : {'0', '9'}) {
        if (base.size() < length) r.samples.push_back(base + std::string(length - base.size(), fill));
      }
    }
  }
  return r;
}

std::string Hex(long value) {
  const unsigned long magnitude = value < 0 ? 0UL - static_cast<unsigned long>(value)
                                            : static_cast<unsigned long>(value);
  char text[24];
  std::snprintf(text, sizeof text, "%s0x%lX", value < 0 ? "-" : "", magnitude);
  return text;
}

// The first character of a bound that is not a decimal digit. In the prefix it
// keeps every ICCID out; in a tail it changes how the tail reads. False when
// the range can never match.
bool CheckDigits(Report& report, const Range& r) {
  for (const std::string* bound : {&r.min, &r.max}) {
    const size_t at = bound->find_first_not_of("0123456789");
    if (at == std::string::npos) continue;
    const char c = (*bound)[at];
    const std::string shown = Quote(std::string(1, c));
    if (at < r.prefix) {
      // Not marked unused: a key holding the same non-digit still matches.
      report.Error(r.element, r.What() + ": the shared prefix " + Quote(r.Prefix()) +
                                  " holds the non-digit " + shown + ", so no ICCID of digits begins "
                                  "with it: " + kCommand + " matches this range only for keys that hold " +
                                  shown + " there");
      return false;
    }
    std::string how;
    if (std::isxdigit(static_cast<unsigned char>(c))) {
      how = "in which " + shown + " is a digit worth " + std::to_string(iccid::Tail(std::string(1, c), 0));
    } else {
      how = "which end at the first character that is not a hexadecimal digit (blanks before the "
            "number, a sign and 0x aside)";
    }
    report.Warning(r.element, r.What() + ": " + (bound == &r.min ? "min" : "max") + "'s tail " +
                                  Quote(r.Tail(*bound)) + " holds the non-digit " + shown + ": " +
                                  kCommand + " reads tails as hexadecimal numbers, " + how);
  }
  return true;
}

// The bounds' tails: equal bounds, bounds in the wrong order, a max too large
// to read, and a max too small for whole ICCIDs. False when the range can
// never match.
bool CheckBounds(Report& report, const Range& r) {
  if (r.min == r.max) {
    report.Error(r.element, r.What() + ": min equals max, so " + kCommand +
                                " matches only ICCIDs that begin with " + Quote(r.min) +
                                " and whose remainder reads 0 (that ICCID itself, or it followed by "
                                "zeros), not every ICCID that begins with it");
    return true;
  }
  if (r.low > r.high) {
    report.Unused(r.element, r.What() + ": min's tail " + Quote(r.Tail(r.min)) + " " + r.After() +
                                " reads " + Hex(r.low) + ", above max's tail " + Quote(r.Tail(r.max)) +
                                " (" + Hex(r.high) + "), so " + kCommand + " never matches this range");
    return false;
  }
  if (r.high == kSaturated) {
    report.Warning(r.element, r.What() + ": " +
                                  (r.low == kSaturated ? "both tails " : "max's tail " + Quote(r.Tail(r.max)) + " ") +
                                  r.After() + " " + (r.low == kSaturated ? "are" : "is") +
                                  " too large for a 32-bit number and read" +
                                  (r.low == kSaturated ? "" : "s") + " 0x7FFFFFFF, so " + kCommand +
                                  " takes " + r.LongTails() + ", whatever its digits");
  } else if (r.prefix + kSaturatingDigits <= kShortestIccid) {
    // Shorter keys, and long ones whose tail begins with zeros, still match.
    report.Warning(r.element, r.What() + ": an ICCID of 19 or 20 digits has " +
                                  std::to_string(kShortestIccid - r.prefix) + " digits or more " + r.After() +
                                  ", and nine of them without leading zeros read 0x7FFFFFFF, above max's " +
                                  Hex(r.high) + ": " + kCommand +
                                  " matches such an ICCID only when that part begins with zeros");
  }
  return true;
}

std::string LineOf(const Range& r) { return std::to_string(r.element->GetLineNum()); }

// The fewest of the earlier ranges `spans` (same prefix as `r`) that take every
// tail value `r` admits, or none when they leave a gap.
std::vector<const Range*> Cover(std::vector<const Range*> spans, const Range& r) {
  std::sort(spans.begin(), spans.end(), [](const Range* a, const Range* b) { return a->low < b->low; });
  std::vector<const Range*> cover;
  long long next = r.low;  // the lowest value not taken yet
  size_t i = 0;
  while (next <= r.high) {
    const Range* best = nullptr;
    for (; i < spans.size() && spans[i]->low <= next; ++i) {
      if (best == nullptr || spans[i]->high > best->high) best = spans[i];
    }
    if (best == nullptr || best->high < next) return {};
    cover.push_back(best);
    next = static_cast<long long>(best->high) + 1;
  }
  return cover;
}

// True when `e`, whose shared prefix is a proper prefix of that of `r`, takes
// every key that `r` matches, whatever the key holds. After the shorter prefix
// the lookup reads r's remaining prefix digits D followed by the key's leading
// hexadecimal run: D alone when the key's tail begins with anything else (a
// blank or a sign), and up to saturation when the tail begins with zeros. So
// `e` must take every value from D's to 0x7FFFFFFF (only D's when r admits
// negative tails alone); D of zeros reads 0 and adds nothing.
bool TakesAllOf(const Range& e, const Range& r) {
  const std::string digits = r.Prefix().substr(e.prefix);
  if (digits == "0") return false;  // "0" followed by "x" would start a 0x prefix
  const long d = iccid::Tail(digits, 0);
  if (d == 0) return e.low <= 0 && std::max(r.high, 0L) <= e.high;
  return e.low <= d && (r.high < 0 ? d <= e.high : e.high == kSaturated);
}

// An ICCID that both ranges match, or the empty text. Ranges whose prefixes
// differ other than by one extending the other match nothing in common.
std::string Witness(const Range& a, const Range& b) {
  const size_t shorter = std::min(a.prefix, b.prefix);
  if (a.min.compare(0, shorter, b.min, 0, shorter) != 0) return "";
  for (const Range* from : {&a, &b}) {
    for (const std::string& sample : from->samples) {
      if (a.Matches(sample) && b.Matches(sample)) return sample;
    }
  }
  return "";
}

// The ranges met so far that can match, by their shared prefix: only ranges
// whose prefixes are equal, or one of which extends the other, can share an
// ICCID, so a long table is not compared range by range.
class Earlier {
 public:
  void Add(Range r) {
    r.index = ranges_.size();
    by_prefix_[r.Prefix()].push_back(r.index);
    ranges_.push_back(std::move(r));
  }
  // The ranges with the prefix of `r`, in table order.
  std::vector<const Range*> Same(const Range& r) const {
    auto group = by_prefix_.find(r.Prefix());
    return group == by_prefix_.end() ? std::vector<const Range*>() : Pointers(group->second);
  }
  // The ranges whose prefix extends that of `r` or is extended by it, in table order.
  std::vector<const Range*> Related(const Range& r) const {
    const std::string prefix = r.Prefix();
    std::vector<size_t> indexes;
    for (size_t length = 0; length < prefix.size(); ++length) {
      auto group = by_prefix_.find(prefix.substr(0, length));
      if (group != by_prefix_.end()) indexes.insert(indexes.end(), group->second.begin(), group->second.end());
    }
    for (auto group = by_prefix_.upper_bound(prefix);
         group != by_prefix_.end() && group->first.compare(0, prefix.size(), prefix) == 0; ++group) {
      indexes.insert(indexes.end(), group->second.begin(), group->second.end());
    }
    std::sort(indexes.begin(), indexes.end());
    return Pointers(indexes);
  }

 private:
  std::vector<const Range*> Pointers(const std::vector<size_t>& indexes) const {
    std::vector<const Range*> pointers;
    for (size_t i : indexes) pointers.push_back(&ranges_[i]);
    return pointers;
  }

  std::vector<Range> ranges_;
  std::map<std::string, std::vector<size_t>> by_prefix_;
};

// A range that earlier ranges shadow (the first match wins): wholly, when
// earlier ranges of the same prefix take all its tails; in part, when they
// share an ICCID with it (found exactly for the same prefix, among ICCIDs near
// the bounds for related prefixes).
void CheckShadow(Report& report, const Range& r, const Earlier& earlier) {
  std::vector<const Range*> same;
  for (const Range* e : earlier.Same(r)) {
    if (e->low <= r.high && r.low <= e->high) same.push_back(e);
  }
  std::vector<const Range*> cover = Cover(same, r);
  if (!cover.empty()) {
    std::sort(cover.begin(), cover.end(),
              [](const Range* a, const Range* b) { return a->element->GetLineNum() < b->element->GetLineNum(); });
    std::vector<std::string> lines;
    for (const Range* e : cover) lines.push_back(LineOf(*e));
    report.Unused(r.element, r.What() + " is shadowed by the earlier range" + (lines.size() > 1 ? "s" : "") +
                                " at line" + (lines.size() > 1 ? "s " : " ") + JoinWords(lines) +
                                ": every ICCID it matches is matched there first, so " + kCommand +
                                " never returns it");
    return;
  }
  for (const Range* e : earlier.Related(r)) {
    if (e->prefix >= r.prefix || !TakesAllOf(*e, r)) continue;
    report.Unused(r.element, r.What() + " is shadowed by the earlier range at line " + LineOf(*e) + ", " +
                                 (e->prefix > 0 ? "whose shorter shared prefix " + Quote(e->Prefix())
                                                : "which shares no prefix,") +
                                 " takes every ICCID this one matches (" +
                                 (e->prefix > 0 ? "what follows that prefix" : "the whole ICCID") +
                                 " always reads within its tails), so " + kCommand +
                                 " never returns it");
    return;
  }
  // The first earlier range that shares an ICCID with this one. With the same
  // prefix, the lower end of the shared tails is one of the two mins.
  const Range* first = same.empty() ? nullptr : same.front();
  std::string witness = first == nullptr ? "" : r.low >= first->low ? r.min : first->min;
  for (const Range* e : earlier.Related(r)) {
    if (first != nullptr && e->index > first->index) break;
    if (std::string w = Witness(*e, r); !w.empty()) {
      first = e;
      witness = w;
      break;
    }
  }
  if (first == nullptr) return;
  report.Warning(r.element, r.What() + " overlaps the earlier range at line " + LineOf(*first) +
                                ": an ICCID such as " + Quote(witness) + " matches both, and " + kCommand +
                                " gives it line " + LineOf(*first) + "'s carrier id");
}

}  // namespace

void CheckRanges(Report& report, XMLElement* table) {
  const ListRule rule{"Range", nullptr, kCommand};
  Earlier earlier;
  for (XMLElement* e : CheckList(report, table, rule)) {
    const bool has_min = e->Attribute("min") != nullptr;
    const bool has_max = e->Attribute("max") != nullptr;
    if (!has_min || !has_max) {
      if (IsEntry(e, rule)) {
        report.Unused(e, std::string("Range has no ") + (has_min ? "max" : has_max ? "min" : "min and max") +
                            ": " + kCommand + " skips it, so it never matches");
      }
      continue;
    }
    Range r = MakeRange(e);
    CheckAnswer(report, e, r.What(), kCommand);
    if (!CheckDigits(report, r) || !CheckBounds(report, r)) continue;
    CheckShadow(report, r, earlier);
    earlier.Add(std::move(r));
  }
}

}  // namespace dorvane::lint
