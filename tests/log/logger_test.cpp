#include "log/logger.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "support/log_reader.h"

namespace dorvane {
namespace {

using testing::FileExists;
using testing::FileSize;
using testing::MakeFileOfSize;
using testing::MakeTempDir;
using testing::ReadFileBytes;
using testing::ReadLog;
using testing::Tagged;

const char kBannerLine[] = "---------------log start------------------\r\n";

// A logger with its path set and enabled, as the service prepares it.
std::unique_ptr<Logger> OpenLogger(const std::string& path) {
  auto log = std::make_unique<Logger>();
  log->SetLogPath(path);
  log->Enable(true);
  return log;
}

TEST(LoggerFormat, BannerTagsWidthsExpansionAndReopening) {
  // Two folders of the chain do not exist yet: the open makes them.
  const std::string path = MakeTempDir("fmt") + "\\DorvaneBin\\deeper\\Dorvane.log";
  auto log = OpenLogger(path);
  EXPECT_EQ(5, log->Write(1, "error"));
  log->Write(2, "warn");
  log->Write(3, "three");
  EXPECT_EQ(25, log->Write(4, "Code=%d(should >31) and %s", 42, "x"));
  EXPECT_EQ(11, log->Write(4, std::string("100% ready.")));
  log->Write(4, "\n\n----sep----\n");  // own line breaks are written as they are
  log->Write(4, "done.\r\n\r\n");
  log->Close();
  log->Close();  // closing a closed log does nothing
  log->Write(4, "again");  // reopens the log, appending, with a new banner
  EXPECT_EQ(0u, ReadFileBytes(path).find(std::string(kBannerLine) + "[ERROR]  "));
  EXPECT_EQ((std::vector<std::string>{"banner", "[ERROR] error", "[WARNING] warn", "[DETAIL]three",
                                      "[DETAIL]Code=42(should >31) and x", "[DETAIL]100% ready.",
                                      "[DETAIL]\n\n----sep----\n", "[DETAIL]done.\r\n\r\n", "banner",
                                      "[DETAIL]again"}),
            Tagged(path));
  // The date is today's (month and day, no year).
  SYSTEMTIME now;
  ::GetLocalTime(&now);
  char md[8];
  std::snprintf(md, sizeof md, "%02d-%02d", now.wMonth, now.wDay);
  EXPECT_EQ(md, ReadLog(path).back().stamp.substr(0, 5));
}

TEST(LoggerRotation, RotatesAtExactlyFiftyMebibytes) {
  const std::string path = MakeTempDir("rotate") + "\\Dorvane.log";
  const std::string backup = path + "bk";
  testing::WriteFileBytes(backup, "an older backup");

  MakeFileOfSize(path, kLogRotateSize - 1);
  Logger below;
  below.SetLogPath(path);
  EXPECT_EQ(kLogRotateSize - 1, FileSize(path)) << "one byte short must not rotate";
  EXPECT_EQ(15, FileSize(backup));

  MakeFileOfSize(path, kLogRotateSize);
  Logger at;
  at.SetLogPath(path);
  ASSERT_FALSE(FileExists(path)) << "the log stays closed until the next open";
  EXPECT_EQ(kLogRotateSize, FileSize(backup)) << "the older backup is replaced";
  at.Enable(true);
  at.Write(4, "after rotation");
  EXPECT_EQ((std::vector<std::string>{"banner", "[DETAIL]after rotation"}), Tagged(path));
}

// What the mirror was given, line by line; the mirror is a plain function.
std::vector<std::string> g_mirrored;
void Collect(const char* line, size_t length) { g_mirrored.emplace_back(line, length); }

// dorvanectl -v: every line the file gets, byte for byte (the file's text mode
// adds its CR), once, in the file's order, also while eight threads write; the
// banner is not a line and a mirror set to null gets nothing more.
TEST(LoggerMirror, GetsEveryWrittenLineOnceInTheFilesOrder) {
  const std::string path = MakeTempDir("mirror") + "\\x.log";
  auto log = OpenLogger(path);
  log->SetMirror(Collect);
  log->Write(1, "error %d%%", 7);
  log->Write(4, std::string("100% ready.\r\n"));
  std::vector<std::thread> writers;
  for (int t = 0; t < 8; ++t) {
    writers.emplace_back([&log, t] {
      for (int i = 0; i < 200; ++i) log->Write(t == 0 ? 2 : 4, "writer %d line %d %s", t, i, "x");
    });
  }
  for (auto& w : writers) w.join();
  log->SetMirror(nullptr);
  log->Write(4, "not mirrored");

  std::string file = ReadFileBytes(path);
  ASSERT_EQ(0u, file.find(kBannerLine));
  file.erase(0, sizeof kBannerLine - 1);
  std::string mirrored;
  for (const std::string& line : g_mirrored) {
    ASSERT_FALSE(line.empty());
    EXPECT_EQ('\n', line.back()) << "one whole line per call";
    for (char c : line) mirrored += c == '\n' ? std::string("\r\n") : std::string(1, c);
  }
  const std::string last = "not mirrored\r\n";
  ASSERT_EQ(file.size() - last.size(), file.rfind(last));
  file.erase(file.rfind("[DETAIL]"));
  EXPECT_EQ(file, mirrored);
  ASSERT_EQ(2u + 8 * 200, g_mirrored.size());
  EXPECT_EQ(0u, g_mirrored[0].find("[ERROR]  ")) << g_mirrored[0];
  EXPECT_NE(std::string::npos, g_mirrored[0].find(": error 7%\n"));
  EXPECT_NE(std::string::npos, g_mirrored[1].find(": 100% ready.\r\n\n"));
}

// Four writers while the worker's three-hourly check (close, set the path
// again) runs without pause, over a log just short of the rotation size: every
// line ends up whole in the log or its backup. While writers keep the log open
// the rename cannot happen; so they pause together now and then, and the log
// is rotated during one of those pauses, right before they reopen it.
TEST(LoggerConcurrency, PeriodicCheckDuringWritesLosesAndTearsNothing) {
  const std::string path = MakeTempDir("check") + "\\Dorvane.log";
  // One long filler line keeps the reading back cheap.
  testing::WriteFileBytes(path, "[DETAIL] 01-01 00:00:00:000: " +
                                    std::string(kLogRotateSize - 300000, 'f') + "\r\n");

  // Leaked on purpose: should a writer stay blocked inside it, the watchdog ends
  // the process and nothing may destroy it under that writer.
  Logger* log = OpenLogger(path).release();
  constexpr int kThreads = 4, kLines = 2500, kPauseEvery = 500;
  std::atomic<int> running{kThreads}, written{0}, paused{0}, generation{0};
  std::vector<std::thread> writers;
  for (int t = 0; t < kThreads; ++t) {
    writers.emplace_back([log, t, &running, &written, &paused, &generation] {
      for (int i = 0; i < kLines; ++i) {
        if (i > 0 && i % kPauseEvery == 0) {
          const int g = generation.load();
          ++paused;
          while (generation.load() == g) ::Sleep(1);
        }
        log->Write(4, "w%d n%d %s", t, i, "0123456789abcdef");
        ++written;
      }
      --running;
    });
  }
  std::thread watchdog([&running, &written] {
    int before = -1;
    for (int quiet = 0; running.load() > 0; quiet += 100) {
      if (written.load() != before) {
        before = written.load();
        quiet = 0;
      }
      if (quiet > 20000) {
        std::fprintf(stderr, "no line written for 20 s after %d: the logger stays locked\n", before);
        std::_Exit(3);
      }
      ::Sleep(100);
    }
  });
  int checks = 0;
  while (running.load() > 0) {
    // Read before the check: when every writer was already waiting, this
    // check meets a closed log and rotates it once it has reached the size.
    const bool all_paused = paused.load() == kThreads;
    log->Close();
    log->SetLogPath(path);
    ++checks;
    if (all_paused) {
      paused = 0;
      ++generation;
    }
  }
  for (auto& w : writers) w.join();
  watchdog.join();
  log->Close();

  std::vector<std::vector<bool>> seen(kThreads, std::vector<bool>(kLines, false));
  int lines = 0;
  const std::regex line(R"(w(\d) n(\d+) 0123456789abcdef)");
  for (const std::string& file : {path + "bk", path}) {
    for (const auto& record : ReadLog(file)) {
      if (record.tag == "banner" || record.message.size() > 1000) continue;
      std::smatch m;
      ASSERT_TRUE(std::regex_match(record.message, m, line)) << "torn: " << record.message;
      const int t = std::stoi(m[1].str()), n = std::stoi(m[2].str());
      ASSERT_TRUE(t < kThreads && n < kLines) << record.message;
      EXPECT_FALSE(seen[t][n]) << "twice: " << record.message;
      seen[t][n] = true;
      ++lines;
    }
  }
  EXPECT_EQ(kThreads * kLines, lines) << "every line is in the log or its backup";
  EXPECT_TRUE(FileExists(path + "bk")) << "the checks rotated the log";
  std::printf("%d checks during %d lines\n", checks, lines);
}

TEST(LoggerFailure, AFailedOpenLocksEveryLaterWrite) {
  const std::string dir = MakeTempDir("locked");
  auto* early = new Logger();  // leaked: it ends up locked
  early->SetLogPath(dir + "\\early.log");
  EXPECT_EQ(0, early->Write(4, "before Enable"));
  EXPECT_FALSE(FileExists(dir + "\\early.log"));
  // A file where a folder of the chain should be: neither the folder nor the log
  // can be created.
  testing::WriteFileBytes(dir + "\\blocker", "x");
  const std::string path = dir + "\\blocker\\Dorvane.log";

  // Leaked on purpose: a writer stays blocked inside it for the rest of the process.
  auto* log = new Logger();
  log->SetLogPath(path);
  log->Enable(true);
  EXPECT_FALSE(FileExists(path));
  EXPECT_EQ(0, log->Write(1, "nowhere to go"));

  auto* returned = new std::atomic<bool>(false);  // leaked with the writer that never returns
  std::thread([log, returned] {
    log->Write(4, "x");
    *returned = true;
  }).detach();
  ::Sleep(500);
  EXPECT_FALSE(*returned) << "the second write must block for ever";
}

}  // namespace
}  // namespace dorvane
