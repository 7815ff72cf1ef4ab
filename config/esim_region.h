// eSIM-disable and regulatory-region rules.
//
//   <EsimTable>
//     <TableEnableFlag FlagValue="True"/>
//     <SKU_BlackList><SKU SKUValue="..."/></SKU_BlackList>
//     <IMSI_BlackList><MCCMNC MCCMNCValue="46000"/></IMSI_BlackList>
//   </EsimTable>
//
//   <RegionTable>
//     <SelectionRule>
//       <Region mcc="default" Regulatory="FCC"/>
//       <Region mcc="460" Regulatory="SRRC"/>
//     </SelectionRule>
//   </RegionTable>
#pragma once

#include <windows.h>

#include <string>

namespace dorvane {

inline constexpr DWORD kEsimNotBlackListed = 0;
inline constexpr DWORD kEsimImsiBlackListed = 1;
inline constexpr DWORD kEsimSkuBlackListed = 0x100;
inline constexpr DWORD kEsimNoDecision = 0xFFFFFFFF;

// The disable type for a SKU and an IMSI text (either may be null): the SKU
// list (compared without regard to case) before the network list (compared
// exactly); kEsimNoDecision for bad arguments, an unreadable or switched-off
// table, or a missing list.
DWORD getEsimDisableType(std::string path, const char* sku, const char* imsi);

inline constexpr DWORD kRegionNotFound = 0;
inline constexpr DWORD kRegionExact = 1;
inline constexpr DWORD kRegionDefault = 2;

// The regulatory region of an MCC: an exact row wins, else the last "default"
// row. `region` is written only when a row is found.
DWORD getRegulatoryByMcc(std::string path, std::string mcc, std::string& region);

}  // namespace dorvane
