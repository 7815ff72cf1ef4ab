// Entry names and output paths, and the result texts.
#include <algorithm>
#include <cstring>

#include "util/zip_core.h"

namespace dorvane {

const char* ZipResultText(ZipResult code) {
  switch (code) {
    case kZipOk: return "Success";
    case kZipNoDuplicate: return "Culdn't duplicate handle";  // the shipped spelling
    case kZipNoFile: return "Couldn't create/open file";
    case kZipNoMemory: return "Failed to allocate memory";
    case kZipWriteError: return "Error writing to file";
    case kZipNotFound: return "File not found in the zipfile";
    case kZipMoreData: return "Still more data to unzip";
    case kZipCorrupt: return "Zipfile is corrupt or not a zipfile";
    case kZipReadError: return "Error reading file";
    case kZipPassword: return "Correct password required";
    case kZipBadArguments: return "Caller: faulty arguments";
    case kZipNotMemoryZip: return "Caller: can only get memory of a memory zipfile";
    case kZipMemorySize: return "Caller: not enough space allocated for memory zipfile";
    case kZipPreviousError: return "Caller: there was a previous error";
    case kZipEnded: return "Caller: additions to the zip have already been ended";
    case kZipWrongSize: return "Zip-bug: the anticipated size turned out wrong";
    case kZipPartlyUnzipped: return "Caller: the file had already been partially unzipped";
    case kZipWrongMode: return "Caller: mixing creation and opening of zip";
    case kZipNotInitialised: return "Zip-bug: internal initialisation not completed";
    case kZipUnseekable: return "Zip-bug: trying to seek the unseekable";
    case kZipNoChange: return "Zip-bug: tried to change mind, but not allowed";
    case kZipFlation: return "Zip-bug: an internal error during flation";
    default: return "unknown zip result code";
  }
}

std::string CleanEntryName(std::string name) {
  // The rules work on what is left of the name, which is always a tail of
  // it: only its start moves. Each search for an upward sequence starts where
  // the last one ended, so a hostile name of thousands of "/../" costs one
  // pass, not one pass per sequence.
  const size_t size = name.size();
  auto separator = [&name](size_t i) { return name[i] == '\\' || name[i] == '/'; };
  size_t start = 0;
  size_t searched = 0;  // no upward sequence begins in [start, searched)
  for (bool changed = true; changed;) {
    changed = false;
    if (size - start >= 2 && name[start + 1] == ':') {
      start += 2;
      changed = true;
    }
    if (start < size && separator(start)) {
      start += 1;
      changed = true;
    }
    size_t at = std::max(start, searched);
    while (at + 4 <= size &&
           !(separator(at) && name[at + 1] == '.' && name[at + 2] == '.' && separator(at + 3))) {
      ++at;
    }
    if (at + 4 <= size) {
      start = at + 4;
      changed = true;
    }
    searched = std::max(start, at);
  }
  name.erase(0, start);
  return name;
}

namespace {

bool IsSeparator(char c) { return c == '\\' || c == '/'; }

char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool EqualsLower(const std::string& text, const char* lower) {
  if (text.size() != std::strlen(lower)) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    if (Lower(text[i]) != lower[i]) return false;
  }
  return true;
}

// Windows opens a device, not a file, for these names, whatever the folder
// and with any extension ("nul.txt"); blanks before the extension are ignored.
bool IsDeviceName(const std::string& segment) {
  std::string base = segment.substr(0, segment.find('.'));
  while (!base.empty() && base.back() == ' ') base.pop_back();
  for (const char* device : {"con", "prn", "aux", "nul", "conin$", "conout$"}) {
    if (EqualsLower(base, device)) return true;
  }
  if (base.size() != 4) return false;
  const std::string stem = base.substr(0, 3);
  if (!EqualsLower(stem, "com") && !EqualsLower(stem, "lpt")) return false;
  // A digit, or the superscript 1, 2 or 3 of the Western code page.
  const unsigned char last = static_cast<unsigned char>(base[3]);
  return (last >= '0' && last <= '9') || last == 0xB9 || last == 0xB2 || last == 0xB3;
}

bool IsSafeSegment(const std::string& segment) {
  if (segment == ".") return true;  // stays where it is
  if (segment == ".." || segment.back() == '.' || segment.back() == ' ') return false;
  for (char c : segment) {
    const unsigned char u = static_cast<unsigned char>(c);
    if (u < 0x20 || std::strchr(":<>\"|?*", c) != nullptr) return false;
  }
  return !IsDeviceName(segment);
}

}  // namespace

ZipResult CheckOutputPath(const char* path) {
  if (path == nullptr || *path == '\0') return kZipNoFile;
  const size_t length = std::strlen(path);
  // "\\.\" and "\\?\" reach devices and skip the name rules of the file system.
  if (length >= 4 && IsSeparator(path[0]) && IsSeparator(path[1]) &&
      (path[2] == '.' || path[2] == '?') && IsSeparator(path[3])) {
    return kZipNoFile;
  }
  size_t pos = 0;
  const bool drive = length >= 2 && path[1] == ':' &&
                     ((path[0] >= 'A' && path[0] <= 'Z') || (path[0] >= 'a' && path[0] <= 'z')) &&
                     (length == 2 || IsSeparator(path[2]));
  if (drive) pos = 2;
  while (pos < length) {
    size_t end = pos;
    while (end < length && !IsSeparator(path[end])) ++end;
    if (end > pos && !IsSafeSegment(std::string(path + pos, end - pos))) return kZipNoFile;
    pos = end + 1;
  }
  return kZipOk;
}

namespace zip {

uint16_t Le16(const unsigned char* p) { return static_cast<uint16_t>(p[0] | p[1] << 8); }
uint32_t Le32(const unsigned char* p) { return Le16(p) | static_cast<uint32_t>(Le16(p + 2)) << 16; }
uint64_t Le64(const unsigned char* p) { return Le32(p) | static_cast<uint64_t>(Le32(p + 4)) << 32; }

bool Utf8ToUtf16(const std::string& utf8, std::u16string* wide) {
  wide->clear();
  bool valid = true;
  const size_t size = utf8.size();
  for (size_t i = 0; i < size;) {
    const unsigned char lead = static_cast<unsigned char>(utf8[i]);
    size_t extra = 0;
    uint32_t value = 0;
    uint32_t least = 0;
    bool ok = true;
    if (lead < 0x80) {
      value = lead;
    } else if ((lead & 0xE0) == 0xC0) {
      extra = 1, value = lead & 0x1F, least = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
      extra = 2, value = lead & 0x0F, least = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
      extra = 3, value = lead & 0x07, least = 0x10000;
    } else {
      ok = false;  // a continuation byte, or never valid
    }
    size_t taken = 1;
    for (; ok && taken <= extra; ++taken) {
      if (i + taken >= size || (static_cast<unsigned char>(utf8[i + taken]) & 0xC0) != 0x80) {
        ok = false;
        break;
      }
      value = value << 6 | (static_cast<unsigned char>(utf8[i + taken]) & 0x3F);
    }
    ok = ok && value >= least && value <= 0x10FFFF && (value < 0xD800 || value > 0xDFFF);
    if (!ok) {
      valid = false;
      wide->push_back(u'\uFFFD');
      i += std::max<size_t>(taken, 1);
      continue;
    }
    i += taken;
    if (value >= 0x10000) {
      value -= 0x10000;
      wide->push_back(static_cast<char16_t>(0xD800 + (value >> 10)));
      wide->push_back(static_cast<char16_t>(0xDC00 + (value & 0x3FF)));
    } else {
      wide->push_back(static_cast<char16_t>(value));
    }
  }
  return valid;
}

bool Cp437ToUtf16(const std::string& oem, std::u16string* wide) {
  static const char16_t kHigh[128] = {
      0x00C7, 0x00FC, 0x00E9, 0x00E2, 0x00E4, 0x00E0, 0x00E5, 0x00E7,
      0x00EA, 0x00EB, 0x00E8, 0x00EF, 0x00EE, 0x00EC, 0x00C4, 0x00C5,
      0x00C9, 0x00E6, 0x00C6, 0x00F4, 0x00F6, 0x00F2, 0x00FB, 0x00F9,
      0x00FF, 0x00D6, 0x00DC, 0x00A2, 0x00A3, 0x00A5, 0x20A7, 0x0192,
      0x00E1, 0x00ED, 0x00F3, 0x00FA, 0x00F1, 0x00D1, 0x00AA, 0x00BA,
      0x00BF, 0x2310, 0x00AC, 0x00BD, 0x00BC, 0x00A1, 0x00AB, 0x00BB,
      0x2591, 0x2592, 0x2593, 0x2502, 0x2524, 0x2561, 0x2562, 0x2556,
      0x2555, 0x2563, 0x2551, 0x2557, 0x255D, 0x255C, 0x255B, 0x2510,
      0x2514, 0x2534, 0x252C, 0x251C, 0x2500, 0x253C, 0x255E, 0x255F,
      0x255A, 0x2554, 0x2569, 0x2566, 0x2560, 0x2550, 0x256C, 0x2567,
      0x2568, 0x2564, 0x2565, 0x2559, 0x2558, 0x2552, 0x2553, 0x256B,
      0x256A, 0x2518, 0x250C, 0x2588, 0x2584, 0x258C, 0x2590, 0x2580,
      0x03B1, 0x00DF, 0x0393, 0x03C0, 0x03A3, 0x03C3, 0x00B5, 0x03C4,
      0x03A6, 0x0398, 0x03A9, 0x03B4, 0x221E, 0x03C6, 0x03B5, 0x2229,
      0x2261, 0x00B1, 0x2265, 0x2264, 0x2320, 0x2321, 0x00F7, 0x2248,
      0x00B0, 0x2219, 0x00B7, 0x221A, 0x207F, 0x00B2, 0x25A0, 0x00A0};
  wide->clear();
  for (char c : oem) {
    const unsigned char u = static_cast<unsigned char>(c);
    wide->push_back(u < 0x80 ? static_cast<char16_t>(u) : kHigh[u - 0x80]);
  }
  return true;
}

bool ExactCp1252(const std::u16string& wide, std::string* ansi) {
  // 0x80 to 0x9F; the five bytes the code page leaves undefined map to the
  // control characters of the same value, as Windows maps them.
  static const char16_t kHigh[32] = {
      0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,
      0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0x008D, 0x017D, 0x008F,
      0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,
      0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178};
  ansi->clear();
  bool exact = true;
  for (char16_t c : wide) {
    if (c < 0x80 || (c >= 0xA0 && c <= 0xFF)) {
      ansi->push_back(static_cast<char>(c));
      continue;
    }
    const char16_t* found = std::find(kHigh, kHigh + 32, c);
    if (found != kHigh + 32) {
      ansi->push_back(static_cast<char>(0x80 + (found - kHigh)));
    } else {
      ansi->push_back('?');
      exact = false;
    }
  }
  return exact;
}

}  // namespace zip
}  // namespace dorvane
