#include "util/package.h"

#include "log/logger.h"
#include "util/file_ops.h"
#include "util/path_buffer.h"
#include "util/process.h"
#include "util/zip_reader.h"

namespace dorvane {

namespace {

// Below this many packed bytes a package is unpacked on one thread.
constexpr long long kParallelFrom = 4 << 20;

long long PackedBytes(ZipHandle zip, int count) {
  long long total = 0;
  for (int i = 0; i < count && total < kParallelFrom; ++i) {
    ZipEntry item;
    if (GetZipItem(zip, i, &item) == kZipOk) total += item.compressed_size;
  }
  return total;
}

PathBuffer Joined(const std::string& first, const std::string& second) {
  PathBuffer path(first);
  path.Append(second);
  return path;
}

}  // namespace

int UnzipPackage(const std::string& package_folder, const std::string& package_file,
                 const std::string& target_folder, const std::string& sub_folder) {
  const PathBuffer package = Joined(package_folder, package_file);
  // Not cut: a target too long for a path buffer is refused by UnzipEntries
  // for every entry, where the cut one would lie outside the folder named.
  const std::string target = target_folder + sub_folder + "\\";
  if (!IsFileExist(package.str())) {
    Logger* log = Logger::GetInstance();
    log->Write(kLogError, "Unzip Package not exist.");
    log->Write(kLogError, package.str());
    return 0;
  }
  if (target.size() < kPathChars - 1) MakeFolders(target);
  return UnzipAllItems(target, package.str());
}

int UnzipAllItems(const std::string& target_folder, const std::string& archive) {
  if (!IsFileExist(archive)) {
    Logger::GetInstance()->Write(kLogError, "unZip file not exist.");
    return 0;
  }
  ZipHandle zip = OpenZip(archive.c_str());
  ZipEntry all;
  if (GetZipItem(zip, -1, &all) != kZipOk) {
    Logger::GetInstance()->Write(kLogError, "GetZipItem failed.");
    // Closed here too, so that a damaged package can be replaced at once.
    if (zip != nullptr) CloseZip(zip);
    return 1;
  }
  // Results of single items are not checked. The entries are unpacked on one
  // thread per processor where their order cannot matter; a small package is
  // not worth a thread's buffers.
  UnzipEntries(zip, target_folder, PackedBytes(zip, all.index) < kParallelFrom ? 1
                                                                               : DefaultUnzipThreads());
  CloseZip(zip);
  return 1;
}

const char* UsbDriverArchitectureFolder(WORD architecture) {
  return architecture == PROCESSOR_ARCHITECTURE_AMD64 || architecture == PROCESSOR_ARCHITECTURE_IA64
             ? "x64\\"
             : "x86\\";
}

int InstallUSBDriver() {
  Logger* log = Logger::GetInstance();
  log->Write(kLogDetail, "InstallUSBDriver enter.");
  const std::string base = kUsbDriverFolder;
  const PathBuffer uninstall = Joined(base, "Uninstall_Inf.bat");
  if (!IsFileExist(uninstall.str())) {
    log->Write(kLogError, "USBDriver not exist.");
    return 0;
  }
  RunProcess(uninstall.str(), "", kShowDefault);

  SYSTEM_INFO system = {};
  ::GetNativeSystemInfo(&system);
  const PathBuffer drivers = Joined(base, UsbDriverArchitectureFolder(system.wProcessorArchitecture));
  log->Write(kLogDetail, drivers.str());
  if (CopyFileInDir(base, drivers.str()) == 0) {
    // CopyFileInDir never returns 0, so the install batch file always runs.
    log->Write(kLogError, "USB driver files copy failed.");
    return 0;
  }
  RunProcess(Joined(base, "Install_Inf.bat").str(), "", kShowDefault);
  return 1;
}

}  // namespace dorvane
