// The WWAN device configuration id of this machine, and the firmware package
// of a configuration id and MCC.
//
// Device-configuration table (path from the caller):
//   <T><WwanDeviceConfigureIDTable>
//     <CustProductNamePathToUniqueSkuID CombineMode="Single|Combine">
//       <CustProductNamePath RegistryPath="SOFTWARE\Vendor\Product,ProductName"/>
//     </CustProductNamePathToUniqueSkuID>
//     <UniqueSkuIDToWwanDeviceConfigureIDMappingTable>
//       <UniqueSkuID ProductID="X13-GEN2" WwanDeviceConfigID="CFG-7"/>
//     </UniqueSkuIDToWwanDeviceConfigureIDMappingTable>
//   </WwanDeviceConfigureIDTable></T>
//
// Image-mapping table (fixed path, kCfgImageTable):
//   <T><WwanDeviceConfigureIDToImageMappingTable>
//     <WwanDeviceConfigID ID="CFG-7">
//       <Standard Value="310"><DEVFirmware File=".." Ver=".." Type=".." Count="2"/></Standard>
//     </WwanDeviceConfigID>
//   </WwanDeviceConfigureIDToImageMappingTable></T>
#pragma once

#include <windows.h>

#include <array>
#include <string>

namespace dorvane {

inline constexpr char kFwSwitchBinFolder[] = "C:\\Windows\\WWAN\\FwSwitchBin\\";
inline constexpr char kSarAntDataFolder[] = "SarAntData";
inline constexpr char kImageMappingTableName[] = "WwanDeviceIdImageMappingTable.xml";

// What getCfgPkInfo finds: seven texts and a count. It writes texts 2 (emptied),
// 3 File, 4 Ver, 5 Type, 6 the matched MCC, and the count; texts 0 and 1 are
// the caller's.
struct CfgPackageInfo {
  enum Text { kCleared = 2, kFile = 3, kVersion = 4, kType = 5, kMcc = 6, kTextCount = 7 };
  std::array<std::string, kTextCount> texts;
  DWORD count = 0;
};

// A RegistryPath split at its first comma into the key path and the value name;
// false (outputs untouched) when there is no comma or the path begins with it.
bool SplitRegistryPath(const std::string& registry_path, std::string& key_path,
                       std::string& value_name);
// A Count as getCfgPkInfo reads it: the leading decimal digits (none give 0),
// saturated at 0xFFFFFFFF.
DWORD LeadingDecimal(const std::string& text);

// Reads the product-name values that the table's registry paths name (32-bit
// view) and maps them, one by one (Single) or joined with "_" (Combine), to a
// configuration id through the ProductID rows (compared without regard to
// case). `config_id` is written only when one is found.
bool getWwanDeviceConfigID(std::string path, std::string& config_id);

// Looks the configuration id and the MCC up in the image-mapping table
// (compared exactly) and fills `info` from the DEVFirmware entry. An empty MCC
// looks nothing up. `info` is written only when an entry is found.
bool getCfgPkInfo(std::string config_id, std::string mcc, CfgPackageInfo& info);

}  // namespace dorvane
