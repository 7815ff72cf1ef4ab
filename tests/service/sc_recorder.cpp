// Stands in for sc.exe beside dorvane.exe, where WinExec looks first: appends
// its command line, as the process got it, to C:\sc-calls.txt and ends with
// 0, so that a test can read the recovery command the service ran (Wine's own
// sc stores no failure actions and cannot show them).
#include <windows.h>

#include <cstdio>

int main() {
  std::FILE* out = std::fopen("C:\\sc-calls.txt", "ab");
  if (out == nullptr) return 1;
  std::fprintf(out, "%s\n", ::GetCommandLineA());
  std::fclose(out);
  return 0;
}
