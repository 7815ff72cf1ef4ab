// One check per kind of table: the fixed paths its lookups follow, the lists
// they walk with their keys, and the quirks of each reader.
#include <set>

#include "config/device_config.h"
#include "config/table_reader.h"
#include "tools/dorvanectl/lint_checks.h"

namespace dorvane::lint {

using tinyxml2::XMLElement;

namespace {

const char kSilently[] = " fails silently";

// An Item list whose text is the answer (MCCMNCTable, MCCTable).
void CheckItems(Report& report, XMLElement* table, const char* key, const char* command) {
  for (XMLElement* item : CheckList(report, table, {"Item", key, command})) {
    CheckAnswer(report, item, Describe(item, key), command);
  }
}

}  // namespace

void CheckCarrierRules(Report& report, XMLElement* root) {
  XMLElement* switching = Require(report, root, "SwitchingRule",
                                  "carrier-id-by-mccmnc fails and logs \"switchingRuleNode is null.\"; "
                                  "carrier-id-by-mcc, carrier-id-by-iccid and param-firmware-by-mcc "
                                  "fail silently");
  if (switching != nullptr) {
    ListRule registered{"Registered", "mcc", "param-firmware-by-mcc"};
    registered.fixed = "SelectionRule";
    XMLElement* selection = Require(report, switching, "SelectionRule",
                                    "carrier-id-by-mccmnc fails and logs \"selectionRuleNode is null.\"; "
                                    "carrier-id-by-mcc and carrier-id-by-iccid fail silently",
                                    Severity::kError, &registered);
    if (selection != nullptr) {
      if (XMLElement* t = Require(report, selection, "MCCMNCTable",
                                  "carrier-id-by-mccmnc fails and logs \"MCCMNCTable node is null.\"",
                                  Severity::kNote)) {
        CheckItems(report, t, "mccmnc", "carrier-id-by-mccmnc");
      }
      if (XMLElement* t = Require(report, selection, "MCCTable", std::string("carrier-id-by-mcc") + kSilently,
                                  Severity::kNote)) {
        CheckItems(report, t, "mcc", "carrier-id-by-mcc");
      }
      if (XMLElement* t = Require(report, selection, "ICCIDTable",
                                  std::string("carrier-id-by-iccid") + kSilently, Severity::kNote)) {
        CheckRanges(report, t);
      }
    }
    for (XMLElement* e : CheckList(report, switching, registered)) {
      if (IsEntry(e, registered)) {
        CheckSlot(report, e, "mcc", "PARAMFirmware", {"File", "Ver", "Type", "Count"}, registered.command);
      }
    }
  }
  // The root's SelectionRule is read by selection-rule-by-mcc, which answers
  // false whatever the list holds (deployed callers only need the file read):
  // nothing in the list changes an answer, so nothing in it is reported.
  Fixed(report, root, "SelectionRule");
}

void CheckSelectionRules(Report& report, XMLElement* root) {
  // Only its presence matters: see CheckCarrierRules.
  Require(report, root, "SelectionRule", "selection-rule-by-mcc reads nothing");
}

void CheckCarrierFirmware(Report& report, XMLElement* root) {
  XMLElement* list = Require(report, root, "CarrierList", std::string("carrier-firmware") + kSilently);
  if (list == nullptr) return;
  const ListRule rule{"Carrier", "id", "carrier-firmware"};
  for (XMLElement* e : CheckList(report, list, rule)) {
    if (!IsEntry(e, rule)) continue;
    for (const char* slot : {"APFirmware", "MDFirmware", "OPFirmware"}) {
      CheckSlot(report, e, "id", slot, {"File", "Ver", "Type", "Count"}, rule.command);
    }
  }
}

void CheckCustomerModel(Report& report, XMLElement* root) {
  XMLElement* list = Require(report, root, "CarrierList", std::string("oem-firmware-by-model") + kSilently);
  if (list == nullptr) return;
  ListRule rule{"CustModel", "id", "oem-firmware-by-model"};
  rule.empty_key_found = false;
  for (XMLElement* e : CheckList(report, list, rule)) {
    if (!IsEntry(e, rule)) continue;
    XMLElement* oem = CheckSlot(report, e, "id", "OEMFirmware", {"File", "Ver", "Type", "Count"}, rule.command);
    if (XMLElement* beside = table::Child(e, "Switch_table")) {
      report.Warning(beside, "Switch_table of " + Describe(e, "id") +
                                 " stands beside OEMFirmware, not inside it: " + rule.command +
                                 " reads only a Switch_table inside OEMFirmware");
    }
    if (XMLElement* inside = table::Child(oem, "Switch_table")) {
      CheckAttributes(report, inside, "Switch_table of " + Describe(e, "id"), {"File"}, rule.command);
    }
  }
}

void CheckPackageInfo(Report& report, XMLElement* root) {
  XMLElement* list = Require(report, root, "CarrierList",
                             "package-info-firmware fails and logs \"CarrierList failed\"");
  if (list == nullptr) return;
  ListRule rule{"Carrier", "id", "package-info-firmware"};
  rule.fallback = "default";
  const std::vector<XMLElement*> entries = CheckList(report, list, rule);
  CheckFallbacks(report, list, entries, rule, true);
  for (XMLElement* e : entries) {
    if (!IsEntry(e, rule)) continue;
    for (const char* slot : {"Firmware", "CustPack"}) {
      CheckSlot(report, e, "id", slot, {"File", "Ver"}, rule.command);
    }
  }
}

void CheckFwPackageInfo(Report& report, XMLElement* root) {
  const std::string fails = std::string("fw-package-info") + kSilently;
  for (const char* name : {"PackageVer", "PackageType"}) {
    if (XMLElement* e = Require(report, root, name, fails)) CheckAnswer(report, e, name, "fw-package-info");
  }
  XMLElement* list = Require(report, root, "CarrierList", fails);
  if (list == nullptr) return;
  const ListRule rule{"Carrier", nullptr, "fw-package-info"};
  for (XMLElement* e : CheckList(report, list, rule)) {
    if (!IsEntry(e, rule)) continue;
    CheckAttributes(report, e, Describe(e, "id"), {"id", "ver"}, rule.command);
    for (const char* slot : {"FWImage", "CustPack"}) {
      CheckSlot(report, e, "id", slot, {"file", "ver"}, rule.command);
    }
  }
}

namespace {

// The Area IDs under a SKU_GUID that the lookup's walk can find.
std::set<std::string> AreaKeys(XMLElement* sku) {
  std::set<std::string> keys;
  for (XMLElement* e = table::FirstEntry(sku, "Area"); e; e = table::NextEntry(e)) {
    if (const char* id = e->Attribute("ID")) keys.insert(id);
  }
  return keys;
}

// A SKU_GUID after the first: param-firmware-by-sku never reads it, so every
// SKU and area that only it holds makes the lookup wait for ever.
void CheckLaterSku(Report& report, XMLElement* sku, XMLElement* first) {
  const std::string first_line = "line " + std::to_string(first->GetLineNum());
  const char* id = sku->Attribute("ID");
  const std::set<std::string> areas = AreaKeys(sku);
  std::vector<std::string> lost;
  for (const std::string& area : areas) lost.push_back(Quote(area));
  if (id == nullptr) {
    report.Unused(sku, "SKU_GUID without ID after the first (" + first_line + ") is never read");
    return;
  }
  if (!table::KeyIs(first, "ID", id)) {
    report.Unused(sku, Describe(sku, "ID") + " is not the table's first SKU_GUID (" + first_line +
                          "), the only one param-firmware-by-sku reads: it never returns for SKU " +
                          Quote(id) + (lost.empty() ? "" : (lost.size() == 1 ? ", area " : ", areas ") + JoinWords(lost)));
    return;
  }
  const std::set<std::string> kept = AreaKeys(first);
  lost.clear();
  for (const std::string& area : areas) {
    if (kept.count(area) == 0) lost.push_back(Quote(area));
  }
  if (lost.empty()) {
    report.Unused(sku, Describe(sku, "ID") + " repeats the first SKU_GUID's ID (" + first_line +
                           "): its areas are never read; the first SKU_GUID's are returned");
  } else {
    report.Unused(sku, Describe(sku, "ID") + " repeats the first SKU_GUID's ID (" + first_line +
                           "), whose areas alone are read: param-firmware-by-sku never returns for " +
                          (lost.size() == 1 ? "its area " : "its areas ") + JoinWords(lost));
  }
}

}  // namespace

void CheckSku(Report& report, XMLElement* root) {
  // Later SKU_GUIDs are judged one by one below.
  XMLElement* first = table::Child(root, "SKU_GUID");
  NearMisses(report, root, "SKU_GUID");
  if (first == nullptr) {
    ReportMissing(report, root, "SKU_GUID", std::string("param-firmware-by-sku") + kSilently);
    return;
  }
  const char* id = first->Attribute("ID");
  const std::string never = ": param-firmware-by-sku reads only the first SKU_GUID, so it never "
                            "returns, whatever it is asked";
  if (id == nullptr) {
    report.Error(first, "the first SKU_GUID has no ID" + never);
  } else {
    if (table::Child(first, "Area") == nullptr) {
      report.Error(first, "the first SKU_GUID, " + Describe(first, "ID") + ", has no Area" + never);
    }
    if (!BlankEnds(id).empty()) {
      report.Error(first, "the ID of the first SKU_GUID, " + Quote(id) +
                              ", has a blank at an end: param-firmware-by-sku answers only a SKU written "
                              "with the same blank, and never returns for the SKU without it");
    }
    ListRule rule{"Area", "ID", "param-firmware-by-sku " + std::string(id)};
    // An area the walk misses makes the lookup wait for ever.
    rule.blank = Severity::kError;
    for (XMLElement* area : CheckList(report, first, rule)) {
      if (IsEntry(area, rule)) {
        CheckSlot(report, area, "ID", "PARAMFirmware", {"File", "Ver", "Type", "Count"}, rule.command);
      }
    }
  }
  for (XMLElement* later = first->NextSiblingElement("SKU_GUID"); later;
       later = later->NextSiblingElement("SKU_GUID")) {
    CheckLaterSku(report, later, first);
  }
}

namespace {

// `reached`: the lookup gets as far as the mode (the mapping table is there),
// so what it then logs can be named.
void CheckCombineMode(Report& report, XMLElement* paths, bool reached) {
  const char* mode = paths->Attribute("CombineMode");
  const std::string effect = std::string("device-config-id finds nothing") +
                             (reached ? " and logs \"getWwanDeviceConfigID not find.\"" : "");
  if (mode == nullptr) {
    report.Error(paths, "CustProductNamePathToUniqueSkuID has no CombineMode: " + effect);
  } else if (!table::EqualsIgnoringCase(mode, "Single") && !table::EqualsIgnoringCase(mode, "Combine")) {
    report.Error(paths, "CombineMode " + Quote(mode) +
                            " is neither Single nor Combine (compared without regard to case): " + effect);
  }
}

// The hive at the start of a key path ("HKEY_LOCAL_MACHINE", "HKLM", ...), or
// the empty text.
std::string HiveName(const std::string& key_path) {
  const std::string first = key_path.substr(0, key_path.find('\\'));
  if (first.size() > 5 && table::EqualsIgnoringCase(first.substr(0, 5), "HKEY_")) return first;
  for (const char* hive : {"HKLM", "HKCU", "HKCR", "HKU", "HKCC"}) {
    if (table::EqualsIgnoringCase(first, hive)) return first;
  }
  return "";
}

// True when the RegistryPath of `e` names a value that the lookup can be
// expected to find (a comma, no hive name, no blanks around the names), and
// then `value` names it (key path and value name, folded to lower case as the
// registry compares them).
bool UsableRegistryPath(const XMLElement* e, std::string& value) {
  std::string key_path, value_name;
  if (!SplitRegistryPath(table::Attr(e, "RegistryPath"), key_path, value_name) || !HiveName(key_path).empty() ||
      !BlankEnds(key_path).empty() || !BlankEnds(value_name).empty()) {
    return false;
  }
  value.clear();
  for (char c : key_path + "," + value_name) value += c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  return true;
}

void CheckRegistryPath(Report& report, XMLElement* e) {
  const char* raw = e->Attribute("RegistryPath");
  if (raw == nullptr) {
    report.Unused(e, "CustProductNamePath has no RegistryPath: device-config-id skips it, so it never reads a value "
                     "for it");
    return;
  }
  const std::string what = Describe(e, "RegistryPath");
  std::string key_path, value_name;
  if (!SplitRegistryPath(raw, key_path, value_name)) {
    report.Unused(e, what + (raw[0] == ',' ? " begins with its comma" : " has no comma") +
                        ": device-config-id needs \"key path,value name\", skips it and never reads a value for it");
  } else if (const std::string hive = HiveName(key_path); !hive.empty()) {
    report.Unused(e, what + " begins with the hive name " + Quote(hive) +
                         ": device-config-id opens the key path under HKEY_LOCAL_MACHINE itself, where it "
                         "never finds a key of that name, and skips the entry");
  } else if (value_name.empty()) {
    report.Warning(e, what + " ends with its comma: the value name is empty, so device-config-id "
                             "reads the key's default value");
  } else if (!BlankEnds(key_path).empty() || !BlankEnds(value_name).empty()) {
    report.Warning(e, what + " has blanks around its key path or value name: device-config-id "
                             "reads the names with them");
  }
}

}  // namespace

void CheckDeviceConfig(Report& report, XMLElement* root) {
  XMLElement* table = Require(report, root, "WwanDeviceConfigureIDTable",
                              "device-config-id fails and logs \"WwanDeviceConfigureidTable xml item error.\"");
  if (table == nullptr) return;
  // The lookup looks for the mapping table first and stops there without it.
  XMLElement* mapping = Require(report, table, "UniqueSkuIDToWwanDeviceConfigureIDMappingTable",
                                "device-config-id fails and logs "
                                "\"UniqueSkuIDToWwanDeviceConfigureIDMappingTable error.\"");
  XMLElement* paths = Require(report, table, "CustProductNamePathToUniqueSkuID",
                              mapping != nullptr
                                  ? "device-config-id fails and logs "
                                    "\"CustProductNamePathToUniqueSkuID xml item error.\""
                                  : "device-config-id would fail here too, once the mapping table is there");
  if (paths != nullptr) {
    CheckCombineMode(report, paths, mapping != nullptr);
    const bool combine = table::EqualsIgnoringCase(table::Attr(paths, "CombineMode"), "Combine");
    const ListRule rule{"CustProductNamePath", nullptr, "device-config-id"};
    std::unordered_map<std::string, const XMLElement*> values;
    for (XMLElement* e : CheckList(report, paths, rule)) {
      if (IsEntry(e, rule)) CheckRegistryPath(report, e);
      std::string value;
      if (!UsableRegistryPath(e, value)) continue;
      auto [before, added] = values.emplace(value, e);
      // Told on the list: it is what every row of the mapping table meets.
      if (!added && combine) {
        report.Warning(paths, "CustProductNamePathToUniqueSkuID names one value twice, at lines " +
                                  std::to_string(before->second->GetLineNum()) + " and " +
                                  std::to_string(e->GetLineNum()) +
                                  ": in Combine mode device-config-id joins it twice (\"A_A\"), so a ProductID "
                                  "matches only when those parts are equal");
      }
    }
    if (values.empty() && mapping != nullptr) {
      report.Error(paths, std::string("CustProductNamePathToUniqueSkuID has no CustProductNamePath that names a "
                                      "value device-config-id can find (a RegistryPath with its comma, no hive name "
                                      "and no blanks around its names): it reads no product name, so it finds ") +
                              (combine ? "only a ProductID that is empty" : "nothing"));
    }
  }
  if (mapping != nullptr) {
    ListRule rule{"UniqueSkuID", "ProductID", "device-config-id"};
    rule.ignore_case = true;
    for (XMLElement* e : CheckList(report, mapping, rule)) {
      if (IsEntry(e, rule)) {
        CheckAttributes(report, e, Describe(e, "ProductID"), {"WwanDeviceConfigID"}, rule.command);
      }
    }
  }
}

namespace {

// The DEVFirmware of a Standard, and its Count as getCfgPkInfo reads it.
void CheckDevFirmware(Report& report, XMLElement* standard, const std::string& command) {
  const std::string what = Describe(standard, "Value");
  XMLElement* firmware = Fixed(report, standard, "DEVFirmware");
  if (firmware == nullptr) {
    report.Unused(standard, what + " has no DEVFirmware: " + command + " " +
                               table::Attr(standard, "Value") +
                               " fails and logs \"getCfgPkInfo not find map.\", so it never returns this entry");
    return;
  }
  CheckAttributes(report, firmware, "DEVFirmware of " + what, {"File", "Ver", "Type", "Count"}, command);
  const char* count = firmware->Attribute("Count");
  if (count == nullptr) return;
  const std::string text = count;
  const std::string value = std::to_string(LeadingDecimal(text));
  const size_t digits = text.find_first_not_of('0');
  const std::string significant = digits == std::string::npos ? "0" : text.substr(digits);
  if (significant != value) {
    report.Warning(firmware, "Count " + Quote(text) + " of DEVFirmware of " + what + " reads as " +
                                 value + ": " + command +
                                 " takes its leading decimal digits, at most 4294967295");
  }
}

}  // namespace

void CheckImageMapping(Report& report, XMLElement* root) {
  XMLElement* table = Require(report, root, "WwanDeviceConfigureIDToImageMappingTable",
                              "cfg-pk-info fails and logs \"getCfgPkInfo not find map.\"");
  if (table == nullptr) return;
  ListRule configs{"WwanDeviceConfigID", "ID", "cfg-pk-info"};
  configs.repeat = Severity::kWarning;
  configs.repeat_effect = "cfg-pk-info searches its Standard entries after those of the first";
  // A configuration without the MCC does not end the search, so the Standard
  // keys of every configuration with one ID form one walk.
  std::unordered_map<std::string, KeyIndex> standards;
  for (XMLElement* config : CheckList(report, table, configs)) {
    const std::string id = config->Attribute("ID");
    ListRule rule{"Standard", "Value", "cfg-pk-info " + id};
    rule.empty_key_found = false;
    for (XMLElement* standard : CheckList(report, config, rule, standards[id])) {
      CheckDevFirmware(report, standard, rule.command);
    }
  }
}

void CheckEsim(Report& report, XMLElement* root) {
  // Only a table switched on reaches its lists: a missing list is reported
  // (with what the lookup then logs) only then.
  bool on = false;
  if (XMLElement* flag = Require(report, root, "TableEnableFlag",
                                 "esim-disable-type fails (0xFFFFFFFF) and logs "
                                 "\"TableEnableFlag xml item error.\"")) {
    const std::string value = table::Attr(flag, "FlagValue");
    if (table::EqualsIgnoringCase(value, "False")) {
      report.Warning(flag, "FlagValue " + Quote(value) +
                               " switches the table off: esim-disable-type decides nothing "
                               "(0xFFFFFFFF) and logs \"FlagValue is false,not need to set esim disable.\"");
    } else if (!table::EqualsIgnoringCase(value, "True")) {
      report.Error(flag, (flag->Attribute("FlagValue") ? "FlagValue " + Quote(value) : "no FlagValue") +
                             " is neither True nor False (compared without regard to case): "
                             "esim-disable-type fails (0xFFFFFFFF) and logs \"Main disable error.\"");
    } else {
      on = true;
    }
  }
  const std::string changes_nothing = " stops at the first, so this one changes nothing";
  XMLElement* skus = Fixed(report, root, "SKU_BlackList");
  if (on && skus == nullptr) {
    ReportMissing(report, root, "SKU_BlackList",
                  "esim-disable-type with a SKU fails (0xFFFFFFFF) and logs \"SKU black xml item error.\"",
                  Severity::kNote);
  }
  if (skus != nullptr) {
    ListRule rule{"SKU", "SKUValue", "esim-disable-type --sku"};
    rule.ignore_case = true;
    rule.repeat = Severity::kWarning;
    rule.repeat_effect = rule.command + changes_nothing;
    CheckList(report, skus, rule);
  }
  XMLElement* networks = Fixed(report, root, "IMSI_BlackList");
  if (on && networks == nullptr) {
    ReportMissing(report, root, "IMSI_BlackList",
            "esim-disable-type with an IMSI (and a SKU that is not black-listed) fails (0xFFFFFFFF) "
            "and logs \"IMSI black xml item error.\"",
            Severity::kNote);
  }
  if (networks != nullptr) {
    ListRule rule{"MCCMNC", "MCCMNCValue", "esim-disable-type --imsi"};
    rule.repeat = Severity::kWarning;
    rule.repeat_effect = rule.command + changes_nothing;
    CheckList(report, networks, rule);
  }
}

void CheckRegion(Report& report, XMLElement* root) {
  XMLElement* rule_element = Require(report, root, "SelectionRule",
                                     "regulatory-by-mcc fails (0) and logs \"SelectionRule xml item error.\"");
  if (rule_element == nullptr) return;
  ListRule rule{"Region", "mcc", "regulatory-by-mcc"};
  rule.empty_key_found = false;
  rule.fallback = "default";
  const std::vector<XMLElement*> rows = CheckList(report, rule_element, rule);
  CheckFallbacks(report, rule_element, rows, rule, false);
  for (XMLElement* row : rows) {
    if (IsEntry(row, rule)) CheckAttributes(report, row, Describe(row, "mcc"), {"Regulatory"}, rule.command);
  }
}

void CheckScatter(Report& report, XMLElement* root) {
  const std::string fails = "update-scatter fails and leaves the file as it is";
  Require(report, root, "general", fails);
  XMLElement* storage = Require(report, root, "storage_type", fails);
  if (storage == nullptr) return;
  const ListRule rule{"partition_index", nullptr, "update-scatter"};
  for (XMLElement* partition : CheckList(report, storage, rule)) {
    if (!IsEntry(partition, rule)) continue;
    XMLElement* flag = Fixed(report, partition, "is_download");
    if (flag == nullptr) {
      report.Warning(partition, "partition_index has no is_download: update-scatter leaves it as it is");
      continue;
    }
    const std::string text = table::Text(flag);
    if (text != "true" && text != "false") {
      report.Warning(flag, "is_download reads " + Quote(text) +
                               ", neither true nor false: update-scatter looks for " +
                               Quote(";" + text + ";") +
                               " in its selection, and sets the flag to false when it is not there");
    }
  }
}

}  // namespace dorvane::lint
