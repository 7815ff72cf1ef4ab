#include "monitor/state_work.h"

#include <gtest/gtest.h>

#include <array>
#include <thread>
#include <vector>

#include "log/logger.h"
#include "support/log_reader.h"

namespace dorvane {
namespace {

using testing::CountOf;
using testing::MakeTempDir;
using testing::Messages;
using testing::ReadLog;

const char kRegisterLine[] =
    "\n\n------------------------[CStateWork::Work] register event-------------------\n";
const char kArrivalLine[] =
    "\n\n------------------------[[CStateWork::Work] OnInterfaceArrival event--------------------\n";
const char kStopLine[] = "[Infomation][CStateWork::Work] Triger Service Stop Event.\n";
const char kSuspendLine[] = "[Infomation][CStateWork::Work] Into S4 Event.\n";
const char kResumeLine[] = "[Infomation][CStateWork::Work] Resume from S4 Event.\n";
const char kCheckLine[] = "Set SetLogPath-----";

// A worker that logs into a file of its own in `dir`.
struct WorkerFixture {
  explicit WorkerFixture(const std::string& dir, WorkerOptions options = WorkerOptions())
      : path(dir + "\\Dorvane.log"), log(new Logger()) {
    log->SetLogPath(path);
    log->Enable(true);
    options.log = log;
    options.log_path = path;
    worker.reset(new CStateWork(options));
  }
  std::vector<std::string> messages() const { return Messages(ReadLog(path)); }

  std::string path;
  Logger* log;  // leaked: a test may leave it locked
  std::unique_ptr<CStateWork> worker;
};

int g_failing_event = -1;
HANDLE CreateEventFailingOne(int index) {
  return index == g_failing_event ? nullptr : ::CreateEventA(nullptr, FALSE, FALSE, nullptr);
}

TEST(WorkerInit, EachEventFailureHasItsTextAndOnlySimChangeIsTolerated) {
  // In the order the events are made; only the second, SIM_CHANGE, may fail.
  const char* texts[] = {
      "[Fail][CStateWork::InitWork] Create REG_CHANGE Event Fail.",
      "[Fail][CStateWork::InitWork] Create SIM_CHANGE Event Fail.",
      "[Fail][CStateWork::InitWork] Create STOP_EVENT Event Fail.",
      "CreateEvent SUSPEND_EVENT Faild",
      "CreateEvent RESUME_EVENT Faild",
  };
  for (int index = 0; index < 5; ++index) {
    SCOPED_TRACE(texts[index]);
    g_failing_event = index;
    WorkerOptions options;
    options.create_event = CreateEventFailingOne;
    WorkerFixture f(MakeTempDir("init"), options);
    const DWORD result = index == 1 ? 1 : 0;
    EXPECT_EQ(result, f.worker->InitWork());
    EXPECT_EQ((std::vector<std::string>{"banner", std::string("[ERROR] ") + texts[index]}), testing::Tagged(f.path));
    for (int later = index + 1; later < CStateWork::kEventCount; ++later) {
      EXPECT_EQ(result == 0, f.worker->event(later) == nullptr) << "event " << later;
    }
  }
  g_failing_event = -1;
}

// Lower events win; two SIM changes before a wait wake the worker once; STOP_EVENT
// is taken last.
TEST(WorkerLoop, LowerEventsWinAndStopIsTakenLast) {
  WorkerFixture f(MakeTempDir("priority"));
  ASSERT_EQ(1u, f.worker->InitWork());
  for (int i : {CStateWork::RESUME_EVENT, CStateWork::SUSPEND_EVENT, CStateWork::STOP_EVENT}) {
    ::SetEvent(f.worker->event(i));
  }
  SetSimChangeEvent(*f.worker, "OnInterfaceArrival", "");
  SetSimChangeEvent(*f.worker, "OnInterfaceArrival", "");
  ::SetEvent(f.worker->event(CStateWork::REG_CHANGE));
  f.worker->Loop();  // returns once STOP_EVENT is taken
  const std::vector<std::string> set = {"SetSimChangeEvent mccmnc:", "OnInterfaceArrival"};
  EXPECT_EQ((std::vector<std::string>{set[0], set[1], set[0], set[1], kRegisterLine, kArrivalLine, kStopLine}),
            f.messages());
}

TEST(WorkerLoop, SuspendThenResumeArriveThroughThePowerCallback) {
  WorkerFixture f(MakeTempDir("power"));
  ASSERT_EQ(1u, f.worker->InitWork());
  std::thread loop([&] { f.worker->Loop(); });
  CStateWork* w = f.worker.get();
  EXPECT_EQ(0u, CStateWork::PowerCallback(w, PBT_APMSUSPEND, nullptr));
  ASSERT_TRUE(testing::WaitForMessage(f.path, kSuspendLine, 10000));
  // Automatic resume and power-setting changes are ignored: no line follows
  // them while the loop waits.
  EXPECT_EQ(0u, CStateWork::PowerCallback(w, PBT_APMRESUMEAUTOMATIC, nullptr));
  EXPECT_EQ(0u, CStateWork::PowerCallback(w, PBT_POWERSETTINGCHANGE, nullptr));
  EXPECT_FALSE(testing::WaitForMessage(f.path, kResumeLine, 500));
  EXPECT_EQ(0u, CStateWork::PowerCallback(w, PBT_APMRESUMESUSPEND, nullptr));
  ASSERT_TRUE(testing::WaitForMessage(f.path, kResumeLine, 10000));
  w->Stop();  // no thread of its own here: only signals STOP_EVENT
  loop.join();
  EXPECT_EQ((std::vector<std::string>{kSuspendLine, kResumeLine, kStopLine}), f.messages());
}

// A scripted wait: hands out the results in order, then STOP_EVENT.
std::vector<DWORD>* g_script = nullptr;
size_t g_script_pos = 0;
DWORD ScriptedWait(DWORD, const HANDLE*, DWORD) {
  if (g_script_pos < g_script->size()) return (*g_script)[g_script_pos++];
  return WAIT_OBJECT_0 + CStateWork::STOP_EVENT;
}

TEST(WorkerLoop, EveryThousandAndEightiethWakeChecksTheLogSize) {
  std::vector<DWORD> script(1079, WAIT_TIMEOUT);
  script.push_back(WAIT_OBJECT_0 + CStateWork::SUSPEND_EVENT);  // wake 1080
  script.insert(script.end(), 1078, WAIT_FAILED);
  script.push_back(WAIT_OBJECT_0 + CStateWork::RESUME_EVENT);  // wake 1079 of the next round
  // ...and wake 1080 of that round is the scripted stop.
  g_script = &script;
  g_script_pos = 0;

  WorkerOptions options;
  options.wait = ScriptedWait;
  WorkerFixture f(MakeTempDir("check"), options);
  ASSERT_EQ(1u, f.worker->InitWork());
  // The log has reached the rotation size by the time of the first check.
  f.log->Write(4, "before the check");
  testing::MakeFileOfSize(f.path, kLogRotateSize);
  f.worker->Loop();

  // The check line was the last one written before the rename.
  const std::string backup = testing::ReadFileBytes(f.path + "bk");
  EXPECT_GT(static_cast<long long>(backup.size()), kLogRotateSize);
  const std::string tail = std::string(kCheckLine) + "\r\n";
  EXPECT_EQ(backup.size() - tail.size(), backup.rfind(tail));
  const std::string d = "[DETAIL]";
  EXPECT_EQ((std::vector<std::string>{"banner", d + kSuspendLine, d + kResumeLine, d + kCheckLine, "banner",
                                      d + kStopLine}),
            testing::Tagged(f.path));
  g_script = nullptr;
}

// Runs in a child process: the loop below never ends, and the only safe way to
// be rid of it is to end the whole process.
void SpinWithoutSimChange(const std::string& dir) {
  WorkerOptions options;
  options.create_event = CreateEventFailingOne;
  g_failing_event = CStateWork::SIM_CHANGE;
  auto* f = new WorkerFixture(dir, options);  // the loop outlives it
  if (f->worker->InitWork() != 1) ::ExitProcess(2);
  std::thread([f] { f->worker->Loop(); }).detach();
  // Failing waits turn the loop without pause, so size checks come quickly.
  for (DWORD start = ::GetTickCount(); CountOf(f->messages(), kCheckLine) < 3; ::Sleep(20)) {
    if (::GetTickCount() - start > 20000) ::ExitProcess(3);
  }
  ::SetEvent(f->worker->event(CStateWork::STOP_EVENT));
  ::Sleep(500);
  ::ExitProcess(CountOf(f->messages(), kStopLine) == 0 ? 7 : 4);
}

TEST(WorkerLoopDeathTest, MissingSimChangeMakesTheLoopSpinAndNeverStop) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  // The child runs this body again from the start, so the path must come out
  // the same in both processes.
  char temp[MAX_PATH];
  ::GetTempPathA(MAX_PATH, temp);
  const std::string dir = std::string(temp) + "dorvane-spin";
  ::CreateDirectoryA(dir.c_str(), nullptr);
  const std::string path = dir + "\\Dorvane.log";
  if (!::testing::internal::InDeathTestChild()) ::DeleteFileA(path.c_str());
  // 7: three size checks came, and the stop was never taken.
  EXPECT_EXIT(SpinWithoutSimChange(dir), ::testing::ExitedWithCode(7), "");
  const auto msgs = Messages(ReadLog(path));
  EXPECT_EQ("[Fail][CStateWork::InitWork] Create SIM_CHANGE Event Fail.", msgs.at(0));
  EXPECT_EQ(0, CountOf(msgs, kArrivalLine));
}

TEST(WorkerSimChange, StartServiceLeavesTheTextsAndOtherSourcesReplaceThem) {
  WorkerFixture f(MakeTempDir("simchange"));
  ASSERT_EQ(1u, f.worker->InitWork());
  const char kIccid[] = "89860000000000000001";
  // Source and detail given, MCC-MNC and ICCID kept. Only the exact word is
  // the start: a longer text is an ordinary source.
  const std::vector<std::array<const char*, 4>> steps = {
      {"OnInterfaceArrival", kIccid, "OnInterfaceArrival", kIccid},
      {"StartService", "ignored", "OnInterfaceArrival", kIccid},
      {"StartServiceX", "", "StartServiceX", ""},
  };
  std::vector<std::string> expected;
  for (const auto& [source, detail, mccmnc, iccid] : steps) {
    SetSimChangeEvent(*f.worker, source, detail);
    EXPECT_EQ(mccmnc, f.worker->mccmnc()) << source;
    EXPECT_EQ(iccid, f.worker->iccid()) << source;
    EXPECT_EQ(WAIT_OBJECT_0, ::WaitForSingleObject(f.worker->event(CStateWork::SIM_CHANGE), 0)) << source;
    expected.insert(expected.end(), {"SetSimChangeEvent mccmnc:", source});
  }
  EXPECT_EQ(expected, f.messages());
}

}  // namespace
}  // namespace dorvane
