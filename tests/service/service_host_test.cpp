#include "service/service_host.h"

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace dorvane {
namespace {

// What the fake operating system saw, in order.
struct Recorder {
  std::mutex mutex;
  std::vector<SERVICE_STATUS> reports;
  std::vector<std::string> calls;
  HANDLE start_gate = nullptr;  // start work waits on it when set
  HANDLE stop_gate = nullptr;   // stop work waits on it when set
  HANDLE start_entered = nullptr;
  HANDLE start_left = nullptr;
  bool register_fails = false;
  bool event_fails = false;

  void Call(const std::string& what) {
    std::lock_guard<std::mutex> lock(mutex);
    calls.push_back(what);
  }
};
Recorder* g_rec = nullptr;

SERVICE_STATUS_HANDLE FakeRegister(const char* name, LPHANDLER_FUNCTION) {
  g_rec->Call(std::string("register ") + name);
  return g_rec->register_fails ? nullptr : reinterpret_cast<SERVICE_STATUS_HANDLE>(0x1234);
}
BOOL FakeSetStatus(SERVICE_STATUS_HANDLE handle, SERVICE_STATUS* status) {
  EXPECT_EQ(reinterpret_cast<SERVICE_STATUS_HANDLE>(0x1234), handle);
  std::lock_guard<std::mutex> lock(g_rec->mutex);
  g_rec->reports.push_back(*status);
  g_rec->calls.push_back("report " + std::to_string(status->dwCurrentState));
  return TRUE;
}
HANDLE FakeCreateStopEvent() {
  return g_rec->event_fails ? nullptr : ::CreateEventA(nullptr, TRUE, FALSE, nullptr);
}
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

// One expected report: state, controls accepted, check-point, wait hint.
struct Expected {
  DWORD state, accepted, check_point, wait_hint;
};

class ServiceHostTest : public ::testing::Test {
 protected:
  void SetUp() override {
    rec_.start_entered = ::CreateEventA(nullptr, TRUE, FALSE, nullptr);
    rec_.start_left = ::CreateEventA(nullptr, TRUE, FALSE, nullptr);
    g_rec = &rec_;
  }
  void TearDown() override {
    if (main_.joinable()) main_.join();
    ::CloseHandle(rec_.start_entered);
    ::CloseHandle(rec_.start_left);
    if (rec_.start_gate) ::CloseHandle(rec_.start_gate);
    if (rec_.stop_gate) ::CloseHandle(rec_.stop_gate);
    g_rec = nullptr;
  }

  void RunMain() {
    main_ = std::thread([this] { host_.Main(); });
  }
  void WaitForStartWork() {
    ASSERT_EQ(WAIT_OBJECT_0, ::WaitForSingleObject(rec_.start_entered, 10000));
  }
  void ExpectReports(const std::vector<Expected>& expected) {
    std::lock_guard<std::mutex> lock(rec_.mutex);
    ASSERT_EQ(expected.size(), rec_.reports.size());
    for (size_t i = 0; i < expected.size(); ++i) {
      const SERVICE_STATUS& s = rec_.reports[i];
      SCOPED_TRACE("report " + std::to_string(i));
      EXPECT_EQ(static_cast<DWORD>(SERVICE_WIN32_OWN_PROCESS), s.dwServiceType);
      EXPECT_EQ(expected[i].state, s.dwCurrentState);
      EXPECT_EQ(expected[i].accepted, s.dwControlsAccepted);
      EXPECT_EQ(expected[i].check_point, s.dwCheckPoint);
      EXPECT_EQ(expected[i].wait_hint, s.dwWaitHint);
      EXPECT_EQ(0u, s.dwWin32ExitCode);
      EXPECT_EQ(0u, s.dwServiceSpecificExitCode);
    }
  }

  Recorder rec_;
  ServiceHost host_{ServiceHooks{FakeRegister, FakeSetStatus, FakeCreateStopEvent, FakeStartWork,
                                 FakeStopWork, UnusedHandler}};
  std::thread main_;
};

// A second stop request is reported again with new check-points.
TEST_F(ServiceHostTest, StartRunStopReportsTheFixedSequence) {
  rec_.stop_gate = ::CreateEventA(nullptr, TRUE, FALSE, nullptr);
  RunMain();
  ASSERT_EQ(WAIT_OBJECT_0, ::WaitForSingleObject(rec_.start_left, 10000));
  host_.Control(SERVICE_CONTROL_STOP);
  host_.Control(SERVICE_CONTROL_STOP);
  // The stop-pending reports are made before the stop work is let go.
  ::SetEvent(rec_.stop_gate);
  main_.join();
  ExpectReports({{2, 0, 1, 3000}, {4, 1, 0, 0}, {3, 1, 2, 0}, {3, 1, 3, 0}, {3, 1, 4, 0}, {3, 1, 5, 0},
                 {1, 1, 0, 0}});
  EXPECT_EQ((std::vector<std::string>{"register WWAN Dorvane", "report 2", "report 4",
                                      "start work", "start work done", "report 3", "report 3",
                                      "report 3", "report 3", "stop work", "report 1"}),
            rec_.calls);
}

TEST_F(ServiceHostTest, StopDuringStartWorkWaitsForTheStartToFinish) {
  rec_.start_gate = ::CreateEventA(nullptr, TRUE, FALSE, nullptr);
  RunMain();
  WaitForStartWork();
  host_.Control(SERVICE_CONTROL_STOP);
  {
    std::lock_guard<std::mutex> lock(rec_.mutex);
    EXPECT_EQ("report 3", rec_.calls.back()) << "the handler answers at once";
  }
  ::SetEvent(rec_.start_gate);
  main_.join();
  ExpectReports({{2, 0, 1, 3000}, {4, 1, 0, 0}, {3, 1, 2, 0}, {3, 1, 3, 0}, {1, 1, 0, 0}});
  EXPECT_EQ((std::vector<std::string>{"register WWAN Dorvane", "report 2", "report 4",
                                      "start work", "report 3", "report 3", "start work done",
                                      "stop work", "report 1"}),
            rec_.calls);
}

TEST_F(ServiceHostTest, ControlsOtherThanStopAreIgnored) {
  RunMain();
  WaitForStartWork();
  for (DWORD control : {SERVICE_CONTROL_INTERROGATE, SERVICE_CONTROL_SHUTDOWN,
                        SERVICE_CONTROL_PAUSE, SERVICE_CONTROL_POWEREVENT,
                        SERVICE_CONTROL_SESSIONCHANGE, SERVICE_CONTROL_DEVICEEVENT}) {
    host_.Control(control);
  }
  ::Sleep(50);
  ExpectReports({{2, 0, 1, 3000}, {4, 1, 0, 0}});
  host_.Control(SERVICE_CONTROL_STOP);
  main_.join();
  EXPECT_EQ(SERVICE_STOPPED, host_.status().dwCurrentState);
}

// A failed handler registration reports nothing; a failed stop event goes
// straight to stopped.
TEST_F(ServiceHostTest, FailedSetUpStepsReportNoRunningService) {
  for (bool registration : {true, false}) {
    SCOPED_TRACE(registration ? "registration" : "stop event");
    rec_.reports.clear();
    rec_.calls.clear();
    rec_.register_fails = registration;
    rec_.event_fails = !registration;
    host_.Main();
    if (registration) {
      ExpectReports({});
      EXPECT_EQ((std::vector<std::string>{"register WWAN Dorvane"}), rec_.calls);
    } else {
      ExpectReports({{2, 0, 1, 3000}, {1, 1, 0, 0}});
      EXPECT_EQ((std::vector<std::string>{"register WWAN Dorvane", "report 2", "report 1"}), rec_.calls);
    }
  }
}

}  // namespace
}  // namespace dorvane
