#include "config/esim_region.h"

#include "config/table_reader.h"
#include "log/logger.h"

namespace dorvane {

using tinyxml2::XMLElement;

namespace {

// Whether the table is switched on; logs why not.
bool TableEnabled(XMLElement* flag, Logger* log) {
  const std::string value = table::Attr(flag, "FlagValue");
  if (table::EqualsIgnoringCase(value, "False")) {
    log->Write(kLogDetail, "FlagValue is false,not need to set esim disable.");
    return false;
  }
  if (!table::EqualsIgnoringCase(value, "True")) {
    log->Write(kLogDetail, "Main disable error.");
    return false;
  }
  return true;
}

bool SkuBlackListed(XMLElement* list, const std::string& sku) {
  for (XMLElement* e = table::FirstEntry(list, "SKU"); e; e = table::NextEntry(e)) {
    if (e->Attribute("SKUValue") != nullptr && table::EqualsIgnoringCase(table::Attr(e, "SKUValue"), sku)) {
      return true;
    }
  }
  return false;
}

bool ImsiBlackListed(XMLElement* list, const std::string& imsi, Logger* log) {
  for (XMLElement* e = table::FirstEntry(list, "MCCMNC"); e; e = table::NextEntry(e)) {
    log->Write(kLogDetail, imsi);
    log->Write(kLogDetail, table::Attr(e, "MCCMNCValue"));
    if (table::KeyIs(e, "MCCMNCValue", imsi)) return true;
  }
  return false;
}

}  // namespace

DWORD getEsimDisableType(std::string path, const char* sku, const char* imsi) {
  Logger* log = Logger::GetInstance();
  log->Write(kLogDetail, "getEsimDisableType enter.");
  log->Write(kLogDetail, path);
  if (sku == nullptr && imsi == nullptr) {
    log->Write(kLogError, "SKU & Imsi is null");
    return kEsimNoDecision;
  }
  table::Document doc;
  if (!doc.Load(path)) {
    log->Write(kLogError, "Esim disable xml load faild.");
    log->Write(kLogError, path);
    return kEsimNoDecision;
  }
  XMLElement* root = doc.Root();
  if (root == nullptr) {
    log->Write(kLogError, "RootElement xml item error.");
    return kEsimNoDecision;
  }
  XMLElement* flag = table::Child(root, "TableEnableFlag");
  if (flag == nullptr) {
    log->Write(kLogError, "TableEnableFlag xml item error.");
    return kEsimNoDecision;
  }
  if (!TableEnabled(flag, log)) return kEsimNoDecision;

  DWORD result = kEsimNotBlackListed;
  bool sku_listed = false;
  if (sku != nullptr) {
    XMLElement* list = table::Child(root, "SKU_BlackList");
    if (list == nullptr) {
      log->Write(kLogDetail, "SKU black xml item error.");
      return kEsimNoDecision;
    }
    if (SkuBlackListed(list, sku)) {
      log->Write(kLogDetail, "Sku in black list");
      result = kEsimSkuBlackListed;
      sku_listed = true;
    }
  }
  // A black-listed SKU decides; the network list is then not consulted.
  if (!sku_listed && imsi != nullptr) {
    XMLElement* list = table::Child(root, "IMSI_BlackList");
    if (list == nullptr) {
      log->Write(kLogDetail, "IMSI black xml item error.");
      return kEsimNoDecision;
    }
    if (ImsiBlackListed(list, imsi, log)) {
      log->Write(kLogDetail, "MccMnc in black list");
      result = kEsimImsiBlackListed;
    }
  }
  log->Write(kLogDetail, "getEsimDisableType done.");
  return result;
}

DWORD getRegulatoryByMcc(std::string path, std::string mcc, std::string& region) {
  Logger* log = Logger::GetInstance();
  log->Write(kLogDetail, "getRegulatoryByMcc enter.");
  log->Write(kLogDetail, path);
  log->Write(kLogDetail, mcc);
  if (mcc.empty()) {
    log->Write(kLogError, "mcc is null");
    return kRegionNotFound;
  }
  table::Document doc;
  if (!doc.Load(path)) {
    log->Write(kLogError, "RegionMappingTable load faild.");
    log->Write(kLogError, path);
    return kRegionNotFound;
  }
  if (doc.Root() == nullptr) {
    log->Write(kLogError, "RootElement xml item error.");
    return kRegionNotFound;
  }
  XMLElement* rule = table::Child(doc.Root(), "SelectionRule");
  if (rule == nullptr) {
    log->Write(kLogError, "SelectionRule xml item error.");
    return kRegionNotFound;
  }
  DWORD result = kRegionNotFound;
  for (XMLElement* row = table::FirstEntry(rule, "Region"); row; row = table::NextEntry(row)) {
    if (table::KeyIs(row, "mcc", mcc)) {
      region = table::Attr(row, "Regulatory");
      result = kRegionExact;
      break;
    }
    if (table::KeyIs(row, "mcc", "default")) {
      // A later exact row still wins; a later default row overwrites this one.
      region = table::Attr(row, "Regulatory");
      result = kRegionDefault;
    }
  }
  log->Write(kLogDetail, "getRegulatoryByMcc done.");
  return result;
}

}  // namespace dorvane
