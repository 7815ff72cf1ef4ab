// Fixed-size narrow text buffers for building paths.
//
// The firmware-switching operations build every path in a zeroed buffer of 260
// characters with bounded copies and appends, so a longer path is cut at 259
// characters instead of growing. Installed scripts have always seen paths cut
// that way, so the cut is kept rather than switching to unbounded strings.
//
//   PathBuffer item(folder);
//   item.Append("\\").Append(name);   // cut at 259 characters
//   ::DeleteFileA(item.c_str());
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace dorvane {

// Characters in a path buffer, the terminating zero included.
inline constexpr size_t kPathChars = 260;

template <size_t N>
class FixedText {
 public:
  FixedText() = default;
  explicit FixedText(std::string_view text) { Append(text); }

  // Appends as much of `text` as fits before the last character, which stays zero.
  FixedText& Append(std::string_view text) {
    for (char c : text) {
      if (size_ + 1 >= N) break;
      chars_[size_++] = c;
    }
    return *this;
  }

  const char* c_str() const { return chars_; }
  std::string str() const { return std::string(chars_, size_); }
  size_t size() const { return size_; }
  char& operator[](size_t i) { return chars_[i]; }
  char operator[](size_t i) const { return chars_[i]; }

 private:
  char chars_[N] = {};
  size_t size_ = 0;
};

using PathBuffer = FixedText<kPathChars>;

}  // namespace dorvane
