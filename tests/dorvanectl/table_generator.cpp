#include "tests/dorvanectl/table_generator.h"

#include <algorithm>
#include <cctype>
#include <functional>
#include <sstream>
#include <utility>

#include "config/carrier_rules.h"

namespace dorvane::lint::testing {

const char* CommandOf(Lookup lookup) {
  static const char* const kNames[] = {
      "carrier-id-by-mccmnc", "carrier-id-by-mcc", "carrier-id-by-iccid", "selection-rule-by-mcc", "param-firmware-by-mcc",
      "carrier-firmware", "oem-firmware-by-model", "package-info-firmware", "fw-package-info", "param-firmware-by-sku",
      "device-config-id", "cfg-pk-info", "esim-disable-type", "esim-disable-type", "regulatory-by-mcc", "update-scatter"};
  return kNames[static_cast<int>(lookup)];
}

std::vector<int> AnswerLines(const std::string& text) {
  std::vector<int> lines;
  for (size_t i = 0; i + 1 < text.size(); ++i) {
    if (text[i] == 'L' && std::isdigit(static_cast<unsigned char>(text[i + 1]))) lines.push_back(std::atoi(text.c_str() + i + 1));
  }
  return lines;
}

std::string Numbered(const std::string& text) {
  std::istringstream in(text);
  std::string out, line;
  for (int n = 1; std::getline(in, line); ++n) out += std::string(n < 10 ? "   " : n < 100 ? "  " : " ") + std::to_string(n) + "| " + line + "\n";
  return out;
}

namespace {

using Attrs = std::vector<std::pair<std::string, std::optional<std::string>>>;  // no value: left out

class Rng {
 public:
  explicit Rng(std::mt19937& g) : g_(g) {}
  int Int(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(g_); }
  bool Chance(double p) { return std::uniform_real_distribution<double>(0.0, 1.0)(g_) < p; }
  // How many copies of an element to write: none now and then, two now and then, else one.
  int Copies(double none, double two) { return Chance(none) ? 0 : Chance(two) ? 2 : 1; }
  template <class T>
  const T& Pick(const std::vector<T>& v) { return v[static_cast<size_t>(Int(0, static_cast<int>(v.size()) - 1))]; }
  std::string Digits(int n) {
    std::string s;
    for (int i = 0; i < n; ++i) s += static_cast<char>('0' + Int(0, 9));
    return s;
  }
  // Letters and digits; never an L, so that keys cannot look like answers.
  std::string Word(int n, bool mixed_case = true) {
    static const char kUpper[] = "ABCDEFGHJKMNPRSTUVWXYZ0123456";
    std::string s;
    for (int i = 0; i < n; ++i) {
      const char c = kUpper[Int(0, static_cast<int>(sizeof kUpper) - 2)];
      s += mixed_case && std::isupper(static_cast<unsigned char>(c)) && Chance(0.4) ? static_cast<char>(c - 'A' + 'a') : c;
    }
    return s;
  }

 private:
  std::mt19937& g_;
};

bool HasLetter(const std::string& s) {
  return std::any_of(s.begin(), s.end(), [](char c) { return std::isalpha(static_cast<unsigned char>(c)); });
}

char Flip(char c) {
  return static_cast<char>(std::isupper(static_cast<unsigned char>(c)) ? std::tolower(c) : std::toupper(c));
}

std::string CaseVariant(Rng& r, const std::string& key) {
  if (!HasLetter(key)) return key;
  for (std::string v = key;; v = key) {
    for (char& c : v) c = r.Chance(0.5) ? Flip(c) : c;
    if (v != key) return v;
  }
}

// The key with a blank at one end or both: mostly a space, now and then a tab.
std::string BlankVariant(Rng& r, const std::string& key) {
  const std::string blank = r.Chance(0.8) ? " " : "\t";
  const int ends = r.Int(0, 2);
  return (ends != 1 ? blank : "") + key + (ends != 0 ? blank : "");
}

std::string Escape(const std::string& s) {
  std::string out;
  for (char c : s) {
    // A tab written as it is would read as a space in an attribute.
    out += c == '&' ? "&amp;" : c == '<' ? "&lt;" : c == '>' ? "&gt;" : c == '"' ? "&quot;" : c == '\t' ? "&#9;" : std::string(1, c);
  }
  return out;
}

// Writes one element per line; "{L}" in a value or text becomes "L<line>".
class Writer {
 public:
  int Open(const std::string& name, const Attrs& attrs = {}) {
    open_.push_back(name);
    return Line("<" + name + Attributes(attrs) + ">", 1);
  }
  int Leaf(const std::string& name, const Attrs& attrs = {}, const std::optional<std::string>& text = {}) {
    return Line("<" + name + Attributes(attrs) + (text ? ">" + Escape(Fill(*text)) + "</" + name + ">" : "/>"), 0);
  }
  void Close() {
    const std::string name = open_.back();
    open_.pop_back();
    Line("</" + name + ">", 0);
  }
  int Line(const std::string& text, size_t opened) {
    xml_ += std::string(2 * (open_.size() - opened), ' ') + text + "\n";
    return line_++;
  }
  const std::string& xml() const { return xml_; }

 private:
  std::string Fill(std::string text) const {
    for (size_t at = text.find("{L}"); at != std::string::npos; at = text.find("{L}", at)) {
      text.replace(at, 3, "L" + std::to_string(line_));
    }
    return text;
  }
  std::string Attributes(const Attrs& attrs) const {
    std::string out;
    for (const auto& [name, value] : attrs) out += value ? " " + name + "=\"" + Escape(Fill(*value)) + "\"" : "";
    return out;
  }

  std::string xml_;
  std::vector<std::string> open_;
  int line_ = 1;
};

// The keys of one list: mostly fresh ones, and the awkward ones tables hold.
class Keys {
 public:
  // `repeats` in a hundred keys repeat one met before.
  Keys(std::function<std::string(Rng&)> fresh, int repeats) : fresh_(std::move(fresh)), repeats_(repeats) {}
  std::optional<std::string> Next(Rng& r) {
    const int roll = r.Int(0, 99) - repeats_;
    std::optional<std::string> key = fresh_(r);
    if (roll < -repeats_ + 5) key = std::nullopt;
    else if (roll < -repeats_ + 9) key = "";
    else if (roll < 9 && !used.empty()) key = r.Pick(used);
    else if (roll < 16 && !used.empty()) key = CaseVariant(r, r.Pick(used));
    else if (roll < 22) key = BlankVariant(r, used.empty() || r.Chance(0.5) ? *key : r.Pick(used));
    if (key && !key->empty()) used.push_back(*key);
    return key;
  }
  std::string Fresh(Rng& r) { return fresh_(r); }
  std::vector<std::string> used;

 private:
  std::function<std::string(Rng&)> fresh_;
  int repeats_;
};

// A name that a maintainer could have meant for `proper`: in another case,
// with a namespace prefix, with an underscore more or less, or one of `near`.
std::string Misnamed(Rng& r, const std::string& proper, const std::vector<std::string>& near) {
  if (!near.empty() && r.Chance(0.4)) return r.Pick(near);
  std::string s = proper;
  switch (r.Int(0, 3)) {
    case 0: s[0] = Flip(s[0]); return s;
    case 1: return "r:" + proper;
    case 2:
      for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
      return s == proper ? std::string(1, static_cast<char>(std::tolower(s[0]))) + s.substr(1) : s;
    default:
      if (const size_t underscore = s.find('_'); underscore != std::string::npos) return s.erase(underscore, 1);
      for (size_t i = 1; i < s.size(); ++i) {
        if (std::isupper(static_cast<unsigned char>(s[i])) && std::islower(static_cast<unsigned char>(s[i - 1]))) return s.insert(i, "_");
      }
      return "r:" + proper;
  }
}

// Writes a list's elements through `write(name, proper)`: sometimes misnamed
// elements before the first proper entry, `count` proper entries with
// misnamed ones among them, and sometimes misnamed elements alone.
void List(Rng& r, const std::string& entry, const std::vector<std::string>& near, int count,
          const std::function<void(const std::string&, bool)>& write) {
  const bool alone = r.Chance(0.04);
  for (int n = r.Chance(0.12) || alone ? r.Int(1, 2) : 0; n > 0; --n) write(Misnamed(r, entry, near), false);
  for (int i = 0; i < (alone ? 0 : count); ++i) {
    write(entry, true);
    if (r.Chance(0.1)) write(Misnamed(r, entry, near), false);
  }
}

// The answer text of an Item or a Range: its mark, sometimes with blanks, or none.
std::optional<std::string> AnswerText(Rng& r) {
  const int roll = r.Int(0, 99);
  return roll < 4 ? std::nullopt : std::optional<std::string>(roll < 6 ? "" : roll < 10 ? " {L}" : roll < 13 ? "{L} " : "{L}");
}

// The name under which an attribute is written: mostly its own, sometimes in another case.
std::string AttributeName(Rng& r, const std::string& name, double wrong = 0.02) {
  std::string other = name;
  for (char& c : other) c = Flip(c);
  return r.Chance(wrong) ? other : name;
}

using Fresh = std::function<std::string(Rng&)>;
std::string Mcc(Rng& r) { return std::to_string(r.Int(200, 799)); }
std::string MccMnc(Rng& r) { return Mcc(r) + r.Digits(r.Int(2, 3)); }
std::string CarrierName(Rng& r) { return r.Word(r.Int(3, 4)); }

// One element of a kind's table, described as data. A fixed element stands
// Copies(missing, twice) times, a copy now and then under a misnamed name, and
// a misnamed one alone now and then when it is missing; a list's entries (List)
// come with misnamed ones among them (see List above).
struct Shape {
  enum Custom { kNone, kIccid, kRegistry };  // written by code of its own: an ICCIDTable, a CustProductNamePath
  explicit Shape(std::string element) : name(std::move(element)) {}
  Shape& Copies(double missing, double twice, double misnamed = 0) { none = missing, two = twice, alt = misnamed; return *this; }
  Shape& List(int from, int to, std::vector<std::string> near_names = {}) { least = from, most = to, near = std::move(near_names); return *this; }
  // Keyed by `attribute`, with keys that `fresh_key` makes; `repeat` in a
  // hundred keys repeat an earlier one, `default_rows` are "default" or a
  // case variant of it.
  Shape& Key(const char* attribute, Fresh fresh_key, int repeat = 11, int default_rows = 0) {
    key = attribute, fresh = std::move(fresh_key), repeats = repeat, defaults = default_rows;
    return *this;
  }
  Shape& Answers(Lookup l) { lookup = l; return *this; }
  // Its keys are the inner keys of the keyed entry around it, if any, and
  // asked as other inner keys.
  Shape& Inner() { inner = true; return *this; }
  // "{L}" marks the element's line; "Count" takes a count. Sloppy ones are
  // now and then left out or written in another case.
  Shape& With(Attrs a, bool careless = false) { attrs = std::move(a), sloppy = careless; return *this; }
  // The attribute (or the text, when null) reads one of `texts`, mostly one of the first two.
  Shape& Flag(const char* attribute, std::vector<std::string> texts) { flag = attribute, flags = std::move(texts); return *this; }
  Shape& Text(std::optional<std::string> fixed = std::nullopt) { answer = !fixed, text = std::move(fixed); return *this; }
  // A firmware element: the attributes a lookup copies out of it, all marked
  // but Count; one marked always there, so that an answer tells its line.
  Shape& Firmware(Attrs a) { holder = true; return Copies(0.05, 0.05).With(std::move(a), true); }
  Shape& Holds(std::vector<Shape> children, double shuffled = 0) { kids = std::move(children), shuffle = shuffled; return *this; }
  Shape& Is(Custom s) { custom = s; return *this; }

  std::string name;
  double none = 0, two = 0, alt = 0, shuffle = 0;
  int least = 0, most = -1, repeats = 11, defaults = 0;
  std::vector<std::string> near, flags;
  const char* key = nullptr;
  const char* flag = nullptr;
  Fresh fresh;
  std::optional<Lookup> lookup;
  bool inner = false, sloppy = false, holder = false, answer = false;
  Attrs attrs;
  std::optional<std::string> text;
  std::vector<Shape> kids;
  Custom custom = kNone;
};

const Attrs kFw = {{"File", "fw_{L}.bin"}, {"Ver", "{L}"}, {"Type", "T{L}"}, {"Count", ""}};
const Attrs kPack = {{"File", "fw_{L}.bin"}, {"Ver", "{L}"}}, kImage = {{"file", "fw_{L}.bin"}, {"ver", "{L}"}};

Shape Items(const std::string& list, const char* key, Lookup lookup, double missing = 0.07, double twice = 0.05) {
  return Shape(list).Copies(missing, twice, 0.04).Holds({Shape("Item").List(0, 4).Key(key, key[3] ? MccMnc : Mcc).Answers(lookup).Text()});
}
Shape CarrierList(Shape entry) { return Shape("CarrierList").Copies(0.04, 0.04).Holds({entry.List(0, 5)}); }

// Every kind's table.
Shape TableOf(Kind kind) {
  switch (kind) {
    case Kind::kCarrierRules:
      return Shape("Rules").Holds({Shape("SwitchingRule").Copies(0.04, 0.04).Holds({
          Shape("SelectionRule").Copies(0.04, 0.05).Holds({Items("MCCMNCTable", "mccmnc", Lookup::kCarrierIdByMccmnc),
              Items("MCCTable", "mcc", Lookup::kCarrierIdByMcc), Shape("ICCIDTable").Copies(0.07, 0.05, 0.03).Is(Shape::kIccid)}, 0.15),
          Shape("Registered").List(0, 4).Key("mcc", Mcc).Answers(Lookup::kParamFirmwareByMcc).Holds({Shape("PARAMFirmware").Firmware(kFw)})}, 0.15),
          Items("SelectionRule", "mcc", Lookup::kSelectionRuleByMcc, 0.4, 0)}, 0.2);
    case Kind::kSelectionRules: return Shape("Rules").Holds({Items("SelectionRule", "mcc", Lookup::kSelectionRuleByMcc, 0.04, 0.06)});
    case Kind::kCarrierFirmware:
      return Shape("Firmware").Holds({CarrierList(Shape("Carrier").Key("id", CarrierName).Answers(Lookup::kCarrierFirmware).Holds(
          {Shape("APFirmware").Firmware(kFw), Shape("MDFirmware").Firmware(kFw), Shape("OPFirmware").Firmware(kFw)}))});
    case Kind::kCustomerModel: {
      const Shape sw = Shape("Switch_table").Firmware({{"File", "sw_{L}.xml"}}).Copies(0.5, 0);  // inside OEMFirmware, or beside it
      return Shape("Models").Holds({CarrierList(Shape("CustModel").Key("id", CarrierName).Answers(Lookup::kOemFirmwareByModel).Holds(
          {Shape("OEMFirmware").Firmware(kFw).Holds({sw}), Shape(sw).Copies(0.94, 0)}))});
    }
    case Kind::kPackageInfo:
      return Shape("PackageInfo").Holds({CarrierList(Shape("Carrier").Key("id", [](Rng& r) { return r.Chance(0.5) ? Mcc(r) : CarrierName(r); }, 11, 17)
          .Answers(Lookup::kPackageInfoFirmware).Holds({Shape("Firmware").Firmware(kPack), Shape("CustPack").Firmware(kPack)}))});
    case Kind::kFwPackageInfo:
      return Shape("FwPackage").Holds({Shape("PackageVer").Copies(0.04, 0.05).Answers(Lookup::kFwPackageInfo).Text(),
          Shape("PackageType").Copies(0.04, 0.05).Answers(Lookup::kFwPackageInfo).Text(),
          CarrierList(Shape("Carrier").Key("id", CarrierName).Answers(Lookup::kFwPackageInfo).With({{"ver", "{L}"}}, true)
              .Holds({Shape("FWImage").Firmware(kImage), Shape("CustPack").Firmware(kImage)}))});
    case Kind::kSku:
      return Shape("Skus").Holds({Shape("SKU_GUID").List(1, 2, {"Sku"}).Key("ID", [](Rng& r) { return "{" + r.Word(8, r.Chance(0.2)) + "-" + r.Word(4, false) + "}"; }, 50)
          .Holds({Shape("Area").List(1, 4).Key("ID", [](Rng& r) { return r.Word(2); }, 25).Inner().Answers(Lookup::kParamFirmwareBySku)
              .Holds({Shape("PARAMFirmware").Firmware(kFw)})})});
    case Kind::kDeviceConfig:
      return Shape("DeviceConfig").Holds({Shape("WwanDeviceConfigureIDTable").Copies(0.03, 0.03).Holds({
          Shape("CustProductNamePathToUniqueSkuID").Copies(0.04, 0).Flag("CombineMode", {"Single", "Combine", "single", "COMBINE", "Both", " Single", ""})
              .Holds({Shape("CustProductNamePath").List(0, 3).Is(Shape::kRegistry)}),
          Shape("UniqueSkuIDToWwanDeviceConfigureIDMappingTable").Copies(0.04, 0.04).Holds({Shape("UniqueSkuID").List(0, 4, {"UniqueSkuId"})
              .Key("ProductID", [](Rng& r) { return "Pad_" + r.Word(3); }).Answers(Lookup::kDeviceConfigId).With({{"WwanDeviceConfigID", "CFG-{L}"}}, true)})}, 0.2)});
    case Kind::kImageMapping:
      return Shape("ImageMapping").Holds({Shape("WwanDeviceConfigureIDToImageMappingTable").Copies(0.03, 0.03).Holds({Shape("WwanDeviceConfigID")
          .List(0, 4, {"WwanDeviceConfigId"}).Key("ID", [](Rng& r) { return "CFG-" + r.Word(2); }).Holds({Shape("Standard").List(0, 4)
              .Key("Value", Mcc, 25).Inner().Answers(Lookup::kCfgPkInfo).Holds({Shape("DEVFirmware").Firmware(kFw)})})})});
    case Kind::kEsim:
      return Shape("EsimTable").Holds({Shape("TableEnableFlag").Copies(0.04, 0.05).Flag("FlagValue", {"True", "true", "TRUE", "False", "false", "Yes", " True", ""}),
          Shape("SKU_BlackList").Copies(0.08, 0.05, 0.03).Holds({Shape("SKU").List(0, 4, {"Sku"})
              .Key("SKUValue", [](Rng& r) { return "X" + r.Digits(2) + "-" + r.Word(2); }).Answers(Lookup::kEsimBySku)}),
          Shape("IMSI_BlackList").Copies(0.08, 0.05, 0.03).Holds({Shape("MCCMNC").List(0, 4, {"MccMnc"}).Key("MCCMNCValue", MccMnc).Inner()
              .Answers(Lookup::kEsimByImsi)})}, 0.2);
    case Kind::kRegion:
      return Shape("RegionTable").Holds({Shape("SelectionRule").Copies(0.03, 0.05).Holds({Shape("Region").List(0, 5, {"region"})
          .Key("mcc", Mcc, 11, 18).Answers(Lookup::kRegulatoryByMcc).With({{"Regulatory", "R{L}"}}, true)})});
    case Kind::kScatter:
      return Shape("scatter").Holds({Shape("general").Copies(0.04, 0).Holds({Shape("platform").Text("X55")}),
          Shape("storage_type").Copies(0.04, 0.04).With({{"name", "EMMC"}}).Holds({Shape("partition_index").List(0, 5).With({{"n", "{L}"}, {"name", "SYS{L}"}})
              .Holds({Shape("partition_name").Text("part"), Shape("is_download").Copies(0.06, 0.05).With({{"n", "{L}"}}).Answers(Lookup::kUpdateScatter)
                  .Flag(nullptr, {"true", "false", "", " true", "TRUE", "yes", "md1"})})})}, 0.1);
  }
  return Shape("none");
}

// What the element around another holds: its line, the entry it belongs to,
// and that entry's key when it has one (as the lookup reads it).
struct Around {
  int line = 0, entry_line = 0;
  std::optional<std::string> key;
  bool keyed = false, proper = true;
};

struct Builder {
  Builder(Kind kind, std::mt19937& g, std::string registry) : r(g), registry_root(std::move(registry)) { t.kind = kind; }
  Rng r;
  std::string registry_root;
  Writer w;
  GeneratedTable t;
  std::vector<std::pair<const Shape*, Keys>> families;  // a Shape's keys, over all its copies

  Keys& Family(const Shape& s) {
    for (auto& [shape, keys] : families) {
      if (shape == &s) return keys;
    }
    return families.emplace_back(&s, Keys(s.fresh, s.repeats)).second;
  }

  void Families(const Shape& s) {
    if (s.key) Family(s);
    for (const Shape& k : s.kids) Families(k);
  }

  void Write(const Shape& s, const Around& up) {
    if (s.most >= 0) return ::dorvane::lint::testing::List(r, s.name, s.near, r.Int(s.least, s.most), [&](const std::string& n, bool proper) { One(s, n, proper, true, up); });
    int copies = r.Copies(s.none, s.two);
    if (copies == 0 && s.none > 0 && r.Chance(s.none < 0.3 ? 0.5 : 0.05)) One(s, Misnamed(r, s.name, {}), false, false, up);
    for (; copies > 0; --copies) {
      const bool misnamed = r.Chance(s.alt);
      One(s, misnamed ? Misnamed(r, s.name, {}) : s.name, !misnamed, !misnamed, up);
    }
  }

  // One element of `s`, written as `name`; `read`: the lookups read it (when
  // its parent is).
  void One(const Shape& s, const std::string& name, bool proper, bool read, const Around& up) {
    if (s.custom == Shape::kIccid) return IccidTable(name);
    static const std::vector<std::string> kCounts = {"1", "2", "03", "12", "0", "12x", "x", "4294967296", ""};
    Entry e;
    e.lookup = s.lookup.value_or(Lookup::kCarrierIdByMccmnc);
    e.proper = proper && up.proper;
    Around here{0, up.entry_line, std::nullopt, s.key != nullptr, e.proper};
    Attrs attrs;
    if (s.key) {
      std::optional<std::string> key = Family(s).Next(r);
      const int roll = r.Int(0, 99);
      if (roll < s.defaults) key = roll < s.defaults - 3 ? "default" : r.Chance(0.5) ? "Default" : "DEFAULT";
      const std::string written = AttributeName(r, s.key, 0.03);
      attrs.push_back({written, key});
      (written != s.key ? e.stray_key : s.inner && up.keyed ? e.key2 : e.key) = key;
      if (s.inner && up.keyed) e.key = up.key;
      if (written == s.key) here.key = key;
      e.fallback = s.defaults > 0 && e.key == "default";
    }
    bool marked = false;
    for (const auto& [a, v] : s.attrs) {
      if (s.sloppy && r.Chance(0.04)) continue;
      const std::string written = s.sloppy ? AttributeName(r, a) : a;
      marked = marked || (a != "Count" && written == a);
      attrs.push_back({written, a == "Count" ? kCounts[static_cast<size_t>(r.Int(0, r.Chance(0.8) ? 4 : 8))] : v});
    }
    if (s.holder && !marked) attrs.push_back(s.attrs.front());
    std::optional<std::string> text = s.answer ? AnswerText(r) : s.text;
    if (!s.flags.empty()) {
      e.key = s.flags[static_cast<size_t>(r.Int(0, r.Chance(0.8) ? 1 : static_cast<int>(s.flags.size()) - 1))];
      if (s.flag) attrs.push_back({s.flag, r.Chance(0.03) ? std::nullopt : e.key});
      else text = e.key;
    }
    RegistrySlot slot;
    if (s.custom == Shape::kRegistry) attrs.push_back({"RegistryPath", RegistryPath(slot)});
    here.line = s.kids.empty() ? w.Leaf(name, attrs, text) : w.Open(name, attrs);
    if (s.lookup) here.entry_line = here.line;
    std::vector<size_t> order;
    for (size_t i = 0; i < s.kids.size(); ++i) order.push_back(i);
    if (r.Chance(s.shuffle)) std::shuffle(order.begin(), order.end(), std::mt19937(static_cast<unsigned>(r.Int(0, 1 << 30))));
    for (size_t i : order) Write(s.kids[i], here);
    if (!s.kids.empty()) w.Close();
    e.line = here.line;
    if (s.lookup && read) t.entries.push_back(e);
    if (s.holder && read && up.entry_line > 0) t.holders.push_back({here.line, up.entry_line});
    if (s.custom == Shape::kRegistry && attrs.back().second && attrs.back().second->front() != ',') t.registry.push_back(slot);  // readable somewhere
  }

  // A RegistryPath naming one of the test's values, mostly as the lookup reads it.
  std::optional<std::string> RegistryPath(RegistrySlot& slot) {
    slot = {registry_root + "\\P" + std::to_string(r.Int(0, kRegistryKeys - 1)), "V" + std::to_string(r.Int(0, 5))};
    std::optional<std::string> path = slot.key_path + "," + slot.value_name;
    const int roll = r.Int(0, 99);
    if (roll < 5) path = "HKEY_LOCAL_MACHINE\\" + *path;
    else if (roll < 9) path = "HKLM\\" + *path;
    else if (roll < 13) path = slot.key_path + (r.Chance(0.5) ? "\\" : " ") + slot.value_name;
    else if (roll < 15) path = "," + slot.value_name;
    else if (roll < 17) path = slot.key_path + ",", slot.value_name = "";
    else if (roll < 20) path = r.Chance(0.5) ? " " + *path : slot.key_path + ", " + slot.value_name;
    else if (roll < 22) path = std::nullopt;
    return path;
  }

  // Bounds of an ICCID range: tails of one length, tails that saturate, min
  // above max, min equal to max, no shared prefix, lengths that differ,
  // non-digits, and bounds made from an earlier range's.
  std::pair<std::string, std::string> Bounds(const std::string& network, const std::vector<std::pair<std::string, std::string>>& earlier) {
    auto same_length = [&](int length, int tail) {
      const std::string prefix = network + r.Digits(std::max(0, length - static_cast<int>(network.size()) - tail));
      std::string a = r.Digits(tail), b = r.Digits(tail);
      if (a > b) std::swap(a, b);
      return std::make_pair(prefix + a, prefix + b);
    };
    const int shape = r.Int(0, 99);
    auto [a, b] = same_length(r.Int(shape < 45 && shape >= 30 ? 18 : 16, 20), shape < 30 ? r.Int(1, 8) : shape < 45 ? r.Int(8, 13) : r.Int(2, 7));
    if (shape >= 30 && shape < 38) b[b.size() - 8] = static_cast<char>('0' + r.Int(8, 9));  // saturates from 80000000 on
    if (shape < 45) return {std::min(a, b), std::max(a, b)};
    if (shape < 50) return a == b ? std::make_pair(a, b + "1") : std::make_pair(b, a);
    if (shape < 55) return {a.substr(0, a.size() - 5), a.substr(0, a.size() - 5)};
    if (shape < 60) return {a.substr(0, static_cast<size_t>(r.Int(1, 8))), b};
    if (shape < 66) return r.Chance(0.5) ? std::make_pair(a, b + r.Digits(1)) : std::make_pair(a + r.Digits(1), b);
    if (shape < 71) return {a.substr(0, a.size() - 4) + "00" + r.Digits(2), b.substr(0, b.size() - 4) + "0" + r.Digits(3)};
    if (shape < 74) return {a, b.substr(0, b.size() - 1) + (r.Chance(0.5) ? "A" : " ")};
    if (earlier.empty()) return {a, b};
    auto [x, y] = r.Pick(earlier);
    const size_t p = iccid::SharedPrefix(x, y);
    switch (r.Int(0, 5)) {
      case 0: return {x, y};
      case 1: return {x, y.size() > 2 ? y.substr(0, y.size() - 2) + "99" : y + "9"};
      case 2: return {x + "0", x + "9"};
      case 3: return {x.substr(0, p) + std::string(x.size() - p, '0'), y.substr(0, p) + std::string(y.size() - p, '9')};
      case 4: {  // a longer prefix
        const std::string longer = x.substr(0, p) + r.Digits(2);
        return {longer + "0", longer + "9"};
      }
      default: return {x.substr(0, std::min<size_t>(p, 3)) + "0" + a.substr(5), x.substr(0, std::min<size_t>(p, 3)) + "9" + b.substr(5)};
    }
  }

  // ICCIDs near a range's bounds: the bounds, their 18 to 20 digit forms,
  // tails with leading zeros.
  void Probes(const std::string& min, const std::string& max) {
    std::vector<std::string> near;
    for (const std::string& bound : {min, max}) {
      for (size_t length : {18u, 19u, 20u}) {
        if (bound.size() >= length) near.push_back(bound.substr(0, length));
        for (char fill : {'0', '9'}) near.push_back(bound + std::string(length > bound.size() ? length - bound.size() : 0, fill));
      }
    }
    const std::string prefix = min.substr(0, iccid::SharedPrefix(min, max));
    if (prefix.size() < 17) near.push_back(prefix + "00" + r.Digits(18 - static_cast<int>(prefix.size())));
    t.iccids.insert(t.iccids.end(), {min, max});
    for (int n = 0; n < 5; ++n) t.iccids.push_back(r.Pick(near));
  }
  void IccidTable(const std::string& name) {
    w.Open(name);
    std::vector<std::string> networks;
    for (int n = r.Int(1, 3); n > 0; --n) networks.push_back("89" + r.Digits(r.Int(2, 5)));
    std::vector<std::pair<std::string, std::string>> earlier;
    ::dorvane::lint::testing::List(r, "Range", {}, r.Int(0, 6), [&](const std::string& element, bool proper) {
      Entry e;
      e.lookup = Lookup::kCarrierIdByIccid, e.proper = proper;
      auto [min, max] = Bounds(r.Pick(networks), earlier);
      earlier.push_back({min, max});
      Probes(min, max);
      if (!r.Chance(0.04)) e.min = min;
      if (!r.Chance(0.04)) e.max = max;
      e.line = w.Leaf(element, {{"min", e.min}, {"max", e.max}}, AnswerText(r));
      t.entries.push_back(e);
    });
    for (int n = r.Int(1, 3); n > 0; --n) {
      const std::string network = r.Pick(networks);
      t.iccids.push_back(network + r.Digits(r.Int(16, 20) - static_cast<int>(network.size())));
    }
    w.Close();
  }
};

}  // namespace

GeneratedTable GenerateTable(Kind kind, std::mt19937& rng, const std::string& registry_root) {
  Builder b(kind, rng, registry_root);
  const Shape table = TableOf(kind);
  if (kind == Kind::kScatter) b.w.Line("<?xml version=\"1.0\" encoding=\"utf-8\"?>", 0);
  b.Families(table);
  b.One(table, table.name, true, true, {});
  // A key to ask for that the table does not hold from each list; the keys met of lists
  // without a lookup of their own, and of inner lists.
  for (auto& [shape, keys] : b.families) {
    std::vector<std::string>& to = shape->inner ? b.t.other_inner_keys : b.t.other_keys;
    to.push_back(keys.Fresh(b.r));
    if (shape->inner || !shape->lookup) to.insert(to.end(), keys.used.begin(), keys.used.end());
  }
  b.t.xml = b.w.xml();
  return b.t;
}

}  // namespace dorvane::lint::testing
