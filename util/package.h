// Unpacking firmware packages and installing the modem's USB driver.
//
// Paths are narrow (ANSI) strings, built and cut like every other path (see
// path_buffer.h). Failures are logged and give the results below; what was
// already unpacked, copied or run stays done.
#pragma once

#include <windows.h>

#include <string>

#include "util/failures.h"

namespace dorvane {

// The driver folder of the installation, with the two batch files and the
// "x64\" and "x86\" folders of driver files.
inline constexpr char kUsbDriverFolder[] = "C:\\Windows\\WWAN\\FwSwitchBin\\FirmwareData\\USBDriver\\";

// Unpacks package_folder + package_file into target_folder + sub_folder + "\"
// after making that folder chain. The parts are joined as they are, so a
// target folder without a trailing backslash runs into the sub-folder's name
// ("C:\fw" and "pkg" give "C:\fwpkg\"); callers end folders with a backslash.
// A target of 259 characters or more is not made, and every entry is refused
// (see UnzipEntries). Returns 0 (logged) when the package does not exist,
// otherwise what UnzipAllItems returns.
int UnzipPackage(const std::string& package_folder, const std::string& package_file,
                 const std::string& target_folder, const std::string& sub_folder);
// The same, telling `failed` what UnzipAllItems does not unpack.
int UnzipPackage(const std::string& package_folder, const std::string& package_file,
                 const std::string& target_folder, const std::string& sub_folder,
                 const FailureFn& failed);

// Unpacks every entry of `archive` to target_folder + entry name, so the target
// must end with a backslash. Results of single entries are not checked. Returns
// 0 (logged) when the archive does not exist, otherwise 1, also when its
// entries cannot be listed (logged).
int UnzipAllItems(const std::string& target_folder, const std::string& archive);
// The same, telling `failed` an archive whose entries cannot be
// listed (kArchive, with the reader's result; a missing archive is only the 0)
// and each entry not unpacked (kEntry).
int UnzipAllItems(const std::string& target_folder, const std::string& archive,
                  const FailureFn& failed);

// The driver-files folder for a native processor architecture: "x64\" for
// AMD64 and IA-64, "x86\" for anything else.
const char* UsbDriverArchitectureFolder(WORD architecture);

// Runs kUsbDriverFolder's "Uninstall_Inf.bat", copies the driver files of the
// machine's native architecture into kUsbDriverFolder, then runs
// "Install_Inf.bat", waiting for each batch file. Returns 0 (logged) when the
// uninstall batch file is missing, otherwise 1.
int InstallUSBDriver();
// The same, telling `failed` each batch file that cannot start
// or ends with an exit code other than 0, and what the copy does not copy.
int InstallUSBDriver(const FailureFn& failed);

}  // namespace dorvane
