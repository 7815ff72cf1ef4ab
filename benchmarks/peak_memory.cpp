// Runs one command line and reports, as Windows tells them for that process,
// its peak memory, its exit code and its times, as one JSON line:
//
//   peak_memory.exe [--stdout FILE] [--interval MS] -- PROGRAM [ARGS...]
//   {"exit_code":0,"seconds":0.412,"peak_working_set":...,"peak_pagefile":...,
//    "max_private":...,"samples":...,"at_exit":{"ok":true,"peak_working_set":...,
//    "peak_pagefile":...,"private":...}}
//
//   peak_memory.exe --allocate MIB
//     (the child of a check: commits and touches MIB MiB, holds them 100 ms,
//     frees them and waits 100 ms more before it ends; run under the first
//     form, its peaks must exceed those of "--allocate 0" by about MIB MiB)
//
// The child's standard output goes to FILE (default NUL), its standard input
// is NUL and its standard error is ours. "seconds" is the wall time from
// CreateProcess until the child has ended, so it leaves out this program's own
// start.
//
// While the child runs, GetProcessMemoryInfo is asked every MS milliseconds
// (default 1; 0: only at the end). "peak_working_set" and "peak_pagefile" (the
// peak private bytes) are the highest values it gave, "max_private" the highest
// current private bytes seen. The same question once the child has ended is
// counted in too, and reported apart under "at_exit": Windows still answers it
// for an ended process whose handle is open. Wine does not (it answers with
// zeros, or with what the process held while it was ending), and it gives the
// current private bytes as "peak pagefile usage", so under Wine the samples
// taken while the child ran are what counts.
#include <windows.h>
#include <psapi.h>
#include <shellapi.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "util/scoped_handle.h"

namespace {

using dorvane::UniqueHandle;

// One argument quoted so that the child's command-line parser gives it back
// unchanged (the documented rules for backslashes before a quote).
std::wstring Quoted(const std::wstring& arg) {
  if (!arg.empty() && arg.find_first_of(L" \t\n\v\"") == std::wstring::npos) return arg;
  std::wstring out = L"\"";
  for (auto it = arg.begin();; ++it) {
    size_t backslashes = 0;
    while (it != arg.end() && *it == L'\\') {
      ++it;
      ++backslashes;
    }
    if (it == arg.end()) {
      out.append(backslashes * 2, L'\\');
      break;
    }
    if (*it == L'"') {
      out.append(backslashes * 2 + 1, L'\\');
    } else {
      out.append(backslashes, L'\\');
    }
    out.push_back(*it);
  }
  out.push_back(L'"');
  return out;
}

// An inheritable copy of one of our standard handles, or nothing.
UniqueHandle InheritableStd(DWORD which) {
  HANDLE ours = ::GetStdHandle(which);
  UniqueHandle copy;
  if (ours == nullptr || ours == INVALID_HANDLE_VALUE) return copy;
  ::DuplicateHandle(::GetCurrentProcess(), ours, ::GetCurrentProcess(), copy.put(), 0, TRUE,
                    DUPLICATE_SAME_ACCESS);
  return copy;
}

struct LocalFreer {
  void operator()(void* p) const { ::LocalFree(p); }
};

// The child of the check: a known amount of private memory, touched, held and
// freed again before the end.
int Allocate(size_t mib) {
  const size_t size = mib << 20;
  if (size > 0) {
    auto* memory = static_cast<char*>(::VirtualAlloc(nullptr, size, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
    if (memory == nullptr) return 1;
    for (size_t i = 0; i < size; i += 4096) memory[i] = static_cast<char>(i >> 12);
    ::Sleep(100);
    ::VirtualFree(memory, 0, MEM_RELEASE);
  } else {
    ::Sleep(100);
  }
  ::Sleep(100);
  return 0;
}

int Usage() {
  std::fprintf(stderr,
               "usage: peak_memory [--stdout FILE] [--interval MS] -- PROGRAM [ARGS...]\n"
               "       peak_memory --allocate MIB\n");
  return 2;
}

}  // namespace

int main() {
  int argc = 0;
  LPWSTR* raw = ::CommandLineToArgvW(::GetCommandLineW(), &argc);
  if (raw == nullptr) return Usage();
  std::unique_ptr<LPWSTR, LocalFreer> argv_owner(raw);
  std::wstring out_path = L"NUL";
  DWORD interval = 1;
  int at = 1;
  for (; at < argc; ++at) {
    const std::wstring arg = raw[at];
    if (arg == L"--") {
      ++at;
      break;
    }
    if (arg == L"--allocate" && at + 1 < argc) {
      return Allocate(std::wcstoul(raw[at + 1], nullptr, 10));
    }
    if (arg == L"--stdout" && at + 1 < argc) {
      out_path = raw[++at];
    } else if (arg == L"--interval" && at + 1 < argc) {
      interval = static_cast<DWORD>(std::wcstoul(raw[++at], nullptr, 10));
    } else {
      return Usage();
    }
  }
  if (at >= argc) return Usage();
  std::wstring command;
  for (int i = at; i < argc; ++i) command += (i > at ? L" " : L"") + Quoted(raw[i]);

  SECURITY_ATTRIBUTES inherit = {sizeof inherit, nullptr, TRUE};
  UniqueHandle out(::CreateFileW(out_path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inherit,
                                 CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
  UniqueHandle in(::CreateFileW(L"NUL", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit,
                                OPEN_EXISTING, 0, nullptr));
  UniqueHandle err = InheritableStd(STD_ERROR_HANDLE);
  if (!out || !in) {
    std::fprintf(stderr, "peak_memory: cannot open the child's standard handles (%lu)\n",
                 ::GetLastError());
    return 2;
  }
  STARTUPINFOW startup = {};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = in.get();
  startup.hStdOutput = out.get();
  startup.hStdError = err.get();
  PROCESS_INFORMATION info = {};

  LARGE_INTEGER freq, start, end;
  ::QueryPerformanceFrequency(&freq);
  ::QueryPerformanceCounter(&start);
  if (!::CreateProcessW(nullptr, &command[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                        &info)) {
    std::fprintf(stderr, "peak_memory: cannot start the command (%lu)\n", ::GetLastError());
    return 2;
  }
  UniqueHandle process(info.hProcess);
  UniqueHandle thread(info.hThread);

  PROCESS_MEMORY_COUNTERS_EX peak = {};
  unsigned long long samples = 0;
  auto sample = [&](PROCESS_MEMORY_COUNTERS_EX* into) {
    PROCESS_MEMORY_COUNTERS_EX now = {};
    now.cb = sizeof now;
    if (!::GetProcessMemoryInfo(process.get(), reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&now),
                                sizeof now)) {
      return false;
    }
    if (into != nullptr) *into = now;
    ++samples;
    peak.PeakWorkingSetSize = std::max(peak.PeakWorkingSetSize, now.PeakWorkingSetSize);
    peak.PeakWorkingSetSize = std::max(peak.PeakWorkingSetSize, now.WorkingSetSize);
    peak.PeakPagefileUsage = std::max(peak.PeakPagefileUsage, now.PeakPagefileUsage);
    peak.PeakPagefileUsage = std::max(peak.PeakPagefileUsage, now.PagefileUsage);
    peak.PrivateUsage = std::max(peak.PrivateUsage, now.PrivateUsage);
    return true;
  };
  for (;;) {
    const DWORD waited = ::WaitForSingleObject(process.get(), interval == 0 ? INFINITE : interval);
    if (waited == WAIT_OBJECT_0) break;
    if (waited != WAIT_TIMEOUT) {
      std::fprintf(stderr, "peak_memory: waiting for the command failed (%lu)\n", ::GetLastError());
      return 2;
    }
    sample(nullptr);
  }
  ::QueryPerformanceCounter(&end);
  const double seconds = static_cast<double>(end.QuadPart - start.QuadPart) / freq.QuadPart;

  const unsigned long long while_running = samples;
  PROCESS_MEMORY_COUNTERS_EX last = {};
  const bool at_exit = sample(&last);
  DWORD exit_code = 0;
  ::GetExitCodeProcess(process.get(), &exit_code);

  std::printf("{\"exit_code\":%lu,\"seconds\":%.4f,"
              "\"peak_working_set\":%llu,\"peak_pagefile\":%llu,\"max_private\":%llu,"
              "\"samples\":%llu,\"at_exit\":{\"ok\":%s,\"peak_working_set\":%llu,"
              "\"peak_pagefile\":%llu,\"private\":%llu}}\n",
              exit_code, seconds,
              static_cast<unsigned long long>(peak.PeakWorkingSetSize),
              static_cast<unsigned long long>(peak.PeakPagefileUsage),
              static_cast<unsigned long long>(peak.PrivateUsage), while_running,
              at_exit ? "true" : "false", static_cast<unsigned long long>(last.PeakWorkingSetSize),
              static_cast<unsigned long long>(last.PeakPagefileUsage),
              static_cast<unsigned long long>(last.PrivateUsage));
  std::fflush(stdout);
  return 0;
}
