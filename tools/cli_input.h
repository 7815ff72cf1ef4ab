// What dorvanectl and mbnsimctl share in reading their command lines: whole
// numbers without sign or blanks, and how far a mistyped name is from a known
// one. Each tool keeps its own rules on top (which numbers take "0x", how near
// a name must be to be suggested).
#pragma once

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace dorvane::cli {

// The value of a decimal digit, or with `hex` also of a hexadecimal one; -1
// for any other character.
inline int DigitValue(char c, bool hex) {
  if (c >= '0' && c <= '9') return c - '0';
  if (!hex) return -1;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// A whole number of decimal digits or, with `hex_prefix`, "0x" (or "0X") and
// hexadecimal digits: no sign and no blanks, and a leading zero stays decimal
// ("010" is ten, never octal). False for anything else, on overflow, or for a
// value outside [min, max]; `value` is then left as it was.
inline bool ParseUnsigned(const std::string& text, bool hex_prefix, uint64_t min, uint64_t max,
                          uint64_t* value) {
  const bool hex =
      hex_prefix && text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  const size_t first = hex ? 2 : 0;
  if (text.size() == first) return false;
  const uint64_t base = hex ? 16 : 10;
  uint64_t number = 0;
  for (size_t i = first; i < text.size(); ++i) {
    const int digit = DigitValue(text[i], hex);
    if (digit < 0) return false;
    if (number > (std::numeric_limits<uint64_t>::max() - static_cast<uint64_t>(digit)) / base) {
      return false;
    }
    number = number * base + static_cast<uint64_t>(digit);
  }
  if (number < min || number > max) return false;
  *value = number;
  return true;
}

// Edits (insert, delete, replace, swap of two neighbours) from a to b, the
// case of letters ignored.
inline size_t EditDistance(const std::string& a, const std::string& b) {
  auto same = [](char x, char y) {
    return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
  };
  std::vector<std::vector<size_t>> d(a.size() + 1, std::vector<size_t>(b.size() + 1));
  for (size_t i = 0; i <= a.size(); ++i) d[i][0] = i;
  for (size_t j = 0; j <= b.size(); ++j) d[0][j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t cost = same(a[i - 1], b[j - 1]) ? 0 : 1;
      d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + cost});
      if (i > 1 && j > 1 && same(a[i - 1], b[j - 2]) && same(a[i - 2], b[j - 1])) {
        d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
      }
    }
  }
  return d[a.size()][b.size()];
}

}  // namespace dorvane::cli
