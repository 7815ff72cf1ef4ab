// The table checker's parts, shared by its source files: the collected
// findings, the walk of a list as the lookups walk it with the checks every
// keyed list gets, and one check function per kind.
#pragma once

#include <tinyxml2.h>

#include <initializer_list>
#include <string>
#include <unordered_map>
#include <vector>

#include "tools/dorvanectl/lint.h"

namespace dorvane::lint {

// Which ends of a text are blank (a blank, tab or line end): "", "begins",
// "ends" or "begins and ends".
std::string BlankEnds(const std::string& text);

// The findings of one table, handed out in document order.
class Report {
 public:
  void Add(int line, Severity severity, std::string message, bool unused = false);
  void Error(const tinyxml2::XMLElement* at, std::string message);
  void Warning(const tinyxml2::XMLElement* at, std::string message);
  void Note(const tinyxml2::XMLElement* at, std::string message);
  // An error that says `at` is never used (never returned, never read).
  void Unused(const tinyxml2::XMLElement* at, std::string message);
  std::vector<Finding> Take();

 private:
  std::vector<Finding> findings_;
};

// A table's text in double quotes, with \, " and control characters escaped,
// so that a finding stays one line whatever the table holds.
std::string Quote(const std::string& text);
// `Name key="value"`, or the bare name when there is no key or no such attribute.
std::string Describe(const tinyxml2::XMLElement* e, const char* key);
// "a", "a and b", "a, b and c".
std::string JoinWords(const std::vector<std::string>& words);

// How a list's entries are looked up.
struct ListRule {
  ListRule(const char* entry_name, const char* key_name, std::string walker)
      : entry(entry_name), key(key_name), command(std::move(walker)) {}

  const char* entry;          // the name of the entry the walk starts at
  const char* key;            // the key attribute; null when every entry is taken
  std::string command;        // the dorvanectl command that walks it, for messages
  bool ignore_case = false;   // keys compared without regard to A-Z case
  bool empty_key_found = true;  // false when the lookup refuses an empty key
  // A key seen before: an error by default (the first match wins, the entry is
  // never returned); `repeat_effect` replaces the part after the colon.
  Severity repeat = Severity::kError;
  std::string repeat_effect;
  const char* fallback = nullptr;  // a key with a meaning of its own ("default")
  // A key with a blank at an end: a warning, or an error where a key that
  // misses makes the lookup hang.
  Severity blank = Severity::kWarning;
  // A fixed element of the list's parent that may stand among its entries
  // (SwitchingRule holds a SelectionRule beside its Registered entries).
  const char* fixed = nullptr;
};

// The keys met so far in one lookup's walk: as they are and folded to lower
// case, each with the first entry that had it.
struct KeyIndex {
  std::unordered_map<std::string, const tinyxml2::XMLElement*> exact;
  std::unordered_map<std::string, const tinyxml2::XMLElement*> folded;
};

// Walks `list` as the lookups do (the first `rule.entry`, then every later
// sibling element) and reports elements of other names after the first entry,
// entries without a usable key, keys with blanks around them, keys met before
// in `seen` and, where keys are exact, keys that differ from an earlier one
// only in case. Returns the entries a lookup can find (every entry when the
// rule has no key), in walk order.
std::vector<tinyxml2::XMLElement*> CheckList(Report& report, tinyxml2::XMLElement* list,
                                             const ListRule& rule, KeyIndex& seen);
std::vector<tinyxml2::XMLElement*> CheckList(Report& report, tinyxml2::XMLElement* list,
                                             const ListRule& rule);
// True when an element named `actual` was probably meant to be `wanted`, which
// the lookups follow: the same name in another case, with a namespace prefix,
// with underscores added or left out, or shortened or lengthened at its end
// (at least three letters in common).
bool NearMiss(const char* actual, const char* wanted);
// Why a near-miss name is not followed, in parentheses.
std::string NearMissReason(const char* actual, const char* wanted);

// True when `e` bears the rule's entry name (not an element of another name
// that the walk takes as an entry).
bool IsEntry(const tinyxml2::XMLElement* e, const ListRule& rule);

// The child of `parent` on a fixed path (its first child of that name). Later
// children of the name and children whose names are near misses of it are
// never read: errors. `walk`, when the parent is also a list, names the walk
// that takes every later sibling of its first entry, which may find them.
tinyxml2::XMLElement* Fixed(Report& report, tinyxml2::XMLElement* parent, const char* name,
                            const ListRule* walk = nullptr);
// Only the near misses of Fixed.
void NearMisses(Report& report, tinyxml2::XMLElement* parent, const char* name,
                const ListRule* walk = nullptr);
// The finding of a missing fixed child.
void ReportMissing(Report& report, tinyxml2::XMLElement* parent, const char* name,
                   const std::string& consequence, Severity severity = Severity::kError);
// Fixed, and a finding naming `consequence` when the child is missing: an
// error by default, a note for a list that only one of the kind's lookups
// reads (that lookup then answers "not found").
tinyxml2::XMLElement* Require(Report& report, tinyxml2::XMLElement* parent, const char* name,
                              const std::string& consequence, Severity severity = Severity::kError,
                              const ListRule* walk = nullptr);
// Attributes that a lookup copies out of `e` (described as `what`): missing
// ones read as empty texts.
void CheckAttributes(Report& report, const tinyxml2::XMLElement* e, const std::string& what,
                     std::initializer_list<const char*> names, const std::string& command);
// A firmware element under an entry, with the attributes the lookup copies.
tinyxml2::XMLElement* CheckSlot(Report& report, tinyxml2::XMLElement* entry, const char* key,
                                const char* name, std::initializer_list<const char*> attributes,
                                const std::string& command);
// An element's text that a lookup answers: missing, or with blanks around it.
void CheckAnswer(Report& report, const tinyxml2::XMLElement* e, const std::string& what,
                 const std::string& command);
// Rows keyed `rule.fallback` ("default"): the lookup falls back to the last.
void CheckFallbacks(Report& report, tinyxml2::XMLElement* list,
                    const std::vector<tinyxml2::XMLElement*>& entries, const ListRule& rule,
                    bool required);

// The ICCIDTable's ranges (lint_ranges.cpp).
void CheckRanges(Report& report, tinyxml2::XMLElement* table);

// One per kind; `root` is never null.
void CheckCarrierRules(Report& report, tinyxml2::XMLElement* root);
void CheckSelectionRules(Report& report, tinyxml2::XMLElement* root);
void CheckCarrierFirmware(Report& report, tinyxml2::XMLElement* root);
void CheckCustomerModel(Report& report, tinyxml2::XMLElement* root);
void CheckPackageInfo(Report& report, tinyxml2::XMLElement* root);
void CheckFwPackageInfo(Report& report, tinyxml2::XMLElement* root);
void CheckSku(Report& report, tinyxml2::XMLElement* root);
void CheckDeviceConfig(Report& report, tinyxml2::XMLElement* root);
void CheckImageMapping(Report& report, tinyxml2::XMLElement* root);
void CheckEsim(Report& report, tinyxml2::XMLElement* root);
void CheckRegion(Report& report, tinyxml2::XMLElement* root);
void CheckScatter(Report& report, tinyxml2::XMLElement* root);

}  // namespace dorvane::lint
