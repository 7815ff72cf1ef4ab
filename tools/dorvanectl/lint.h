// The table checker behind `dorvanectl lint`: reads a configuration table the
// way the lookups read it (see config/table_reader.h) and reports what would
// surprise the people who maintain it: entries that are never found, lookups
// that fail, hang or never match, and quirks of the reading rules that the
// table runs into.
//
// Everything here works on a document in memory and returns findings; nothing
// prints, logs or throws. A finding is an error when an entry or a part of
// the table can never be used by the lookups, or a lookup hangs; a warning when
// the table works, but probably not as meant; a note when the table lacks a
// list, so that the lookup of it answers "not found".
//
//   lint::FileResult r = lint::LintFile("C:\\tables\\rules.xml", std::nullopt);
//   for (const lint::Finding& f : r.findings) puts(lint::FormatLine(r.file, f).c_str());
#pragma once

#include <tinyxml2.h>

#include <optional>
#include <string>
#include <vector>

namespace dorvane::lint {

// One kind per table type that the readers know.
enum class Kind {
  kCarrierRules,    // SwitchingRule: carrier ids by MCC-MNC, MCC, ICCID; Registered
  kSelectionRules,  // the root's SelectionRule of Item entries
  kCarrierFirmware, // CarrierList of Carrier with APFirmware, MDFirmware, OPFirmware
  kCustomerModel,   // CarrierList of CustModel with OEMFirmware
  kPackageInfo,     // "package_info.xml": CarrierList of Carrier with Firmware, CustPack
  kFwPackageInfo,   // "FwPackageInfo.xml": PackageVer, PackageType, CarrierList
  kSku,             // SKU_GUID entries with Area entries
  kDeviceConfig,    // WwanDeviceConfigureIDTable
  kImageMapping,    // WwanDeviceConfigureIDToImageMappingTable
  kEsim,            // TableEnableFlag, SKU_BlackList, IMSI_BlackList
  kRegion,          // the root's SelectionRule of Region entries
  kScatter,         // "scatter.xml": general, storage_type
};

// Every kind, in the order above.
std::vector<Kind> AllKinds();
// The kind's name on the command line, e.g. "carrier-rules".
const char* KindName(Kind kind);
// The kind of a name, or nothing.
std::optional<Kind> KindByName(const std::string& name);
// Every kind's name, comma-separated, in the order above.
std::string KindNames();

// In rising order.
enum class Severity { kNote, kWarning, kError };
const char* SeverityName(Severity severity);  // "note", "warning" or "error"
std::optional<Severity> SeverityByName(const std::string& name);

struct Finding {
  int line = 0;  // of the element concerned (tinyxml2's line numbers, from 1)
  Severity severity = Severity::kWarning;
  std::string message;
  // The message says that the element at `line` is never used: no call of the
  // lookup returns this entry, or reads this part of the table.
  bool unused = false;
};

// The kinds that a loaded document's structure fits: usually one; none when
// nothing fits, several when the structure does not decide. `file_name` (the
// path or its last part) settles a CarrierList whose entries do not tell,
// by the installation's fixed names "package_info.xml" and "FwPackageInfo.xml".
std::vector<Kind> Recognize(tinyxml2::XMLElement* root, const std::string& file_name);

// The checks of one kind over a document's root (null: no root element).
// Findings come in document order.
std::vector<Finding> Check(Kind kind, tinyxml2::XMLElement* root);

// What linting one file gave.
struct FileResult {
  std::string file;           // as given
  std::optional<Kind> kind;   // unknown when the table could not be read or recognised
  std::vector<Finding> findings;
  std::string problem;        // why the file was not checked at all, or empty
  // 2 for a problem; else 1 when a finding is of `fail_on` or above; else 0.
  int Status(Severity fail_on = Severity::kWarning) const {
    if (!problem.empty()) return 2;
    for (const Finding& f : findings) {
      if (f.severity >= fail_on) return 1;
    }
    return 0;
  }
};

// Reads the file as the lookups do and checks it as `kind`, or as the kind its
// structure shows. A file that cannot be opened, read or parsed, or whose kind
// cannot be told, is a problem; so is one whose first bytes show an encoding
// that the lookups cannot read (see ForeignEncoding).
FileResult LintFile(const std::string& path, std::optional<Kind> kind);
// The same over a table's text, as if read from a file named `file`.
FileResult LintText(const std::string& xml, std::optional<Kind> kind, const std::string& file);

// The encoding that a file's first bytes show when the lookups cannot read it,
// e.g. "UTF-16 (little-endian, by its byte-order mark)": UTF-16 or UTF-32 by
// their byte-order marks, or by NUL bytes in the same places of each of the
// first characters; empty for 8-bit text (with or without UTF-8's mark).
std::string ForeignEncoding(const std::string& first_bytes);

// "file:line: severity: message".
std::string FormatLine(const std::string& file, const Finding& finding);

}  // namespace dorvane::lint
