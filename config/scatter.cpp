#include "config/scatter.h"

#include <cstdio>

#include "config/table_reader.h"

namespace dorvane {

using tinyxml2::XMLElement;

bool UpdateScatterDownloadFlags(std::string selection) {
  if (selection.empty()) return false;
  char path[260] = {};
  std::snprintf(path, sizeof path, "%s\\%s", kFlashDataFolder, kScatterName);
  table::Document doc;
  if (!doc.Load(path)) return false;
  XMLElement* root = doc.Root();
  if (table::Child(root, "general") == nullptr) return false;
  XMLElement* storage = table::Child(root, "storage_type");
  if (storage == nullptr) return false;
  for (XMLElement* partition = table::FirstEntry(storage, "partition_index"); partition;
       partition = table::NextEntry(partition)) {
    XMLElement* flag = table::Child(partition, "is_download");
    if (flag == nullptr) continue;  // nothing to rewrite in this partition
    // The key comes from the flag's own text, not from the partition's name:
    // deployed selection lists are written that way.
    const std::string key = ";" + table::Text(flag) + ";";
    flag->SetText(selection.find(key) != std::string::npos ? "true" : "false");
  }
  doc.doc().SaveFile(path);  // not checked, as deployed
  return true;
}

}  // namespace dorvane
