#include "tools/dorvanectl/lint.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <initializer_list>

#include "config/table_reader.h"
#include "tools/dorvanectl/lint_checks.h"

namespace dorvane::lint {

using tinyxml2::XMLElement;

namespace {

// What the lookups of a kind do with a table that does not load or has no
// root element, in the words (and log lines) of the readers.
struct KindInfo {
  Kind kind;
  const char* name;
  const char* unloadable;
  const char* rootless;
  void (*check)(Report&, XMLElement* root);
};

const KindInfo kKinds[] = {
    {Kind::kCarrierRules, "carrier-rules",
     "carrier-id-by-mccmnc fails and logs \"load xml error.\"; carrier-id-by-mcc, "
     "carrier-id-by-iccid and param-firmware-by-mcc fail silently",
     "carrier-id-by-mccmnc fails and logs \"RootElement xml item error.\"; carrier-id-by-mcc, "
     "carrier-id-by-iccid and param-firmware-by-mcc fail silently",
     CheckCarrierRules},
    {Kind::kSelectionRules, "selection-rules", "selection-rule-by-mcc reads nothing",
     "selection-rule-by-mcc reads nothing", CheckSelectionRules},
    {Kind::kCarrierFirmware, "carrier-firmware", "carrier-firmware fails silently",
     "carrier-firmware fails silently", CheckCarrierFirmware},
    {Kind::kCustomerModel, "customer-model", "oem-firmware-by-model fails silently",
     "oem-firmware-by-model fails silently", CheckCustomerModel},
    {Kind::kPackageInfo, "package-info",
     "package-info-firmware fails and logs \"package_info.xml load failed\"",
     "package-info-firmware fails and logs \"RootElement failed\"", CheckPackageInfo},
    {Kind::kFwPackageInfo, "fw-package-info", "fw-package-info fails silently",
     "fw-package-info fails silently", CheckFwPackageInfo},
    {Kind::kSku, "sku", "param-firmware-by-sku fails silently",
     "param-firmware-by-sku fails silently", CheckSku},
    {Kind::kDeviceConfig, "device-config",
     "device-config-id fails and logs \"WwanDeviceIdImageMappingTable.xml load faild.\"",
     "device-config-id fails and logs \"RootElement xml item error.\"", CheckDeviceConfig},
    {Kind::kImageMapping, "image-mapping",
     "cfg-pk-info fails and logs \"LoadFile xml failed:\" and \"getCfgPkInfo not find map.\"",
     "cfg-pk-info fails and logs \"RootElement failed:\" and \"getCfgPkInfo not find map.\"",
     CheckImageMapping},
    {Kind::kEsim, "esim",
     "esim-disable-type fails (0xFFFFFFFF) and logs \"Esim disable xml load faild.\"",
     "esim-disable-type fails (0xFFFFFFFF) and logs \"RootElement xml item error.\"", CheckEsim},
    {Kind::kRegion, "region",
     "regulatory-by-mcc fails (0) and logs \"RegionMappingTable load faild.\"",
     "regulatory-by-mcc fails (0) and logs \"RootElement xml item error.\"", CheckRegion},
    {Kind::kScatter, "scatter", "update-scatter fails and leaves the file as it is",
     "update-scatter fails and leaves the file as it is", CheckScatter},
};

// How many of a file's first bytes tell its encoding: four characters of UTF-32.
constexpr size_t kEncodingBytes = 16;

const KindInfo& InfoOf(Kind kind) {
  for (const KindInfo& info : kKinds) {
    if (info.kind == kind) return info;
  }
  return kKinds[0];  // every Kind is in the table
}

// The last part of a path, after its last \ or /.
std::string BaseName(const std::string& path) {
  const size_t slash = path.find_last_of("\\/");
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The kind that the installation's fixed file names stand for, if any.
std::optional<Kind> KindOfFileName(const std::string& file_name) {
  const std::string name = BaseName(file_name);
  if (table::EqualsIgnoringCase(name, "package_info.xml")) return Kind::kPackageInfo;
  if (table::EqualsIgnoringCase(name, "FwPackageInfo.xml")) return Kind::kFwPackageInfo;
  if (table::EqualsIgnoringCase(name, "scatter.xml")) return Kind::kScatter;
  if (table::EqualsIgnoringCase(name, "WwanDeviceIdImageMappingTable.xml")) return Kind::kImageMapping;
  return std::nullopt;
}

// What a Carrier entry's children say about its table, if anything.
std::optional<Kind> KindOfCarrier(XMLElement* carrier) {
  for (const char* name : {"APFirmware", "MDFirmware", "OPFirmware"}) {
    if (table::Child(carrier, name)) return Kind::kCarrierFirmware;
  }
  if (table::Child(carrier, "Firmware")) return Kind::kPackageInfo;
  if (table::Child(carrier, "FWImage")) return Kind::kFwPackageInfo;
  if (XMLElement* pack = table::Child(carrier, "CustPack")) {
    if (pack->Attribute("File")) return Kind::kPackageInfo;
    if (pack->Attribute("file")) return Kind::kFwPackageInfo;
  }
  return std::nullopt;
}

// A CarrierList's kind, by its first entry: the walk that reads it starts
// there, and an entry of the other name after it is a finding of that kind.
std::optional<Kind> KindOfCarrierList(XMLElement* list, const std::string& file_name) {
  for (XMLElement* e = list->FirstChildElement(); e; e = e->NextSiblingElement()) {
    if (std::strcmp(e->Name(), "CustModel") == 0) return Kind::kCustomerModel;
    if (std::strcmp(e->Name(), "Carrier") != 0) continue;
    for (XMLElement* c = e; c; c = c->NextSiblingElement("Carrier")) {
      if (std::optional<Kind> kind = KindOfCarrier(c)) return kind;
    }
    break;
  }
  return KindOfFileName(file_name);
}

std::string Escape(const std::string& text) {
  std::string quoted = Quote(text);
  return quoted.substr(1, quoted.size() - 2);
}

bool IsUnreadable(tinyxml2::XMLError error) {
  return error == tinyxml2::XML_ERROR_FILE_NOT_FOUND ||
         error == tinyxml2::XML_ERROR_FILE_COULD_NOT_BE_OPENED ||
         error == tinyxml2::XML_ERROR_FILE_READ_ERROR;
}

// Why a document that was read did not load, in tinyxml2's words (its error
// and line), and what the lookups of `kind` then do.
std::string Unloadable(tinyxml2::XMLDocument& doc, std::optional<Kind> kind) {
  return "the table does not load (" + Escape(doc.ErrorStr() ? doc.ErrorStr() : "") + "): " +
         (kind ? InfoOf(*kind).unloadable : "every lookup of it fails");
}

// Checks a document that was read (or not) by the reading convention.
// `encoding`: what ForeignEncoding found in its first bytes.
FileResult Examine(tinyxml2::XMLDocument& doc, std::optional<Kind> kind, const std::string& file,
                   const std::string& encoding) {
  FileResult result;
  result.file = file;
  result.kind = kind;
  if (IsUnreadable(doc.ErrorID())) {
    result.problem = std::string("cannot read it (") + doc.ErrorName() + ")";
    return result;
  }
  if (!encoding.empty()) {
    result.problem = "it is " + encoding + "; the lookups read only 8-bit text (ASCII or UTF-8)";
    if (doc.Error()) result.problem += ", so " + Unloadable(doc, kind);
    return result;
  }
  if (doc.Error()) {
    result.problem = Unloadable(doc, kind);
    return result;
  }
  XMLElement* root = doc.RootElement();
  if (!kind && root != nullptr) {
    const std::vector<Kind> kinds = Recognize(root, file);
    if (kinds.size() != 1) {
      std::string fits;
      for (Kind k : kinds) fits += std::string(fits.empty() ? "" : " or ") + KindName(k);
      result.problem = (kinds.empty() ? std::string("cannot tell what table this is")
                                      : "this could be a " + fits + " table") +
                       "; name its kind with --kind (" + KindNames() + ")";
      return result;
    }
    result.kind = kinds.front();
  }
  if (!result.kind) {
    result.findings.push_back({1, Severity::kError,
                               "the document has no root element: every lookup of it fails"});
    return result;
  }
  result.findings = Check(*result.kind, root);
  return result;
}

}  // namespace

std::vector<Kind> AllKinds() {
  std::vector<Kind> kinds;
  for (const KindInfo& info : kKinds) kinds.push_back(info.kind);
  return kinds;
}

const char* KindName(Kind kind) { return InfoOf(kind).name; }

std::optional<Kind> KindByName(const std::string& name) {
  for (const KindInfo& info : kKinds) {
    if (name == info.name) return info.kind;
  }
  return std::nullopt;
}

std::string KindNames() {
  std::string names;
  for (const KindInfo& info : kKinds) names += std::string(names.empty() ? "" : ", ") + info.name;
  return names;
}

const char* SeverityName(Severity severity) {
  switch (severity) {
    case Severity::kError:
      return "error";
    case Severity::kWarning:
      return "warning";
    default:
      return "note";
  }
}

std::optional<Severity> SeverityByName(const std::string& name) {
  for (Severity s : {Severity::kNote, Severity::kWarning, Severity::kError}) {
    if (name == SeverityName(s)) return s;
  }
  return std::nullopt;
}

std::vector<Kind> Recognize(XMLElement* root, const std::string& file_name) {
  std::vector<Kind> kinds;
  if (root == nullptr) return kinds;
  auto has = [root](std::initializer_list<const char*> names) {
    for (const char* name : names) {
      if (table::Child(root, name)) return true;
    }
    return false;
  };
  auto add = [&kinds](Kind kind) {
    if (std::find(kinds.begin(), kinds.end(), kind) == kinds.end()) kinds.push_back(kind);
  };
  if (has({"SwitchingRule"})) {
    add(Kind::kCarrierRules);  // its root SelectionRule belongs to it
  } else if (XMLElement* rule = table::Child(root, "SelectionRule")) {
    if (table::Child(rule, "Region")) add(Kind::kRegion);
    else if (table::Child(rule, "Item")) add(Kind::kSelectionRules);
  }
  if (has({"TableEnableFlag", "SKU_BlackList", "IMSI_BlackList"})) add(Kind::kEsim);
  if (has({"general", "storage_type"})) add(Kind::kScatter);
  if (has({"SKU_GUID"})) add(Kind::kSku);
  if (has({"WwanDeviceConfigureIDTable"})) add(Kind::kDeviceConfig);
  if (has({"WwanDeviceConfigureIDToImageMappingTable"})) add(Kind::kImageMapping);
  if (has({"PackageVer", "PackageType"})) {
    add(Kind::kFwPackageInfo);
  } else if (XMLElement* list = table::Child(root, "CarrierList")) {
    if (std::optional<Kind> kind = KindOfCarrierList(list, file_name)) add(*kind);
  }
  if (kinds.empty()) {
    if (std::optional<Kind> kind = KindOfFileName(file_name)) add(*kind);
  }
  return kinds;
}

std::vector<Finding> Check(Kind kind, XMLElement* root) {
  const KindInfo& info = InfoOf(kind);
  Report report;
  if (root == nullptr) {
    report.Add(1, Severity::kError, std::string("the document has no root element: ") + info.rootless);
  } else {
    info.check(report, root);
  }
  return report.Take();
}

FileResult LintFile(const std::string& path, std::optional<Kind> kind) {
  // The first bytes, for their encoding; a file that cannot be opened or read
  // is named by tinyxml2's load below.
  std::string head;
  if (FILE* file = std::fopen(path.c_str(), "rb")) {
    char bytes[kEncodingBytes];
    head.assign(bytes, std::fread(bytes, 1, sizeof bytes, file));
    std::fclose(file);
  }
  table::Document doc;
  doc.Load(path);
  return Examine(doc.doc(), kind, path, ForeignEncoding(head));
}

FileResult LintText(const std::string& xml, std::optional<Kind> kind, const std::string& file) {
  table::Document doc;
  doc.doc().Parse(xml.data(), xml.size());
  return Examine(doc.doc(), kind, file, ForeignEncoding(xml.substr(0, kEncodingBytes)));
}

std::string ForeignEncoding(const std::string& first_bytes) {
  static const struct {
    const char* bytes;
    size_t size;
    const char* name;
  } kMarks[] = {
      // UTF-32's little-endian mark begins with UTF-16's: it comes first.
      {"\xFF\xFE\0\0", 4, "UTF-32 (little-endian"},
      {"\0\0\xFE\xFF", 4, "UTF-32 (big-endian"},
      {"\xFF\xFE", 2, "UTF-16 (little-endian"},
      {"\xFE\xFF", 2, "UTF-16 (big-endian"},
  };
  for (const auto& mark : kMarks) {
    if (first_bytes.compare(0, mark.size, mark.bytes, mark.size) == 0) {
      return std::string(mark.name) + ", by its byte-order mark)";
    }
  }
  // Without a mark, the first characters of a table are ASCII ('<', blanks):
  // in UTF-16 or UTF-32 each has its one byte that is not NUL in the same place.
  static const struct {
    size_t unit;
    size_t text;  // the place of the byte that is not NUL
    const char* name;
  } kUnits[] = {
      {4, 0, "UTF-32 (little-endian"},
      {4, 3, "UTF-32 (big-endian"},
      {2, 0, "UTF-16 (little-endian"},
      {2, 1, "UTF-16 (big-endian"},
  };
  for (const auto& unit : kUnits) {
    const size_t characters = std::min<size_t>(first_bytes.size() / unit.unit, 4);
    bool fits = characters >= 2;
    for (size_t c = 0; fits && c < characters; ++c) {
      for (size_t b = 0; fits && b < unit.unit; ++b) {
        fits = (first_bytes[c * unit.unit + b] == '\0') == (b != unit.text);
      }
    }
    if (fits) return std::string(unit.name) + ", by the NUL bytes in its first characters)";
  }
  return std::string();
}

std::string FormatLine(const std::string& file, const Finding& finding) {
  return file + ":" + std::to_string(finding.line) + ": " + SeverityName(finding.severity) + ": " +
         finding.message;
}

}  // namespace dorvane::lint
