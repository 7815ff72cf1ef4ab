// One table lookup against tinyxml2's bare LoadFile of the same file.
//
// Generates two rules files with one table of N rows each (default 10000), an
// MCCMNCTable and an MCCTable, with the key looked up in the last row. Then the
// median of 20 runs each of (a) XMLDocument::LoadFile alone, (b)
// GetCarrierIdByMccmnc, which reads the file again on every call by design,
// walks every row and logs its lines, and (c) the silent GetCarrierIdByMcc on
// the other file (same size).
//
//   table_lookup.exe [ROWS] [LOGFILE]
#include <windows.h>

#include <tinyxml2.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "config/carrier_rules.h"
#include "log/logger.h"

namespace {

double Now() {
  static LARGE_INTEGER freq = [] {
    LARGE_INTEGER f;
    ::QueryPerformanceFrequency(&f);
    return f;
  }();
  LARGE_INTEGER t;
  ::QueryPerformanceCounter(&t);
  return 1000.0 * static_cast<double>(t.QuadPart) / static_cast<double>(freq.QuadPart);
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

}  // namespace

int main(int argc, char** argv) {
  const int rows = argc > 1 ? std::atoi(argv[1]) : 10000;
  dorvane::Logger* log = dorvane::Logger::GetInstance();
  log->SetLogPath(argc > 2 ? argv[2] : "NUL");
  log->Enable(true);

  char temp[MAX_PATH];
  ::GetTempPathA(MAX_PATH, temp);
  // One table of `rows` rows per file: MCCMNCTable in the first, MCCTable in the second.
  std::string paths[2];
  for (int t = 0; t < 2; ++t) {
    const char* table = t == 0 ? "MCCMNCTable" : "MCCTable";
    paths[t] = std::string(temp) + "dorvane-bench-" + table + ".xml";
    std::ofstream out(paths[t], std::ios::binary);
    out << "<?xml version=\"1.0\"?>\n<Rules>\n<SwitchingRule>\n<SelectionRule>\n<" << table << ">\n";
    for (int i = 0; i < rows; ++i) {
      out << "  <Item " << (t == 0 ? "mccmnc" : "mcc") << "=\"" << (100000 + i) << "\">CARRIER-" << i
          << "</Item>\n";
    }
    out << "</" << table << ">\n</SelectionRule>\n</SwitchingRule>\n</Rules>\n";
  }
  const std::string& path = paths[0];
  const std::string last_key = std::to_string(100000 + rows - 1);

  std::vector<double> load;
  std::vector<double> lookup;
  std::vector<double> silent;
  for (int round = 0; round < 21; ++round) {
    double t0 = Now();
    {
      tinyxml2::XMLDocument doc(true, tinyxml2::PRESERVE_WHITESPACE);
      if (doc.LoadFile(path.c_str()) != tinyxml2::XML_SUCCESS) return 1;
    }
    double t1 = Now();
    std::string carrier;
    if (!dorvane::GetCarrierIdByMccmnc(last_key, path, carrier)) return 1;
    double t2 = Now();
    if (!dorvane::GetCarrierIdByMcc(last_key, paths[1], carrier)) return 1;
    double t3 = Now();
    if (round == 0) continue;  // warm-up
    load.push_back(t1 - t0);
    lookup.push_back(t2 - t1);
    silent.push_back(t3 - t2);
  }
  for (const std::string& p : paths) ::DeleteFileA(p.c_str());
  const double l = Median(load);
  const double k = Median(lookup);
  const double m = Median(silent);
  std::printf("%d-row table: LoadFile median %.3f ms, lookup by MCC+MNC (logs 4 lines) median "
              "%.3f ms, ratio %.3f (target: at most 1.15); silent lookup by MCC median %.3f ms, "
              "ratio %.3f\n", rows, l, k, k / l, m, m / l);
  return 0;
}
