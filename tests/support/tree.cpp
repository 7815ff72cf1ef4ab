#include "support/tree.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

namespace dorvane::testing {

namespace fs = std::filesystem;

std::vector<std::string> TreeOf(const std::string& dir, const std::set<std::string>& skip) {
  std::vector<std::string> out;
  std::error_code error;
  const fs::path root(dir);
  for (auto it = fs::recursive_directory_iterator(root, error);
       !error && it != fs::recursive_directory_iterator(); it.increment(error)) {
    std::string relative = it->path().lexically_relative(root).generic_string();
    if (skip.count(relative.substr(0, relative.find('/')))) {
      if (it->is_directory()) it.disable_recursion_pending();
      continue;
    }
    out.push_back(it->is_directory() ? relative + "/" : relative);
  }
  std::sort(out.begin(), out.end());
  return out;
}

void RemoveTree(const std::string& dir) {
  std::error_code ignored;
  fs::remove_all(fs::path(dir), ignored);
}

}  // namespace dorvane::testing
