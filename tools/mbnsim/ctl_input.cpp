#include "tools/mbnsim/ctl_input.h"

#include <algorithm>
#include <cctype>
#include <cstdint>

namespace mbnsim::ctl {

namespace {

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

char Lower(char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); }

size_t Distance(const std::string& a, const std::string& b) {
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t above = row[j];
      const size_t change = diagonal + (Lower(a[i - 1]) == Lower(b[j - 1]) ? 0 : 1);
      row[j] = std::min({above + 1, row[j - 1] + 1, change});
      diagonal = above;
    }
  }
  return row[b.size()];
}

}  // namespace

bool ParseDecimal(const std::string& text, uint64_t min, uint64_t max, uint64_t* out) {
  if (text.empty() || text.size() > 20) return false;
  uint64_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    const uint64_t digit = static_cast<uint64_t>(c - '0');
    if (value > (UINT64_MAX - digit) / 10) return false;
    value = value * 10 + digit;
  }
  if (value < min || value > max) return false;
  *out = value;
  return true;
}

bool ParseHresult(const std::string& text, HRESULT* out) {
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    if (text.size() > 10) return false;
    uint32_t value = 0;
    for (size_t i = 2; i < text.size(); ++i) {
      const int digit = HexDigit(text[i]);
      if (digit < 0) return false;
      value = value * 16 + static_cast<uint32_t>(digit);
    }
    *out = static_cast<HRESULT>(value);
    return true;
  }
  const bool negative = !text.empty() && text[0] == '-';
  uint64_t value = 0;
  if (!ParseDecimal(negative ? text.substr(1) : text, 0, negative ? 0x80000000u : 0xFFFFFFFFu,
                    &value)) {
    return false;
  }
  const uint32_t bits = static_cast<uint32_t>(negative ? 0x100000000u - value : value);
  *out = static_cast<HRESULT>(bits);
  return true;
}

bool Unescape(const std::string& text, std::string* out) {
  out->clear();
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      out->push_back(text[i]);
      continue;
    }
    if (++i == text.size()) return false;
    switch (text[i]) {
      case 'r': out->push_back('\r'); break;
      case 'n': out->push_back('\n'); break;
      case 't': out->push_back('\t'); break;
      case '\\': out->push_back('\\'); break;
      case 'x': {
        const int high = i + 1 < text.size() ? HexDigit(text[i + 1]) : -1;
        const int low = i + 2 < text.size() ? HexDigit(text[i + 2]) : -1;
        if (high < 0 || low < 0) return false;
        out->push_back(static_cast<char>(high * 16 + low));
        i += 2;
        break;
      }
      default:
        return false;
    }
  }
  return true;
}

std::string Closest(const std::string& text, const std::vector<std::string>& candidates) {
  std::string best;
  size_t best_distance = SIZE_MAX;
  for (const std::string& candidate : candidates) {
    // A slip: two letters wrong, left out or added, or one in three of the
    // longer name.
    const size_t allowed = std::max<size_t>(2, std::max(text.size(), candidate.size()) / 3);
    const size_t d = Distance(text, candidate);
    if (d <= allowed && d < best_distance) {
      best = candidate;
      best_distance = d;
    }
  }
  return best;
}

}  // namespace mbnsim::ctl
