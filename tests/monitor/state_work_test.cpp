#include "monitor/state_work.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "log/logger.h"
#include "support/log_reader.h"

namespace dorvane {
namespace {

using testing::CountOf;
using testing::IndexOf;
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

// A worker that logs into a private file.
struct WorkerFixture {
  explicit WorkerFixture(const std::string& label, WorkerOptions options = WorkerOptions())
      : path(testing::MakeTempDir(label) + "\\Dorvane.log"), log(new Logger()) {
    log->SetLogPath(path);
    log->Enable(true);
    options.log = log;
    if (options.log_path.empty()) options.log_path = path;
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
  struct Case {
    int index;
    const char* text;
    DWORD result;
  };
  const Case cases[] = {
      {0, "[Fail][CStateWork::InitWork] Create REG_CHANGE Event Fail.", 0},
      {1, "[Fail][CStateWork::InitWork] Create SIM_CHANGE Event Fail.", 1},
      {2, "[Fail][CStateWork::InitWork] Create STOP_EVENT Event Fail.", 0},
      {3, "CreateEvent SUSPEND_EVENT Faild", 0},
      {4, "CreateEvent RESUME_EVENT Faild", 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    g_failing_event = c.index;
    WorkerOptions options;
    options.create_event = CreateEventFailingOne;
    WorkerFixture f("init", options);
    EXPECT_EQ(c.result, f.worker->InitWork());
    const auto records = ReadLog(f.path);
    ASSERT_EQ(2u, records.size());
    EXPECT_EQ("[ERROR] ", records[1].tag);
    EXPECT_EQ(c.text, records[1].message);
    for (int later = c.index + 1; later < CStateWork::kEventCount; ++later) {
      EXPECT_EQ(c.result == 0, f.worker->event(later) == nullptr) << "event " << later;
    }
  }
  g_failing_event = -1;
}

// Lower events win; two SIM changes before a wait wake the worker once; STOP_EVENT
// is taken last.
TEST(WorkerLoop, LowerEventsWinAndStopIsTakenLast) {
  WorkerFixture f("priority");
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
  WorkerFixture f("power");
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

TEST(WorkerLoop, OneRegistryNotificationPerRun) {
  HKEY key = nullptr;
  ASSERT_EQ(ERROR_SUCCESS, ::RegCreateKeyExA(HKEY_LOCAL_MACHINE, kServiceRegKey, 0, nullptr, 0,
                                             KEY_ALL_ACCESS, nullptr, &key, nullptr));
  WorkerFixture f("registry");
  ASSERT_EQ(1u, f.worker->InitWork());
  std::thread loop([&] { f.worker->Loop(); });
  DWORD value = 1;
  ::RegSetValueExA(key, "Probe", 0, REG_DWORD, reinterpret_cast<BYTE*>(&value), sizeof value);
  ASSERT_TRUE(testing::WaitForMessage(f.path, kRegisterLine, 10000));
  value = 2;
  ::RegSetValueExA(key, "Probe", 0, REG_DWORD, reinterpret_cast<BYTE*>(&value), sizeof value);
  ::Sleep(500);
  f.worker->Stop();
  loop.join();
  ::RegDeleteValueA(key, "Probe");
  ::RegCloseKey(key);
  EXPECT_EQ((std::vector<std::string>{kRegisterLine, kStopLine}), f.messages());
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
  WorkerFixture f("check", options);
  ASSERT_EQ(1u, f.worker->InitWork());
  // The log has reached the rotation size by the time of the first check.
  f.log->Write(4, "before the check");
  testing::MakeFileOfSize(f.path, kLogRotateSize);
  f.worker->Loop();

  // The check line was the last one written before the rename.
  const std::string backup = testing::ReadFileBytes(f.path + "bk");
  EXPECT_GT(static_cast<long long>(backup.size()), kLogRotateSize);
  const std::string tail = std::string(kCheckLine) + "\r\n";
  ASSERT_GE(backup.size(), tail.size());
  EXPECT_EQ(tail, backup.substr(backup.size() - tail.size()));
  const auto records = ReadLog(f.path);
  std::vector<std::string> tags_and_text;
  for (const auto& r : records) tags_and_text.push_back(r.tag == "banner" ? "banner" : r.message);
  EXPECT_EQ((std::vector<std::string>{"banner", kSuspendLine, kResumeLine, kCheckLine, "banner",
                                      kStopLine}),
            tags_and_text);
  g_script = nullptr;
}

// Runs in a child process: the loop below never ends, and the only safe way to
// be rid of it is to end the whole process.
void SpinWithoutSimChange(const std::string& path) {
  WorkerOptions options;
  options.create_event = CreateEventFailingOne;
  options.log = new Logger();
  options.log->SetLogPath(path);
  options.log->Enable(true);
  options.log_path = path;
  g_failing_event = CStateWork::SIM_CHANGE;
  auto* worker = new CStateWork(options);
  if (worker->InitWork() != 1) ::ExitProcess(2);
  HANDLE stop = worker->event(CStateWork::STOP_EVENT);
  std::thread([worker] { worker->Loop(); }).detach();
  // Failing waits turn the loop without pause, so size checks come quickly.
  DWORD start = ::GetTickCount();
  while (CountOf(Messages(ReadLog(path)), kCheckLine) < 3) {
    if (::GetTickCount() - start > 20000) ::ExitProcess(3);
    ::Sleep(20);
  }
  ::SetEvent(stop);
  ::Sleep(500);
  ::ExitProcess(CountOf(Messages(ReadLog(path)), kStopLine) == 0 ? 7 : 4);
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
  EXPECT_EXIT(SpinWithoutSimChange(path), ::testing::ExitedWithCode(7), "");
  const auto msgs = Messages(ReadLog(path));
  EXPECT_EQ("[Fail][CStateWork::InitWork] Create SIM_CHANGE Event Fail.", msgs.at(0));
  EXPECT_GE(CountOf(msgs, kCheckLine), 3);
  EXPECT_EQ(0, CountOf(msgs, kStopLine));
  EXPECT_EQ(0, CountOf(msgs, kArrivalLine));
}

TEST(WorkerSimChange, StartServiceLeavesTheTextsAndOtherSourcesReplaceThem) {
  WorkerFixture f("simchange");
  ASSERT_EQ(1u, f.worker->InitWork());
  SetSimChangeEvent(*f.worker, "OnInterfaceArrival", "89860000000000000001");
  EXPECT_EQ("OnInterfaceArrival", f.worker->mccmnc());
  EXPECT_EQ("89860000000000000001", f.worker->iccid());
  HANDLE sim = f.worker->event(CStateWork::SIM_CHANGE);
  EXPECT_EQ(WAIT_OBJECT_0, ::WaitForSingleObject(sim, 0));

  SetSimChangeEvent(*f.worker, "StartService", "ignored");
  EXPECT_EQ("OnInterfaceArrival", f.worker->mccmnc());
  EXPECT_EQ("89860000000000000001", f.worker->iccid());
  EXPECT_EQ(WAIT_OBJECT_0, ::WaitForSingleObject(sim, 0));
  // Only the exact word is the start: a longer text is an ordinary source.
  SetSimChangeEvent(*f.worker, "StartServiceX", "");
  EXPECT_EQ("StartServiceX", f.worker->mccmnc());
  EXPECT_EQ("", f.worker->iccid());

  EXPECT_EQ((std::vector<std::string>{"SetSimChangeEvent mccmnc:", "OnInterfaceArrival",
                                      "SetSimChangeEvent mccmnc:", "StartService",
                                      "SetSimChangeEvent mccmnc:", "StartServiceX"}),
            f.messages());
}

}  // namespace
}  // namespace dorvane
