// Carrier selection rules: which carrier a subscriber belongs to, by the
// network's MCC and MNC, by the MCC alone or by the SIM's ICCID.
//
// Each lookup reads the rules file at `path` afresh (see table_reader.h), writes
// its answer into `carrier_id` only on a match, and never clears it.
//
//   <Rules>
//     <SwitchingRule>
//       <SelectionRule>
//         <MCCMNCTable><Item mccmnc="310260">TMO</Item></MCCMNCTable>
//         <MCCTable><Item mcc="310">ATT</Item></MCCTable>
//         <ICCIDTable><Range min="8901260" max="8901269">TMO</Range></ICCIDTable>
//       </SelectionRule>
//       <Registered mcc="310"><PARAMFirmware File=".." Ver=".." Type=".." Count=".."/></Registered>
//     </SwitchingRule>
//     <SelectionRule><Item mcc="310">..</Item></SelectionRule>
//   </Rules>
#pragma once

#include <string>

namespace dorvane {

// True as soon as the MCCMNCTable is found, whether an item matched or not
// (then `carrier_id` keeps what it held). Logs its steps.
bool GetCarrierIdByMccmnc(std::string mccmnc, std::string path, std::string& carrier_id);
// True only when an item matched. Silent.
bool GetCarrierIdByMcc(std::string mcc, std::string path, std::string& carrier_id);
// True only when a Range matched (see the range rule in the source). Silent.
bool GetCarrierIdByIccid(std::string iccid, std::string path, std::string& carrier_id);
// Reads the root's SelectionRule and always returns false: the matching item's
// text goes into the function's own copy of the path and is dropped. Deployed
// callers rely on nothing more than the file being read.
bool GetSelectionRuleByMcc(std::string mcc, std::string path);

}  // namespace dorvane
