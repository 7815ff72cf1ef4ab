// The flash layout description "scatter.xml" in the installation's flash data
// folder: the one table that is written.
#pragma once

#include <string>

namespace dorvane {

inline constexpr char kFlashDataFolder[] = "C:\\Windows\\WWAN\\FwSwitchBin\\FlashData";
inline constexpr char kScatterName[] = "scatter.xml";

// Rewrites every partition's is_download flag: "true" when ";" + the flag's
// current text + ";" occurs in `selection`, otherwise "false"; then saves the
// file in place. False (file untouched) for an empty selection, an unreadable
// file or a root without general or storage_type. A failed save still returns
// true.
bool UpdateScatterDownloadFlags(std::string selection);

}  // namespace dorvane
