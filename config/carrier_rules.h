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

// The ICCID range rule of GetCarrierIdByIccid, for tools that reason about a
// table's ranges.
namespace iccid {
// The length of the prefix that min and max share: their whole length when they
// are equal, else the first index where they differ (the end of max counts as a
// difference), and 0 when min is empty or a proper prefix of max.
size_t SharedPrefix(const std::string& min, const std::string& max);
// The text from `from` on, read as strtol reads it in base 16 into a 32-bit
// long: long tails saturate at 2147483647 (-2147483648 with a minus sign). A
// start beyond the end reads as the empty text, 0.
long Tail(const std::string& text, size_t from);
// True when `iccid` begins with the shared prefix of min and max and its tail
// reads between theirs, both included.
bool RangeMatches(const std::string& iccid, const std::string& min, const std::string& max);
}  // namespace iccid

}  // namespace dorvane
