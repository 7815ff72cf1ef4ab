#include "config/carrier_rules.h"

#include <cstdlib>

#include "config/table_reader.h"
#include "log/logger.h"

namespace dorvane {

using tinyxml2::XMLElement;

namespace {

// The walk shared by the MCC-MNC and the MCC lookups: every visited item's
// text is read before its key is compared.
bool FindItem(XMLElement* table, const char* key_name, const std::string& key,
              std::string& carrier_id) {
  for (XMLElement* item = table::FirstEntry(table, "Item"); item; item = table::NextEntry(item)) {
    const char* text = item->GetText();  // read for every visited item, as deployed
    if (table::KeyIs(item, key_name, key)) {
      carrier_id = text == nullptr ? std::string() : std::string(text);
      return true;
    }
  }
  return false;
}

XMLElement* SelectionRule(table::Document& doc) {
  return table::Child(table::Child(doc.Root(), "SwitchingRule"), "SelectionRule");
}

}  // namespace

namespace iccid {

// Length of the prefix that min and max share, by the rules deployed tables are
// written for: the whole length when they are equal; the first differing index
// otherwise (the end of max counts as different); 0 when min is empty or a
// proper prefix of max, so that such a range is compared over whole strings.
size_t SharedPrefix(const std::string& min, const std::string& max) {
  if (min == max) return min.size();
  for (size_t i = 0; i < min.size(); ++i) {
    if (i >= max.size() || min[i] != max[i]) return i;
  }
  return 0;
}

// A tail read by strtol in base 16; long is 32 bits here, so long tails
// saturate at 2147483647.
static_assert(sizeof(long) == 4, "the range rule relies on 32-bit saturation");
long Tail(const std::string& text, size_t from) {
  if (from > text.size()) return 0;
  return std::strtol(text.c_str() + from, nullptr, 16);
}

// Decimal digit strings are read as hexadecimal on purpose: for tails of equal
// length the order is the same, and deployed ICCID tables depend on the
// saturation that long tails reach.
bool RangeMatches(const std::string& iccid, const std::string& min, const std::string& max) {
  const size_t p = SharedPrefix(min, max);
  if (iccid.substr(0, p) != min.substr(0, p)) return false;
  // p never exceeds the length of min, of max, or (after the prefix test) of iccid.
  const long value = Tail(iccid, p);
  return Tail(min, p) <= value && value <= Tail(max, p);
}

}  // namespace iccid

bool GetCarrierIdByMccmnc(std::string mccmnc, std::string path, std::string& carrier_id) {
  Logger* log = Logger::GetInstance();
  log->Write(kLogDetail, "GetCarrierId by Mccmnc enter.");
  bool result = false;
  table::Document doc;
  if (!doc.Load(path)) {
    log->Write(kLogError, "load xml error.");
    log->Write(kLogError, path);
  } else if (doc.Root() == nullptr) {
    log->Write(kLogError, "RootElement xml item error.");
  } else if (table::Child(doc.Root(), "SwitchingRule") == nullptr) {
    log->Write(kLogError, "switchingRuleNode is null.");
  } else if (SelectionRule(doc) == nullptr) {
    log->Write(kLogError, "selectionRuleNode is null.");
  } else if (XMLElement* table = table::Child(SelectionRule(doc), "MCCMNCTable"); table == nullptr) {
    log->Write(kLogError, "MCCMNCTable node is null.");
  } else {
    FindItem(table, "mccmnc", mccmnc, carrier_id);
    log->Write(kLogDetail, "Carrier id:");
    log->Write(kLogDetail, carrier_id);
    result = true;
  }
  log->Write(kLogDetail, "GetCarrierId by Mccmnc done.");
  return result;
}

bool GetCarrierIdByMcc(std::string mcc, std::string path, std::string& carrier_id) {
  table::Document doc;
  if (!doc.Load(path)) return false;
  XMLElement* table = table::Child(SelectionRule(doc), "MCCTable");
  return table != nullptr && FindItem(table, "mcc", mcc, carrier_id);
}

bool GetCarrierIdByIccid(std::string iccid, std::string path, std::string& carrier_id) {
  table::Document doc;
  if (!doc.Load(path)) return false;
  XMLElement* table = table::Child(SelectionRule(doc), "ICCIDTable");
  for (XMLElement* range = table::FirstEntry(table, "Range"); range; range = table::NextEntry(range)) {
    if (range->Attribute("min") == nullptr || range->Attribute("max") == nullptr) continue;
    if (iccid::RangeMatches(iccid, table::Attr(range, "min"), table::Attr(range, "max"))) {
      carrier_id = table::Text(range);
      return true;
    }
  }
  return false;
}

bool GetSelectionRuleByMcc(std::string mcc, std::string path) {
  table::Document doc;
  if (!doc.Load(path)) return false;
  XMLElement* rule = table::Child(doc.Root(), "SelectionRule");
  for (XMLElement* item = table::FirstEntry(rule, "Item"); item; item = table::NextEntry(item)) {
    if (table::KeyIs(item, "mcc", mcc)) {
      path = table::Text(item);  // into our own copy, dropped on return
      break;
    }
  }
  return false;
}

}  // namespace dorvane
