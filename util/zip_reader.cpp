#include "util/zip_reader.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstring>
#include <mutex>
#include <set>

#include "util/scoped_handle.h"
#include "util/zip_directory.h"
#include "util/zip_extract.h"

namespace dorvane {

class ZipArchive {
 public:
  explicit ZipArchive(UniqueHandle file) : file_(std::move(file)) {}

  // The directory is read once; a failure is the answer of every later call.
  ZipResult Directory() {
    if (!directory_read_) {
      directory_read_ = true;
      directory_result_ = zip::ReadDirectory(file_.get(), &directory_);
    }
    return directory_result_;
  }
  const std::vector<zip::DirEntry>& entries() const { return directory_.entries; }
  ZipResult Extract(int index, const char* path) {
    return extractor_.Extract(file_.get(), directory_.entries[static_cast<size_t>(index)],
                              directory_.data_end, path);
  }

 private:
  UniqueHandle file_;
  bool directory_read_ = false;
  ZipResult directory_result_ = kZipOk;
  zip::Directory directory_;
  zip::Extractor extractor_;
};

namespace {

std::atomic<ZipResult> g_recent{kZipOk};

ZipResult Keep(ZipResult result) {
  g_recent = result;
  return result;
}

// The handles OpenZip gave out and CloseZip has not taken back, so that any
// other value is refused instead of being followed.
std::mutex g_open_mutex;
std::set<const ZipArchive*>& OpenHandles() {
  static std::set<const ZipArchive*> handles;
  return handles;
}

bool IsOpen(ZipHandle zip) {
  std::lock_guard<std::mutex> lock(g_open_mutex);
  return OpenHandles().count(zip) != 0;
}

// The checks every call on an archive starts with, in order.
ZipResult CheckHandle(ZipHandle zip) {
  if (zip == nullptr) return kZipBadArguments;
  if (!IsOpen(zip)) return kZipWrongMode;
  return zip->Directory();
}

ZipResult CheckIndex(ZipHandle zip, int index) {
  return index >= 0 && static_cast<size_t>(index) < zip->entries().size() ? kZipOk
                                                                          : kZipBadArguments;
}

const char* ResultText(ZipResult code) {
  switch (code) {
    case kZipOk: return "Success";
    case kZipNoDuplicate: return "Culdn't duplicate handle";  // the shipped spelling
    case kZipNoFile: return "Couldn't create/open file";
    case kZipNoMemory: return "Failed to allocate memory";
    case kZipWriteError: return "Error writing to file";
    case kZipNotFound: return "File not found in the zipfile";
    case kZipMoreData: return "Still more data to unzip";
    case kZipCorrupt: return "Zipfile is corrupt or not a zipfile";
    case kZipReadError: return "Error reading file";
    case kZipPassword: return "Correct password required";
    case kZipBadArguments: return "Caller: faulty arguments";
    case kZipNotMemoryZip: return "Caller: can only get memory of a memory zipfile";
    case kZipMemorySize: return "Caller: not enough space allocated for memory zipfile";
    case kZipPreviousError: return "Caller: there was a previous error";
    case kZipEnded: return "Caller: additions to the zip have already been ended";
    case kZipWrongSize: return "Zip-bug: the anticipated size turned out wrong";
    case kZipPartlyUnzipped: return "Caller: the file had already been partially unzipped";
    case kZipWrongMode: return "Caller: mixing creation and opening of zip";
    case kZipNotInitialised: return "Zip-bug: internal initialisation not completed";
    case kZipUnseekable: return "Zip-bug: trying to seek the unseekable";
    case kZipNoChange: return "Zip-bug: tried to change mind, but not allowed";
    case kZipFlation: return "Zip-bug: an internal error during flation";
    default: return "unknown zip result code";
  }
}

}  // namespace

ZipHandle OpenZip(const char* path) {
  if (path == nullptr) {
    Keep(kZipBadArguments);
    return nullptr;
  }
  UniqueHandle file(::CreateFileA(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                  FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
  if (!file) {
    Keep(kZipNoFile);
    return nullptr;
  }
  ZipArchive* zip = new (std::nothrow) ZipArchive(std::move(file));
  if (zip == nullptr) {
    Keep(kZipNoMemory);
    return nullptr;
  }
  std::lock_guard<std::mutex> lock(g_open_mutex);
  OpenHandles().insert(zip);
  Keep(kZipOk);
  return zip;
}

ZipResult GetZipItem(ZipHandle zip, int index, ZipEntry* entry) {
  if (entry == nullptr) return Keep(kZipBadArguments);
  ZipResult result = CheckHandle(zip);
  if (result != kZipOk) return Keep(result);
  *entry = ZipEntry();
  if (index == -1) {
    entry->index = static_cast<int>(std::min<size_t>(zip->entries().size(), INT_MAX));
    return Keep(kZipOk);
  }
  if ((result = CheckIndex(zip, index)) != kZipOk) return Keep(result);
  const zip::DirEntry& found = zip->entries()[static_cast<size_t>(index)];
  entry->index = index;
  std::memcpy(entry->name, found.name.c_str(), found.name.size() + 1);
  entry->attributes = (found.external_attributes & 0xFF) |
                      (found.folder ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_NORMAL);
  entry->modified = zip::DosTimeToFileTime(found.dos_date, found.dos_time);
  entry->compressed_size = static_cast<long long>(found.compressed_size);
  entry->size = static_cast<long long>(found.size);
  return Keep(kZipOk);
}

ZipResult UnzipItem(ZipHandle zip, int index, const char* path) {
  ZipResult result = CheckHandle(zip);
  if (result == kZipOk && path == nullptr) result = kZipBadArguments;
  if (result == kZipOk) result = CheckIndex(zip, index);
  if (result == kZipOk) result = zip->Extract(index, path);
  return Keep(result);
}

ZipResult CloseZip(ZipHandle zip) {
  if (zip == nullptr) return Keep(kZipBadArguments);
  {
    std::lock_guard<std::mutex> lock(g_open_mutex);
    if (OpenHandles().erase(zip) == 0) return Keep(kZipWrongMode);
  }
  delete zip;
  return Keep(kZipOk);
}

unsigned FormatZipMessage(ZipResult code, char* buffer, unsigned size) {
  const char* text = ResultText(code == kZipRecent ? g_recent.load() : code);
  const size_t length = std::strlen(text);
  if (buffer != nullptr && size > 0) {
    const size_t copied = std::min<size_t>(length, size - 1);
    std::memcpy(buffer, text, copied);
    buffer[copied] = '\0';
  }
  return static_cast<unsigned>(length);
}

std::string CleanEntryName(std::string name) {
  static const char* const kUpwards[] = {"\\..\\", "\\../", "/../", "/..\\"};
  for (bool changed = true; changed;) {
    changed = false;
    if (name.size() >= 2 && name[1] == ':') {
      name.erase(0, 2);
      changed = true;
    }
    if (!name.empty() && (name[0] == '\\' || name[0] == '/')) {
      name.erase(0, 1);
      changed = true;
    }
    size_t earliest = std::string::npos;
    for (const char* upwards : kUpwards) earliest = std::min(earliest, name.find(upwards));
    if (earliest != std::string::npos) {
      name.erase(0, earliest + 4);
      changed = true;
    }
  }
  return name;
}

}  // namespace dorvane
