// What the log reader makes of the service's lines: which are happenings and
// which failures, starts told from the reopened log, runs and windows across
// a turn of the year. The texts are the worker's and housekeeping's exact
// lines, which their own tests pin down.
#include "tools/dorvanectl/log_happenings.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "tools/dorvanectl/log_html.h"

namespace dorvane::logread {
namespace {

const char kBanner[] = "---------------log start------------------\r\n";
const char kEnter[] = "[Information][CServiceStart::StartWork] Service start, StartWork Enter  >> ";

std::string Crlf(const std::string& text) {
  std::string crlf;
  for (char c : text) crlf += c == '\n' ? std::string("\r\n") : std::string(1, c);
  return crlf;
}
std::string Detail(const char* stamp, const std::string& text) {
  return Crlf(std::string("[DETAIL] ") + stamp + ": " + text + "\n");
}
std::string Error(const char* stamp, const std::string& text) {
  return "[ERROR]  " + Detail(stamp, text).substr(9);
}

struct Reading {
  std::vector<Happening> happenings;
  Summary summary;
};

Reading Read(const std::vector<std::string>& files, Window window = Window()) {
  Reading r;
  r.summary.window = window;
  bool anchored = false;
  HappeningReader reader([&](const Happening& h) {
    if (!anchored && reader.first().known) {
      r.summary.window.Anchor(reader.first());
      anchored = true;
    }
    r.happenings.push_back(h);
    r.summary.Add(h);
  });
  for (size_t i = 0; i < files.size(); ++i) {
    reader.Feed(i, files[i].data(), files[i].size());
    reader.Finish();
  }
  reader.End();
  r.summary.Finish(reader.last(), reader.last_file(), reader.last_line());
  return r;
}

// "kind@file:line MM-DD hh:mm:ss.mmm" for each happening, and the MCC/MNC of a sim.
std::vector<std::string> Shown(const std::vector<Happening>& happenings) {
  std::vector<std::string> out;
  for (const Happening& h : happenings) {
    std::string s = std::string(KindName(h.kind)) + "@" + std::to_string(h.file) + ":" +
                    std::to_string(h.line) + " " + (h.time.known ? h.time.Text() : "?");
    if (h.kind == Kind::kSim) s += " " + h.mccmnc;
    out.push_back(s);
  }
  return out;
}

TEST(LogHappenings, FailuresAreTheErrorLinesAndTheHousekeepingStepsThatFailed) {
  // At the error level?, the text, the happening's kind ("" for none).
  const std::tuple<bool, std::string, std::string> cases[] = {
      {true, "[CStateWork::GetSimInfo] GetHomeProvider str_mccmnc is 310260", "sim"},
      {true, "[error][CStateWork::GetSimInfo] Get mbim interface fail.", "error"},
      {true, "CoInitializeEx error", "error"},
      {false, "OpenService failed (1060)", ""},  // no legacy service: nothing to remove
      {false, "OpenService failed (5)", "error"},     {false, "OpenSCManager failed (5)", "error"},
      {false, "Service stop Failed.", "error"},       {false, "Service removed Failed", "error"},
      {false, "Service removed successfully", ""},    {false, "SetSimChangeEvent mccmnc:", ""},
      {false, "service Properties->recovery ,Code=33(should >31)", ""},
      {false, "service Properties->recovery ,Code=2(should >31)", "error"},
      {false, "----------------[Info][CMbnChangeEvent::OnInterfaceArrival]", "modem-arrival"},
      {false, "----------------[Info][CMbnChangeEvent::OnInterfaceRemoval]", "modem-removal"},
      {false, "\n\n------------------------[CStateWork::Work] register event-------------------\n",
       "registry-change"},
      {false, "\n\n------------------------[[CStateWork::Work] OnInterfaceArrival event--------------------\n", ""},
      {false, "[Infomation][CStateWork::Work] Into S4 Event.\n", "suspend"},
      {false, "[Infomation][CStateWork::Work] Resume from S4 Event.\n", "resume"},
      {false, "[Infomation][CStateWork::Work] Triger Service Stop Event.\n", ""},
      {false, "[Infomation][CServiceStart::StopWork] Stop work success.\r\n\r\n", "service-stop"},
      {false, "Set SetLogPath-----", "log-reopen"},
  };
  for (const auto& [error_level, text, kind] : cases) {
    SCOPED_TRACE(text);
    const std::string line = (error_level ? Error : Detail)("05-06 07:08:09:010", text);
    const Reading r = Read({line});
    if (kind.empty()) {
      EXPECT_TRUE(r.happenings.empty()) << KindName(r.happenings[0].kind);
      continue;
    }
    ASSERT_EQ(1u, r.happenings.size());
    EXPECT_EQ(kind, KindName(r.happenings[0].kind));
    EXPECT_EQ(text, r.happenings[0].text);
    // The original line, CR LF read as LF.
    EXPECT_EQ(line.substr(0, line.size() - 2), Crlf(OriginalLine(r.happenings[0])));
    EXPECT_EQ(kind == "sim" ? "310260" : "", r.happenings[0].mccmnc);
  }
  // A warning is no failure of the service's (it writes none).
  EXPECT_TRUE(Read({"[WARNING]  05-06 07:08:09:010: CopyFileInDir skipped link C:\\x\r\n"}).happenings.empty());
}

TEST(LogHappenings, ABannerStartsARunUnlessItIsTheReopenedLogs) {
  // What is read, the files, the happenings shown.
  using Strings = std::vector<std::string>;
  const std::string reopen = Detail("03-01 10:00:00:000", "Set SetLogPath-----");
  const std::tuple<const char*, Strings, Strings> cases[] = {
      {"a start: the banner takes the time of the line after it",
       {std::string(kBanner) + Detail("03-01 09:00:00:000", kEnter)},
       {"service-start@0:1 03-01 09:00:00.000"}},
      {"the reopen's banner is no start, and a line of another thread may come first",
       {reopen + kBanner + Detail("03-01 10:00:00:001", "[Infomation][CStateWork::Work] Into S4 Event.\n")},
       {"log-reopen@0:1 03-01 10:00:00.000", "suspend@0:3 03-01 10:00:00.001"}},
      {"a service that ended after the reopen line and started again",
       {reopen + kBanner + Detail("03-01 10:05:00:000", kEnter)},
       {"log-reopen@0:1 03-01 10:00:00.000", "service-start@0:2 03-01 10:05:00.000"}},
      {"a reopen that rotated the log: the line in the backup, the banner in the log",
       {reopen, std::string(kBanner) + Detail("03-01 10:00:00:002", "CoInitializeEx done")},
       {"log-reopen@0:1 03-01 10:00:00.000"}},
      {"a banner that ends the backup, its first line in the log",
       {Detail("03-01 08:00:00:000", "x") + kBanner, Detail("03-01 09:00:00:000", kEnter)},
       {"service-start@0:2 03-01 09:00:00.000"}},
      {"a banner at the very end has no time",
       {Detail("03-01 08:00:00:000", "x") + kBanner},
       {"service-start@0:2 ?"}},
      {"two banners: the first opened a run that wrote nothing",
       {std::string(kBanner) + kBanner + Detail("03-01 09:00:00:000", kEnter)},
       {"service-start@0:1 ?", "service-start@0:2 03-01 09:00:00.000"}},
  };
  for (const auto& [name, files, happenings] : cases) {
    SCOPED_TRACE(name);
    EXPECT_EQ(happenings, Shown(Read(files).happenings));
  }
}

TEST(LogHappenings, RunsSimsAndErrorsAcrossATurnOfTheYearAndInAWindow) {
  const std::string backup =
      std::string(kBanner) + Detail("12-30 08:00:00:000", kEnter) +
      Error("12-30 08:00:01:000", "[CStateWork::GetSimInfo] GetHomeProvider str_mccmnc is 310260") +
      Error("12-30 08:00:02:000", "[error][CStateWork::GetSimInfo] GetReadyState Fail.") +
      Detail("12-31 23:00:00:000", "[Infomation][CServiceStart::StopWork] Stop work success.\r\n\r\n") + kBanner +
      Detail("01-01 01:00:00:000", kEnter) +
      Error("01-01 01:00:01:000", "[CStateWork::GetSimInfo] GetHomeProvider str_mccmnc is 26201");
  // The service ended without its stop line; the next start ends the run.
  const std::string log = std::string(kBanner) + Detail("01-02 09:00:00:000", kEnter) +
                          Error("01-02 09:00:01:000", "[CStateWork::GetSimInfo] GetHomeProvider str_mccmnc is 310260") +
                          Error("01-02 09:00:02:000", "[error][CStateWork::GetSimInfo] GetReadyState Fail.") +
                          Detail("01-02 12:00:00:000", "----------------[Info][CMbnChangeEvent::OnInterfaceRemoval]");
  const Summary s = Read({backup, log}).summary;
  // "file:line time" of a point, the year count counted from 2000 (or, for
  // `year` 0, left out).
  auto at = [](const Summary::Point& p, int year = 2000) {
    return std::to_string(p.file) + ":" + std::to_string(p.line) + " " + TimeText(p.time, year);
  };
  const char* how[] = {"stopped", "restarted", "log ends"};
  std::vector<std::string> seen;
  for (const auto& r : s.runs.items) seen.push_back(at(*r.start) + " .. " + at(*r.end) + " " + how[int(r.how)]);
  for (const auto& sim : s.sims) seen.push_back(sim.mccmnc + " x" + std::to_string(sim.count) + " " + at(sim.last, 0));
  for (const auto& e : s.errors) {
    seen.push_back(e.text + " x" + std::to_string(e.count) + " " + at(e.first) + " .. " + at(e.last));
  }
  EXPECT_EQ((std::vector<std::string>{
                "0:1 2000-12-30T08:00:00.000 .. 0:5 2000-12-31T23:00:00.000 stopped",
                "0:8 2001-01-01T01:00:00.000 .. 0:10 2001-01-01T01:00:01.000 restarted",
                "1:1 2001-01-02T09:00:00.000 .. 1:5 2001-01-02T12:00:00.000 log ends",
                "310260 x2 1:3 01-02 09:00:01.000",
                "26201 x1 0:10 01-01 01:00:01.000",
                "[error][CStateWork::GetSimInfo] GetReadyState Fail. x2 0:4 2000-12-30T08:00:02.000 .. "
                "1:4 2001-01-02T09:00:02.000",
            }),
            seen);

  const std::tuple<const char*, const char*, size_t, size_t, size_t> windows[] = {
      {"01-02", nullptr, 1, 1, 1},        // after the turn: the 2nd of January of the next year
      {"12-31", "01-01", 2, 1, 0},        // the first run ends in it, the second starts in it
      {"12-30 08:00", "12-30 08:00", 1, 1, 1},  // to the end of the minute
      {"12-29", "12-29", 0, 0, 0},        // before the log: the next year's, after it
  };
  for (const auto& [since, until, runs, sims, errors] : windows) {
    SCOPED_TRACE(std::string(since) + " .. " + (until ? until : ""));
    const Reading r = Read({backup, log}, Window(ParseClockTime(since), until ? ParseClockTime(until) : std::nullopt));
    EXPECT_EQ(runs, r.summary.runs.items.size());
    EXPECT_EQ(sims, r.summary.counts[static_cast<int>(Kind::kSim)]);
    EXPECT_EQ(errors, r.summary.counts[static_cast<int>(Kind::kError)]);
  }
}

TEST(LogHappenings, ALogOfAnyLengthIsSummedUpInBoundedLists) {
  std::string log;
  for (size_t i = 0; i < Summary::kMaxErrorTexts + 5; ++i) {
    log += Error("04-01 00:00:00:000", "fail " + std::to_string(i));
    log += Error("04-01 00:00:00:001", "fail 0");
  }
  for (size_t i = 0; i < Summary::kMaxListed + 7; ++i) {
    log += Detail("04-02 00:00:00:000", "[Infomation][CStateWork::Work] Into S4 Event.\n");
  }
  const Summary s = Read({log}).summary;
  EXPECT_EQ(Summary::kMaxErrorTexts, s.errors.size());
  EXPECT_EQ(5u, s.other_errors);
  EXPECT_EQ(Summary::kMaxErrorTexts + 5 + 1, s.errors[0].count);
  EXPECT_EQ(Summary::kMaxListed, s.marks.items.size());
  EXPECT_EQ(2 * (Summary::kMaxErrorTexts + 5) + Summary::kMaxListed + 7, s.marks.total());
  EXPECT_EQ(Summary::kMaxListed + 7, s.counts[static_cast<int>(Kind::kSuspend)]);
}

TEST(LogHappenings, TimesAndTextsAsTheyAreGivenAndShown) {
  for (const char* valid : {"11-24", "11-24 08:30", "02-29"}) {
    EXPECT_TRUE(ParseClockTime(valid).has_value()) << valid;
  }
  for (const char* invalid : {"02-30", "13-01", "00-10", "11-24 24:00", "11-24 08:60", "11-24 8:30", "11-24T08:30",
                              "1124", "11-24 08:30 "}) {
    EXPECT_FALSE(ParseClockTime(invalid).has_value()) << invalid;
  }
  EXPECT_EQ("&lt;a href=&quot;x&quot;&gt;&amp;&#39; \\x1B\\x7F\xC3\xA9 \\xE9\\xC3 \\xED\\xA0\\x80 \\xF8\\x88\\x80\\x80",
            HtmlText("<a href=\"x\">&' \x1B\x7F\xC3\xA9 \xE9\xC3 \xED\xA0\x80 \xF8\x88\x80\x80"));
  EXPECT_EQ("9 h 58 min", LengthText((9 * 60 + 58) * 60000LL + 999));
  EXPECT_EQ("0.250 s", LengthText(250));
}

}  // namespace
}  // namespace dorvane::logread
