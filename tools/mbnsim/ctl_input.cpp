#include "tools/mbnsim/ctl_input.h"

#include <algorithm>
#include <cstdint>

#include "tools/cli_input.h"

namespace mbnsim::ctl {

namespace {

int HexDigit(char c) { return dorvane::cli::DigitValue(c, true); }

}  // namespace

bool ParseDecimal(const std::string& text, uint64_t min, uint64_t max, uint64_t* out) {
  return text.size() <= 20 && dorvane::cli::ParseUnsigned(text, false, min, max, out);
}

bool ParseHresult(const std::string& text, HRESULT* out) {
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    uint64_t value = 0;
    if (text.size() > 10 || !dorvane::cli::ParseUnsigned(text, true, 0, 0xFFFFFFFFu, &value)) {
      return false;
    }
    *out = static_cast<HRESULT>(static_cast<uint32_t>(value));
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
    const size_t d = dorvane::cli::EditDistance(text, candidate);
    if (d <= allowed && d < best_distance) {
      best = candidate;
      best_distance = d;
    }
  }
  return best;
}

}  // namespace mbnsim::ctl
