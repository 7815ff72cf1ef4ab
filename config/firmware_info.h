// Firmware package descriptors: which images belong to a carrier, a SKU and
// area, a registered MCC or a customer model, and what a package holds.
//
// Records are plain values owned by the caller; each reader overwrites only the
// fields it names and leaves the others, so one record can be filled by several
// readers in turn. A failed lookup leaves the record as it was.
#pragma once

#include <array>
#include <string>
#include <vector>

namespace dorvane {

// One carrier's firmware set: 24 texts.
struct CarrierFirmwareInfo {
  enum Field {
    kCarrierId = 0,
    kCarrierVersion = 1,
    kImageFile = 2,
    kImageVersion = 3,
    kCustPackFile = 4,
    kCustPackVersion = 5,
    kReserved = 6,
    kApSlot = 7,      // File, Ver, Type, Count of APFirmware
    kMdSlot = 11,     // ... of MDFirmware
    kOpSlot = 15,     // ... of OPFirmware
    kParamSlot = 19,  // ... of PARAMFirmware or OEMFirmware
    kSwitchTable = 23,
    kFieldCount = 24,
  };
  std::array<std::string, kFieldCount> fields;
};

// What "package_info.xml" gives for a carrier: fields 5 to 8 of nine texts.
struct PackageFirmwareInfo {
  enum Field {
    kFirmwareFile = 5,
    kFirmwareVersion = 6,
    kCustPackFile = 7,
    kCustPackVersion = 8,
    kFieldCount = 9,
  };
  std::array<std::string, kFieldCount> fields;
};

// The package description GetFwPackageInfo reads, in the current folder, when
// given an empty path.
inline constexpr char kFwPackageInfoName[] = "FwPackageInfo.xml";

// One package as "FwPackageInfo.xml" describes it.
class FwPackageInfo {
 public:
  void SetPackageVer(std::string version) { package_ver_ = std::move(version); }
  void SetPackageType(std::string type) { package_type_ = std::move(type); }
  void AddCarrier(const CarrierFirmwareInfo& carrier) { carriers_.push_back(carrier); }
  std::string GetPackageVer() const { return package_ver_; }
  std::string GetPackageType() const { return package_type_; }
  std::vector<CarrierFirmwareInfo> GetCarriers() const { return carriers_; }
  // Assignment replaces version, type and the whole carrier list.

 private:
  std::string package_ver_;
  std::string package_type_;
  std::vector<CarrierFirmwareInfo> carriers_;
};

// CarrierList / Carrier by `id`: fields 7-18 from APFirmware, MDFirmware and
// OPFirmware, then field 0. Silent.
bool GetCarrierFirmware(std::string carrier_id, std::string path, CarrierFirmwareInfo& record);
// "package_info.xml": the carrier's Firmware and CustPack into fields 5-8, or
// the last "default" entry's when no carrier matches (empty texts without one).
// True once CarrierList is found; logs its three failures.
bool GetPackageInfoFirmware(std::string carrier_id, std::string path, PackageFirmwareInfo& info);
// SKU_GUID by `ID`, then its Area by `ID`: fields 19-22 from PARAMFirmware.
// Only the first SKU_GUID is ever examined, and a call whose keys are not under
// it does not return: deployed tables put the machine's SKU first, and this
// build keeps the walk as it was shipped.
bool GetParamFirmwareBySku(std::string sku_guid, std::string area, std::string path,
                           CarrierFirmwareInfo& record);
// SwitchingRule / Registered by `mcc`: fields 19-22 from PARAMFirmware. Silent.
bool GetParamFirmwareByMcc(std::string mcc, std::string path, CarrierFirmwareInfo& record);
// CarrierList / CustModel by `id`: fields 19-22 from OEMFirmware, field 23 from
// its Switch_table when present, then field 0. An empty model id is false.
bool GetOemFirmwareByModel(std::string model_id, std::string path, CarrierFirmwareInfo& record);
// The whole package: PackageVer, PackageType and every Carrier entry. An empty
// path reads "FwPackageInfo.xml" in the current folder. The caller's object is
// replaced only on success.
bool GetFwPackageInfo(std::string path, FwPackageInfo& package);

}  // namespace dorvane
