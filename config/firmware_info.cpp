#include "config/firmware_info.h"

#include <windows.h>

#include "config/table_reader.h"
#include "log/logger.h"

namespace dorvane {

using tinyxml2::XMLElement;

namespace {

// Copies File, Ver, Type, Count of `firmware` into four fields from `first`. A
// missing element or attribute gives empty texts.
void CopySlot(const XMLElement* firmware, CarrierFirmwareInfo& record, int first) {
  static const char* const kNames[] = {"File", "Ver", "Type", "Count"};
  for (int i = 0; i < 4; ++i) record.fields[static_cast<size_t>(first + i)] = table::Attr(firmware, kNames[i]);
}

// The first entry of `list`'s walk whose `key_name` equals `key`, or null.
XMLElement* FindEntry(XMLElement* list, const char* entry_name, const char* key_name,
                      const std::string& key) {
  for (XMLElement* e = table::FirstEntry(list, entry_name); e; e = table::NextEntry(e)) {
    if (table::KeyIs(e, key_name, key)) return e;
  }
  return nullptr;
}

void CopyPackageFields(XMLElement* carrier, std::array<std::string, 9>& fields) {
  XMLElement* firmware = table::Child(carrier, "Firmware");
  XMLElement* pack = table::Child(carrier, "CustPack");
  fields[PackageFirmwareInfo::kFirmwareFile] = table::Attr(firmware, "File");
  fields[PackageFirmwareInfo::kFirmwareVersion] = table::Attr(firmware, "Ver");
  fields[PackageFirmwareInfo::kCustPackFile] = table::Attr(pack, "File");
  fields[PackageFirmwareInfo::kCustPackVersion] = table::Attr(pack, "Ver");
}

}  // namespace

bool GetCarrierFirmware(std::string carrier_id, std::string path, CarrierFirmwareInfo& record) {
  table::Document doc;
  if (!doc.Load(path)) return false;
  XMLElement* carrier = FindEntry(table::Child(doc.Root(), "CarrierList"), "Carrier", "id", carrier_id);
  if (carrier == nullptr) return false;
  CopySlot(table::Child(carrier, "APFirmware"), record, CarrierFirmwareInfo::kApSlot);
  CopySlot(table::Child(carrier, "MDFirmware"), record, CarrierFirmwareInfo::kMdSlot);
  CopySlot(table::Child(carrier, "OPFirmware"), record, CarrierFirmwareInfo::kOpSlot);
  record.fields[CarrierFirmwareInfo::kCarrierId] = table::Attr(carrier, "id");
  return true;
}

bool GetPackageInfoFirmware(std::string carrier_id, std::string path, PackageFirmwareInfo& info) {
  Logger* log = Logger::GetInstance();
  table::Document doc;
  if (!doc.Load(path)) {
    // The file's fixed name, whatever path was given: field scripts look for it.
    log->Write(kLogError, "package_info.xml load failed");
    return false;
  }
  if (doc.Root() == nullptr) {
    log->Write(kLogError, "RootElement failed");
    return false;
  }
  XMLElement* list = table::Child(doc.Root(), "CarrierList");
  if (list == nullptr) {
    log->Write(kLogError, "CarrierList failed");
    return false;
  }
  PackageFirmwareInfo fallback;
  for (XMLElement* carrier = table::FirstEntry(list, "Carrier"); carrier;
       carrier = table::NextEntry(carrier)) {
    if (table::KeyIs(carrier, "id", carrier_id)) {
      CopyPackageFields(carrier, info.fields);
      return true;
    }
    if (table::KeyIs(carrier, "id", "default")) CopyPackageFields(carrier, fallback.fields);
  }
  for (int f = PackageFirmwareInfo::kFirmwareFile; f <= PackageFirmwareInfo::kCustPackVersion; ++f) {
    info.fields[static_cast<size_t>(f)] = fallback.fields[static_cast<size_t>(f)];
  }
  return true;
}

bool GetParamFirmwareBySku(std::string sku_guid, std::string area, std::string path,
                           CarrierFirmwareInfo& record) {
  table::Document doc;
  if (!doc.Load(path)) return false;
  XMLElement* first_sku = table::Child(doc.Root(), "SKU_GUID");
  if (first_sku == nullptr) return false;
  // Only the first SKU_GUID is ever examined: when the keys are not under it,
  // the lookup does not return (kept; see the header). Every further pass would
  // see the same document and find the same nothing, so instead of walking it
  // again and again the thread waits for ever without using the processor.
  if (table::KeyIs(first_sku, "ID", sku_guid)) {
    if (XMLElement* match = FindEntry(first_sku, "Area", "ID", area)) {
      CopySlot(table::Child(match, "PARAMFirmware"), record, CarrierFirmwareInfo::kParamSlot);
      return true;
    }
  }
  for (;;) ::Sleep(INFINITE);
}

bool GetParamFirmwareByMcc(std::string mcc, std::string path, CarrierFirmwareInfo& record) {
  table::Document doc;
  if (!doc.Load(path)) return false;
  XMLElement* registered =
      FindEntry(table::Child(doc.Root(), "SwitchingRule"), "Registered", "mcc", mcc);
  if (registered == nullptr) return false;
  CopySlot(table::Child(registered, "PARAMFirmware"), record, CarrierFirmwareInfo::kParamSlot);
  return true;
}

bool GetOemFirmwareByModel(std::string model_id, std::string path, CarrierFirmwareInfo& record) {
  if (model_id.empty()) return false;
  table::Document doc;
  if (!doc.Load(path)) return false;
  XMLElement* model = FindEntry(table::Child(doc.Root(), "CarrierList"), "CustModel", "id", model_id);
  if (model == nullptr) return false;
  XMLElement* oem = table::Child(model, "OEMFirmware");
  CopySlot(oem, record, CarrierFirmwareInfo::kParamSlot);
  // Only a switch table inside OEMFirmware counts, not one beside it.
  if (XMLElement* switch_table = table::Child(oem, "Switch_table")) {
    record.fields[CarrierFirmwareInfo::kSwitchTable] = table::Attr(switch_table, "File");
  }
  record.fields[CarrierFirmwareInfo::kCarrierId] = table::Attr(model, "id");
  return true;
}

bool GetFwPackageInfo(std::string path, FwPackageInfo& package) {
  if (path.empty()) path = kFwPackageInfoName;
  FwPackageInfo fresh;
  table::Document doc;
  if (!doc.Load(path)) return false;
  XMLElement* root = doc.Root();
  XMLElement* version = table::Child(root, "PackageVer");
  if (version == nullptr) return false;
  fresh.SetPackageVer(table::Text(version));
  XMLElement* type = table::Child(root, "PackageType");
  if (type == nullptr) return false;
  fresh.SetPackageType(table::Text(type));
  XMLElement* list = table::Child(root, "CarrierList");
  if (list == nullptr) return false;
  for (XMLElement* carrier = table::FirstEntry(list, "Carrier"); carrier;
       carrier = table::NextEntry(carrier)) {
    CarrierFirmwareInfo record;
    XMLElement* image = table::Child(carrier, "FWImage");
    XMLElement* pack = table::Child(carrier, "CustPack");
    record.fields[CarrierFirmwareInfo::kCarrierId] = table::Attr(carrier, "id");
    record.fields[CarrierFirmwareInfo::kCarrierVersion] = table::Attr(carrier, "ver");
    record.fields[CarrierFirmwareInfo::kImageFile] = table::Attr(image, "file");
    record.fields[CarrierFirmwareInfo::kImageVersion] = table::Attr(image, "ver");
    record.fields[CarrierFirmwareInfo::kCustPackFile] = table::Attr(pack, "file");
    record.fields[CarrierFirmwareInfo::kCustPackVersion] = table::Attr(pack, "ver");
    fresh.AddCarrier(record);
  }
  package = fresh;
  return true;
}

}  // namespace dorvane
