// The checks that every kind of table shares: fixed paths, the walk of a list
// with its keys, the attributes and texts that a lookup copies out.
#include "tools/dorvanectl/lint_checks.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "config/table_reader.h"

namespace dorvane::lint {

using tinyxml2::XMLElement;

void Report::Add(int line, Severity severity, std::string message, bool unused) {
  findings_.push_back({line, severity, std::move(message), unused});
}

void Report::Error(const XMLElement* at, std::string message) {
  Add(at->GetLineNum(), Severity::kError, std::move(message));
}

void Report::Warning(const XMLElement* at, std::string message) {
  Add(at->GetLineNum(), Severity::kWarning, std::move(message));
}

void Report::Note(const XMLElement* at, std::string message) {
  Add(at->GetLineNum(), Severity::kNote, std::move(message));
}

void Report::Unused(const XMLElement* at, std::string message) {
  Add(at->GetLineNum(), Severity::kError, std::move(message), true);
}

std::vector<Finding> Report::Take() {
  std::stable_sort(findings_.begin(), findings_.end(),
                   [](const Finding& a, const Finding& b) { return a.line < b.line; });
  return std::move(findings_);
}

std::string Quote(const std::string& text) {
  std::string quoted = "\"";
  for (char c : text) {
    const unsigned char u = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      quoted += '\\';
      quoted += c;
    } else if (c == '\n') {
      quoted += "\\n";
    } else if (c == '\r') {
      quoted += "\\r";
    } else if (c == '\t') {
      quoted += "\\t";
    } else if (u < 0x20 || u == 0x7F) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\x%02X", u);
      quoted += escaped;
    } else {
      quoted += c;
    }
  }
  return quoted + "\"";
}

std::string Describe(const XMLElement* e, const char* key) {
  const char* value = key == nullptr ? nullptr : e->Attribute(key);
  std::string text = e->Name();
  if (value != nullptr) text += std::string(" ") + key + "=" + Quote(value);
  return text;
}

std::string JoinWords(const std::vector<std::string>& words) {
  std::string text;
  for (size_t i = 0; i < words.size(); ++i) {
    if (i > 0) text += i + 1 == words.size() ? " and " : ", ";
    text += words[i];
  }
  return text;
}

namespace {

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

}  // namespace

std::string BlankEnds(const std::string& text) {
  if (text.empty()) return "";
  const bool front = IsBlank(text.front());
  const bool back = IsBlank(text.back());
  return front && back ? "begins and ends" : front ? "begins" : back ? "ends" : "";
}

namespace {

// Lower case A-Z, as the lookups that ignore case compare.
std::string Folded(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

std::string Line(const XMLElement* e) { return "line " + std::to_string(e->GetLineNum()); }

void ReportRepeat(Report& report, const XMLElement* e, const XMLElement* first, const ListRule& rule) {
  const std::string before = first->Attribute(rule.key);
  const std::string key = e->Attribute(rule.key);
  std::string message = Describe(e, rule.key) + " repeats the " + rule.key + " of " + Line(first);
  if (before != key) message += " (" + Quote(before) + ", compared without regard to case)";
  message += ": " + (rule.repeat_effect.empty()
                         ? "the first match wins, so " + rule.command + " never returns this entry"
                         : rule.repeat_effect);
  report.Add(e->GetLineNum(), rule.repeat, std::move(message), rule.repeat_effect.empty());
}

// The key checks of one entry; true when a lookup can find it.
bool CheckKey(Report& report, XMLElement* e, const ListRule& rule, KeyIndex& seen, bool stray) {
  const char* raw = e->Attribute(rule.key);
  if (raw == nullptr) {
    if (!stray) {
      report.Unused(e, std::string(e->Name()) + " has no " + rule.key + ": " + rule.command +
                          " never finds it");
    }
    return false;
  }
  const std::string key = raw;
  const std::string what = Describe(e, rule.key);
  if (key.empty() && !rule.empty_key_found) {
    report.Unused(e, what + " has an empty " + rule.key + ": " + rule.command +
                        " refuses an empty key, so it never finds this entry");
    return false;
  }
  const std::string ends = BlankEnds(key);
  if (!ends.empty()) {
    report.Add(e->GetLineNum(), rule.blank,
               what + " " + ends + " with a blank: " + rule.command + " matches it only when the key " + ends +
                   " with the same blank" +
                   (rule.blank == Severity::kError ? ", and never returns for the key without it" : ""));
  }
  if (rule.fallback != nullptr && key == rule.fallback) return true;  // see CheckFallbacks
  const std::string folded = Folded(key);
  auto same = rule.ignore_case ? seen.folded.find(folded) : seen.exact.find(key);
  if (same != (rule.ignore_case ? seen.folded.end() : seen.exact.end())) {
    ReportRepeat(report, e, same->second, rule);
    return rule.repeat == Severity::kWarning;
  }
  if (!rule.ignore_case) {
    auto like = seen.folded.find(folded);
    if (like != seen.folded.end()) {
      report.Warning(e, what + " differs from " + Quote(like->second->Attribute(rule.key)) + " (" +
                            Line(like->second) + ") only in case: " + rule.command +
                            " compares keys exactly, so they are two keys");
    }
  }
  seen.exact.emplace(key, e);
  seen.folded.emplace(folded, e);
  return true;
}

// Elements before a list's first entry (all of them when it has none) that
// were meant as entries, by their name or their key: the walk never reaches
// them.
void ReportUnwalked(Report& report, XMLElement* list, const XMLElement* first, const ListRule& rule) {
  for (XMLElement* e = list->FirstChildElement(); e && e != first; e = e->NextSiblingElement()) {
    const bool near = NearMiss(e->Name(), rule.entry);
    const bool keyed = rule.key != nullptr && e->Attribute(rule.key) != nullptr &&
                       (rule.fixed == nullptr || std::strcmp(e->Name(), rule.fixed) != 0);
    if (!near && !keyed) continue;
    report.Unused(e, Describe(e, rule.key) + (first == nullptr ? "" : " before the first " + std::string(rule.entry)) +
                         " is never walked" + (near ? " " + NearMissReason(e->Name(), rule.entry) : "") +
                         ": " + rule.command + " starts at the first " + rule.entry +
                         (first == nullptr ? ", and " + std::string(list->Name()) + " has none"
                                           : " (" + Line(first) + ")") +
                         ", so it never finds this entry");
  }
}

void ReportStray(Report& report, const XMLElement* e, const XMLElement* first, const ListRule& rule) {
  std::string message = std::string(e->Name()) + " after the first " + rule.entry + " (" +
                        Line(first) + ") is walked as an entry by " + rule.command;
  if (rule.key != nullptr && e->Attribute(rule.key) != nullptr) {
    message += ", which finds it under " + std::string(rule.key) + "=" + Quote(e->Attribute(rule.key));
  }
  report.Warning(e, std::move(message));
}

}  // namespace

namespace {

// Lower case, without underscores.
std::string Loose(const std::string& name) {
  std::string loose;
  for (char c : name) {
    if (c != '_') loose += c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  }
  return loose;
}

std::string LocalName(const char* name) {
  const char* colon = std::strrchr(name, ':');
  return colon == nullptr ? name : colon + 1;
}

}  // namespace

bool NearMiss(const char* actual, const char* wanted) {
  if (std::strcmp(actual, wanted) == 0) return false;
  const std::string a = Loose(LocalName(actual));
  const std::string w = Loose(wanted);
  // One name the start of the other: Sku for SKU_GUID, Items for Item.
  const size_t shorter = std::min(a.size(), w.size());
  return a == w || (shorter >= 3 && a.compare(0, shorter, w, 0, shorter) == 0);
}

std::string NearMissReason(const char* actual, const char* wanted) {
  if (LocalName(actual) != std::string(actual)) {
    return std::string("(the lookups follow ") + wanted + ", and a namespace prefix is part of the name)";
  }
  return std::string("(the lookups follow ") + wanted + ", and compare element names exactly)";
}

bool IsEntry(const XMLElement* e, const ListRule& rule) { return std::strcmp(e->Name(), rule.entry) == 0; }

std::vector<XMLElement*> CheckList(Report& report, XMLElement* list, const ListRule& rule, KeyIndex& seen) {
  std::vector<XMLElement*> found;
  XMLElement* first = table::FirstEntry(list, rule.entry);
  ReportUnwalked(report, list, first, rule);
  for (XMLElement* e = first; e; e = table::NextEntry(e)) {
    const bool stray = !IsEntry(e, rule);
    if (stray) ReportStray(report, e, first, rule);
    if (rule.key == nullptr || CheckKey(report, e, rule, seen, stray)) found.push_back(e);
  }
  return found;
}

std::vector<XMLElement*> CheckList(Report& report, XMLElement* list, const ListRule& rule) {
  KeyIndex seen;
  return CheckList(report, list, rule, seen);
}

namespace {

// True when the walk of `list` by `rule` reaches `e` and may return it.
bool Walked(XMLElement* list, const XMLElement* e, const ListRule* rule) {
  if (rule == nullptr) return false;
  const XMLElement* first = table::FirstEntry(list, rule->entry);
  if (first == nullptr || first->GetLineNum() > e->GetLineNum()) return false;
  return rule->key == nullptr || e->Attribute(rule->key) != nullptr;
}

}  // namespace

void NearMisses(Report& report, XMLElement* parent, const char* name, const ListRule* walk) {
  for (XMLElement* e = parent->FirstChildElement(); e; e = e->NextSiblingElement()) {
    if (NearMiss(e->Name(), name) && !Walked(parent, e, walk)) {
      report.Unused(e, std::string(e->Name()) + " is never read " + NearMissReason(e->Name(), name));
    }
  }
}

XMLElement* Fixed(Report& report, XMLElement* parent, const char* name, const ListRule* walk) {
  XMLElement* child = table::Child(parent, name);
  for (XMLElement* e = child ? child->NextSiblingElement(name) : nullptr; e; e = e->NextSiblingElement(name)) {
    if (Walked(parent, e, walk)) continue;
    report.Unused(e, "this " + std::string(name) + " is never read: the lookups read only the first " + name +
                         " of " + parent->Name() + " (" + Line(child) + ")");
  }
  NearMisses(report, parent, name, walk);
  return child;
}

void ReportMissing(Report& report, XMLElement* parent, const char* name, const std::string& consequence,
                   Severity severity) {
  const bool root = parent->Parent() != nullptr && parent->Parent()->ToDocument() != nullptr;
  report.Add(parent->GetLineNum(), severity,
             std::string(parent->Name()) + (root ? " (the root)" : "") + " has no " + name + ": " + consequence);
}

XMLElement* Require(Report& report, XMLElement* parent, const char* name, const std::string& consequence,
                    Severity severity, const ListRule* walk) {
  XMLElement* child = Fixed(report, parent, name, walk);
  if (child == nullptr) ReportMissing(report, parent, name, consequence, severity);
  return child;
}

void CheckAttributes(Report& report, const XMLElement* e, const std::string& what,
                     std::initializer_list<const char*> names, const std::string& command) {
  std::vector<std::string> missing;
  std::string hint;
  for (const char* name : names) {
    if (e->Attribute(name) != nullptr) continue;
    missing.push_back(name);
    for (const tinyxml2::XMLAttribute* a = e->FirstAttribute(); a && hint.empty(); a = a->Next()) {
      if (table::EqualsIgnoringCase(a->Name(), name)) {
        hint = std::string(" (it has ") + a->Name() + ": attribute names are compared with their case)";
      }
    }
  }
  if (missing.empty()) return;
  report.Warning(e, what + " has no " + JoinWords(missing) + ": " + command + " gives the empty text for " +
                        (missing.size() == 1 ? "it" : "them") + hint);
}

XMLElement* CheckSlot(Report& report, XMLElement* entry, const char* key, const char* name,
                      std::initializer_list<const char*> attributes, const std::string& command) {
  XMLElement* slot = Fixed(report, entry, name);
  const std::string owner = Describe(entry, key);
  if (slot == nullptr) {
    std::vector<std::string> words(attributes.begin(), attributes.end());
    report.Warning(entry, owner + " has no " + name + ": " + command + " gives empty texts for its " +
                              JoinWords(words));
    return nullptr;
  }
  CheckAttributes(report, slot, std::string(name) + " of " + owner, attributes, command);
  return slot;
}

void CheckAnswer(Report& report, const XMLElement* e, const std::string& what, const std::string& command) {
  const char* text = e->GetText();
  if (text == nullptr) {
    report.Warning(e, what + " has no text: " + command + " answers the empty text for it");
    return;
  }
  const std::string ends = BlankEnds(text);
  if (!ends.empty()) {
    report.Warning(e, "the text " + Quote(text) + " of " + what + " " + ends + " with a blank: " +
                          command + " answers it with its blanks");
  }
}

void CheckFallbacks(Report& report, XMLElement* list, const std::vector<XMLElement*>& entries,
                    const ListRule& rule, bool required) {
  const std::string fallback = rule.fallback;
  std::vector<XMLElement*> rows;
  for (XMLElement* e : entries) {
    const std::string key = e->Attribute(rule.key);
    if (key == fallback) {
      rows.push_back(e);
    } else if (table::EqualsIgnoringCase(key, fallback)) {
      report.Warning(e, Describe(e, rule.key) + " is not a fall-back row: " + rule.command +
                            " falls back only to " + rule.key + "=" + Quote(fallback) +
                            ", in lower case");
    }
  }
  const std::string row = std::string(rule.entry) + " " + rule.key + "=" + Quote(fallback);
  if (rows.empty() && required) {
    report.Warning(list, std::string(list->Name()) + " has no " + row + ": " + rule.command +
                             " answers empty texts, and true, for every key it does not hold");
  }
  // Asked for the fall-back key itself, the walk stops at the first such row;
  // for any key it does not hold, it falls back to the last.
  for (size_t i = 0; i + 1 < rows.size(); ++i) {
    const std::string not_last = row + " is not the last of its kind (" + Line(rows.back()) + " is): " +
                                 rule.command + " falls back to the last one";
    if (i == 0) {
      report.Warning(rows[i], not_last + ", and returns this one only when asked for " + Quote(fallback) +
                                  " itself");
    } else {
      report.Unused(rows[i], not_last + ", and when asked for " + Quote(fallback) + " itself returns the first (" +
                                 Line(rows.front()) + "), so it never returns this one");
    }
  }
}

}  // namespace dorvane::lint
