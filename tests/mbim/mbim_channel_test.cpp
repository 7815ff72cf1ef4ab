// The AT command channel against the simulated module.
#include "mbim/mbim_channel.h"

#include <gtest/gtest.h>

#include <algorithm>
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

constexpr DWORD kWaitMs = 250;  // each completion wait; the service's 5 s, shortened

// The first of `steps` not logged in this order (other lines between), or ""
// when all are. A step ending in a blank is a prefix.
std::string MissingStep(const std::vector<std::string>& msgs,
                        const std::vector<std::string>& steps) {
  size_t at = 0;
  for (const std::string& step : steps) {
    const bool prefix = step.back() == ' ';
    while (at < msgs.size() && msgs[at] != step && !(prefix && msgs[at].rfind(step, 0) == 0)) ++at;
    if (at++ >= msgs.size()) return step;
  }
  return "";
}

class ChannelTest : public testing::SimFixture {
 protected:
  std::unique_ptr<CStateWork> Worker() {
    WorkerOptions options;
    options.mbim_wait_ms = kWaitMs;
    return std::make_unique<CStateWork>(options);
  }
  // Opens the channel, runs one command, frees the channel.
  bool Run(const std::string& command, std::string& result) {
    auto worker = Worker();
    EXPECT_TRUE(worker->CheckMBIM());
    ClearLog();
    const bool ok = worker->ExecuteCmd(command, result);
    WaitIdle();
    last_pending_ = worker->channel()->pending()->size();
    worker->FreeMBIM();
    return ok;
  }
  // The request id in the first message that starts with `prefix`, or -1.
  long IdIn(const std::string& prefix) const {
    for (const auto& m : messages()) {
      if (m.compare(0, prefix.size(), prefix) == 0) return std::stol(m.substr(prefix.size()));
    }
    return -1;
  }
  std::pair<DWORD, DWORD> Sessions() const {
    std::pair<DWORD, DWORD> opens_closes;
    mbnsim::SessionCounts(0, &opens_closes.first, &opens_closes.second);
    return opens_closes;
  }

  size_t last_pending_ = 0;
};

TEST_F(ChannelTest, OneCommandTravelsFramedInItsOwnSessionOrInTheOneFoundOpenWithinTheWait) {
  std::string result = "untouched";
  EXPECT_TRUE(Run("AT", result));
  EXPECT_EQ("\r\nOK\r\n", result);
  mbnsim::SentCommand sent;
  ASSERT_TRUE(mbnsim::ReadLastCommand(&sent));
  EXPECT_EQ(1u, sent.command_id);
  EXPECT_EQ(VT_UI1, sent.type);
  EXPECT_EQ(std::string("AT\r\n"), sent.bytes) << "CR LF, and no terminating zero";
  EXPECT_EQ(std::make_pair(1ul, 1ul), Sessions());
  EXPECT_FALSE(mbnsim::SessionOpen(0));
  EXPECT_EQ(0u, last_pending_);
  // The worker's steps in order, and the completions matched to their requests.
  EXPECT_EQ("", MissingStep(messages(), {"get_IsCommandSessionOpen: Open = 0",
                                         "OpenCommandSession: requestID = ",
                                         "WaitForOpenEventFinish done", "SetCommand: requestID = ",
                                         "Wait event", "WaitForSetEventFinish done",
                                         "CloseCommandSession: requestID = "}));
  for (const char* step : {"OpenCommandSession", "SetCommand", "CloseCommandSession"}) {
    const std::string name = step;
    EXPECT_EQ(IdIn(name + ": requestID = "), IdIn("On" + name + "Complete, requestID = ")) << step;
  }
  EXPECT_GE(IndexOf(messages(), "Set event"), 0);
  ExpectNothingLeft();

  // A session someone else opened is used as it is and left open.
  mbnsim::SetSessionOpen(0, true);
  EXPECT_TRUE(Run("AT", result));
  EXPECT_TRUE(mbnsim::SessionOpen(0));
  EXPECT_EQ(std::make_pair(2ul, 1ul), Sessions()) << "only the one made by the test";
  EXPECT_GE(IndexOf(messages(), "get_IsCommandSessionOpen: Open = 1"), 0);
  for (const auto& m : messages()) {
    EXPECT_EQ(std::string::npos, m.find("OpenCommandSession")) << m;
    EXPECT_EQ(std::string::npos, m.find("CloseCommandSession")) << m;
  }
  mbnsim::SetSessionOpen(0, false);
  ExpectNothingLeft();

  // The service's own wait (five seconds; the waits running out are shown
  // below, shortened) still hears a module that answers 3.2 seconds late.
  mbnsim::SetDelay("SetCommand.Complete", 3200);
  CStateWork service;
  ASSERT_TRUE(service.CheckMBIM());
  const DWORD start = ::GetTickCount();
  EXPECT_TRUE(service.ExecuteCmd("AT", result));
  EXPECT_GE(::GetTickCount() - start + 10, 3200u);
  EXPECT_EQ("\r\nOK\r\n", result);
  service.FreeMBIM();
  ExpectNothingLeft();
}

TEST_F(ChannelTest, AnswersAreJudgedCleanedAndWidenedLikeTheModuleSentThem) {
  mbnsim::SetReply("AT+CSQ", "\r\n+CSQ: 23, 99\r\n\r\nOK\r\n");
  std::string result;
  EXPECT_TRUE(Run("AT+CSQ", result));
  EXPECT_EQ("\r\n+CSQ:23,99\r\n\r\nOK\r\n", result) << "blanks removed, case and CR LF kept";
  for (const char* error :
       {"\r\n+CME Error: 10\r\n", "\r\nERROR\r\n", "\r\nno eRrOr here\r\n", ""}) {
    SCOPED_TRACE(error);
    if (*error) mbnsim::SetReply("AT+FAIL", error);
    result = "kept";
    EXPECT_FALSE(Run(*error ? "AT+FAIL" : "AT+NOSUCHTHING", result)) << "built-in: ERROR";
    EXPECT_EQ("kept", result);
    EXPECT_GE(IndexOf(messages(), "Send Error result:"), 0);
    EXPECT_LT(IndexOf(messages(), "ExecuteCmd"), 0) << "the exchange itself went well";
  }

  mbnsim::SetReply("AT+RAW", std::string("\r\n\xA5\x7F\r\nOK\r\n"));
  auto worker = Worker();
  ASSERT_TRUE(worker->CheckMBIM());
  std::string text;
  std::string hex = "prefix ";
  EXPECT_EQ(0u, worker->channel()->ExchangeCommand("AT+RAW\r\n", text, hex));
  EXPECT_EQ(std::string("\r\n\xA5\x7F\r\nOK\r\n"), text);
  EXPECT_EQ("prefix 0D 0A FFFFFFA5 7F 0D 0A 4F 4B 0D 0A ", hex) << "appended, widened as signed";
  worker->FreeMBIM();

  UseInterfaces(2);
  EXPECT_TRUE(Run("AT+CIMI", result));
  EXPECT_NE(std::string::npos, result.find(mbnsim::DefaultInterface(0).subscriber_id)) << "first";

  // From a thread already in a single-threaded apartment: CoInitializeEx fails
  // and the channel works all the same.
  std::thread([this] {
    ::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    auto sta = Worker();
    EXPECT_TRUE(sta->CheckMBIM());
    std::string answer;
    EXPECT_TRUE(sta->ExecuteCmd("AT", answer));
    sta->FreeMBIM();
  }).join();
  EXPECT_GE(IndexOf(messages(), "CoInitializeEx error"), 0);
  ExpectNothingLeft();
}

// Each fault, injected in turn: what the exchange's own steps make of it.
TEST_F(ChannelTest, FaultsGiveTheExchangesOwnResultsWithinTheirWaits) {
  struct Case {
    std::vector<std::pair<const char*, const char*>> inject;
    bool ok;
    std::vector<std::string> logged;  // in this order, other lines between
    std::vector<std::string> not_logged;
    size_t left_pending;
    DWORD waits;  // that must have run out
  };
  const char* set = "SetCommand.Complete";
  const char* open = "OpenCommandSession.Complete";
  const std::string close = "CloseCommandSession: requestID = ";
  const Case cases[] = {
      // The set completion never comes: the wait runs out, the entry is still
      // collected (empty) and the exchange reports the time-out.
      {{{set, "none"}}, false, {"Wait event", close, "ExecuteCmd"}, {"Set event"}, 0, 1},
      {{{set, "0x80004005"}}, false, {"OnSetCommandComplete-status-not-ok", "ExecuteCmd"},
       {"Set event"}, 0, 1},
      {{{set, "0x1"}}, false,  // S_FALSE is not OK either
       {"OnSetCommandComplete-status-not-ok", "ExecuteCmd"}, {"Set event"}, 0, 1},
      {{{set, "wrongid"}}, false, {"OnSetCommandComplete-no-match-command", "ExecuteCmd"},
       {"Set event"}, 0, 1},
      // An empty answer still signals; the verdict then rejects it.
      {{{set, "empty"}}, false, {"Set event", "WaitForSetEventFinish done", "Send Error result:"},
       {"ExecuteCmd"}, 0, 0},
      // SetCommand itself fails: the close is awaited and its 0 is the result;
      // the entry stays pending.
      {{{"SetCommand", "0x80004005"}}, false,
       {"SetCommand", "CloseCommandSession", "Send Error result:"}, {"Wait event"}, 1, 0},
      {{{"SetCommand", "0x80004005"}, {"CloseCommandSession.Complete", "none"}}, false,
       {"SetCommand", "CloseCommandSession", "ExecuteCmd"}, {}, 1, 1},
      {{{"OpenCommandSession", "0x80004005"}}, false, {"OpenCommandSession", "ExecuteCmd"},
       {"Wait event"}, 0, 0},
      // A late open is not caught: the exchange goes on and succeeds.
      {{{open, "none"}}, true, {"WaitForOpenEventFinish done", "WaitForSetEventFinish done"},
       {"ExecuteCmd"}, 0, 1},
      {{{open, "none"}, {set, "none"}}, false,
       {"WaitForOpenEventFinish done", "Wait event", "ExecuteCmd"}, {}, 0, 2},
      {{{"GetDeviceService", "0x80070490"}}, false,
       {"GetDeviceService", "GetService", "ExecuteCmd"}, {"get_IsCommandSessionOpen: Open = 0"},
       0, 0},
      {{{"GetDeviceService", "null"}}, false, {"GetDeviceService", "GetService", "ExecuteCmd"}, {},
       0, 0},
      {{{"get_IsCommandSessionOpen", "0x80004005"}}, false,
       {"get_IsCommandSessionOpen", "ExecuteCmd"}, {"Wait event"}, 0, 0},
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
    EXPECT_GE(took + 10, c.waits * kWaitMs);
    EXPECT_LT(took, c.waits * kWaitMs + 3000) << "bounded by its waits";
    EXPECT_EQ(c.ok ? std::string("\r\nOK\r\n") : std::string("kept"), result);
    EXPECT_EQ(c.left_pending, last_pending_);
    EXPECT_EQ("", MissingStep(messages(), c.logged)) << "missing or out of order";
    for (const std::string& text : c.not_logged) EXPECT_LT(IndexOf(messages(), text), 0) << text;
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
  // The lines in order, and those of the device-service sink, which come from
  // COM's threads in either order with the worker's own around them, apart.
  // The sink's lines are its detail and error lines alike (after the 8-column
  // tag): a failed completion's error line can come before "Wait event".
  const auto split = [](std::vector<std::string> lines) {
    const auto sink = std::stable_partition(lines.begin(), lines.end(), [](const std::string& l) {
      return l.compare(8, 2, "On") != 0 && l != "[DETAIL]Set event";
    });
    std::sort(sink, lines.end());
    return lines;
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
    EXPECT_EQ(split(executed), split(sent));
  }
  UseInterfaces(1);
  const auto none = LinesOf([](CStateWork& w) {
    w.FreeMBIM();
    const CStateWork::CmdAnswer answer = w.SendCmd("AT");
    EXPECT_EQ(static_cast<DWORD>(E_POINTER), answer.exchange) << "no channel";
    EXPECT_FALSE(answer.good);
  });
  EXPECT_EQ(std::vector<std::string>({"[DETAIL]FreeMBIM enter.",
                                      "[DETAIL]Unadvise:Event done, cookie = #",
                                      "[DETAIL]Close event", "[DETAIL]CoUninitialize",
                                      "[ERROR] ExecuteCmd"}),
            none);
  ExpectNothingLeft();
}

// The set-up and teardown steps of the channel, and how each failure is
// logged: one that succeeds without handing out its pointer logs only its
// failure; after a failed Advise the teardown still unadvises (cookie 0), and
// the stack's refusal is logged. Without an interface, or without the stack,
// the channel is kept but not ready. A sink whose Unadvise is refused outlives
// its channel.
TEST_F(ChannelTest, SetUpAndTeardownLogEachStepAndEachFailure) {
  struct Case {
    const char* call;
    const char* what;
    std::vector<std::string> advise;  // after "CreateServicesEvents done"
    bool refused_unadvise;
  };
  const std::string qi = "[DETAIL]QueryInterface: IMbnConnectionPointContainer done";
  const std::string find = "[DETAIL]FindConnectionPoint:IMbnConnectionPoint done";
  const Case cases[] = {
      {"DeviceServices.QueryInterface.IConnectionPointContainer", "null",
       {"[ERROR] QueryInterface"}, false},
      {"DeviceServices.FindConnectionPoint", "null", {qi, "[ERROR] FindConnectionPoint"}, false},
      {"DeviceServices.FindConnectionPoint", "0x80040200", {qi, "[ERROR] FindConnectionPoint"},
       false},
      {"DeviceServices.Advise", "0x80040202", {qi, find, "[ERROR] Advise"}, true},
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
      auto begin = std::find(lines.begin(), lines.end(), after);
      return std::vector<std::string>(begin == lines.end() ? begin : begin + 1,
                                      std::find(begin, lines.end(), until));
    };
    EXPECT_EQ(c.advise, from("[DETAIL]CreateServicesEvents done", "[DETAIL]GetInterfaces"));
    std::vector<std::string> freed = {"[DETAIL]Close event", "[DETAIL]CoUninitialize"};
    if (c.refused_unadvise) freed.insert(freed.begin(), "[ERROR] Advise");
    EXPECT_EQ(freed, from("[DETAIL]FreeMBIM enter.", ""));
    ExpectNothingLeft(c.refused_unadvise ? 1 : 0);
  }

  UseInterfaces(0);
  auto worker = Worker();
  ClearLog();
  EXPECT_EQ(0u, worker->FreeMBIM());
  EXPECT_FALSE(testing::FileExists(log_)) << "a free without channel logs nothing";
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
                "FindConnectionPoint:IMbnConnectionPoint done",
                "Advise:Event done, cookie = " + cookie, "GetInterfaces",
                "SafeArrayGetLBound: lowBound = 0", "SafeArrayGetUBound: upBound = -1",
                "SafeArrayDestroy: interface psa", "FreeMBIM enter.",
                "Unadvise:Event done, cookie = " + cookie, "Close event", "CoUninitialize"}),
            messages());
  ExpectNothingLeft(1);  // the refused unadvise above

  // When the stack refuses the Unadvise, the channel is freed but its sink
  // stays advised: the completions of a later channel reach it too, and must
  // find nothing of the freed channel (its memory here reused with a pattern).
  UseInterfaces(1);
  ASSERT_TRUE(mbnsim::Inject("DeviceServices.Unadvise", "0x8001010E"));
  std::string result;
  {
    auto refused = Worker();
    ASSERT_TRUE(refused->CheckMBIM());
    EXPECT_TRUE(refused->ExecuteCmd("AT+CGMI", result));
    // The close completion is not awaited by the exchange: let it come before
    // the log is emptied, so that no reopen meets the deletion.
    WaitIdle();
    ClearLog();
    refused->FreeMBIM();
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

  ASSERT_TRUE(testing::UnregisterSimulator());
  ClearLog();
  result = "kept";
  EXPECT_FALSE(worker->CheckMBIM());
  EXPECT_NE(nullptr, worker->channel());
  EXPECT_FALSE(worker->ExecuteCmd("AT", result));
  EXPECT_EQ("kept", result);
  worker->FreeMBIM();
  // The exchange still walks its interface steps, each failing with its text.
  EXPECT_EQ((std::vector<std::string>{"[DETAIL]Check MBIM enter", "[DETAIL]CoInitializeEx done",
                                      "[ERROR] CoCreateInstance-CLSID_MbnInterfaceManager",
                                      "[ERROR] InterfaceMgr is null",
                                      "[ERROR] InterfaceMgr is null", "[ERROR] GetInterface",
                                      "[ERROR] GetService", "[ERROR] ExecuteCmd",
                                      "[DETAIL]FreeMBIM enter.", "[DETAIL]CoUninitialize"}),
            tagged());
}

}  // namespace
}  // namespace dorvane
