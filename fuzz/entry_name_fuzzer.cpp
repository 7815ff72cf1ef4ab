// Entry-name cleaning and the output-path check, on any bytes.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "util/zip_core.h"

namespace {

using namespace dorvane;

[[noreturn]] void Fail(const char* what, const std::string& name) {
  std::fprintf(stderr, "entry_name_fuzzer: %s: \"%s\"\n", what, name.c_str());
  std::abort();
}

bool IsSeparator(char c) { return c == '\\' || c == '/'; }

// The cleaning rules exactly as they read, one round at a time (quadratic):
// the oracle for the one-pass implementation.
std::string RulesAsWritten(std::string name) {
  static const char* const kUpwards[] = {"\\..\\", "\\../", "/../", "/..\\"};
  for (bool changed = true; changed;) {
    changed = false;
    if (name.size() >= 2 && name[1] == ':') {
      name.erase(0, 2);
      changed = true;
    }
    if (!name.empty() && IsSeparator(name[0])) {
      name.erase(0, 1);
      changed = true;
    }
    size_t earliest = std::string::npos;
    for (const char* upwards : kUpwards) earliest = std::min(earliest, name.find(upwards));
    if (earliest != std::string::npos) {
      name.erase(0, earliest + 4);
      changed = true;
    }
  }
  return name;
}

std::vector<std::string> Segments(const std::string& path) {
  std::vector<std::string> out(1);
  for (char c : path) {
    if (IsSeparator(c)) {
      out.emplace_back();
    } else {
      out.back().push_back(c);
    }
  }
  return out;
}

// Where Windows would take the path: segments lose their trailing dots and
// blanks, "." stays, ".." goes up. False when it goes above `root_depth`.
bool StaysBelow(const std::string& path, size_t root_depth) {
  size_t depth = 0;
  for (std::string segment : Segments(path)) {
    while (!segment.empty() && (segment.back() == '.' || segment.back() == ' ')) {
      if (segment == "." || segment == "..") break;
      segment.pop_back();
    }
    if (segment.empty() || segment == ".") continue;
    if (segment == "..") {
      if (depth <= root_depth) return false;
      --depth;
    } else {
      ++depth;
    }
  }
  return depth >= root_depth;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string name(reinterpret_cast<const char*>(data), size);
  const std::string cleaned = CleanEntryName(name);
  if (size <= 1024 && RulesAsWritten(name) != cleaned) Fail("differs from the rules", name);
  if (CleanEntryName(cleaned) != cleaned) Fail("cleaning is not finished", name);
  if (cleaned.size() >= 2 && cleaned[1] == ':') Fail("drive left", name);
  if (!cleaned.empty() && IsSeparator(cleaned[0])) Fail("root left", name);
  // A ".." that leads somewhere is only ever the first segment ("../x"); a
  // last one names a folder ("a/..").
  const std::vector<std::string> segments = Segments(cleaned);
  for (size_t i = 1; i + 1 < segments.size(); ++i) {
    if (segments[i] == "..") Fail("\"..\" inside the name", name);
  }
  // Joined to a folder, whatever the check lets through stays inside it,
  // names a file or folder (not a device or stream).
  const std::string path = std::string("C:\\t\\") + cleaned.c_str();
  if (CheckOutputPath(path.c_str()) == kZipOk) {
    if (!StaysBelow(path.substr(2), 1)) Fail("passed path leaves the folder", name);
    if (path.find(':', 2) != std::string::npos) Fail("passed path with a stream", name);
  }
  return 0;
}
