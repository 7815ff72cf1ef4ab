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
  switch (lookup) {
    case Lookup::kCarrierIdByMccmnc: return "carrier-id-by-mccmnc";
    case Lookup::kCarrierIdByMcc: return "carrier-id-by-mcc";
    case Lookup::kCarrierIdByIccid: return "carrier-id-by-iccid";
    case Lookup::kSelectionRuleByMcc: return "selection-rule-by-mcc";
    case Lookup::kParamFirmwareByMcc: return "param-firmware-by-mcc";
    case Lookup::kCarrierFirmware: return "carrier-firmware";
    case Lookup::kOemFirmwareByModel: return "oem-firmware-by-model";
    case Lookup::kPackageInfoFirmware: return "package-info-firmware";
    case Lookup::kFwPackageInfo: return "fw-package-info";
    case Lookup::kParamFirmwareBySku: return "param-firmware-by-sku";
    case Lookup::kDeviceConfigId: return "device-config-id";
    case Lookup::kCfgPkInfo: return "cfg-pk-info";
    case Lookup::kEsimBySku:
    case Lookup::kEsimByImsi: return "esim-disable-type";
    case Lookup::kRegulatoryByMcc: return "regulatory-by-mcc";
    case Lookup::kUpdateScatter: return "update-scatter";
  }
  return "?";
}

std::vector<int> AnswerLines(const std::string& text) {
  std::vector<int> lines;
  for (size_t i = 0; i + 1 < text.size(); ++i) {
    if (text[i] != 'L' || !std::isdigit(static_cast<unsigned char>(text[i + 1]))) continue;
    int line = 0;
    size_t j = i + 1;
    for (; j < text.size() && std::isdigit(static_cast<unsigned char>(text[j])); ++j) {
      line = line * 10 + (text[j] - '0');
    }
    lines.push_back(line);
    i = j - 1;
  }
  return lines;
}

std::string Numbered(const std::string& text) {
  std::string out;
  int line = 1;
  size_t from = 0;
  while (from < text.size()) {
    size_t end = text.find('\n', from);
    if (end == std::string::npos) end = text.size();
    char number[16];
    std::snprintf(number, sizeof number, "%4d| ", line++);
    out += number + text.substr(from, end - from) + "\n";
    from = end + 1;
  }
  return out;
}

namespace {

class Rng {
 public:
  explicit Rng(std::mt19937& g) : g_(g) {}
  int Int(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(g_); }
  bool Chance(double p) { return std::uniform_real_distribution<double>(0.0, 1.0)(g_) < p; }
  // How many copies of an element to write: none now and then, two now and
  // then, else one.
  int Copies(double none, double two) { return Chance(none) ? 0 : Chance(two) ? 2 : 1; }
  template <class T>
  const T& Pick(const std::vector<T>& v) {
    return v[static_cast<size_t>(Int(0, static_cast<int>(v.size()) - 1))];
  }
  std::string Digits(int n) {
    std::string s;
    for (int i = 0; i < n; ++i) s += static_cast<char>('0' + Int(0, 9));
    return s;
  }
  // Letters and digits; never an L, so that keys cannot look like answers.
  std::string Word(int n, bool mixed_case) {
    static const char kUpper[] = "ABCDEFGHJKMNPRSTUVWXYZ";
    std::string s;
    for (int i = 0; i < n; ++i) {
      if (Chance(0.25)) {
        s += static_cast<char>('0' + Int(0, 9));
        continue;
      }
      char c = kUpper[Int(0, static_cast<int>(sizeof kUpper) - 2)];
      if (mixed_case && Chance(0.4)) c = static_cast<char>(c - 'A' + 'a');
      s += c;
    }
    return s;
  }
  std::string Hex(int n) {
    static const char kHex[] = "0123456789ABCDEF";
    std::string s;
    for (int i = 0; i < n; ++i) s += kHex[Int(0, 15)];
    return s;
  }

 private:
  std::mt19937& g_;
};

bool HasLetter(const std::string& s) {
  for (char c : s) {
    if (std::isalpha(static_cast<unsigned char>(c))) return true;
  }
  return false;
}

std::string CaseVariant(Rng& r, const std::string& key) {
  if (!HasLetter(key)) return key;
  for (;;) {
    std::string v = key;
    for (char& c : v) {
      if (std::isalpha(static_cast<unsigned char>(c)) && r.Chance(0.5)) {
        c = std::isupper(static_cast<unsigned char>(c)) ? static_cast<char>(std::tolower(c))
                                                         : static_cast<char>(std::toupper(c));
      }
    }
    if (v != key) return v;
  }
}

// The key with a blank at one end or both: mostly a space, now and then a tab.
std::string BlankVariant(Rng& r, const std::string& key) {
  const std::string blank = r.Chance(0.8) ? " " : "\t";
  switch (r.Int(0, 2)) {
    case 0: return blank + key;
    case 1: return key + blank;
    default: return blank + key + blank;
  }
}

// An attribute; no value leaves it out.
using Attrs = std::vector<std::pair<std::string, std::optional<std::string>>>;

std::string Escape(const std::string& s) {
  std::string out;
  for (char c : s) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      case '\t': out += "&#9;"; break;  // a tab written as it is would read as a space in an attribute
      default: out += c;
    }
  }
  return out;
}

// Writes one element per line; "{L}" in a value or text becomes "L<line>".
class Writer {
 public:
  int Open(const std::string& name, const Attrs& attrs = {}) {
    const int at = line_;
    xml_ += Indent() + "<" + name + Attributes(attrs, at) + ">\n";
    ++line_;
    open_.push_back(name);
    return at;
  }
  int Leaf(const std::string& name, const Attrs& attrs = {}, const std::optional<std::string>& text = {}) {
    const int at = line_;
    xml_ += Indent() + "<" + name + Attributes(attrs, at);
    xml_ += text ? ">" + Escape(Fill(*text, at)) + "</" + name + ">\n" : "/>\n";
    ++line_;
    return at;
  }
  void Close() {
    const std::string name = open_.back();
    open_.pop_back();
    xml_ += Indent() + "</" + name + ">\n";
    ++line_;
  }
  void Raw(const std::string& text) {
    xml_ += text + "\n";
    ++line_;
  }
  const std::string& xml() const { return xml_; }

 private:
  static std::string Fill(std::string text, int line) {
    const std::string mark = "L" + std::to_string(line);
    for (size_t at = text.find("{L}"); at != std::string::npos; at = text.find("{L}", at)) {
      text.replace(at, 3, mark);
    }
    return text;
  }
  std::string Attributes(const Attrs& attrs, int line) const {
    std::string out;
    for (const auto& [name, value] : attrs) {
      if (value) out += " " + name + "=\"" + Escape(Fill(*value, line)) + "\"";
    }
    return out;
  }
  std::string Indent() const { return std::string(2 * open_.size(), ' '); }

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
    if (roll < 5) {
      key = std::nullopt;
    } else if (roll < 9) {
      key = "";
    } else if (roll < 20 && !used_.empty()) {
      key = r.Pick(used_);
    } else if (roll < 27 && !used_.empty()) {
      const std::string& earlier = r.Pick(used_);
      if (HasLetter(earlier)) key = CaseVariant(r, earlier);
    } else if (roll < 33) {
      key = BlankVariant(r, used_.empty() || r.Chance(0.5) ? *key : r.Pick(used_));
    }
    if (key && !key->empty()) used_.push_back(*key);
    return key;
  }
  std::string Fresh(Rng& r) { return fresh_(r); }
  void Use(const std::string& key) { used_.push_back(key); }
  const std::vector<std::string>& used() const { return used_; }

 private:
  std::function<std::string(Rng&)> fresh_;
  std::vector<std::string> used_;
};

// A name that a maintainer could have meant for `proper`: in another case,
// with a namespace prefix, with an underscore more or less, or one of `near`.
std::string Misnamed(Rng& r, const std::string& proper, const std::vector<std::string>& near) {
  if (!near.empty() && r.Chance(0.4)) return r.Pick(near);
  std::string s = proper;
  switch (r.Int(0, 3)) {
    case 0:
      s[0] = std::islower(static_cast<unsigned char>(s[0])) ? static_cast<char>(std::toupper(s[0]))
                                                             : static_cast<char>(std::tolower(s[0]));
      return s;
    case 1:
      return "r:" + proper;
    case 2:
      for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
      if (s == proper) {
        for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      }
      return s;
    default:
      if (const size_t underscore = s.find('_'); underscore != std::string::npos) return s.erase(underscore, 1);
      for (size_t i = 1; i < s.size(); ++i) {
        if (std::isupper(static_cast<unsigned char>(s[i])) && std::islower(static_cast<unsigned char>(s[i - 1]))) {
          return s.insert(i, "_");
        }
      }
      return "r:" + proper;
  }
}

// Writes a list's elements through `write(name, proper)`: sometimes misnamed
// elements before the first proper entry, `count` proper entries with
// misnamed ones among them, and sometimes misnamed elements alone.
void List(Rng& r, const std::string& entry, const std::vector<std::string>& near, int count,
          const std::function<void(const std::string&, bool)>& write) {
  if (r.Chance(0.12)) {
    for (int n = r.Int(1, 2); n > 0; --n) write(Misnamed(r, entry, near), false);
  }
  if (r.Chance(0.04)) {
    for (int n = r.Int(1, 2); n > 0; --n) write(Misnamed(r, entry, near), false);
    return;
  }
  for (int i = 0; i < count; ++i) {
    write(entry, true);
    if (r.Chance(0.1)) write(Misnamed(r, entry, near), false);
  }
}

// The answer text of an Item or a Range: its mark, sometimes with blanks, or none.
std::optional<std::string> AnswerText(Rng& r) {
  const int roll = r.Int(0, 99);
  if (roll < 4) return std::nullopt;
  if (roll < 6) return std::string();
  if (roll < 10) return " {L}";
  if (roll < 13) return "{L} ";
  return "{L}";
}

std::string CountText(Rng& r) {
  static const std::vector<std::string> kCounts = {"1", "2", "03", "12", "0", "12x", "x", "4294967296", ""};
  return r.Chance(0.8) ? kCounts[static_cast<size_t>(r.Int(0, 4))] : r.Pick(kCounts);
}

// The name under which an attribute is written: mostly its own, sometimes in
// another case.
std::string AttributeName(Rng& r, const std::string& name, double wrong = 0.02) {
  if (!r.Chance(wrong)) return name;
  std::string other = name;
  for (char& c : other) {
    c = std::isupper(static_cast<unsigned char>(c)) ? static_cast<char>(std::tolower(c))
                                                    : static_cast<char>(std::toupper(c));
  }
  return other;
}

// A firmware element: the attributes a lookup copies out, all but Count
// marked with the element's line; at most two of the marked ones left out or
// misspelt, so that an answer from it always tells its line.
int Firmware(Writer& w, Rng& r, const std::string& name, const std::vector<std::string>& names,
             const std::function<void(Writer&)>& children = nullptr) {
  Attrs attrs;
  bool marked = false;
  for (const std::string& a : names) {
    std::string value = a == "Count" ? CountText(r) : a == "File" || a == "file" ? "fw_{L}.bin" : "{L}";
    if (a == "Type") value = "T{L}";
    if (r.Chance(0.05)) continue;  // left out
    const std::string written = AttributeName(r, a);
    marked = marked || (a != "Count" && written == a);
    attrs.push_back({written, value});
  }
  if (!marked) attrs.push_back({names.front(), "fw_{L}.bin"});
  if (!children) return w.Leaf(name, attrs);
  const int line = w.Open(name, attrs);
  children(w);
  w.Close();
  return line;
}

std::string Mcc(Rng& r) { return std::to_string(r.Int(200, 799)); }
std::string MccMnc(Rng& r) { return Mcc(r) + r.Digits(r.Int(2, 3)); }
std::string CarrierName(Rng& r) { return r.Word(r.Int(3, 4), true); }
std::string Guid(Rng& r) {
  std::string g = "{" + r.Hex(8) + "-" + r.Hex(4) + "}";
  if (r.Chance(0.2)) {
    for (char& c : g) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  return g;
}
std::string AreaName(Rng& r) { return r.Word(2, true); }
std::string ProductName(Rng& r) { return "Pad_" + r.Word(3, true); }
std::string ConfigName(Rng& r) { return "CFG-" + r.Word(2, true); }
std::string SkuValue(Rng& r) { return "X" + r.Digits(2) + "-" + r.Word(2, true); }

struct Builder {
  Builder(Kind kind, std::mt19937& g, std::string registry) : r(g), registry_root(std::move(registry)) {
    t.kind = kind;
  }
  Rng r;
  std::string registry_root;
  Writer w;
  GeneratedTable t;

  void AddEntry(Entry e) { t.entries.push_back(std::move(e)); }
  void AddHolder(int line, int entry_line) { t.holders.push_back({line, entry_line}); }
  void OtherKeys(Keys& keys, int n) {
    for (int i = 0; i < n; ++i) t.other_keys.push_back(keys.Fresh(r));
  }

  // A keyed attribute: written under its own name (the lookup's key) or,
  // rarely, under a wrong one.
  void Key(Attrs& attrs, Entry& e, const std::string& name, const std::optional<std::string>& key) {
    const std::string written = AttributeName(r, name, 0.03);
    attrs.push_back({written, key});
    if (written == name) {
      e.key = key;
    } else {
      e.stray_key = key;
    }
  }

  // An Item list (MCCMNCTable, MCCTable, SelectionRule): the text answers.
  void Items(const std::string& list_name, const char* key_name, Lookup lookup, Keys& keys) {
    w.Open(list_name);
    List(r, "Item", {}, r.Int(0, 5), [&](const std::string& name, bool proper) {
      Entry e;
      e.lookup = lookup;
      e.proper = proper;
      Attrs attrs;
      Key(attrs, e, key_name, keys.Next(r));
      e.line = w.Leaf(name, attrs, AnswerText(r));
      AddEntry(e);
    });
    w.Close();
  }

  // Bounds of an ICCID range, some of them made from the ranges before.
  std::pair<std::string, std::string> Bounds(const std::vector<std::string>& networks,
                                             const std::vector<std::pair<std::string, std::string>>& earlier) {
    const std::string network = r.Pick(networks);
    auto same_length = [&](int length, int tail) {
      const int fill = std::max(0, length - static_cast<int>(network.size()) - tail);
      const std::string prefix = network + r.Digits(fill);
      std::string a = r.Digits(tail), b = r.Digits(tail);
      if (a > b) std::swap(a, b);
      return std::make_pair(prefix + a, prefix + b);
    };
    const int shape = r.Int(0, 99);
    if (shape < 30) return same_length(r.Int(16, 20), r.Int(1, 8));
    if (shape < 38) {  // 8-digit tails at 80000000 and above saturate
      auto [a, b] = same_length(r.Int(18, 20), 8);
      a.replace(a.size() - 8, 1, std::string(1, static_cast<char>('0' + r.Int(r.Chance(0.5) ? 0 : 8, 9))));
      b.replace(b.size() - 8, 1, std::string(1, static_cast<char>('0' + r.Int(8, 9))));
      if (a > b) std::swap(a, b);
      return {a, b};
    }
    if (shape < 45) return same_length(r.Int(18, 20), r.Int(9, 13));  // tails of 9 digits and more
    if (shape < 50) {  // min above max
      auto [a, b] = same_length(r.Int(16, 20), r.Int(1, 8));
      return a == b ? std::make_pair(a, b + "1") : std::make_pair(b, a);
    }
    if (shape < 55) {  // min equals max
      const std::string a = network + r.Digits(r.Int(0, 14));
      return {a, a};
    }
    if (shape < 60) {  // no shared prefix
      if (r.Chance(0.5)) {
        const std::string max = network + r.Digits(r.Int(1, 6));
        return {max.substr(0, static_cast<size_t>(r.Int(1, static_cast<int>(max.size()) - 1))), max};
      }
      return {std::to_string(r.Int(1, 7)) + r.Digits(r.Int(3, 18)), "8" + r.Digits(r.Int(3, 19))};
    }
    if (shape < 66) {  // bounds of different lengths
      const int length = r.Int(16, 19);
      auto [a, b] = same_length(length, r.Int(2, 7));
      return r.Chance(0.5) ? std::make_pair(a, b + r.Digits(1)) : std::make_pair(a + r.Digits(1), b);
    }
    if (shape < 71) {  // leading zeros in the tails
      const int length = r.Int(18, 20), tail = r.Int(4, 9);
      const std::string prefix = network + r.Digits(std::max(0, length - static_cast<int>(network.size()) - tail));
      auto zeroed = [&](int zeros) { return prefix + std::string(static_cast<size_t>(zeros), '0') + r.Digits(tail - zeros); };
      const int zeros = r.Int(1, tail - 1);
      std::string a = zeroed(zeros), b = zeroed(std::max(0, zeros - r.Int(0, 2)));
      if (a > b) std::swap(a, b);
      return {a, b};
    }
    if (shape < 74) {  // a non-digit in a tail
      auto [a, b] = same_length(r.Int(16, 20), r.Int(2, 6));
      std::string& bound = r.Chance(0.5) ? a : b;
      bound[bound.size() - 1] = r.Chance(0.5) ? 'A' : ' ';
      return {a, b};
    }
    if (!earlier.empty()) {  // made from an earlier range
      auto [a, b] = r.Pick(earlier);
      const size_t p = iccid::SharedPrefix(a, b);
      // Bounds of `length` digits that share `prefix` and then differ.
      auto under = [&](const std::string& prefix, int length) {
        const int tail = std::max(1, length - static_cast<int>(prefix.size()));
        std::string x = r.Digits(tail), y = r.Digits(tail);
        if (x > y) std::swap(x, y);
        return std::make_pair(prefix + x, prefix + y);
      };
      switch (r.Int(0, 6)) {
        case 0: return {a, b};
        case 1: return {a, a.size() == b.size() && a < b ? a.substr(0, a.size() - 1) + b.back() : b};
        case 2: return {b, b.size() > 2 ? b.substr(0, b.size() - 2) + "99" : b + "9"};
        case 3: return {a + "0", a + "9"};
        case 4: return {a.substr(0, p) + std::string(a.size() - p, '0'), b.substr(0, p) + std::string(b.size() - p, '9')};
        case 5: {  // a longer prefix that begins with the earlier one's
          const std::string prefix = a.substr(0, p) + (p < a.size() ? a.substr(p, static_cast<size_t>(r.Int(1, 3))) : r.Digits(2));
          return under(prefix, r.Int(16, 20));
        }
        default:  // a shorter prefix that the earlier one begins with
          return under(a.substr(0, p > 2 ? static_cast<size_t>(r.Int(2, static_cast<int>(p) - 1)) : p), r.Int(16, 20));
      }
    }
    return same_length(r.Int(16, 20), r.Int(1, 8));
  }

  // ICCIDs near a range's bounds: the bounds, their 18 to 20 digit forms,
  // tails with leading zeros.
  void Probes(const std::string& min, const std::string& max) {
    std::set<std::string> derived;
    for (const std::string& bound : {min, max}) {
      for (size_t length : {18u, 19u, 20u}) {
        if (bound.size() >= length) {
          derived.insert(bound.substr(0, length));
        } else {
          derived.insert(bound + std::string(length - bound.size(), '0'));
          derived.insert(bound + std::string(length - bound.size(), '9'));
          derived.insert(bound + r.Digits(static_cast<int>(length - bound.size())));
        }
      }
    }
    const std::string prefix = min.substr(0, iccid::SharedPrefix(min, max));
    for (size_t length : {19u, 20u}) {
      if (prefix.size() + 2 < length) {
        const size_t zeros = static_cast<size_t>(r.Int(1, static_cast<int>(length - prefix.size()) - 1));
        derived.insert(prefix + std::string(zeros, '0') + r.Digits(static_cast<int>(length - prefix.size() - zeros)));
      }
    }
    // The bounds, and a few of the others.
    t.iccids.push_back(min);
    t.iccids.push_back(max);
    std::vector<std::string> rest(derived.begin(), derived.end());
    for (int n = 0; n < 5 && !rest.empty(); ++n) {
      const size_t at = static_cast<size_t>(r.Int(0, static_cast<int>(rest.size()) - 1));
      t.iccids.push_back(rest[at]);
      rest.erase(rest.begin() + static_cast<long>(at));
    }
  }

  void IccidTable(const std::string& name) {
    w.Open(name);
    std::vector<std::string> networks;
    for (int n = r.Int(1, 3); n > 0; --n) networks.push_back("89" + r.Digits(r.Int(2, 5)));
    std::vector<std::pair<std::string, std::string>> earlier;
    List(r, "Range", {}, r.Int(0, 6), [&](const std::string& element, bool proper) {
      auto [min, max] = Bounds(networks, earlier);
      earlier.push_back({min, max});
      Probes(min, max);
      Entry e;
      e.lookup = Lookup::kCarrierIdByIccid;
      e.proper = proper;
      if (!r.Chance(0.04)) e.min = min;
      if (!r.Chance(0.04)) e.max = max;
      e.line = w.Leaf(element, {{"min", e.min}, {"max", e.max}}, AnswerText(r));
      AddEntry(e);
    });
    for (int n = r.Int(1, 3); n > 0; --n) {
      const std::string network = r.Pick(networks);
      t.iccids.push_back(network + r.Digits(r.Int(16, 20) - static_cast<int>(network.size())));
    }
    w.Close();
  }

  void Registered(const std::string& name, bool proper, Keys& mccs) {
    Entry e;
    e.lookup = Lookup::kParamFirmwareByMcc;
    e.proper = proper;
    Attrs attrs;
    Key(attrs, e, "mcc", mccs.Next(r));
    e.line = w.Open(name, attrs);
    const int copies = r.Copies(0.05, 0.05);
    for (int i = 0; i < copies; ++i) {
      AddHolder(Firmware(w, r, "PARAMFirmware", {"File", "Ver", "Type", "Count"}), e.line);
    }
    w.Close();
    AddEntry(e);
  }

  void SelectionRule(Keys& mccmncs, Keys& mccs) {
    w.Open("SelectionRule");
    const bool only_mccmnc = r.Chance(0.05);
    std::vector<int> order = {0, 1, 2};
    if (r.Chance(0.15)) std::shuffle(order.begin(), order.end(), std::mt19937(static_cast<unsigned>(r.Int(0, 1 << 30))));
    for (int part : order) {
      if (only_mccmnc && part != 0) continue;
      const int copies = r.Copies(0.07, 0.05);
      for (int i = 0; i < copies; ++i) {
        switch (part) {
          case 0:
            Items(r.Chance(0.05) ? "MccMncTable" : "MCCMNCTable", "mccmnc", Lookup::kCarrierIdByMccmnc, mccmncs);
            break;
          case 1:
            Items(r.Chance(0.03) ? "MccTable" : "MCCTable", "mcc", Lookup::kCarrierIdByMcc, mccs);
            break;
          default:
            IccidTable(r.Chance(0.03) ? "IccidTable" : "ICCIDTable");
        }
      }
    }
    w.Close();
  }

  void SwitchingRule(Keys& mccmncs, Keys& mccs, Keys& registered) {
    w.Open("SwitchingRule");
    // Mostly before the Registered entries; sometimes after the first of them
    // (where their walk takes it as an entry), sometimes missing.
    const int placement = r.Int(0, 99);
    bool pending = placement >= 4 && placement < 14;
    if (placement >= 14) SelectionRule(mccmncs, mccs);
    List(r, "Registered", {}, r.Int(0, 4), [&](const std::string& name, bool proper) {
      Registered(name, proper, registered);
      if (pending) SelectionRule(mccmncs, mccs);
      pending = false;
    });
    if (pending) SelectionRule(mccmncs, mccs);
    if (r.Chance(0.05)) SelectionRule(mccmncs, mccs);  // a second one
    w.Close();
  }

  void CarrierRules() {
    Keys mccmncs(MccMnc), mccs(Mcc), registered(Mcc), rule_items(Mcc);
    w.Open(r.Chance(0.5) ? "Rules" : "CarrierRules");
    const bool root_rule = r.Chance(0.6);
    const bool root_rule_first = r.Chance(0.2);
    if (root_rule && root_rule_first) Items("SelectionRule", "mcc", Lookup::kSelectionRuleByMcc, rule_items);
    const int copies = r.Copies(0.04, 0.04);
    for (int i = 0; i < copies; ++i) SwitchingRule(mccmncs, mccs, registered);
    if (root_rule && !root_rule_first) Items("SelectionRule", "mcc", Lookup::kSelectionRuleByMcc, rule_items);
    w.Close();
    OtherKeys(mccmncs, 2);
    OtherKeys(mccs, 2);
  }

  void SelectionRules() {
    Keys mccs(Mcc);
    w.Open("Rules");
    const int copies = r.Copies(0.04, 0.06);
    for (int i = 0; i < copies; ++i) Items("SelectionRule", "mcc", Lookup::kSelectionRuleByMcc, mccs);
    w.Close();
    OtherKeys(mccs, 2);
  }

  // A CarrierList's entries of one kind, written by `body` inside each;
  // `special` may replace an entry's key.
  void CarrierList(const std::string& entry_name, const std::vector<std::string>& near, Lookup lookup, Keys& keys,
                   const std::function<void(int entry_line)>& body,
                   const std::function<std::optional<std::string>(std::optional<std::string>)>& special = nullptr) {
    const int copies = r.Copies(0.04, 0.04);
    if (copies == 0 && r.Chance(0.3)) {
      w.Open("Carrierlist");
      w.Leaf(entry_name, {{"id", keys.Fresh(r)}});
      w.Close();
    }
    for (int i = 0; i < copies; ++i) {
      w.Open("CarrierList");
      List(r, entry_name, near, r.Int(0, 5), [&](const std::string& name, bool proper) {
        Entry e;
        e.lookup = lookup;
        e.proper = proper;
        std::optional<std::string> key = keys.Next(r);
        if (special) key = special(key);
        Attrs attrs;
        Key(attrs, e, "id", key);
        e.fallback = e.key && *e.key == "default";
        if (lookup == Lookup::kFwPackageInfo) attrs.push_back({AttributeName(r, "ver"), "{L}"});
        e.line = w.Open(name, attrs);
        body(e.line);
        w.Close();
        AddEntry(e);
      });
      w.Close();
    }
  }

  void CarrierFirmware() {
    Keys ids(CarrierName);
    w.Open("Firmware");
    CarrierList("Carrier", {}, Lookup::kCarrierFirmware, ids, [&](int entry) {
      for (const char* slot : {"APFirmware", "MDFirmware", "OPFirmware"}) {
        if (r.Chance(0.06)) continue;
        AddHolder(Firmware(w, r, slot, {"File", "Ver", "Type", "Count"}), entry);
        if (r.Chance(0.03)) AddHolder(Firmware(w, r, slot, {"File", "Ver", "Type", "Count"}), entry);
      }
    });
    w.Close();
    OtherKeys(ids, 2);
  }

  void CustomerModel() {
    Keys ids(CarrierName);
    w.Open("Models");
    CarrierList("CustModel", {}, Lookup::kOemFirmwareByModel, ids, [&](int entry) {
      const int copies = r.Copies(0.05, 0.05);
      for (int i = 0; i < copies; ++i) {
        std::function<void(Writer&)> inside;
        if (r.Chance(0.5)) {
          inside = [&, entry](Writer& writer) {
            AddHolder(writer.Leaf("Switch_table", {{AttributeName(r, "File"), "sw_{L}.xml"}}), entry);
          };
        }
        AddHolder(Firmware(w, r, "OEMFirmware", {"File", "Ver", "Type", "Count"}, inside), entry);
      }
      if (r.Chance(0.06)) AddHolder(w.Leaf("Switch_table", {{"File", "sw_{L}.xml"}}), entry);
    });
    w.Close();
    OtherKeys(ids, 2);
  }

  void PackageInfo() {
    Keys ids([](Rng& rr) { return rr.Chance(0.5) ? Mcc(rr) : CarrierName(rr); });
    w.Open("PackageInfo");
    CarrierList(
        "Carrier", {}, Lookup::kPackageInfoFirmware, ids,
        [&](int entry) {
          for (const char* slot : {"Firmware", "CustPack"}) {
            if (r.Chance(0.05)) continue;
            AddHolder(Firmware(w, r, slot, {"File", "Ver"}), entry);
            if (r.Chance(0.03)) AddHolder(Firmware(w, r, slot, {"File", "Ver"}), entry);
          }
        },
        [&](std::optional<std::string> key) -> std::optional<std::string> {
          const int roll = r.Int(0, 99);
          if (roll < 14) return std::string("default");
          if (roll < 17) return std::string(r.Chance(0.5) ? "Default" : "DEFAULT");
          return key;
        });
    w.Close();
    OtherKeys(ids, 3);
  }

  void FwPackageInfo() {
    Keys ids(CarrierName);
    w.Open("FwPackage");
    for (const char* name : {"PackageVer", "PackageType"}) {
      const int copies = r.Copies(0.04, 0.05);
      for (int i = 0; i < copies; ++i) {
        Entry e;
        e.lookup = Lookup::kFwPackageInfo;
        e.line = w.Leaf(name, {}, AnswerText(r));
        AddEntry(e);
      }
    }
    CarrierList("Carrier", {}, Lookup::kFwPackageInfo, ids, [&](int entry) {
      for (const char* slot : {"FWImage", "CustPack"}) {
        if (r.Chance(0.05)) continue;
        AddHolder(Firmware(w, r, slot, {"file", "ver"}), entry);
        if (r.Chance(0.03)) AddHolder(Firmware(w, r, slot, {"file", "ver"}), entry);
      }
    });
    w.Close();
  }

  void SkuGuid(const std::string& name, const std::optional<std::string>& id, Keys& areas, bool areas_from_first) {
    w.Open(name, {{"ID", id}});
    const int count = r.Chance(0.04) ? 0 : r.Int(1, 4);
    List(r, "Area", {}, count, [&](const std::string& element, bool proper) {
      Entry e;
      e.lookup = Lookup::kParamFirmwareBySku;
      e.proper = proper;
      e.key = id;
      std::optional<std::string> area =
          areas_from_first && !areas.used().empty() && r.Chance(0.5) ? r.Pick(areas.used()) : areas.Next(r);
      Attrs attrs;
      const std::string written = AttributeName(r, "ID", 0.03);
      attrs.push_back({written, area});
      if (written == "ID") e.key2 = area; else e.stray_key = area;
      e.line = w.Open(element, attrs);
      const int copies = r.Copies(0.05, 0.05);
      for (int i = 0; i < copies; ++i) {
        AddHolder(Firmware(w, r, "PARAMFirmware", {"File", "Ver", "Type", "Count"}), e.line);
      }
      w.Close();
      AddEntry(e);
    });
    w.Close();
  }

  void Sku() {
    w.Open("Skus");
    const std::string first = r.Chance(0.05) ? BlankVariant(r, Guid(r)) : Guid(r);
    Keys first_areas(AreaName);
    if (r.Chance(0.08)) {
      Keys areas(AreaName);
      SkuGuid(r.Chance(0.5) ? "Sku" : "SKU_Guid", r.Chance(0.6) ? first : Guid(r), areas, false);
    }
    if (!r.Chance(0.03)) {
      SkuGuid("SKU_GUID", r.Chance(0.04) ? std::nullopt : std::optional<std::string>(first), first_areas, false);
    }
    for (int later = r.Chance(0.35) ? r.Int(1, 2) : 0; later > 0; --later) {
      const int roll = r.Int(0, 99);
      Keys areas(AreaName);
      for (const std::string& a : first_areas.used()) areas.Use(a);
      if (roll < 40) {
        SkuGuid("SKU_GUID", first, areas, true);
      } else if (roll < 55) {
        SkuGuid("SKU_GUID", CaseVariant(r, first), areas, true);
      } else if (roll < 60) {
        SkuGuid("SKU_GUID", std::nullopt, areas, true);
      } else if (roll < 70) {
        SkuGuid(r.Chance(0.5) ? "sku_guid" : "r:SKU_GUID", first, areas, true);
      } else {
        SkuGuid("SKU_GUID", Guid(r), areas, true);
      }
    }
    w.Close();
  }

  // `copies` sections named `name`, each written by `body`; with none, now
  // and then one under the near miss `misnamed` instead.
  void Sections(int copies, const char* misnamed, const char* name, const std::function<void()>& body) {
    if (copies == 0 && r.Chance(0.5)) {
      w.Open(misnamed);
      body();
      w.Close();
    }
    for (int i = 0; i < copies; ++i) {
      w.Open(name);
      body();
      w.Close();
    }
  }

  void DeviceConfig() {
    Keys products(ProductName);
    w.Open("DeviceConfig");
    Sections(r.Copies(0.03, 0.03), "WwanDeviceConfigureIdTable", "WwanDeviceConfigureIDTable",
             [&] { DeviceConfigParts(products); });
    w.Close();
    OtherKeys(products, 2);
  }

  // The two sub-tables, in either order; now and then one of them or both
  // missing, or the mapping table twice.
  void DeviceConfigParts(Keys& products) {
    const bool neither = r.Chance(0.03);
    const bool paths = !neither && !r.Chance(0.04);
    const int mappings = neither ? 0 : r.Copies(0.04, 0.04);
    const bool mapping_first = r.Chance(0.2);
    if (mapping_first && mappings > 0) Mapping(products);
    if (paths) Paths();
    if (!mapping_first && mappings > 0) Mapping(products);
    if (mappings > 1) Mapping(products);
  }

  void Paths() {
    static const std::vector<std::string> kModes = {"Single", "Combine", "single", "COMBINE", "Both", " Single", ""};
    std::optional<std::string> mode = r.Chance(0.8) ? kModes[static_cast<size_t>(r.Int(0, 1))] : r.Pick(kModes);
    if (r.Chance(0.03)) mode = std::nullopt;
    w.Open("CustProductNamePathToUniqueSkuID", {{"CombineMode", mode}});
    List(r, "CustProductNamePath", {}, r.Int(0, 3),
         [&](const std::string& name, bool) {
           const std::string key = registry_root + "\\P" + std::to_string(r.Int(0, kRegistryKeys - 1));
           const std::string value = "V" + std::to_string(r.Int(0, 5));
           std::optional<std::string> path = key + "," + value;
           RegistrySlot slot{0, key, value};
           bool readable_somewhere = true;
           const int roll = r.Int(0, 99);
           if (roll < 5) {
             path = "HKEY_LOCAL_MACHINE\\" + *path;
           } else if (roll < 9) {
             path = "HKLM\\" + *path;
           } else if (roll < 13) {
             path = key + (r.Chance(0.5) ? "\\" : " ") + value;
           } else if (roll < 15) {
             path = "," + value;
             readable_somewhere = false;
           } else if (roll < 17) {
             path = key + ",";
             slot.value_name = "";
           } else if (roll < 20) {
             path = r.Chance(0.5) ? " " + *path : key + ", " + value;
           } else if (roll < 22) {
             path = std::nullopt;
             readable_somewhere = false;
           }
           slot.line = w.Leaf(name, {{"RegistryPath", path}});
           if (readable_somewhere) t.registry.push_back(slot);
         });
    w.Close();
  }

  void Mapping(Keys& products) {
    w.Open("UniqueSkuIDToWwanDeviceConfigureIDMappingTable");
    List(r, "UniqueSkuID", {"UniqueSkuId"}, r.Int(0, 5), [&](const std::string& name, bool proper) {
      Entry e;
      e.lookup = Lookup::kDeviceConfigId;
      e.proper = proper;
      Attrs attrs;
      Key(attrs, e, "ProductID", products.Next(r));
      attrs.push_back({AttributeName(r, "WwanDeviceConfigID"), r.Chance(0.03) ? std::nullopt : std::optional<std::string>("CFG-{L}")});
      e.line = w.Leaf(name, attrs);
      AddEntry(e);
    });
    w.Close();
  }

  void ImageMapping() {
    Keys configs(ConfigName);
    Keys mccs(Mcc);
    w.Open("ImageMapping");
    const int copies = r.Copies(0.03, 0.03);
    for (int i = 0; i < copies; ++i) {
      w.Open("WwanDeviceConfigureIDToImageMappingTable");
      List(r, "WwanDeviceConfigID", {"WwanDeviceConfigId"}, r.Int(0, 4),
           [&](const std::string& name, bool) {
             std::optional<std::string> id = configs.Next(r);
             const std::string written = AttributeName(r, "ID", 0.03);
             w.Open(name, {{written, id}});
             if (written != "ID") id = std::nullopt;
             Keys values(Mcc);
             // MCCs of the configurations before come back now and then.
             for (const std::string& m : mccs.used()) {
               if (r.Chance(0.3)) values.Use(m);
             }
             List(r, "Standard", {}, r.Int(0, 4), [&](const std::string& element, bool proper) {
               Entry e;
               e.lookup = Lookup::kCfgPkInfo;
               e.proper = proper;
               e.key = id;
               Attrs attrs;
               const std::optional<std::string> value = values.Next(r);
               const std::string value_name = AttributeName(r, "Value", 0.03);
               attrs.push_back({value_name, value});
               if (value_name == "Value") e.key2 = value; else e.stray_key = value;
               e.line = w.Open(element, attrs);
               const int firmware = r.Copies(0.06, 0.04);
               for (int f = 0; f < firmware; ++f) {
                 AddHolder(Firmware(w, r, "DEVFirmware", {"File", "Ver", "Type", "Count"}), e.line);
               }
               w.Close();
               AddEntry(e);
               if (value && !value->empty()) mccs.Use(*value);
             });
             w.Close();
           });
      w.Close();
    }
    w.Close();
    t.other_keys = configs.used();
    t.other_keys.push_back(configs.Fresh(r));
    t.other_inner_keys = mccs.used();
    t.other_inner_keys.push_back(mccs.Fresh(r));
  }

  void Esim() {
    Keys skus(SkuValue), networks(MccMnc);
    w.Open("EsimTable");
    std::vector<int> order = {0, 1, 2};
    if (r.Chance(0.2)) std::shuffle(order.begin(), order.end(), std::mt19937(static_cast<unsigned>(r.Int(0, 1 << 30))));
    for (int part : order) {
      const int copies = r.Chance(part == 0 ? 0.04 : 0.08) ? 0 : r.Chance(0.05) ? 2 : 1;
      for (int i = 0; i < copies; ++i) {
        if (part == 0) {
          static const std::vector<std::string> kFlags = {"True", "true", "TRUE", "False", "false", "Yes", " True", ""};
          std::optional<std::string> flag = r.Chance(0.75) ? std::string("True") : r.Pick(kFlags);
          if (r.Chance(0.03)) flag = std::nullopt;
          w.Leaf("TableEnableFlag", {{"FlagValue", flag}});
        } else if (part == 1) {
          w.Open(r.Chance(0.03) ? "SKU_Blacklist" : "SKU_BlackList");
          List(r, "SKU", {"Sku"}, r.Int(0, 4), [&](const std::string& name, bool proper) {
            Entry e;
            e.lookup = Lookup::kEsimBySku;
            e.proper = proper;
            Attrs attrs;
            Key(attrs, e, "SKUValue", skus.Next(r));
            e.line = w.Leaf(name, attrs);
            AddEntry(e);
          });
          w.Close();
        } else {
          w.Open(r.Chance(0.03) ? "IMSI_Blacklist" : "IMSI_BlackList");
          List(r, "MCCMNC", {"MccMnc"}, r.Int(0, 4), [&](const std::string& name, bool proper) {
            Entry e;
            e.lookup = Lookup::kEsimByImsi;
            e.proper = proper;
            Attrs attrs;
            Key(attrs, e, "MCCMNCValue", networks.Next(r));
            e.line = w.Leaf(name, attrs);
            AddEntry(e);
          });
          w.Close();
        }
      }
    }
    w.Close();
    t.other_keys.push_back(skus.Fresh(r));
    t.other_inner_keys.push_back(networks.Fresh(r));
  }

  void Region() {
    Keys mccs(Mcc);
    w.Open("RegionTable");
    Sections(r.Copies(0.03, 0.05), "Selectionrule", "SelectionRule", [&] { RegionRows(mccs); });
    w.Close();
    OtherKeys(mccs, 3);
  }

  void RegionRows(Keys& mccs) {
    List(r, "Region", {"region"}, r.Int(0, 5), [&](const std::string& name, bool proper) {
      Entry e;
      e.lookup = Lookup::kRegulatoryByMcc;
      e.proper = proper;
      Attrs attrs;
      std::optional<std::string> key = mccs.Next(r);
      const int roll = r.Int(0, 99);
      if (roll < 15) key = "default";
      else if (roll < 18) key = r.Chance(0.5) ? "Default" : "DEFAULT";
      Key(attrs, e, "mcc", key);
      e.fallback = e.key && *e.key == "default";
      attrs.push_back({AttributeName(r, "Regulatory"), r.Chance(0.03) ? std::nullopt : std::optional<std::string>("R{L}")});
      e.line = w.Leaf(name, attrs);
      AddEntry(e);
    });
  }

  void Scatter() {
    w.Raw("<?xml version=\"1.0\" encoding=\"utf-8\"?>");
    w.Open("scatter");
    const bool general = !r.Chance(0.04);
    const bool general_last = r.Chance(0.1);
    auto write_general = [&] {
      w.Open(r.Chance(0.02) ? "General" : "general");
      w.Leaf("platform", {}, std::string("X55"));
      w.Close();
    };
    if (general && !general_last) write_general();
    const int copies = r.Copies(0.04, 0.04);
    for (int i = 0; i < copies; ++i) {
      w.Open("storage_type", {{"name", "EMMC"}});
      int index = 0;
      List(r, "partition_index", {}, r.Int(0, 5), [&](const std::string& name, bool proper) {
        w.Open(name, {{"n", "{L}"}, {"name", "SYS" + std::to_string(index++)}});
        w.Leaf("partition_name", {}, std::string("part") + std::to_string(index));
        const int flags = r.Copies(0.06, 0.05);
        for (int f = 0; f < flags; ++f) {
          static const std::vector<std::string> kTexts = {"true", "false", "", " true", "TRUE", "yes", "md1"};
          const std::string text = r.Chance(0.8) ? kTexts[static_cast<size_t>(r.Int(0, 1))] : r.Pick(kTexts);
          Entry e;
          e.lookup = Lookup::kUpdateScatter;
          e.proper = proper;
          e.key = text;
          e.line = w.Leaf("is_download", {{"n", "{L}"}}, text);
          AddEntry(e);
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
  switch (kind) {
    case Kind::kCarrierRules: b.CarrierRules(); break;
    case Kind::kSelectionRules: b.SelectionRules(); break;
    case Kind::kCarrierFirmware: b.CarrierFirmware(); break;
    case Kind::kCustomerModel: b.CustomerModel(); break;
    case Kind::kPackageInfo: b.PackageInfo(); break;
    case Kind::kFwPackageInfo: b.FwPackageInfo(); break;
    case Kind::kSku: b.Sku(); break;
    case Kind::kDeviceConfig: b.DeviceConfig(); break;
    case Kind::kImageMapping: b.ImageMapping(); break;
    case Kind::kEsim: b.Esim(); break;
    case Kind::kRegion: b.Region(); break;
    case Kind::kScatter: b.Scatter(); break;
  }
  b.t.xml = b.w.xml();
  return b.t;
}

}  // namespace dorvane::lint::testing
