#include "config/device_config.h"

#include <cstdio>

#include "config/table_reader.h"
#include "log/logger.h"
#include "util/registry.h"

namespace dorvane {

using tinyxml2::XMLElement;

bool SplitRegistryPath(const std::string& registry_path, std::string& key_path,
                       std::string& value_name) {
  const size_t comma = registry_path.find(',');
  if (comma == std::string::npos || comma == 0) return false;
  key_path = registry_path.substr(0, comma);
  value_name = registry_path.substr(comma + 1);
  return true;
}

namespace {

// The value that a RegistryPath ("key path,value name") names; false when the
// path has no usable comma or the value cannot be read.
bool ReadProductValue(const XMLElement* entry, std::string& value) {
  std::string key_path, value_name;
  if (!SplitRegistryPath(table::Attr(entry, "RegistryPath"), key_path, value_name)) return false;
  DWORD type = REG_SZ;
  return GetRegKeyValue(key_path, value_name, value, type) == 0;
}

// The WwanDeviceConfigID of the first row whose ProductID equals `product`
// without regard to case.
bool FindConfigId(XMLElement* mapping, const std::string& product, std::string& config_id) {
  for (XMLElement* row = table::FirstEntry(mapping, "UniqueSkuID"); row; row = table::NextEntry(row)) {
    if (row->Attribute("ProductID") != nullptr &&
        table::EqualsIgnoringCase(table::Attr(row, "ProductID"), product)) {
      config_id = table::Attr(row, "WwanDeviceConfigID");
      return true;
    }
  }
  return false;
}

bool SingleMode(XMLElement* paths, XMLElement* mapping, std::string& config_id) {
  Logger* log = Logger::GetInstance();
  for (XMLElement* e = table::FirstEntry(paths, "CustProductNamePath"); e; e = table::NextEntry(e)) {
    std::string value;
    if (!ReadProductValue(e, value)) continue;
    log->Write(kLogDetail, value);
    if (FindConfigId(mapping, value, config_id)) return true;
  }
  return false;
}

bool CombineMode(XMLElement* paths, XMLElement* mapping, std::string& config_id) {
  std::string combined;
  for (XMLElement* e = table::FirstEntry(paths, "CustProductNamePath"); e; e = table::NextEntry(e)) {
    std::string value;
    if (!ReadProductValue(e, value)) continue;
    // An empty first value leaves the combination empty, so "" then "B" gives
    // "B" while "A" then "" gives "A_": deployed tables are keyed that way.
    combined = combined.empty() ? value : combined + "_" + value;
  }
  Logger::GetInstance()->Write(kLogDetail, combined);
  return FindConfigId(mapping, combined, config_id);
}

// The configuration id by the mode the table asks for; false when none is found.
bool LookUpConfigId(XMLElement* table_root, std::string& config_id) {
  Logger* log = Logger::GetInstance();
  XMLElement* paths = table::Child(table_root, "CustProductNamePathToUniqueSkuID");
  if (paths == nullptr) {
    log->Write(kLogError, "CustProductNamePathToUniqueSkuID xml item error.");
    return false;
  }
  XMLElement* mapping = table::Child(table_root, "UniqueSkuIDToWwanDeviceConfigureIDMappingTable");
  const std::string mode = table::Attr(paths, "CombineMode");
  log->Write(kLogDetail, mode);
  if (table::EqualsIgnoringCase(mode, "Single")) return SingleMode(paths, mapping, config_id);
  if (table::EqualsIgnoringCase(mode, "Combine")) return CombineMode(paths, mapping, config_id);
  return false;
}

}  // namespace

bool getWwanDeviceConfigID(std::string path, std::string& config_id) {
  Logger* log = Logger::GetInstance();
  log->Write(kLogDetail, "getWwanDeviceConfigID enter.");
  table::Document doc;
  if (!doc.Load(path)) {
    log->Write(kLogError, "WwanDeviceIdImageMappingTable.xml load faild.");
    log->Write(kLogError, path);
    return false;
  }
  if (doc.Root() == nullptr) {
    log->Write(kLogError, "RootElement xml item error.");
    return false;
  }
  XMLElement* table_root = table::Child(doc.Root(), "WwanDeviceConfigureIDTable");
  if (table_root == nullptr) {
    log->Write(kLogError, "WwanDeviceConfigureidTable xml item error.");
    return false;
  }
  if (table::Child(table_root, "UniqueSkuIDToWwanDeviceConfigureIDMappingTable") == nullptr) {
    log->Write(kLogError, "UniqueSkuIDToWwanDeviceConfigureIDMappingTable error.");
    return false;
  }
  std::string found;
  if (LookUpConfigId(table_root, found)) {
    config_id = found;
    log->Write(kLogDetail, "getWwanDeviceConfigID OK.");
    log->Write(kLogDetail, found);
    return true;
  }
  log->Write(kLogDetail, "getWwanDeviceConfigID not find.");
  log->Write(kLogDetail, "getWwanDeviceConfigID done.");
  return false;
}

// Saturates rather than wraps.
DWORD LeadingDecimal(const std::string& text) {
  unsigned long long value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') break;
    value = value * 10 + static_cast<unsigned>(c - '0');
    if (value > 0xFFFFFFFFull) return 0xFFFFFFFF;
  }
  return static_cast<DWORD>(value);
}

namespace {

// The DEVFirmware of the first Standard with the MCC under a configuration with
// the id; a configuration without one does not end the search.
XMLElement* FindFirmware(XMLElement* table, const std::string& config_id, const std::string& mcc,
                         XMLElement** standard) {
  for (XMLElement* cfg = table::FirstEntry(table, "WwanDeviceConfigID"); cfg; cfg = table::NextEntry(cfg)) {
    if (!table::KeyIs(cfg, "ID", config_id)) continue;
    for (XMLElement* s = table::FirstEntry(cfg, "Standard"); s; s = table::NextEntry(s)) {
      if (table::KeyIs(s, "Value", mcc)) {
        *standard = s;
        return table::Child(s, "DEVFirmware");
      }
    }
  }
  return nullptr;
}

bool NotFound() {
  Logger* log = Logger::GetInstance();
  log->Write(kLogDetail, "getCfgPkInfo not find map.");
  log->Write(kLogDetail, "getCfgPkInfo done.");
  return false;
}

}  // namespace

bool getCfgPkInfo(std::string config_id, std::string mcc, CfgPackageInfo& info) {
  Logger* log = Logger::GetInstance();
  log->Write(kLogDetail, "getCfgPkInfo enter.");
  log->Write(kLogDetail, config_id);
  log->Write(kLogDetail, mcc);
  char path[260] = {};
  std::snprintf(path, sizeof path, "%s%s\\%s", kFwSwitchBinFolder, kSarAntDataFolder,
                kImageMappingTableName);
  if (mcc.empty()) return NotFound();
  log->Write(kLogDetail, "getCfgPkInfo mcc is not null.");
  table::Document doc;
  if (!doc.Load(path)) {
    log->Write(kLogDetail, "LoadFile xml failed:");
    log->Write(kLogError, std::string(path));
    return NotFound();
  }
  if (doc.Root() == nullptr) {
    log->Write(kLogDetail, "RootElement failed:");
    return NotFound();
  }
  XMLElement* standard = nullptr;
  XMLElement* firmware = FindFirmware(
      table::Child(doc.Root(), "WwanDeviceConfigureIDToImageMappingTable"), config_id, mcc, &standard);
  if (firmware == nullptr) return NotFound();  // also a Standard without DEVFirmware
  log->Write(kLogDetail, "getCfgPkInfo find map.");
  info.texts[CfgPackageInfo::kCleared].clear();
  info.texts[CfgPackageInfo::kFile] = table::Attr(firmware, "File");
  info.texts[CfgPackageInfo::kVersion] = table::Attr(firmware, "Ver");
  info.texts[CfgPackageInfo::kType] = table::Attr(firmware, "Type");
  info.texts[CfgPackageInfo::kMcc] = table::Attr(standard, "Value");
  info.count = LeadingDecimal(table::Attr(firmware, "Count"));
  log->Write(kLogDetail, "getCfgPkInfo done.");
  return true;
}

}  // namespace dorvane
