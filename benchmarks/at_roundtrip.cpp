// Round trip of one AT command against the registered Mobile Broadband
// simulator: ExecuteCmd("AT") timed N times (default 100), with the service's
// 5000 ms waits and a real log file. Prints the median and the spread, and the
// median's excess over the fixed 100 ms pause before every command.
//
//   mbnsimctl register & mbnsimctl reset 1 & at_roundtrip.exe [N] [LOGFILE]
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "log/logger.h"
#include "monitor/state_work.h"

int main(int argc, char** argv) {
  const int n = argc > 1 ? std::atoi(argv[1]) : 100;
  dorvane::Logger* log = dorvane::Logger::GetInstance();
  log->SetLogPath(argc > 2 ? argv[2] : "NUL");
  log->Enable(true);

  dorvane::CStateWork worker;
  if (!worker.CheckMBIM()) {
    std::fprintf(stderr, "at_roundtrip: no modem (is the simulator registered?)\n");
    return 3;
  }
  LARGE_INTEGER freq;
  ::QueryPerformanceFrequency(&freq);
  auto median_of = [](std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
  };
  // What the platform's Sleep(100) itself takes, for comparison.
  std::vector<double> pause;
  for (int i = 0; i < 20; ++i) {
    LARGE_INTEGER a, b;
    ::QueryPerformanceCounter(&a);
    ::Sleep(100);
    ::QueryPerformanceCounter(&b);
    pause.push_back(1000.0 * static_cast<double>(b.QuadPart - a.QuadPart) / freq.QuadPart);
  }
  std::vector<double> ms;
  std::string answer;
  for (int i = 0; i < n + 3; ++i) {
    LARGE_INTEGER a, b;
    ::QueryPerformanceCounter(&a);
    const bool ok = worker.ExecuteCmd("AT", answer);
    ::QueryPerformanceCounter(&b);
    if (!ok) {
      std::fprintf(stderr, "at_roundtrip: command %d failed\n", i);
      worker.FreeMBIM();
      return 1;
    }
    if (i >= 3) ms.push_back(1000.0 * static_cast<double>(b.QuadPart - a.QuadPart) / freq.QuadPart);
  }
  worker.FreeMBIM();
  const double median = median_of(ms);
  const double sleep_median = median_of(pause);
  std::sort(ms.begin(), ms.end());
  std::printf("AT round trip over %d commands: median %.3f ms (min %.3f, p90 %.3f, max %.3f)\n",
              n, median, ms.front(), ms[ms.size() * 9 / 10], ms.back());
  std::printf("median beyond the fixed 100 ms pause: %.3f ms (target: at most 2 ms)\n",
              median - 100.0);
  std::printf("Sleep(100) alone: median %.3f ms, so the exchange itself takes %.3f ms\n",
              sleep_median, median - sleep_median);
  return 0;
}
