#include "util/com_ptr.h"

namespace dorvane {

std::string WideToAnsi(const wchar_t* text) {
  if (text == nullptr || *text == L'\0') return std::string();
  int n = ::WideCharToMultiByte(CP_ACP, 0, text, -1, nullptr, 0, nullptr, nullptr);
  if (n <= 1) return std::string();
  std::string out(static_cast<size_t>(n), '\0');
  ::WideCharToMultiByte(CP_ACP, 0, text, -1, &out[0], n, nullptr, nullptr);
  out.resize(static_cast<size_t>(n - 1));
  return out;
}

std::wstring AnsiToWide(const std::string& text) {
  if (text.empty()) return std::wstring();
  int n = ::MultiByteToWideChar(CP_ACP, 0, text.c_str(), -1, nullptr, 0);
  if (n <= 1) return std::wstring();
  std::wstring out(static_cast<size_t>(n), L'\0');
  ::MultiByteToWideChar(CP_ACP, 0, text.c_str(), -1, &out[0], n);
  out.resize(static_cast<size_t>(n - 1));
  return out;
}

}  // namespace dorvane
