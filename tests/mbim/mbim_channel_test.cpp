// The AT command channel against the simulated module.
#include "mbim/mbim_channel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <regex>
#include <thread>

#include "log/logger.h"
#include "monitor/state_work.h"
#include "support/log_reader.h"
#include "support/simulator.h"

namespace dorvane {
namespace {

using testing::IndexOf;

class ChannelTest : public testing::SimFixture {
 protected:
  // A worker whose channel waits `wait_ms` for each completion.
  std::unique_ptr<CStateWork> Worker(DWORD wait_ms = 1000) {
    WorkerOptions options;
    options.mbim_wait_ms = wait_ms;
    return std::make_unique<CStateWork>(options);
  }
  // Opens the channel, runs one command, frees the channel.
  bool Run(const std::string& command, std::string& result, DWORD wait_ms = 1000) {
    auto worker = Worker(wait_ms);
    EXPECT_TRUE(worker->CheckMBIM());
    ClearLog();
    const bool ok = worker->ExecuteCmd(command, result);
    WaitIdle();
    last_pending_ = worker->channel()->pending()->size();
    worker->FreeMBIM();
    return ok;
  }
  bool Logged(const std::string& text) const { return IndexOf(messages(), text) >= 0; }
  // The request id in the first message that starts with `prefix`, or -1.
  long IdIn(const std::string& prefix) const {
    for (const auto& m : messages()) {
      if (m.compare(0, prefix.size(), prefix) == 0) return std::stol(m.substr(prefix.size()));
    }
    return -1;
  }

  size_t last_pending_ = 0;
};

TEST_F(ChannelTest, OneCommandTravelsFramedInItsOwnSession) {
  std::string result = "untouched";
  EXPECT_TRUE(Run("AT", result));
  EXPECT_EQ("\r\nOK\r\n", result);

  mbnsim::SentCommand sent;
  ASSERT_TRUE(mbnsim::ReadLastCommand(&sent));
  EXPECT_EQ(1u, sent.command_id);
  EXPECT_EQ(VT_UI1, sent.type);
  EXPECT_EQ(std::string("AT\r\n"), sent.bytes) << "CR LF, and no terminating zero";

  DWORD opens = 0;
  DWORD closes = 0;
  mbnsim::SessionCounts(0, &opens, &closes);
  EXPECT_EQ(1u, opens);
  EXPECT_EQ(1u, closes);
  EXPECT_FALSE(mbnsim::SessionOpen(0));
  EXPECT_EQ(0u, last_pending_);

  // The worker's steps in order, and the completions matched to their requests.
  const auto msgs = messages();
  int at = -1;
  for (const char* step : {"get_IsCommandSessionOpen: Open = 0", "OpenCommandSession: requestID = ",
                           "WaitForOpenEventFinish done", "SetCommand: requestID = ", "Wait event",
                           "WaitForSetEventFinish done", "CloseCommandSession: requestID = "}) {
    int found = -1;
    for (size_t i = static_cast<size_t>(at + 1); i < msgs.size() && found < 0; ++i) {
      if (msgs[i].rfind(step, 0) == 0) found = static_cast<int>(i);
    }
    ASSERT_GE(found, 0) << step;
    at = found;
  }
  EXPECT_EQ(IdIn("OpenCommandSession: requestID = "),
            IdIn("OnOpenCommandSessionComplete, requestID = "));
  EXPECT_EQ(IdIn("SetCommand: requestID = "), IdIn("OnSetCommandComplete, requestID = "));
  EXPECT_EQ(IdIn("CloseCommandSession: requestID = "),
            IdIn("OnCloseCommandSessionComplete, requestID = "));
  EXPECT_TRUE(Logged("Set event"));
  ExpectNothingLeft();
}

TEST_F(ChannelTest, AnswersAreJudgedAndCleanedLikeTheModuleSentThem) {
  mbnsim::SetReply("AT+CSQ", "\r\n+CSQ: 23, 99\r\n\r\nOK\r\n");
  std::string result;
  EXPECT_TRUE(Run("AT+CSQ", result));
  EXPECT_EQ("\r\n+CSQ:23,99\r\n\r\nOK\r\n", result) << "blanks removed, case and CR LF kept";

  for (const char* error : {"\r\n+CME Error: 10\r\n", "\r\nERROR\r\n", "\r\nno eRrOr here\r\n"}) {
    SCOPED_TRACE(error);
    mbnsim::SetReply("AT+FAIL", error);
    result = "kept";
    EXPECT_FALSE(Run("AT+FAIL", result));
    EXPECT_EQ("kept", result);
    EXPECT_TRUE(Logged("Send Error result:"));
    EXPECT_FALSE(Logged("ExecuteCmd")) << "the exchange itself went well";
  }
  result = "kept";
  EXPECT_FALSE(Run("AT+NOSUCHTHING", result)) << "the module answers ERROR";
  EXPECT_EQ("kept", result);
  ExpectNothingLeft();
}

TEST_F(ChannelTest, HexFormWidensBytesAsSignedChars) {
  mbnsim::SetReply("AT+RAW", std::string("\r\n\xA5\x7F\r\nOK\r\n"));
  auto worker = Worker();
  ASSERT_TRUE(worker->CheckMBIM());
  std::string text;
  std::string hex = "prefix ";
  EXPECT_EQ(0u, worker->channel()->ExchangeCommand("AT+RAW\r\n", text, hex));
  EXPECT_EQ(std::string("\r\n\xA5\x7F\r\nOK\r\n"), text);
  EXPECT_EQ("prefix 0D 0A FFFFFFA5 7F 0D 0A 4F 4B 0D 0A ", hex) << "appended to";
  worker->FreeMBIM();
  ExpectNothingLeft();
}

TEST_F(ChannelTest, ASessionAlreadyOpenIsUsedAndLeftOpen) {
  mbnsim::SetSessionOpen(0, true);
  std::string result;
  EXPECT_TRUE(Run("AT", result));
  EXPECT_TRUE(mbnsim::SessionOpen(0));
  DWORD opens = 0;
  DWORD closes = 0;
  mbnsim::SessionCounts(0, &opens, &closes);
  EXPECT_EQ(1u, opens) << "only the one made by the test";
  EXPECT_EQ(0u, closes);
  EXPECT_TRUE(Logged("get_IsCommandSessionOpen: Open = 1"));
  for (const auto& m : messages()) {
    EXPECT_EQ(std::string::npos, m.find("OpenCommandSession")) << m;
    EXPECT_EQ(std::string::npos, m.find("CloseCommandSession")) << m;
  }
  ExpectNothingLeft();
}

// Each fault, injected in turn: what the exchange's own steps make of it.
TEST_F(ChannelTest, FaultsGiveTheExchangesOwnResultsWithinTheirWaits) {
  struct Case {
    std::vector<std::pair<const char*, const char*>> inject;
    bool ok;
    std::vector<std::string> logged;     // in this order, other lines between
    std::vector<std::string> not_logged;
    size_t left_pending;
    DWORD min_ms;                        // waits that must have run out (1000 ms each)
  };
  const Case cases[] = {
      // The set completion never comes: the wait runs out, the entry is still
      // collected (empty) and the exchange reports the time-out.
      {{{"SetCommand.Complete", "none"}},
       false, {"Wait event", "CloseCommandSession: requestID = ", "ExecuteCmd"}, {"Set event"}, 0, 1000},
      {{{"SetCommand.Complete", "0x80004005"}},
       false, {"OnSetCommandComplete-status-not-ok", "ExecuteCmd"}, {"Set event"}, 0, 1000},
      {{{"SetCommand.Complete", "0x1"}},  // S_FALSE is not OK either
       false, {"OnSetCommandComplete-status-not-ok", "ExecuteCmd"}, {"Set event"}, 0, 1000},
      {{{"SetCommand.Complete", "wrongid"}},
       false, {"OnSetCommandComplete-no-match-command", "ExecuteCmd"}, {"Set event"}, 0, 1000},
      // An empty answer still signals; the verdict then rejects it.
      {{{"SetCommand.Complete", "empty"}},
       false, {"Set event", "WaitForSetEventFinish done", "Send Error result:"}, {"ExecuteCmd"}, 0, 0},
      // SetCommand itself fails: the close is awaited and its 0 is the result; the
      // entry stays pending.
      {{{"SetCommand", "0x80004005"}},
       false, {"SetCommand", "CloseCommandSession", "Send Error result:"}, {"Wait event"}, 1, 0},
      {{{"SetCommand", "0x80004005"}, {"CloseCommandSession.Complete", "none"}},
       false, {"SetCommand", "CloseCommandSession", "ExecuteCmd"}, {}, 1, 1000},
      {{{"OpenCommandSession", "0x80004005"}},
       false, {"OpenCommandSession", "ExecuteCmd"}, {"Wait event"}, 0, 0},
      // A late open is not caught: the exchange goes on and succeeds.
      {{{"OpenCommandSession.Complete", "none"}},
       true, {"WaitForOpenEventFinish done", "WaitForSetEventFinish done"}, {"ExecuteCmd"}, 0, 1000},
      {{{"OpenCommandSession.Complete", "none"}, {"SetCommand.Complete", "none"}},
       false, {"WaitForOpenEventFinish done", "Wait event", "ExecuteCmd"}, {}, 0, 2000},
      {{{"GetDeviceService", "0x80070490"}},
       false, {"GetDeviceService", "GetService", "ExecuteCmd"}, {"get_IsCommandSessionOpen: Open = 0"}, 0, 0},
      {{{"GetDeviceService", "null"}}, false, {"GetDeviceService", "GetService", "ExecuteCmd"}, {}, 0, 0},
      {{{"get_IsCommandSessionOpen", "0x80004005"}},
       false, {"get_IsCommandSessionOpen", "ExecuteCmd"}, {"Wait event"}, 0, 0},
  };
  for (const Case& c : cases) {
    std::string label;
    for (const auto& i : c.inject) label += std::string(i.first) + "=" + i.second + " ";
    SCOPED_TRACE(label);
    UseInterfaces(1);
    for (const auto& i : c.inject) ASSERT_TRUE(mbnsim::Inject(i.first, i.second));
    std::string result = "kept";
    const DWORD start = ::GetTickCount();
    EXPECT_EQ(c.ok, Run("AT", result));
    const DWORD took = ::GetTickCount() - start;
    EXPECT_GE(took + 50, c.min_ms + 100);
    EXPECT_LT(took, c.min_ms + 3000) << "bounded by its waits";
    EXPECT_EQ(c.ok ? std::string("\r\nOK\r\n") : std::string("kept"), result);
    EXPECT_EQ(c.left_pending, last_pending_);
    const auto msgs = messages();
    int at = -1;
    for (const std::string& text : c.logged) {
      int found = -1;
      for (size_t i = static_cast<size_t>(at + 1); i < msgs.size() && found < 0; ++i) {
        if (msgs[i] == text || (text.back() == ' ' && msgs[i].rfind(text, 0) == 0)) {
          found = static_cast<int>(i);
        }
      }
      EXPECT_GE(found, 0) << "missing or out of order: " << text;
      at = std::max(at, found);
    }
    for (const std::string& text : c.not_logged) EXPECT_LT(IndexOf(msgs, text), 0) << text;
    ExpectNothingLeft();
  }
}

// SendCmd, behind dorvanectl at: ExecuteCmd's verdict and log lines, with the
// answer (also a rejected one) and the exchange's result handed back.
class AtExchange : public ChannelTest {
 protected:
  // Runs `send` on a fresh channel; the log lines it wrote, numbers (request
  // ids, cookies) blanked so that two runs can be compared.
  std::vector<std::string> LinesOf(const std::function<void(CStateWork&)>& send) {
    auto worker = Worker();
    EXPECT_TRUE(worker->CheckMBIM());
    ClearLog();
    send(*worker);
    WaitIdle();
    worker->FreeMBIM();
    std::vector<std::string> lines = tagged();
    for (std::string& line : lines) line = std::regex_replace(line, std::regex("[0-9]+"), "#");
    return lines;
  }
  static std::vector<std::string> Sorted(std::vector<std::string> lines) {
    std::sort(lines.begin(), lines.end());
    return lines;
  }
  // The lines without those of the device-service sink.
  static std::vector<std::string> WorkerLines(std::vector<std::string> lines) {
    lines.erase(std::remove_if(lines.begin(), lines.end(),
                               [](const std::string& line) {
                                 return line.rfind("[DETAIL]On", 0) == 0 || line == "[DETAIL]Set event";
                               }),
                lines.end());
    return lines;
  }
};

TEST_F(AtExchange, HandsBackWhatCameWithExecuteCmdsVerdictAndLogLines) {
  struct Case {
    const char* reply;   // the module's answer to AT+X, or null for the built-in
    const char* inject;  // a fault of SetCommand.Complete, or null
    DWORD exchange;
    std::string text;
    bool good;
  };
  const Case cases[] = {
      {"\r\n+CSQ: 23, 99\r\n\r\nOK\r\n", nullptr, 0, "\r\n+CSQ:23,99\r\n\r\nOK\r\n", true},
      {"\r\n+CME Error: 10\r\n", nullptr, 0, "\r\n+CMEError:10\r\n", false},
      {nullptr, nullptr, 0, "\r\nERROR\r\n", false},
      {nullptr, "empty", 0, "", false},
      {nullptr, "none", 1, "", false},
      {nullptr, "0x80004005", 1, "", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.reply ? c.reply : "") + (c.inject ? c.inject : ""));
    const auto arrange = [this, &c] {
      UseInterfaces(1);
      if (c.reply != nullptr) mbnsim::SetReply("AT+X", c.reply);
      if (c.inject != nullptr) mbnsim::Inject("SetCommand.Complete", c.inject);
    };
    arrange();
    CStateWork::CmdAnswer answer;
    const auto sent = LinesOf([&answer](CStateWork& w) { answer = w.SendCmd("AT+X"); });
    EXPECT_EQ(c.exchange, answer.exchange);
    EXPECT_EQ(c.text, answer.text);
    EXPECT_EQ(c.good, answer.good);

    arrange();
    std::string result = "kept";
    bool ok = !c.good;
    const auto executed = LinesOf([&](CStateWork& w) { ok = w.ExecuteCmd("AT+X", result); });
    EXPECT_EQ(c.good, ok);
    EXPECT_EQ(c.good ? c.text : std::string("kept"), result);
    // The completions' lines come from COM's threads, in either order with
    // the worker's own around them: the same lines, and the worker's in the
    // same order.
    EXPECT_EQ(Sorted(executed), Sorted(sent));
    EXPECT_EQ(WorkerLines(executed), WorkerLines(sent));
  }
  UseInterfaces(1);
  const auto none = LinesOf([](CStateWork& w) {
    w.FreeMBIM();
    const CStateWork::CmdAnswer answer = w.SendCmd("AT");
    EXPECT_EQ(static_cast<DWORD>(E_POINTER), answer.exchange) << "no channel";
    EXPECT_FALSE(answer.good);
  });
  EXPECT_EQ(std::vector<std::string>({"[DETAIL]FreeMBIM enter.", "[DETAIL]Unadvise:Event done, cookie = #",
                                      "[DETAIL]Close event", "[DETAIL]CoUninitialize",
                                      "[ERROR] ExecuteCmd"}),
            none);
  ExpectNothingLeft();
}

TEST_F(ChannelTest, ServiceWaitIsFiveSecondsWhenTheModuleNeverAnswers) {
  ASSERT_TRUE(mbnsim::Inject("SetCommand.Complete", "none"));
  auto worker = std::make_unique<CStateWork>();  // the service's own 5000 ms
  ASSERT_TRUE(worker->CheckMBIM());
  std::string result;
  const DWORD start = ::GetTickCount();
  EXPECT_FALSE(worker->ExecuteCmd("AT", result));
  const DWORD took = ::GetTickCount() - start;
  EXPECT_GE(took, 5050u);
  EXPECT_LT(took, 8000u);
  worker->FreeMBIM();
  ExpectNothingLeft();
}

TEST_F(ChannelTest, OpenAndFreeLogTheirStepsAndFreeWithoutChannelDoesNothing) {
  UseInterfaces(0);
  auto worker = Worker();
  ClearLog();
  EXPECT_EQ(0u, worker->FreeMBIM());
  EXPECT_FALSE(testing::FileExists(log_)) << "nothing logged";

  EXPECT_FALSE(worker->CheckMBIM()) << "no interface";
  ASSERT_NE(nullptr, worker->channel()) << "kept until freed";
  EXPECT_EQ(1u, worker->FreeMBIM());
  EXPECT_EQ(nullptr, worker->channel());
  const std::string cookie = std::to_string(IdIn("Advise:Event done, cookie = "));
  EXPECT_EQ((std::vector<std::string>{
                "Check MBIM enter", "CoInitializeEx done",
                "CoCreateInstance-CLSID_MbnInterfaceManager done",
                "CoCreateInstance-CLSID_MbnDeviceServicesManager done", "Create event",
                "CreateServicesEvents done", "QueryInterface: IMbnConnectionPointContainer done",
                "FindConnectionPoint:IMbnConnectionPoint done", "Advise:Event done, cookie = " + cookie,
                "GetInterfaces", "SafeArrayGetLBound: lowBound = 0", "SafeArrayGetUBound: upBound = -1",
                "SafeArrayDestroy: interface psa", "FreeMBIM enter.",
                "Unadvise:Event done, cookie = " + cookie, "Close event", "CoUninitialize"}),
            messages());
  ExpectNothingLeft();
}

TEST_F(ChannelTest, OnlyTheFirstOfTwoInterfacesIsUsed) {
  UseInterfaces(2);
  std::string result;
  EXPECT_TRUE(Run("AT+CIMI", result));
  EXPECT_NE(std::string::npos, result.find(mbnsim::DefaultInterface(0).subscriber_id)) << result;
  ExpectNothingLeft();
}

TEST_F(ChannelTest, WithoutTheStackTheChannelIsKeptButNotReady) {
  ASSERT_TRUE(testing::UnregisterSimulator());
  auto worker = Worker();
  ClearLog();
  EXPECT_FALSE(worker->CheckMBIM());
  EXPECT_NE(nullptr, worker->channel());
  EXPECT_EQ((std::vector<std::string>{"[DETAIL]Check MBIM enter", "[DETAIL]CoInitializeEx done",
                                      "[ERROR] CoCreateInstance-CLSID_MbnInterfaceManager",
                                      "[ERROR] InterfaceMgr is null"}),
            tagged());
  ClearLog();
  std::string result = "kept";
  EXPECT_FALSE(worker->ExecuteCmd("AT", result));
  EXPECT_EQ("kept", result);
  worker->FreeMBIM();
  // The exchange still walks its interface steps, each failing with its text.
  EXPECT_EQ((std::vector<std::string>{"[ERROR] InterfaceMgr is null", "[ERROR] GetInterface",
                                      "[ERROR] GetService", "[ERROR] ExecuteCmd",
                                      "[DETAIL]FreeMBIM enter.", "[DETAIL]CoUninitialize"}),
            tagged());
}

// The advise steps of the channel: one that succeeds without handing out its
// pointer logs only its failure; after a failed Advise the teardown still
// unadvises (cookie 0), and the stack's refusal is logged.
TEST_F(ChannelTest, AdviseStepFailuresAndTheUnadviseThatFollows) {
  struct Case {
    const char* call;
    const char* what;
    std::vector<std::string> advise;  // after "CreateServicesEvents done"
    std::vector<std::string> freed;   // after "FreeMBIM enter."
    DWORD bad_unadvises;
  };
  const Case cases[] = {
      {"DeviceServices.QueryInterface.IConnectionPointContainer", "null",
       {"[ERROR] QueryInterface"}, {"[DETAIL]Close event", "[DETAIL]CoUninitialize"}, 0},
      {"DeviceServices.FindConnectionPoint", "null",
       {"[DETAIL]QueryInterface: IMbnConnectionPointContainer done", "[ERROR] FindConnectionPoint"},
       {"[DETAIL]Close event", "[DETAIL]CoUninitialize"}, 0},
      {"DeviceServices.FindConnectionPoint", "0x80040200",
       {"[DETAIL]QueryInterface: IMbnConnectionPointContainer done", "[ERROR] FindConnectionPoint"},
       {"[DETAIL]Close event", "[DETAIL]CoUninitialize"}, 0},
      {"DeviceServices.Advise", "0x80040202",
       {"[DETAIL]QueryInterface: IMbnConnectionPointContainer done",
        "[DETAIL]FindConnectionPoint:IMbnConnectionPoint done", "[ERROR] Advise"},
       {"[ERROR] Advise", "[DETAIL]Close event", "[DETAIL]CoUninitialize"}, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.call) + " " + c.what);
    UseInterfaces(1);
    ASSERT_TRUE(mbnsim::Inject(c.call, c.what));
    auto worker = Worker();
    ClearLog();
    EXPECT_TRUE(worker->CheckMBIM()) << "the interface is there all the same";
    worker->FreeMBIM();
    const auto lines = tagged();
    auto from = [&lines](const std::string& after, const std::string& until) {
      std::vector<std::string> out;
      size_t i = 0;
      while (i < lines.size() && lines[i] != after) ++i;
      for (++i; i < lines.size() && lines[i] != until; ++i) out.push_back(lines[i]);
      return out;
    };
    EXPECT_EQ(c.advise, from("[DETAIL]CreateServicesEvents done", "[DETAIL]GetInterfaces"));
    EXPECT_EQ(c.freed, from("[DETAIL]FreeMBIM enter.", ""));
    ExpectNothingLeft(c.bad_unadvises);
  }
}

// When the stack refuses the Unadvise, the channel is freed but its sink stays
// advised: the completions of a later channel reach it too, and must find
// nothing of the freed channel (its memory here reused with a pattern).
TEST_F(ChannelTest, ASinkLeftAdvisedOutlivesItsChannel) {
  ASSERT_TRUE(mbnsim::Inject("DeviceServices.Unadvise", "0x8001010E"));
  {
    auto worker = Worker();
    ASSERT_TRUE(worker->CheckMBIM());
    std::string result;
    EXPECT_TRUE(worker->ExecuteCmd("AT+CGMI", result));
    // The close completion is not awaited by the exchange: let it come before
    // the log is emptied, so that no reopen meets the deletion.
    WaitIdle();
    ClearLog();
    worker->FreeMBIM();
  }
  EXPECT_EQ((std::vector<std::string>{"[DETAIL]FreeMBIM enter.", "[ERROR] Advise",
                                      "[DETAIL]CoUninitialize"}),
            tagged())
      << "the refused unadvise is logged with the advise's word; the sink lives on";
  ASSERT_TRUE(mbnsim::Inject("DeviceServices.Unadvise", ""));
  EXPECT_EQ(1u, counters().advised_sinks);
  std::vector<std::unique_ptr<unsigned char[]>> filler;
  for (size_t size : {sizeof(CMbimChannel), sizeof(PendingCommand), 2 * sizeof(PendingCommand)}) {
    for (int i = 0; i < 500; ++i) {
      filler.emplace_back(new unsigned char[size]);
      // No two neighbouring words alike, so no stale pointer pair reads as empty.
      for (size_t b = 0; b < size; ++b) filler.back()[b] = static_cast<unsigned char>(b * 7 + 1);
    }
  }

  std::string result;
  EXPECT_TRUE(Run("AT", result));
  EXPECT_EQ("\r\nOK\r\n", result);
  const auto msgs = messages();
  EXPECT_EQ(2, testing::CountOf(msgs, "OnSetCommandComplete, requestID = " +
                                          std::to_string(IdIn("SetCommand: requestID = "))))
      << "both sinks heard the completion";
  EXPECT_EQ(1, testing::CountOf(msgs, "OnSetCommandComplete-no-match-command"))
      << "the old sink found no entry of its own";
  EXPECT_EQ(1u, counters().advised_sinks) << "the stack still holds the old sink";
  EXPECT_EQ(0u, counters().live_objects);
}

TEST_F(ChannelTest, AFailedCoInitializeDoesNotStopTheChannel) {
  std::thread sta([this] {
    ::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    auto worker = Worker();
    EXPECT_TRUE(worker->CheckMBIM());
    std::string result;
    EXPECT_TRUE(worker->ExecuteCmd("AT", result));
    worker->FreeMBIM();
  });
  sta.join();
  const auto msgs = messages();
  EXPECT_GE(IndexOf(msgs, "CoInitializeEx error"), 0);
  EXPECT_GE(IndexOf(msgs, "CoCreateInstance-CLSID_MbnDeviceServicesManager done"), 0);
  ExpectNothingLeft();
}

}  // namespace
}  // namespace dorvane
