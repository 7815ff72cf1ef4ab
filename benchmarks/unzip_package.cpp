// Unpacks one package with UnzipAllItems, as the installation does, and
// reports the time it took and this process's peak memory, as one JSON line:
//
//   unzip_package.exe ARCHIVE TARGET\ [LOGFILE]
//   unzip_package.exe ARCHIVE --list          (only lists the entries)
//   unzip_package.exe ARCHIVE TARGET\ --threads N
//                     (UnzipEntries on N threads instead of UnzipAllItems)
//   {"seconds":1.234,"entries":300,"bytes":402653184,"peak_working_set":...,"peak_pagefile":...}
//
// "seconds" is the call alone, without process start; "bytes" the sum of the
// entries' sizes. Peak memory comes from GetProcessMemoryInfo at the end, so it
// includes the runtime's (and under Wine, Wine's) own share: compare runs of
// the same program on a tiny and a large archive to see what the archive adds.
#include <windows.h>
#include <psapi.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "log/logger.h"
#include "util/package.h"
#include "util/zip_reader.h"

namespace {

// Entries and unpacked bytes, read through the same reader.
void Totals(const char* archive, int* entries, long long* bytes) {
  *entries = 0;
  *bytes = 0;
  dorvane::ZipHandle zip = dorvane::OpenZip(archive);
  dorvane::ZipEntry all;
  if (dorvane::GetZipItem(zip, -1, &all) == dorvane::kZipOk) {
    *entries = all.index;
    for (int i = 0; i < all.index; ++i) {
      dorvane::ZipEntry item;
      if (dorvane::GetZipItem(zip, i, &item) == dorvane::kZipOk) *bytes += item.size;
    }
  }
  if (zip != nullptr) dorvane::CloseZip(zip);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: unzip_package ARCHIVE TARGET\\ [LOGFILE]\n");
    return 2;
  }
  unsigned threads = 0;  // 0: UnzipAllItems with its own choice
  if (argc > 4 && std::string(argv[3]) == "--threads") {
    threads = static_cast<unsigned>(std::strtoul(argv[4], nullptr, 10));
    argc = 3;
  }
  dorvane::Logger* log = dorvane::Logger::GetInstance();
  log->SetLogPath(argc > 3 ? argv[3] : "NUL");
  log->Enable(true);

  LARGE_INTEGER freq, start, end;
  ::QueryPerformanceFrequency(&freq);
  ::QueryPerformanceCounter(&start);
  const bool list_only = std::string(argv[2]) == "--list";
  int result = 1;
  if (threads > 0) {
    dorvane::ZipHandle zip = dorvane::OpenZip(argv[1]);
    dorvane::UnzipEntries(zip, argv[2], threads);
    dorvane::CloseZip(zip);
  } else if (!list_only) {
    result = dorvane::UnzipAllItems(argv[2], argv[1]);
  }
  ::QueryPerformanceCounter(&end);
  const double seconds = static_cast<double>(end.QuadPart - start.QuadPart) / freq.QuadPart;

  int entries = 0;
  long long bytes = 0;
  Totals(argv[1], &entries, &bytes);
  PROCESS_MEMORY_COUNTERS memory = {};
  memory.cb = sizeof memory;
  ::GetProcessMemoryInfo(::GetCurrentProcess(), &memory, sizeof memory);
  std::printf("{\"result\":%d,\"seconds\":%.4f,\"entries\":%d,\"bytes\":%lld,\"threads\":%u,"
              "\"peak_working_set\":%llu,\"peak_pagefile\":%llu}\n",
              result, seconds, entries, bytes, threads > 0 ? threads : dorvane::DefaultUnzipThreads(),
              static_cast<unsigned long long>(memory.PeakWorkingSetSize),
              static_cast<unsigned long long>(memory.PeakPagefileUsage));
  return result == 1 ? 0 : 1;
}
