// What lies under a folder, as sorted relative paths ("a/", "a/b.txt"), to
// show in one comparison everything an operation created or left behind.
#pragma once

#include <set>
#include <string>
#include <vector>

namespace dorvane::testing {

// Every file and folder under `dir` (folders end with "/"), leaving out the
// top-level entries named in `skip`.
std::vector<std::string> TreeOf(const std::string& dir, const std::set<std::string>& skip = {});

// Deletes `dir` with everything in it; no error when it is missing.
void RemoveTree(const std::string& dir);

}  // namespace dorvane::testing
