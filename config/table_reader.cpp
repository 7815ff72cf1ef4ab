#include "config/table_reader.h"

namespace dorvane::table {

std::string Attr(const tinyxml2::XMLElement* element, const char* name) {
  const char* value = element == nullptr ? nullptr : element->Attribute(name);
  return value == nullptr ? std::string() : std::string(value);
}

std::string Text(const tinyxml2::XMLElement* element) {
  const char* text = element == nullptr ? nullptr : element->GetText();
  return text == nullptr ? std::string() : std::string(text);
}

bool KeyIs(const tinyxml2::XMLElement* element, const char* name, const std::string& key) {
  const char* value = element == nullptr ? nullptr : element->Attribute(name);
  return value != nullptr && key == value;
}

bool EqualsIgnoringCase(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
  for (size_t i = 0; i < a.size(); ++i) {
    if (lower(a[i]) != lower(b[i])) return false;
  }
  return true;
}

}  // namespace dorvane::table
