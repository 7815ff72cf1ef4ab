#include "util/zip_reader.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstring>
#include <mutex>
#include <new>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include "log/logger.h"
#include "util/file_ops.h"
#include "util/placed_file.h"
#include "util/scoped_handle.h"

namespace dorvane {

namespace {

// The archive file, read at given offsets.
class FileSource : public zip::Source {
 public:
  FileSource(UniqueHandle file, uint64_t size) : file_(std::move(file)), size_(size) {}
  uint64_t Size() const override { return size_; }
  bool ReadAt(uint64_t offset, void* buffer, size_t size) override {
    unsigned char* to = static_cast<unsigned char*>(buffer);
    while (size > 0) {
      const DWORD chunk = static_cast<DWORD>(std::min<size_t>(size, 1u << 30));
      OVERLAPPED at = {};
      at.Offset = static_cast<DWORD>(offset);
      at.OffsetHigh = static_cast<DWORD>(offset >> 32);
      DWORD read = 0;
      if (!::ReadFile(file_.get(), to, chunk, &read, &at) || read != chunk) return false;
      to += chunk;
      offset += chunk;
      size -= chunk;
    }
    return true;
  }

 private:
  UniqueHandle file_;
  uint64_t size_;
};

// The file an entry is unpacked to.
class FileSink : public zip::Sink {
 public:
  explicit FileSink(HANDLE file) : file_(file) {}
  ZipResult Write(const unsigned char* data, size_t size) override {
    DWORD done = 0;
    const DWORD chunk = static_cast<DWORD>(size);  // the unpacker's buffers are far smaller
    return ::WriteFile(file_, data, chunk, &done, nullptr) && done == chunk ? kZipOk
                                                                            : kZipWriteError;
  }

 private:
  HANDLE file_;
};

// The ANSI code page, exactly: no best-fit characters, checked by converting
// back, so that only a name that reads the same both ways counts as exact.
bool ExactAnsi(const std::u16string& wide, std::string* ansi) {
  ansi->clear();
  if (wide.empty()) return true;
  const wchar_t* text = reinterpret_cast<const wchar_t*>(wide.data());
  const int length = static_cast<int>(wide.size());
  BOOL defaulted = FALSE;
  const int size = ::WideCharToMultiByte(CP_ACP, WC_NO_BEST_FIT_CHARS, text, length, nullptr, 0,
                                         nullptr, &defaulted);
  if (size <= 0) return false;
  ansi->resize(static_cast<size_t>(size));
  ::WideCharToMultiByte(CP_ACP, WC_NO_BEST_FIT_CHARS, text, length, &(*ansi)[0], size, nullptr,
                        &defaulted);
  if (defaulted) return false;
  const int back = ::MultiByteToWideChar(CP_ACP, 0, ansi->data(), size, nullptr, 0);
  if (back != length) return false;
  std::wstring again(static_cast<size_t>(back), L'\0');
  ::MultiByteToWideChar(CP_ACP, 0, ansi->data(), size, &again[0], back);
  return std::equal(again.begin(), again.end(), text);
}

// The OEM code page, in which names without the UTF-8 flag are written.
bool ExactOem(const std::string& oem, std::u16string* wide) {
  wide->clear();
  if (oem.empty()) return true;
  const int length = static_cast<int>(oem.size());
  const int size = ::MultiByteToWideChar(CP_OEMCP, MB_ERR_INVALID_CHARS, oem.data(), length,
                                         nullptr, 0);
  if (size <= 0) {
    // A byte the code page does not define: shown as a stand-in, not unpacked.
    wide->assign(oem.size(), u'?');
    return false;
  }
  std::wstring text(static_cast<size_t>(size), L'\0');
  ::MultiByteToWideChar(CP_OEMCP, MB_ERR_INVALID_CHARS, oem.data(), length, &text[0], size);
  wide->assign(text.begin(), text.end());
  return true;
}

// An entry's MS-DOS local date and time as a file time (UTC).
FILETIME DosTimeToUtc(uint16_t dos_date, uint16_t dos_time) {
  FILETIME local = {};
  FILETIME utc = {};
  if (::DosDateTimeToFileTime(dos_date, dos_time, &local)) ::LocalFileTimeToFileTime(&local, &utc);
  return utc;
}

}  // namespace

class ZipArchive {
 public:
  ZipArchive(UniqueHandle file, uint64_t size, std::string path)
      : source_(std::move(file), size), path_(std::move(path)) {}

  // The directory is read once; a failure is the answer of every later call.
  // Data in front of the archive is said once, when the directory is read.
  ZipResult Directory() {
    if (!directory_read_) {
      directory_read_ = true;
      directory_result_ = directory_.Read(source_, zip::NameCodec{ExactOem, ExactAnsi});
      if (directory_result_ == kZipOk && directory_.prefix() > 0) {
        Logger::GetInstance()->Write(kLogWarning, "%s: %llu bytes of data precede the zip archive",
                                     path_.c_str(),
                                     static_cast<unsigned long long>(directory_.prefix()));
      }
    }
    return directory_result_;
  }
  size_t count() const { return directory_.count(); }
  // Safe from several threads: the directory's window is shared.
  ZipResult Entry(int index, zip::EntryInfo* entry) {
    std::lock_guard<std::mutex> lock(entry_lock_);
    return directory_.Entry(static_cast<size_t>(index), entry);
  }
  // `caller_length`: how much of `path` the caller's folder takes (see
  // CallerFolderLength); the rest comes from the entry's name.
  ZipResult Extract(int index, const char* path, size_t caller_length) {
    return Extract(index, path, caller_length, unpacker_);
  }
  // With an unpacker of the calling thread's own: the archive's reads take
  // their offsets with them, so threads can share the file. Nothing thrown
  // gets out (a worker thread would end the process).
  ZipResult Extract(int index, const char* path, size_t caller_length, zip::Unpacker& unpacker) {
    try {
      return ExtractEntry(index, path, caller_length, unpacker);
    } catch (const std::bad_alloc&) {
      return kZipNoMemory;
    }
  }

 private:
  ZipResult ExtractEntry(int index, const char* path, size_t caller_length,
                         zip::Unpacker& unpacker);

  FileSource source_;
  std::string path_;
  bool directory_read_ = false;
  ZipResult directory_result_ = kZipOk;
  zip::Directory directory_;
  std::mutex entry_lock_;
  zip::Unpacker unpacker_;
};

ZipResult ZipArchive::ExtractEntry(int index, const char* path, size_t caller_length,
                                  zip::Unpacker& unpacker) {
  zip::EntryInfo entry;
  ZipResult result = Entry(index, &entry);
  if (result != kZipOk) return result;
  uint64_t at = 0;
  result = unpacker.Locate(source_, entry, directory_.DataLimit(static_cast<size_t>(index)), &at);
  if (result != kZipOk) return result;
  // Whatever name the caller joined, nothing is made outside the folder it
  // named, on a device or in an alternate stream, and a name that only looks
  // like what other tools show is not unpacked under another one.
  if (!entry.usable || CheckOutputPath(path) != kZipOk) return kZipNoFile;
  // Nor through a link that already stands in that folder: the folders the
  // entry's name adds are entered only when they are real folders, and the
  // file is made new under its name or, where one stands, written beside it
  // and moved into place.
  if (entry.folder) {
    const std::string folder = std::string(path) + "\\";
    // A folder that cannot be made was never an entry's failure.
    return MakeFoldersInside(folder, caller_length) == Placing::kLink ? kZipNoFile : kZipOk;
  }
  if (MakeFoldersInside(path, caller_length) != Placing::kReady) return kZipNoFile;
  ReplacingFile file;
  if (file.Create(path, ReplacingFile::Where::kInPlaceWhenNew) != Placing::kReady) return kZipNoFile;
  FileSink sink(file.handle());
  if ((result = unpacker.Stream(source_, entry, at, sink)) != kZipOk) return result;
  const FILETIME modified = DosTimeToUtc(entry.dos_date, entry.dos_time);
  ::SetFileTime(file.handle(), nullptr, nullptr, &modified);
  return file.Commit() ? kZipOk : kZipNoFile;
}

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
  return index >= 0 && static_cast<size_t>(index) < zip->count() ? kZipOk : kZipBadArguments;
}

size_t CallerLength(ZipHandle zip, int index, const char* path);

// UnzipItem, with the length of the caller's folder in `path` given, or
// (null) taken from the entry's name.
ZipResult UnzipItemWithin(ZipHandle zip, int index, const char* path, const size_t* caller_length) {
  ZipResult result = CheckHandle(zip);
  if (result == kZipOk && path == nullptr) result = kZipBadArguments;
  if (result == kZipOk) result = CheckIndex(zip, index);
  if (result == kZipOk) {
    result = zip->Extract(index, path,
                          caller_length != nullptr ? *caller_length : CallerLength(zip, index, path));
  }
  return Keep(result);
}

// How much of `path` the caller's folder takes: what comes before the entry's
// name when the caller joined the name to a folder, else everything but the
// file's own name.
size_t CallerLength(ZipHandle zip, int index, const char* path) {
  const size_t length = std::strlen(path);
  zip::EntryInfo entry;
  if (zip->Entry(index, &entry) != kZipOk) return length;
  const std::string& name = entry.name;
  if (name.empty() || name.size() > length || name.compare(0, name.size(), path + length - name.size()) != 0) {
    return length;
  }
  return length - name.size();
}

}  // namespace

ZipHandle OpenZip(const char* path) {
  if (path == nullptr) {
    Keep(kZipBadArguments);
    return nullptr;
  }
  UniqueHandle file(::CreateFileA(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                  FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
  LARGE_INTEGER size = {};
  if (!file || !::GetFileSizeEx(file.get(), &size)) {
    Keep(kZipNoFile);
    return nullptr;
  }
  std::unique_ptr<ZipArchive> zip;
  try {
    zip.reset(new ZipArchive(std::move(file), static_cast<uint64_t>(size.QuadPart), path));
    std::lock_guard<std::mutex> lock(g_open_mutex);
    OpenHandles().insert(zip.get());
  } catch (const std::bad_alloc&) {
    zip.reset();
  }
  Keep(zip ? kZipOk : kZipNoMemory);
  return zip.release();
}

ZipResult GetZipItem(ZipHandle zip, int index, ZipEntry* entry) {
  if (entry == nullptr) return Keep(kZipBadArguments);
  ZipResult result = CheckHandle(zip);
  if (result != kZipOk) return Keep(result);
  *entry = ZipEntry();
  if (index == -1) {
    entry->index = static_cast<int>(std::min<size_t>(zip->count(), INT_MAX));
    return Keep(kZipOk);
  }
  if ((result = CheckIndex(zip, index)) != kZipOk) return Keep(result);
  zip::EntryInfo found;
  if ((result = zip->Entry(index, &found)) != kZipOk) return Keep(result);
  entry->index = index;
  std::memcpy(entry->name, found.name.c_str(), found.name.size() + 1);
  entry->attributes = (found.external_attributes & 0xFF) |
                      (found.folder ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_NORMAL);
  entry->modified = DosTimeToUtc(found.dos_date, found.dos_time);
  entry->compressed_size = static_cast<long long>(found.compressed_size);
  entry->size = static_cast<long long>(found.size);
  return Keep(kZipOk);
}

ZipResult UnzipItem(ZipHandle zip, int index, const char* path) {
  return UnzipItemWithin(zip, index, path, nullptr);
}

unsigned DefaultUnzipThreads() {
  SYSTEM_INFO system = {};
  ::GetSystemInfo(&system);
  return std::max(1u, std::min<unsigned>(system.dwNumberOfProcessors, kMaxUnzipThreads));
}

namespace {

// The output path of entry `index`, exactly as a caller joins it.
PathBuffer OutputPath(const std::string& target_folder, const char* name) {
  PathBuffer path(target_folder);
  path.Append(name);
  return path;
}

uint64_t Fnv1a(const std::string& text) {
  uint64_t hash = 14695981039346656037ull;
  for (char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211ull;
  return hash;
}

// Paths are compared upper-cased, as Windows folds case, with "." and empty
// parts dropped. Costs 8 bytes per path and per folder on the way; past the
// budget, the answer is no.
}  // namespace

namespace {

bool EntriesAreIndependent(ZipHandle zip, const std::string& target_folder) {
  constexpr size_t kFolderBudget = 1u << 20;
  ZipEntry all;
  if (GetZipItem(zip, -1, &all) != kZipOk) return false;
  const int count = all.index;
  std::vector<uint64_t> files;
  std::vector<uint64_t> folders;
  files.reserve(static_cast<size_t>(count));
  for (int i = 0; i < count; ++i) {
    ZipEntry item;
    if (GetZipItem(zip, i, &item) != kZipOk) return false;
    PathBuffer path = OutputPath(target_folder, item.name);
    std::string upper = path.str();
    if (upper.find('~') != std::string::npos) return false;
    if (!upper.empty()) ::CharUpperBuffA(&upper[0], static_cast<DWORD>(upper.size()));
    std::string key;
    size_t start = 0;
    for (size_t pos = 0; pos <= upper.size(); ++pos) {
      if (pos < upper.size() && upper[pos] != '\\' && upper[pos] != '/') continue;
      const std::string part = upper.substr(start, pos - start);
      start = pos + 1;
      if (part.empty() || part == ".") continue;
      if (!key.empty()) {
        if (folders.size() >= kFolderBudget) return false;
        folders.push_back(Fnv1a(key));
      }
      key += "\\" + part;
    }
    // A folder entry only makes a folder: another of the same path, or a file
    // inside it, does not care which comes first; a file of that path does.
    if (item.attributes & FILE_ATTRIBUTE_DIRECTORY) {
      if (folders.size() >= kFolderBudget) return false;
      folders.push_back(Fnv1a(key));
    } else {
      files.push_back(Fnv1a(key));
    }
  }
  std::sort(files.begin(), files.end());
  if (std::adjacent_find(files.begin(), files.end()) != files.end()) return false;
  std::sort(folders.begin(), folders.end());
  for (uint64_t file : files) {
    if (std::binary_search(folders.begin(), folders.end(), file)) return false;
  }
  return true;
}

}  // namespace

bool ZipEntriesAreIndependent(ZipHandle zip, const std::string& target_folder) {
  try {
    return EntriesAreIndependent(zip, target_folder);
  } catch (const std::bad_alloc&) {
    return false;  // the plan does not fit: one by one
  }
}

ZipResult UnzipEntries(ZipHandle zip, const std::string& target_folder, unsigned threads) {
  return UnzipEntries(zip, target_folder, threads, FailureFn());
}

ZipResult UnzipEntries(ZipHandle zip, const std::string& target_folder, unsigned threads,
                       const FailureFn& failed) {
  // Entries may fail on several threads at once; the caller hears of one at a time.
  std::mutex telling;
  auto tell = [&](ZipResult result, const std::string& name, const char* path) {
    if (result == kZipOk || !failed) return;
    std::lock_guard<std::mutex> lock(telling);
    failed(Failure{FailureKind::kEntry, name, path, static_cast<long long>(result)});
  };
  ZipEntry all;
  ZipResult result = GetZipItem(zip, -1, &all);
  if (result != kZipOk) return result;
  const int count = all.index;
  // A target that leaves no room for a name would be cut inside its own name
  // and every entry would land outside it, several in one file.
  if (target_folder.size() >= kPathChars - 1) {
    for (int i = 0; i < count; ++i) {
      ZipEntry item;
      GetZipItem(zip, i, &item);
      tell(kZipNoFile, item.name, (target_folder + item.name).c_str());
    }
    return Keep(count > 0 ? kZipNoFile : result);
  }
  const size_t caller_length = target_folder.size();
  const bool parallel = threads > 1 && count > 1 && count <= kMaxParallelEntries &&
                        ZipEntriesAreIndependent(zip, target_folder);
  if (!parallel) {
    for (int i = 0; i < count; ++i) {
      ZipEntry item;
      GetZipItem(zip, i, &item);
      const PathBuffer path = OutputPath(target_folder, item.name);
      result = UnzipItemWithin(zip, i, path.c_str(), &caller_length);
      tell(result, item.name, path.c_str());
    }
    return result;
  }

  // Independent entries: each thread takes the next entry not yet taken, with
  // an unpacker of its own; the entries' results are the same in any order.
  // The largest go first, so that no thread is left alone with a big one at
  // the end. The last entry's result is kept as the most recent one, as it
  // would be after the entries one by one.
  std::vector<std::pair<uint64_t, int>> order;
  try {
    order.reserve(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) {
      zip::EntryInfo entry;
      order.emplace_back(zip->Entry(i, &entry) == kZipOk ? entry.compressed_size : 0, i);
    }
  } catch (const std::bad_alloc&) {
    return Keep(kZipNoMemory);
  }
  std::stable_sort(order.begin(), order.end(),
                   [](const auto& a, const auto& b) { return a.first > b.first; });
  std::atomic<int> next{0};
  std::atomic<ZipResult> last{kZipOk};
  auto work = [&] {
    zip::Unpacker unpacker;
    for (int taken = next++; taken < count; taken = next++) {
      const int i = order[static_cast<size_t>(taken)].second;
      zip::EntryInfo entry;
      ZipResult r = zip->Entry(i, &entry);
      const PathBuffer path = OutputPath(target_folder, entry.name.c_str());
      if (r == kZipOk) r = zip->Extract(i, path.c_str(), caller_length, unpacker);
      tell(r, entry.name, path.c_str());
      if (i == count - 1) last = r;
    }
  };
  std::vector<std::thread> helpers;
  try {
    for (unsigned t = 1; t < std::min<unsigned>(threads, static_cast<unsigned>(count)); ++t) {
      helpers.emplace_back(work);
    }
  } catch (const std::exception&) {
    // Fewer threads than asked: the ones there are, this one included, do it all.
  }
  work();
  for (std::thread& helper : helpers) helper.join();
  return Keep(last.load());
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
  const char* text = ZipResultText(code == kZipRecent ? g_recent.load() : code);
  const size_t length = std::strlen(text);
  if (buffer != nullptr && size > 0) {
    const size_t copied = std::min<size_t>(length, size - 1);
    std::memcpy(buffer, text, copied);
    buffer[copied] = '\0';
  }
  return static_cast<unsigned>(length);
}

}  // namespace dorvane
