// Random configuration tables of every kind that `dorvanectl lint` checks, for
// the test that holds lint's findings against the lookups themselves.
//
// Each element stands on a line of its own, so that a line names an element.
// Every answer that a lookup can give carries "L<line>", the line of the
// element that holds it (an Item's text, a firmware element's File, Ver and
// Type, a Region's Regulatory...), so that what a lookup answers tells which
// element answered. The tables hold what tables in the field hold: misnamed
// and prefixed entries before and after the first proper one, second copies
// of fixed elements, near-miss names, repeated keys, keys with blanks at
// their ends or in another case, empty and missing keys, and so on.
#pragma once

#include <optional>
#include <random>
#include <string>
#include <vector>

#include "tools/dorvanectl/lint.h"

namespace dorvane::lint::testing {

// The library lookups that read the tables.
enum class Lookup {
  kCarrierIdByMccmnc, kCarrierIdByMcc, kCarrierIdByIccid, kSelectionRuleByMcc, kParamFirmwareByMcc,
  kCarrierFirmware, kOemFirmwareByModel, kPackageInfoFirmware, kFwPackageInfo, kParamFirmwareBySku,
  kDeviceConfigId, kCfgPkInfo,
  kEsimBySku,   // getEsimDisableType with a SKU
  kEsimByImsi,  // getEsimDisableType with an IMSI text
  kRegulatoryByMcc, kUpdateScatter,
};

// The dorvanectl command that runs the lookup, as lint's messages name it.
const char* CommandOf(Lookup lookup);

// An element that a lookup's walk is meant to find by its key.
struct Entry {
  int line = 0;
  Lookup lookup = Lookup::kCarrierIdByMccmnc;
  // The key attribute as the lookup reads it; nothing when the element lacks it.
  std::optional<std::string> key;
  // The inner key: the Area's ID under a SKU_GUID (whose ID is `key`), the
  // Standard's Value under a WwanDeviceConfigID (whose ID is `key`).
  std::optional<std::string> key2;
  // A value written under a wrong attribute name (MCCMNC for mccmnc, ...),
  // worth asking for although the lookup does not read it there.
  std::optional<std::string> stray_key;
  std::optional<std::string> min, max;  // an ICCID range's bounds
  // A "default" row (package-info, region): answered for the keys that the
  // table does not hold.
  bool fallback = false;
  // False for an element of another name that stands among the entries.
  bool proper = true;
};

// An element inside an entry whose attributes the lookup copies out (a
// firmware element, a Switch_table, an FWImage...): its own "L<line>".
struct Holder {
  int line = 0, entry_line = 0;
};

// Where a device-configuration table's RegistryPath means to read (key path
// under HKEY_LOCAL_MACHINE, 32-bit view, and value name), whatever it says.
struct RegistrySlot {
  std::string key_path, value_name;
};

// The registry keys that generated RegistryPaths name: <root>\P0 to
// <root>\P2, under HKEY_LOCAL_MACHINE.
inline constexpr int kRegistryKeys = 3;

struct GeneratedTable {
  Kind kind = Kind::kCarrierRules;
  std::string xml;
  std::vector<Entry> entries;
  std::vector<Holder> holders;
  std::vector<RegistrySlot> registry;
  // Keys to ask for besides the entries' own, made like the table's keys (so
  // mostly keys that it does not hold); for image-mapping the configuration
  // ids met and one more. Never empty for image-mapping and eSIM tables.
  std::vector<std::string> other_keys;
  // The inner keys to ask for: image-mapping's MCCs, eSIM network codes.
  std::vector<std::string> other_inner_keys;
  // ICCIDs near the ranges' bounds and a few more with the table's prefixes.
  std::vector<std::string> iccids;
};

// `registry_root`: the key path under which device-configuration tables name
// their registry values (kRegistryKeys keys P0, P1, ... below it).
GeneratedTable GenerateTable(Kind kind, std::mt19937& rng, const std::string& registry_root);

// The lines named by the "L<line>" marks in an answer.
std::vector<int> AnswerLines(const std::string& text);

// The text with a line number in front of each line.
std::string Numbered(const std::string& text);

}  // namespace dorvane::lint::testing
