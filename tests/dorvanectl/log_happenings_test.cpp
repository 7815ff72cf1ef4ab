// What the log reader makes of the service's lines: which are happenings and
// which failures, starts told from the reopened log, runs and windows across
// a turn of the year. The texts are the worker's and housekeeping's exact
// lines, which their own tests pin down.
#include "tools/dorvanectl/log_happenings.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tools/dorvanectl/log_html.h"

namespace dorvane::logread {
namespace {

const char kBanner[] = "---------------log start------------------\r\n";
const char kEnter[] = "[Information][CServiceStart::StartWork] Service start, StartWork Enter  >> ";

std::string Detail(const char* stamp, const std::string& text) {
  std::string line = std::string("[DETAIL] ") + stamp + ": " + text + "\n";
  std::string crlf;
  for (char c : line) crlf += c == '\n' ? std::string("\r\n") : std::string(1, c);
  return crlf;
}
std::string Error(const char* stamp, const std::string& text) {
  return "[ERROR]  " + Detail(stamp, text).substr(9);
}

struct Reading {
  std::vector<Happening> happenings;
  Summary summary;
  size_t unreadable = 0;
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
  r.unreadable = reader.unreadable_lines();
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
  struct Case {
    bool error_level;
    const char* text;
    const char* kind;  // "" for no happening
  };
  const Case cases[] = {
      {true, "[CStateWork::GetSimInfo] GetHomeProvider str_mccmnc is 310260", "sim"},
      {true, "[error][CStateWork::GetSimInfo] Get mbim interface fail.", "error"},
      {true, "CoInitializeEx error", "error"},
      {false, "OpenService failed (1060)", ""},  // no legacy service: nothing to remove
      {false, "OpenService failed (5)", "error"},
      {false, "OpenSCManager failed (5)", "error"},
      {false, "Service stop Failed.", "error"},
      {false, "Service removed Failed", "error"},
      {false, "Service removed successfully", ""},
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
      {false, "SetSimChangeEvent mccmnc:", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    const std::string line = c.error_level ? Error("05-06 07:08:09:010", c.text) : Detail("05-06 07:08:09:010", c.text);
    const Reading r = Read({line});
    if (*c.kind == '\0') {
      EXPECT_TRUE(r.happenings.empty()) << KindName(r.happenings[0].kind);
      continue;
    }
    ASSERT_EQ(1u, r.happenings.size());
    EXPECT_STREQ(c.kind, KindName(r.happenings[0].kind));
    EXPECT_EQ(c.text, r.happenings[0].text);
    EXPECT_EQ(line.substr(0, line.size() - 2), [&] {  // the original line, CR LF read as LF
      std::string o = OriginalLine(r.happenings[0]);
      std::string crlf;
      for (char ch : o) crlf += ch == '\n' ? std::string("\r\n") : std::string(1, ch);
      return crlf;
    }());
    if (std::string(c.kind) == "sim") {
      EXPECT_EQ("310260", r.happenings[0].mccmnc);
    }
  }
  // A warning is no failure of the service's (it writes none).
  EXPECT_TRUE(Read({"[WARNING]  05-06 07:08:09:010: CopyFileInDir skipped link C:\\x\r\n"}).happenings.empty());
}

TEST(LogHappenings, ABannerStartsARunUnlessItIsTheReopenedLogs) {
  struct Case {
    const char* name;
    std::vector<std::string> files;
    std::vector<std::string> happenings;
  };
  const std::string reopen = Detail("03-01 10:00:00:000", "Set SetLogPath-----");
  const Case cases[] = {
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
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.happenings, Shown(Read(c.files).happenings));
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
  const Reading all = Read({backup, log});
  const Summary& s = all.summary;
  ASSERT_EQ(3u, s.runs.items.size());
  const Summary::Run& first = s.runs.items[0];
  EXPECT_EQ(Summary::RunEnd::kStopped, first.how);
  EXPECT_EQ((39 * 60) * 60000LL, first.end->time.Ms() - first.start->time.Ms()) << "39 h over the turn";
  EXPECT_EQ(1, s.runs.items[1].start->time.year);
  EXPECT_EQ(Summary::RunEnd::kRestarted, s.runs.items[1].how);
  EXPECT_EQ(1u, s.runs.items[2].start->file);
  EXPECT_EQ(Summary::RunEnd::kLogEnds, s.runs.items[2].how);
  EXPECT_EQ("01-02 12:00:00.000", s.runs.items[2].end->time.Text());
  ASSERT_EQ(2u, s.sims.size());
  EXPECT_EQ("310260", s.sims[0].mccmnc);
  EXPECT_EQ(2u, s.sims[0].count);
  EXPECT_EQ("01-02 09:00:01.000", s.sims[0].last.time.Text());
  ASSERT_EQ(1u, s.errors.size());
  EXPECT_EQ(2u, s.errors[0].count);
  EXPECT_EQ(0u, s.errors[0].first.file);
  EXPECT_EQ(4u, s.errors[0].first.line);
  EXPECT_EQ(1u, s.errors[0].last.file);

  struct WindowCase {
    const char* since;
    const char* until;
    size_t runs, sims, errors;
  };
  const WindowCase windows[] = {
      {"01-02", nullptr, 1, 1, 1},        // after the turn: the 2nd of January of the next year
      {"12-31", "01-01", 2, 1, 0},        // the first run ends in it, the second starts in it
      {"12-30 08:00", "12-30 08:00", 1, 1, 1},  // to the end of the minute
      {"12-29", "12-29", 0, 0, 0},        // before the log: the next year's, after it
  };
  for (const WindowCase& w : windows) {
    SCOPED_TRACE(std::string(w.since) + " .. " + (w.until ? w.until : ""));
    const Reading r = Read({backup, log}, Window(ParseClockTime(w.since),
                                                 w.until ? ParseClockTime(w.until) : std::nullopt));
    EXPECT_EQ(w.runs, r.summary.runs.items.size());
    EXPECT_EQ(w.sims, r.summary.counts[static_cast<int>(Kind::kSim)]);
    EXPECT_EQ(w.errors, r.summary.counts[static_cast<int>(Kind::kError)]);
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
  struct TimeCase {
    const char* text;
    bool valid;
  };
  for (const TimeCase& c : std::vector<TimeCase>{{"11-24", true}, {"11-24 08:30", true}, {"02-29", true},
                                                   {"02-30", false}, {"13-01", false}, {"00-10", false},
                                                   {"11-24 24:00", false}, {"11-24 08:60", false},
                                                   {"11-24 8:30", false}, {"11-24T08:30", false},
                                                   {"1124", false}, {"11-24 08:30 ", false}}) {
    EXPECT_EQ(c.valid, ParseClockTime(c.text).has_value()) << c.text;
  }
  EXPECT_EQ("&lt;a href=&quot;x&quot;&gt;&amp;&#39; \\x1B\\x7F\xC3\xA9 \\xE9\\xC3 \\xED\\xA0\\x80 \\xF8\\x88\\x80\\x80",
            HtmlText("<a href=\"x\">&' \x1B\x7F\xC3\xA9 \xE9\xC3 \xED\xA0\x80 \xF8\x88\x80\x80"));
  EXPECT_EQ("9 h 58 min", LengthText((9 * 60 + 58) * 60000LL + 999));
  EXPECT_EQ("0.250 s", LengthText(250));
  Stamp t;
  t.known = true;
  t.year = 1;
  t.month = 1;
  t.day = 2;
  t.hour = 3;
  EXPECT_EQ("2027-01-02T03:00:00.000", TimeText(t, 2026));
  EXPECT_EQ("01-02 03:00:00.000", TimeText(t, 0));
}

}  // namespace
}  // namespace dorvane::logread
