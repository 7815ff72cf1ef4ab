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
  return UnzipPackage(package_folder, package_file, target_folder, sub_folder, FailureFn());
}

int UnzipPackage(const std::string& package_folder, const std::string& package_file,
                 const std::string& target_folder, const std::string& sub_folder,
                 const FailureFn& failed) {
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
  return UnzipAllItems(target, package.str(), failed);
}

int UnzipAllItems(const std::string& target_folder, const std::string& archive) {
  return UnzipAllItems(target_folder, archive, FailureFn());
}

int UnzipAllItems(const std::string& target_folder, const std::string& archive,
                  const FailureFn& failed) {
  if (!IsFileExist(archive)) {
    Logger::GetInstance()->Write(kLogError, "unZip file not exist.");
    return 0;
  }
  ZipHandle zip = OpenZip(archive.c_str());
  ZipEntry all;
  const ZipResult listing = GetZipItem(zip, -1, &all);
  if (listing != kZipOk) {
    Logger::GetInstance()->Write(kLogError, "GetZipItem failed.");
    // A handle that was never opened is refused as a bad argument; what
    // failed was the opening.
    const ZipResult why = zip == nullptr ? kZipNoFile : listing;
    if (failed) failed(Failure{FailureKind::kArchive, archive, "", why});
    // Closed here too, so that a damaged package can be replaced at once.
    if (zip != nullptr) CloseZip(zip);
    return 1;
  }
  // Results of single items are not checked. The entries are unpacked on one
  // thread per processor where their order cannot matter; a small package is
  // not worth a thread's buffers.
  UnzipEntries(zip, target_folder,
               PackedBytes(zip, all.index) < kParallelFrom ? 1 : DefaultUnzipThreads(), failed);
  CloseZip(zip);
  return 1;
}

const char* UsbDriverArchitectureFolder(WORD architecture) {
  return architecture == PROCESSOR_ARCHITECTURE_AMD64 || architecture == PROCESSOR_ARCHITECTURE_IA64
             ? "x64\\"
             : "x86\\";
}

int InstallUSBDriver() { return InstallUSBDriver(FailureFn()); }

namespace {

// Runs one of the driver's batch files; one that cannot start or ends with an
// exit code other than 0 is told to `failed`.
void RunBatchFile(const PathBuffer& batch, const FailureFn& failed) {
  const int code = RunProcess(batch.str(), "", kShowDefault);
  if (code != 0 && failed) failed(Failure{FailureKind::kBatchFile, batch.str(), "", code});
}

}  // namespace

int InstallUSBDriver(const FailureFn& failed) {
  Logger* log = Logger::GetInstance();
  log->Write(kLogDetail, "InstallUSBDriver enter.");
  const std::string base = kUsbDriverFolder;
  const PathBuffer uninstall = Joined(base, "Uninstall_Inf.bat");
  if (!IsFileExist(uninstall.str())) {
    log->Write(kLogError, "USBDriver not exist.");
    return 0;
  }
  RunBatchFile(uninstall, failed);

  SYSTEM_INFO system = {};
  ::GetNativeSystemInfo(&system);
  const PathBuffer drivers = Joined(base, UsbDriverArchitectureFolder(system.wProcessorArchitecture));
  log->Write(kLogDetail, drivers.str());
  const int copied = CopyFileInDir(base, drivers.str(), failed);
  if (copied == 0) {
    // CopyFileInDir never returns 0, so the install batch file always runs.
    log->Write(kLogError, "USB driver files copy failed.");
    return 0;
  }
  RunBatchFile(Joined(base, "Install_Inf.bat"), failed);
  return 1;
}

}  // namespace dorvane
