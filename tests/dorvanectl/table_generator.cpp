#include "tests/dorvanectl/table_generator.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <functional>
#include <set>
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
  std::string out;
  int line = 1;
  for (size_t from = 0; from < text.size();) {
    const size_t end = std::min(text.find('\n', from), text.size());
    char number[16];
    std::snprintf(number, sizeof number, "%4d| ", line++);
    out += number + text.substr(from, end - from) + "\n";
    from = end + 1;
  }
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
  explicit Keys(std::function<std::string(Rng&)> fresh) : fresh_(std::move(fresh)) {}
  std::optional<std::string> Next(Rng& r) {
    const int roll = r.Int(0, 99);
    std::optional<std::string> key = fresh_(r);
    if (roll < 5) key = std::nullopt;
    else if (roll < 9) key = "";
    else if (roll < 20 && !used.empty()) key = r.Pick(used);
    else if (roll < 27 && !used.empty()) key = CaseVariant(r, r.Pick(used));
    else if (roll < 33) key = BlankVariant(r, used.empty() || r.Chance(0.5) ? *key : r.Pick(used));
    if (key && !key->empty()) used.push_back(*key);
    return key;
  }
  std::string Fresh(Rng& r) { return fresh_(r); }
  std::vector<std::string> used;

 private:
  std::function<std::string(Rng&)> fresh_;
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

// A firmware element: the attributes a lookup copies out, all but Count
// marked with the element's line; some left out or misspelt, but one marked
// always there, so that an answer from it always tells its line.
int Firmware(Writer& w, Rng& r, const std::string& name, const std::vector<std::string>& names,
             const std::function<void()>& children = nullptr) {
  static const std::vector<std::string> kCounts = {"1", "2", "03", "12", "0", "12x", "x", "4294967296", ""};
  Attrs attrs;
  bool marked = false;
  for (const std::string& a : names) {
    if (r.Chance(0.05)) continue;  // left out
    const std::string written = AttributeName(r, a);
    marked = marked || (a != "Count" && written == a);
    attrs.push_back({written, a == "Count" ? kCounts[static_cast<size_t>(r.Int(0, r.Chance(0.8) ? 4 : 8))]
                              : a == "Type" ? "T{L}" : a == "File" || a == "file" ? "fw_{L}.bin" : "{L}"});
  }
  if (!marked) attrs.push_back({names.front(), "fw_{L}.bin"});
  if (!children) return w.Leaf(name, attrs);
  const int line = w.Open(name, attrs);
  children();
  w.Close();
  return line;
}

std::string Mcc(Rng& r) { return std::to_string(r.Int(200, 799)); }
std::string MccMnc(Rng& r) { return Mcc(r) + r.Digits(r.Int(2, 3)); }
std::string CarrierName(Rng& r) { return r.Word(r.Int(3, 4)); }
std::string Guid(Rng& r) { return "{" + r.Word(8, r.Chance(0.2)) + "-" + r.Word(4, false) + "}"; }

struct Builder {
  Builder(Kind kind, std::mt19937& g, std::string registry) : r(g), registry_root(std::move(registry)) { t.kind = kind; }
  Rng r;
  std::string registry_root;
  Writer w;
  GeneratedTable t;

  void OtherKeys(Keys& keys, int n) {
    for (int i = 0; i < n; ++i) t.other_keys.push_back(keys.Fresh(r));
  }
  // A keyed attribute: written under its own name (the lookup's key) or,
  // rarely, under a wrong one.
  void Key(Attrs& attrs, Entry& e, const std::string& name, const std::optional<std::string>& key,
           std::optional<std::string> Entry::*slot = &Entry::key) {
    const std::string written = AttributeName(r, name, 0.03);
    attrs.push_back({written, key});
    (written == name ? e.*slot : e.stray_key) = key;
  }
  // A list of entries that each hold one keyed element: `body` writes it.
  void Entries(const std::string& entry, const std::vector<std::string>& near, int count, Lookup lookup,
               const std::function<int(Entry&, const std::string&)>& body) {
    List(r, entry, near, count, [&](const std::string& name, bool proper) {
      Entry e;
      e.lookup = lookup;
      e.proper = proper;
      e.line = body(e, name);
      t.entries.push_back(e);
    });
  }
  // An Item list (MCCMNCTable, MCCTable, SelectionRule): the text answers.
  void Items(const std::string& list_name, const char* key_name, Lookup lookup, Keys& keys) {
    w.Open(list_name);
    Entries("Item", {}, r.Int(0, 5), lookup, [&](Entry& e, const std::string& name) {
      Attrs attrs;
      Key(attrs, e, key_name, keys.Next(r));
      return w.Leaf(name, attrs, AnswerText(r));
    });
    w.Close();
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
    Entries("Range", {}, r.Int(0, 6), Lookup::kCarrierIdByIccid, [&](Entry& e, const std::string& element) {
      auto [min, max] = Bounds(r.Pick(networks), earlier);
      earlier.push_back({min, max});
      Probes(min, max);
      if (!r.Chance(0.04)) e.min = min;
      if (!r.Chance(0.04)) e.max = max;
      return w.Leaf(element, {{"min", e.min}, {"max", e.max}}, AnswerText(r));
    });
    for (int n = r.Int(1, 3); n > 0; --n) {
      const std::string network = r.Pick(networks);
      t.iccids.push_back(network + r.Digits(r.Int(16, 20) - static_cast<int>(network.size())));
    }
    w.Close();
  }

  void SelectionRule(Keys& mccmncs, Keys& mccs) {
    w.Open("SelectionRule");
    const bool only_mccmnc = r.Chance(0.05);
    std::vector<int> order = {0, 1, 2};
    if (r.Chance(0.15)) std::shuffle(order.begin(), order.end(), std::mt19937(static_cast<unsigned>(r.Int(0, 1 << 30))));
    for (int part : order) {
      for (int i = only_mccmnc && part != 0 ? 0 : r.Copies(0.07, 0.05); i > 0; --i) {
        if (part == 0) Items(r.Chance(0.05) ? "MccMncTable" : "MCCMNCTable", "mccmnc", Lookup::kCarrierIdByMccmnc, mccmncs);
        if (part == 1) Items(r.Chance(0.03) ? "MccTable" : "MCCTable", "mcc", Lookup::kCarrierIdByMcc, mccs);
        if (part == 2) IccidTable(r.Chance(0.03) ? "IccidTable" : "ICCIDTable");
      }
    }
    w.Close();
  }

  void CarrierRules() {
    Keys mccmncs(MccMnc), mccs(Mcc), registered(Mcc), rule_items(Mcc);
    w.Open(r.Chance(0.5) ? "Rules" : "CarrierRules");
    const bool root_rule = r.Chance(0.6), root_rule_first = r.Chance(0.2);
    if (root_rule && root_rule_first) Items("SelectionRule", "mcc", Lookup::kSelectionRuleByMcc, rule_items);
    for (int copies = r.Copies(0.04, 0.04); copies > 0; --copies) {
      w.Open("SwitchingRule");
      // Mostly before the Registered entries; sometimes after the first of
      // them (where their walk takes it as an entry), sometimes missing.
      const int placement = r.Int(0, 99);
      bool pending = placement >= 4 && placement < 14;
      if (placement >= 14) SelectionRule(mccmncs, mccs);
      Entries("Registered", {}, r.Int(0, 4), Lookup::kParamFirmwareByMcc, [&](Entry& e, const std::string& name) {
        Attrs attrs;
        Key(attrs, e, "mcc", registered.Next(r));
        e.line = w.Open(name, attrs);
        for (int i = r.Copies(0.05, 0.05); i > 0; --i) t.holders.push_back({Firmware(w, r, "PARAMFirmware", {"File", "Ver", "Type", "Count"}), e.line});
        w.Close();
        if (pending) SelectionRule(mccmncs, mccs);
        pending = false;
        return e.line;
      });
      if (pending || r.Chance(0.05)) SelectionRule(mccmncs, mccs);  // a late one, or a second one
      w.Close();
    }
    if (root_rule && !root_rule_first) Items("SelectionRule", "mcc", Lookup::kSelectionRuleByMcc, rule_items);
    w.Close();
    OtherKeys(mccmncs, 2);
    OtherKeys(mccs, 2);
  }

  void SelectionRules() {
    Keys mccs(Mcc);
    w.Open("Rules");
    for (int i = r.Copies(0.04, 0.06); i > 0; --i) Items("SelectionRule", "mcc", Lookup::kSelectionRuleByMcc, mccs);
    w.Close();
    OtherKeys(mccs, 2);
  }

  // A CarrierList's entries, each with its firmware elements `slots` (each
  // with the attributes `names`; `body` writes more); "default" ids now and then.
  void CarrierList(const std::string& entry_name, Lookup lookup, Keys& keys, const std::vector<std::string>& slots,
                   const std::vector<std::string>& names, bool defaults = false, const std::function<void(int)>& body = nullptr) {
    const int copies = r.Copies(0.04, 0.04);
    if (copies == 0 && r.Chance(0.3)) {
      w.Open("Carrierlist");
      w.Leaf(entry_name, {{"id", keys.Fresh(r)}});
      w.Close();
    }
    for (int i = 0; i < copies; ++i) {
      w.Open("CarrierList");
      Entries(entry_name, {}, r.Int(0, 5), lookup, [&](Entry& e, const std::string& name) {
        std::optional<std::string> key = keys.Next(r);
        const int roll = defaults ? r.Int(0, 99) : 100;
        if (roll < 17) key = roll < 14 ? "default" : r.Chance(0.5) ? "Default" : "DEFAULT";
        Attrs attrs;
        Key(attrs, e, "id", key);
        e.fallback = defaults && e.key == "default";
        if (lookup == Lookup::kFwPackageInfo) attrs.push_back({AttributeName(r, "ver"), "{L}"});
        e.line = w.Open(name, attrs);
        for (const std::string& slot : slots) {
          for (int n = r.Chance(0.05) ? 0 : r.Chance(0.03) ? 2 : 1; n > 0; --n) t.holders.push_back({Firmware(w, r, slot, names), e.line});
        }
        if (body) body(e.line);
        w.Close();
        return e.line;
      });
      w.Close();
    }
  }

  void FwPackageInfo() {
    Keys ids(CarrierName);
    w.Open("FwPackage");
    for (const char* name : {"PackageVer", "PackageType"}) {
      for (int i = r.Copies(0.04, 0.05); i > 0; --i) {
        Entry e;
        e.lookup = Lookup::kFwPackageInfo;
        e.line = w.Leaf(name, {}, AnswerText(r));
        t.entries.push_back(e);
      }
    }
    CarrierList("Carrier", Lookup::kFwPackageInfo, ids, {"FWImage", "CustPack"}, {"file", "ver"});
    w.Close();
  }

  void SkuGuid(const std::string& name, const std::optional<std::string>& id, Keys& areas, bool areas_from_first) {
    w.Open(name, {{"ID", id}});
    Entries("Area", {}, r.Chance(0.04) ? 0 : r.Int(1, 4), Lookup::kParamFirmwareBySku, [&](Entry& e, const std::string& element) {
      e.key = id;
      Attrs attrs;
      Key(attrs, e, "ID", areas_from_first && !areas.used.empty() && r.Chance(0.5) ? r.Pick(areas.used) : areas.Next(r), &Entry::key2);
      e.line = w.Open(element, attrs);
      for (int i = r.Copies(0.05, 0.05); i > 0; --i) t.holders.push_back({Firmware(w, r, "PARAMFirmware", {"File", "Ver", "Type", "Count"}), e.line});
      w.Close();
      return e.line;
    });
    w.Close();
  }

  void Sku() {
    w.Open("Skus");
    const std::string first = r.Chance(0.05) ? BlankVariant(r, Guid(r)) : Guid(r);
    Keys first_areas([](Rng& rr) { return rr.Word(2); });
    if (r.Chance(0.08)) {
      Keys areas([](Rng& rr) { return rr.Word(2); });
      SkuGuid(r.Chance(0.5) ? "Sku" : "SKU_Guid", r.Chance(0.6) ? first : Guid(r), areas, false);
    }
    if (!r.Chance(0.03)) SkuGuid("SKU_GUID", r.Chance(0.04) ? std::nullopt : std::optional<std::string>(first), first_areas, false);
    for (int later = r.Chance(0.35) ? r.Int(1, 2) : 0; later > 0; --later) {
      const int roll = r.Int(0, 99);
      Keys areas = first_areas;
      const std::optional<std::string> id = roll < 40 ? first : roll < 55 ? CaseVariant(r, first) : roll < 60 ? std::nullopt
                                            : roll < 70 ? first : std::optional<std::string>(Guid(r));
      SkuGuid(roll >= 60 && roll < 70 ? (r.Chance(0.5) ? "sku_guid" : "r:SKU_GUID") : "SKU_GUID", id, areas, true);
    }
    w.Close();
  }

  void DeviceConfig() {
    Keys products([](Rng& rr) { return "Pad_" + rr.Word(3); });
    w.Open("DeviceConfig");
    const int copies = r.Copies(0.03, 0.03);
    for (int i = copies == 0 && r.Chance(0.5) ? -1 : 0; i < copies; ++i) {
      w.Open(i < 0 ? "WwanDeviceConfigureIdTable" : "WwanDeviceConfigureIDTable");
      // The two sub-tables, in either order; now and then one of them or
      // both missing, or the mapping table twice.
      const bool neither = r.Chance(0.03), paths = !neither && !r.Chance(0.04), mapping_first = r.Chance(0.2);
      const int mappings = neither ? 0 : r.Copies(0.04, 0.04);
      if (mapping_first && mappings > 0) Mapping(products);
      if (paths) Paths();
      for (int m = mapping_first ? 1 : 0; m < mappings; ++m) Mapping(products);
      w.Close();
    }
    w.Close();
    OtherKeys(products, 2);
  }

  void Paths() {
    static const std::vector<std::string> kModes = {"Single", "Combine", "single", "COMBINE", "Both", " Single", ""};
    std::optional<std::string> mode = kModes[static_cast<size_t>(r.Int(0, r.Chance(0.8) ? 1 : 6))];
    w.Open("CustProductNamePathToUniqueSkuID", {{"CombineMode", r.Chance(0.03) ? std::nullopt : mode}});
    List(r, "CustProductNamePath", {}, r.Int(0, 3), [&](const std::string& name, bool) {
      RegistrySlot slot{0, registry_root + "\\P" + std::to_string(r.Int(0, kRegistryKeys - 1)), "V" + std::to_string(r.Int(0, 5))};
      std::optional<std::string> path = slot.key_path + "," + slot.value_name;
      const int roll = r.Int(0, 99);
      if (roll < 5) path = "HKEY_LOCAL_MACHINE\\" + *path;
      else if (roll < 9) path = "HKLM\\" + *path;
      else if (roll < 13) path = slot.key_path + (r.Chance(0.5) ? "\\" : " ") + slot.value_name;
      else if (roll < 15) path = "," + slot.value_name;
      else if (roll < 17) path = slot.key_path + ",", slot.value_name = "";
      else if (roll < 20) path = r.Chance(0.5) ? " " + *path : slot.key_path + ", " + slot.value_name;
      else if (roll < 22) path = std::nullopt;
      slot.line = w.Leaf(name, {{"RegistryPath", path}});
      if (path && path->front() != ',') t.registry.push_back(slot);  // readable somewhere
    });
    w.Close();
  }

  void Mapping(Keys& products) {
    w.Open("UniqueSkuIDToWwanDeviceConfigureIDMappingTable");
    Entries("UniqueSkuID", {"UniqueSkuId"}, r.Int(0, 5), Lookup::kDeviceConfigId, [&](Entry& e, const std::string& name) {
      Attrs attrs;
      Key(attrs, e, "ProductID", products.Next(r));
      attrs.push_back({AttributeName(r, "WwanDeviceConfigID"), r.Chance(0.03) ? std::nullopt : std::optional<std::string>("CFG-{L}")});
      return w.Leaf(name, attrs);
    });
    w.Close();
  }

  void ImageMapping() {
    Keys configs([](Rng& rr) { return "CFG-" + rr.Word(2); }), mccs(Mcc);
    w.Open("ImageMapping");
    for (int i = r.Copies(0.03, 0.03); i > 0; --i) {
      w.Open("WwanDeviceConfigureIDToImageMappingTable");
      List(r, "WwanDeviceConfigID", {"WwanDeviceConfigId"}, r.Int(0, 4), [&](const std::string& name, bool) {
        std::optional<std::string> id = configs.Next(r);
        const std::string written = AttributeName(r, "ID", 0.03);
        w.Open(name, {{written, id}});
        if (written != "ID") id = std::nullopt;
        Keys values(Mcc);  // the MCCs of the configurations before come back now and then
        for (const std::string& m : mccs.used) {
          if (r.Chance(0.3)) values.used.push_back(m);
        }
        Entries("Standard", {}, r.Int(0, 4), Lookup::kCfgPkInfo, [&](Entry& e, const std::string& element) {
          e.key = id;
          Attrs attrs;
          Key(attrs, e, "Value", values.Next(r), &Entry::key2);
          e.line = w.Open(element, attrs);
          for (int f = r.Copies(0.06, 0.04); f > 0; --f) t.holders.push_back({Firmware(w, r, "DEVFirmware", {"File", "Ver", "Type", "Count"}), e.line});
          w.Close();
          if (e.key2 && !e.key2->empty()) mccs.used.push_back(*e.key2);
          return e.line;
        });
        w.Close();
      });
      w.Close();
    }
    w.Close();
    t.other_keys = configs.used;
    t.other_keys.push_back(configs.Fresh(r));
    t.other_inner_keys = mccs.used;
    t.other_inner_keys.push_back(mccs.Fresh(r));
  }

  void Esim() {
    static const std::vector<std::string> kFlags = {"True", "true", "TRUE", "False", "false", "Yes", " True", ""};
    Keys skus([](Rng& rr) { return "X" + rr.Digits(2) + "-" + rr.Word(2); }), networks(MccMnc);
    w.Open("EsimTable");
    std::vector<int> order = {0, 1, 2};
    if (r.Chance(0.2)) std::shuffle(order.begin(), order.end(), std::mt19937(static_cast<unsigned>(r.Int(0, 1 << 30))));
    for (int part : order) {
      for (int i = r.Chance(part == 0 ? 0.04 : 0.08) ? 0 : r.Chance(0.05) ? 2 : 1; i > 0; --i) {
        if (part == 0) {
          w.Leaf("TableEnableFlag", {{"FlagValue", r.Chance(0.03) ? std::nullopt : std::optional<std::string>(r.Chance(0.75) ? "True" : r.Pick(kFlags))}});
          continue;
        }
        const bool sku = part == 1;
        w.Open(r.Chance(0.03) ? (sku ? "SKU_Blacklist" : "IMSI_Blacklist") : (sku ? "SKU_BlackList" : "IMSI_BlackList"));
        Entries(sku ? "SKU" : "MCCMNC", {sku ? "Sku" : "MccMnc"}, r.Int(0, 4), sku ? Lookup::kEsimBySku : Lookup::kEsimByImsi,
                [&](Entry& e, const std::string& name) {
                  Attrs attrs;
                  Key(attrs, e, sku ? "SKUValue" : "MCCMNCValue", (sku ? skus : networks).Next(r));
                  return w.Leaf(name, attrs);
                });
        w.Close();
      }
    }
    w.Close();
    t.other_keys.push_back(skus.Fresh(r));
    t.other_inner_keys.push_back(networks.Fresh(r));
  }

  void Region() {
    Keys mccs(Mcc);
    w.Open("RegionTable");
    const int copies = r.Copies(0.03, 0.05);
    for (int i = copies == 0 && r.Chance(0.5) ? -1 : 0; i < copies; ++i) {
      w.Open(i < 0 ? "Selectionrule" : "SelectionRule");
      Entries("Region", {"region"}, r.Int(0, 5), Lookup::kRegulatoryByMcc, [&](Entry& e, const std::string& name) {
        std::optional<std::string> key = mccs.Next(r);
        const int roll = r.Int(0, 99);
        if (roll < 18) key = roll < 15 ? "default" : r.Chance(0.5) ? "Default" : "DEFAULT";
        Attrs attrs;
        Key(attrs, e, "mcc", key);
        e.fallback = e.key == "default";
        attrs.push_back({AttributeName(r, "Regulatory"), r.Chance(0.03) ? std::nullopt : std::optional<std::string>("R{L}")});
        return w.Leaf(name, attrs);
      });
      w.Close();
    }
    w.Close();
    OtherKeys(mccs, 3);
  }

  void Scatter() {
    static const std::vector<std::string> kTexts = {"true", "false", "", " true", "TRUE", "yes", "md1"};
    w.Line("<?xml version=\"1.0\" encoding=\"utf-8\"?>", 0);
    w.Open("scatter");
    const bool general = !r.Chance(0.04), general_last = r.Chance(0.1);
    auto write_general = [&] {
      w.Open(r.Chance(0.02) ? "General" : "general");
      w.Leaf("platform", {}, std::string("X55"));
      w.Close();
    };
    if (general && !general_last) write_general();
    for (int i = r.Copies(0.04, 0.04); i > 0; --i) {
      w.Open("storage_type", {{"name", "EMMC"}});
      int index = 0;
      List(r, "partition_index", {}, r.Int(0, 5), [&](const std::string& name, bool proper) {
        w.Open(name, {{"n", "{L}"}, {"name", "SYS" + std::to_string(index++)}});
        w.Leaf("partition_name", {}, "part" + std::to_string(index));
        for (int f = r.Copies(0.06, 0.05); f > 0; --f) {
          Entry e;
          e.lookup = Lookup::kUpdateScatter;
          e.proper = proper;
          e.key = kTexts[static_cast<size_t>(r.Int(0, r.Chance(0.8) ? 1 : 6))];
          e.line = w.Leaf("is_download", {{"n", "{L}"}}, e.key);
          t.entries.push_back(e);
        }
        w.Close();
      });
      w.Close();
    }
    if (general && general_last) write_general();
    w.Close();
  }
};

}  // namespace

GeneratedTable GenerateTable(Kind kind, std::mt19937& rng, const std::string& registry_root) {
  Builder b(kind, rng, registry_root);
  Keys ids(CarrierName), packages([](Rng& r) { return r.Chance(0.5) ? Mcc(r) : CarrierName(r); });
  switch (kind) {
    case Kind::kCarrierRules: b.CarrierRules(); break;
    case Kind::kSelectionRules: b.SelectionRules(); break;
    case Kind::kCarrierFirmware:
      b.w.Open("Firmware");
      b.CarrierList("Carrier", Lookup::kCarrierFirmware, ids, {"APFirmware", "MDFirmware", "OPFirmware"}, {"File", "Ver", "Type", "Count"});
      break;
    case Kind::kCustomerModel:
      b.w.Open("Models");
      b.CarrierList("CustModel", Lookup::kOemFirmwareByModel, ids, {}, {}, false, [&](int entry) {
        for (int i = b.r.Copies(0.05, 0.05); i > 0; --i) {
          const bool inside = b.r.Chance(0.5);  // a Switch_table inside OEMFirmware, or none
          b.t.holders.push_back({Firmware(b.w, b.r, "OEMFirmware", {"File", "Ver", "Type", "Count"}, !inside ? nullptr : std::function<void()>([&] {
            b.t.holders.push_back({b.w.Leaf("Switch_table", {{AttributeName(b.r, "File"), "sw_{L}.xml"}}), entry});
          })), entry});
        }
        if (b.r.Chance(0.06)) b.t.holders.push_back({b.w.Leaf("Switch_table", {{"File", "sw_{L}.xml"}}), entry});
      });
      break;
    case Kind::kPackageInfo:
      b.w.Open("PackageInfo");
      b.CarrierList("Carrier", Lookup::kPackageInfoFirmware, packages, {"Firmware", "CustPack"}, {"File", "Ver"}, true);
      break;
    case Kind::kFwPackageInfo: b.FwPackageInfo(); break;
    case Kind::kSku: b.Sku(); break;
    case Kind::kDeviceConfig: b.DeviceConfig(); break;
    case Kind::kImageMapping: b.ImageMapping(); break;
    case Kind::kEsim: b.Esim(); break;
    case Kind::kRegion: b.Region(); break;
    case Kind::kScatter: b.Scatter(); break;
  }
  if (kind == Kind::kCarrierFirmware || kind == Kind::kCustomerModel || kind == Kind::kPackageInfo) {
    b.w.Close();
    b.OtherKeys(kind == Kind::kPackageInfo ? packages : ids, kind == Kind::kPackageInfo ? 3 : 2);
  }
  b.t.xml = b.w.xml();
  return b.t;
}

}  // namespace dorvane::lint::testing
