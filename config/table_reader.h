// How every configuration table is read: a fresh document per call, white space
// in texts kept, the root whatever its name, fixed paths by first child of a
// name, lists walked through every later sibling, exact whole-string keys,
// first match wins.
//
// Deployed tables are written against exactly these rules, quirks included:
// after the first entry of a list, an element of any other name is examined as
// an entry too.
//
// An attribute or text that a table lacks reads as the empty text, and a key
// never matches a missing attribute; nothing here reads through a null pointer.
#pragma once

#include <tinyxml2.h>

#include <string>

namespace dorvane::table {

// A document set up by the reading convention: entities processed, white space
// preserved.
class Document {
 public:
  Document() : doc_(true, tinyxml2::PRESERVE_WHITESPACE) {}
  // True when the file was read and parsed (LoadFile gave XML_SUCCESS).
  bool Load(const std::string& path) { return doc_.LoadFile(path.c_str()) == tinyxml2::XML_SUCCESS; }
  // The first child element of the document, or null.
  tinyxml2::XMLElement* Root() { return doc_.RootElement(); }
  tinyxml2::XMLDocument& doc() { return doc_; }

 private:
  tinyxml2::XMLDocument doc_;
};

// The first child element of `parent` named `name`; null when either is missing.
inline tinyxml2::XMLElement* Child(tinyxml2::XMLElement* parent, const char* name) {
  return parent == nullptr ? nullptr : parent->FirstChildElement(name);
}

// The entries of a list: the first child named `name`, then every later sibling
// element, whatever its name.
inline tinyxml2::XMLElement* FirstEntry(tinyxml2::XMLElement* list, const char* name) {
  return Child(list, name);
}
inline tinyxml2::XMLElement* NextEntry(tinyxml2::XMLElement* entry) {
  return entry->NextSiblingElement();
}

// The attribute's value, or the empty text when the element or attribute is missing.
std::string Attr(const tinyxml2::XMLElement* element, const char* name);
// The element's text as it stands, or the empty text.
std::string Text(const tinyxml2::XMLElement* element);
// True when the attribute exists and equals `key` byte for byte, whole string.
bool KeyIs(const tinyxml2::XMLElement* element, const char* name, const std::string& key);
// Equality with ASCII letters A-Z folded to a-z on both sides.
bool EqualsIgnoringCase(const std::string& a, const std::string& b);

}  // namespace dorvane::table
