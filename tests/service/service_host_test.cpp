#include "service/service_host.h"

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace dorvane {
namespace {

// What the fake operating system saw, in order; a report reads
// "report <state> <controls accepted> <check-point> <wait hint>".
struct Recorder {
  std::mutex mutex;
  std::vector<std::string> calls;
  HANDLE start_gate = nullptr;  // start work waits on it when set
  HANDLE stop_gate = nullptr;   // stop work waits on it when set
  HANDLE start_entered = ::CreateEventA(nullptr, TRUE, FALSE, nullptr);
  HANDLE start_left = ::CreateEventA(nullptr, TRUE, FALSE, nullptr);
  bool register_fails = false;
  bool event_fails = false;

  void Call(const std::string& what) {
    std::lock_guard<std::mutex> lock(mutex);
    calls.push_back(what);
  }
  std::vector<std::string> Calls() {
    std::lock_guard<std::mutex> lock(mutex);
    return calls;
  }
};
Recorder* g_rec = nullptr;

SERVICE_STATUS_HANDLE FakeRegister(const char* name, LPHANDLER_FUNCTION) {
  g_rec->Call(std::string("register ") + name);
  return g_rec->register_fails ? nullptr : reinterpret_cast<SERVICE_STATUS_HANDLE>(0x1234);
}
BOOL FakeSetStatus(SERVICE_STATUS_HANDLE handle, SERVICE_STATUS* s) {
  EXPECT_EQ(reinterpret_cast<SERVICE_STATUS_HANDLE>(0x1234), handle);
  EXPECT_EQ(static_cast<DWORD>(SERVICE_WIN32_OWN_PROCESS), s->dwServiceType);
  EXPECT_EQ(0u, s->dwWin32ExitCode + s->dwServiceSpecificExitCode);
  g_rec->Call("report " + std::to_string(s->dwCurrentState) + " " + std::to_string(s->dwControlsAccepted) +
              " " + std::to_string(s->dwCheckPoint) + " " + std::to_string(s->dwWaitHint));
  return TRUE;
}
HANDLE FakeCreateStopEvent() { return g_rec->event_fails ? nullptr : ::CreateEventA(nullptr, TRUE, FALSE, nullptr); }
DWORD FakeStartWork() {
  g_rec->Call("start work");
  ::SetEvent(g_rec->start_entered);
  if (g_rec->start_gate) ::WaitForSingleObject(g_rec->start_gate, INFINITE);
  g_rec->Call("start work done");
  ::SetEvent(g_rec->start_left);
  return 0;  // a failed start changes nothing the manager sees
}
void FakeStopWork() {
  if (g_rec->stop_gate) ::WaitForSingleObject(g_rec->stop_gate, INFINITE);
  g_rec->Call("stop work");
}
void WINAPI UnusedHandler(DWORD) {}

const char kRegister[] = "register WWAN Dorvane";
const char kStartPending[] = "report 2 0 1 3000";
const char kRunning[] = "report 4 1 0 0";
const char kStopped[] = "report 1 1 0 0";

class ServiceHostTest : public ::testing::Test {
 protected:
  void SetUp() override { g_rec = &rec_; }
  void TearDown() override {
    if (main_.joinable()) main_.join();
    for (HANDLE h : {rec_.start_entered, rec_.start_left, rec_.start_gate, rec_.stop_gate}) {
      if (h) ::CloseHandle(h);
    }
    g_rec = nullptr;
  }
  void RunMain(HANDLE wait_for) {
    main_ = std::thread([this] { host_.Main(); });
    ASSERT_EQ(WAIT_OBJECT_0, ::WaitForSingleObject(wait_for, 10000));
  }

  Recorder rec_;
  ServiceHost host_{ServiceHooks{FakeRegister, FakeSetStatus, FakeCreateStopEvent, FakeStartWork,
                                 FakeStopWork, UnusedHandler}};
  std::thread main_;
};

// A second stop request is reported again with new check-points.
TEST_F(ServiceHostTest, StartRunStopReportsTheFixedSequence) {
  rec_.stop_gate = ::CreateEventA(nullptr, TRUE, FALSE, nullptr);
  RunMain(rec_.start_left);
  host_.Control(SERVICE_CONTROL_STOP);
  host_.Control(SERVICE_CONTROL_STOP);
  // The stop-pending reports are made before the stop work is let go.
  ::SetEvent(rec_.stop_gate);
  main_.join();
  EXPECT_EQ((std::vector<std::string>{kRegister, kStartPending, kRunning, "start work", "start work done",
                                      "report 3 1 2 0", "report 3 1 3 0", "report 3 1 4 0", "report 3 1 5 0",
                                      "stop work", kStopped}),
            rec_.calls);
}

TEST_F(ServiceHostTest, StopDuringStartWorkWaitsForTheStartToFinish) {
  rec_.start_gate = ::CreateEventA(nullptr, TRUE, FALSE, nullptr);
  RunMain(rec_.start_entered);
  host_.Control(SERVICE_CONTROL_STOP);
  EXPECT_EQ("report 3 1 3 0", rec_.Calls().back()) << "the handler answers at once";
  ::SetEvent(rec_.start_gate);
  main_.join();
  EXPECT_EQ((std::vector<std::string>{kRegister, kStartPending, kRunning, "start work", "report 3 1 2 0",
                                      "report 3 1 3 0", "start work done", "stop work", kStopped}),
            rec_.calls);
}

TEST_F(ServiceHostTest, ControlsOtherThanStopAreIgnored) {
  RunMain(rec_.start_left);
  for (DWORD control : {SERVICE_CONTROL_INTERROGATE, SERVICE_CONTROL_SHUTDOWN, SERVICE_CONTROL_PAUSE,
                        SERVICE_CONTROL_POWEREVENT, SERVICE_CONTROL_SESSIONCHANGE, SERVICE_CONTROL_DEVICEEVENT}) {
    host_.Control(control);
  }
  ::Sleep(50);
  EXPECT_EQ((std::vector<std::string>{kRegister, kStartPending, kRunning, "start work", "start work done"}),
            rec_.Calls());
  host_.Control(SERVICE_CONTROL_STOP);
  main_.join();
  EXPECT_EQ(SERVICE_STOPPED, host_.status().dwCurrentState);
}

// A failed handler registration reports nothing; a failed stop event goes
// straight to stopped.
TEST_F(ServiceHostTest, FailedSetUpStepsReportNoRunningService) {
  for (bool registration : {true, false}) {
    SCOPED_TRACE(registration ? "registration" : "stop event");
    rec_.calls.clear();
    rec_.register_fails = registration;
    rec_.event_fails = !registration;
    host_.Main();
    EXPECT_EQ(registration ? (std::vector<std::string>{kRegister})
                           : (std::vector<std::string>{kRegister, kStartPending, kStopped}),
              rec_.calls);
  }
}

}  // namespace
}  // namespace dorvane
