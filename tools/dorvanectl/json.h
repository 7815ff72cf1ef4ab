// A small JSON writer for dorvanectl's --json output: one object, keys in the
// order they are added. Narrow (ANSI) text is written with bytes 0x80-0xFF as
// the code points U+0080-U+00FF, so any byte string round-trips.
#pragma once

#include <string>
#include <vector>

namespace dorvane::ctl {

std::string JsonString(const std::string& text);

class JsonObject {
 public:
  JsonObject& Add(const std::string& key, bool value);
  JsonObject& Add(const std::string& key, long long value);
  JsonObject& Add(const std::string& key, const std::string& value);
  JsonObject& Add(const std::string& key, const char* value) { return Add(key, std::string(value)); }
  JsonObject& Add(const std::string& key, const std::vector<std::string>& values);
  // `json` is already JSON text (an array or object).
  JsonObject& AddRaw(const std::string& key, const std::string& json);
  std::string str() const { return "{" + body_ + "}"; }

 private:
  void Key(const std::string& key);
  std::string body_;
};

}  // namespace dorvane::ctl
