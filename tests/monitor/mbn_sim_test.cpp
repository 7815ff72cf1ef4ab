// The sink, the monitor and the SIM query against the Mobile Broadband
// simulator, registered in the test prefix and driven from this process.
#include <gtest/gtest.h>

#include <objbase.h>

#include <algorithm>
#include <thread>
#include <tuple>

#include "log/logger.h"
#include "monitor/mbn_monitor.h"
#include "monitor/state_work.h"
#include "support/log_reader.h"
#include "support/simulator.h"
#include "tools/mbnsim/scenario.h"

namespace dorvane {
namespace {

const char kSimFail[] = "[error][CStateWork::GetSimInfo] Get mbim interface fail.";
const char kHomeLine[] = "[CStateWork::GetSimInfo] GetHomeProvider str_mccmnc is ";
const char kArrival[] = "----------------[Info][CMbnChangeEvent::OnInterfaceArrival]";
const char kRemoval[] = "----------------[Info][CMbnChangeEvent::OnInterfaceRemoval]";

using SimTest = testing::SimFixture;

class ObservedSink : public CMbnRegEvent {
 public:
  explicit ObservedSink(bool* destroyed) : destroyed_(destroyed) {}
  ~ObservedSink() override { *destroyed_ = true; }

 private:
  bool* destroyed_;
};

// Only the event interface is handed out; the count survives threads racing on it.
TEST(RegEventSink, AcceptsOnlyTheEventInterfaceAndCountsReferencesAcrossThreads) {
  bool destroyed = false;
  CMbnRegEvent* sink = new ObservedSink(&destroyed);
  void* out = reinterpret_cast<void*>(0x5a5a);
  EXPECT_EQ(E_NOINTERFACE, sink->QueryInterface(IID_IUnknown, &out));
  EXPECT_EQ(reinterpret_cast<void*>(0x5a5a), out) << "untouched on refusal";
  EXPECT_EQ(E_NOINTERFACE, sink->QueryInterface(IID_IMbnInterfaceManager, &out));
  EXPECT_EQ(S_OK, sink->QueryInterface(IID_IMbnInterfaceManagerEvents, &out));
  EXPECT_EQ(static_cast<IMbnInterfaceManagerEvents*>(sink), out);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([sink] {
      for (int i = 0; i < 20000; ++i) {
        sink->AddRef();
        sink->Release();
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(2u, sink->AddRef());
  EXPECT_EQ(1u, sink->Release());
  EXPECT_FALSE(destroyed);
  EXPECT_EQ(0u, sink->Release());
  EXPECT_TRUE(destroyed);
}

TEST_F(SimTest, AttachedSinkHearsArrivalAndRemovalAndDetachLeavesNothing) {
  CStateWork* worker = CStateWork::GetInstance();
  ASSERT_EQ(1u, worker->InitWork());
  HANDLE sim = worker->event(CStateWork::SIM_CHANGE);
  CMbnMonitor monitor;
  ASSERT_EQ(1u, monitor.AttachStateMbnRegEvent());
  EXPECT_TRUE(monitor.attached());
  EXPECT_EQ(1u, counters().advised_sinks);

  mbnsim::Arrive(mbnsim::DefaultInterface(1));
  ASSERT_TRUE(testing::WaitForMessage(log_, "OnInterfaceArrival", 10000));
  EXPECT_EQ(WAIT_OBJECT_0, ::WaitForSingleObject(sim, 0));
  EXPECT_EQ("OnInterfaceArrival", worker->mccmnc());
  ASSERT_TRUE(mbnsim::Remove(1));
  ASSERT_TRUE(testing::WaitForMessage(log_, kRemoval, 10000));
  EXPECT_EQ(static_cast<DWORD>(WAIT_TIMEOUT), ::WaitForSingleObject(sim, 0)) << "a removal signals nothing";

  monitor.Detach();
  EXPECT_FALSE(monitor.attached());
  ExpectNothingLeft();
  EXPECT_EQ((std::vector<std::string>{kArrival, "SetSimChangeEvent mccmnc:", "OnInterfaceArrival", kRemoval}),
            messages());
}

TEST_F(SimTest, EachAttachFailureHasItsTextAndDetachStillReleasesEverything) {
  struct Case {
    const char* call;
    const char* what;
    const char* text;
  };
  const Case cases[] = {
      {"CreateInstance", "0x80040154", "CoCreateInstance CLSID_MbnInterfaceManager Fail."},
      {"CreateInstance", "null", "NULL == mbnInterfaceRegManager"},
      {"QueryInterface.IConnectionPointContainer", "0x80004002", "QueryInterface IConnectionPointContainer Fail."},
      {"QueryInterface.IConnectionPointContainer", "null", "NULL == m_connRegPointContainer"},
      {"FindConnectionPoint", "0x80040200", "IConnectionPointContainer FindConnectionPoint Fail."},
      {"FindConnectionPoint", "null", "NULL == m_connRegPoint"},
      {"Advise", "0x80040202", "IConnectionPoint Advise Fail."},
  };
  for (const Case& c : cases) {
    const std::string call = c.call;
    SCOPED_TRACE(call + " " + c.what);
    UseInterfaces(1);
    ClearLog();
    ASSERT_TRUE(mbnsim::Inject(call, c.what));
    CMbnMonitor monitor;
    EXPECT_EQ(0u, monitor.AttachStateMbnRegEvent());
    EXPECT_FALSE(monitor.attached());
    monitor.Detach();
    monitor.Detach();
    EXPECT_EQ((std::vector<std::string>{std::string("[Fail][CMbnMonitor::AttachStateMbnRegEvent] ") + c.text}),
              messages());
    // After a failed Advise the detach still unadvises, with the cookie 0 that
    // was never handed out: refused by the stack, and counted as such.
    ExpectNothingLeft(call == "Advise" ? 1 : 0);
  }
}

// COM is already single-threaded on the calling thread: the multithreaded
// CoInitializeEx the monitor needs fails first.
TEST_F(SimTest, AttachFromASingleThreadedApartmentFailsAtCoInitialize) {
  std::thread([] {
    ASSERT_TRUE(SUCCEEDED(::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)));
    CMbnMonitor monitor;
    EXPECT_EQ(0u, monitor.AttachStateMbnRegEvent());
    ::CoUninitialize();
  }).join();
  EXPECT_EQ((std::vector<std::string>{"[Fail][CMbnMonitor::AttachStateMbnRegEvent] CoInitializeEx Fail."}),
            messages());
}

TEST_F(SimTest, SimQueryReadsTheLastInterfacesSim) {
  for (int n : {1, 2}) {
    SCOPED_TRACE(n);
    UseInterfaces(n);
    ClearLog();
    CStateWork worker;
    EXPECT_EQ(1u, worker.GetSimInfo());
    const mbnsim::InterfaceInfo last = mbnsim::DefaultInterface(n - 1);
    EXPECT_EQ(last.home_provider_id, worker.mccmnc());
    EXPECT_EQ(last.iccid, worker.iccid());
    const auto records = testing::ReadLog(log_);
    ASSERT_EQ(2u, records.size());
    EXPECT_EQ("[ERROR] ", records[1].tag) << "logged at the error level";
    EXPECT_EQ(kHomeLine + last.home_provider_id, records[1].message);
    ExpectNothingLeft();
  }
}

TEST_F(SimTest, EachSimQueryFailureHasItsTextAndReleasesEverything) {
  const std::string home = kHomeLine + mbnsim::DefaultInterface(0).home_provider_id;
  struct Case {
    const char* call;  // null: no interface at all
    const char* what;
    std::vector<std::string> texts;
    bool reads_iccid;  // interface 0's
    int interfaces = 1;
  };
  const Case cases[] = {
      {nullptr, "", {kSimFail}, false, 0},
      {"CreateInstance", "0x80040154", {"[Fail][CStateWork::GetSimInfo] CoInitializeEx Fail."}, false},
      {"CreateInstance", "null", {"InterfaceManager is null"}, false},
      {"GetInterfaces", "0x80004005", {"[error][CStateWork::GetSimInfo] Get All Interface Fail."}, false},
      {"GetInterfaces", "wrongtype", {"[error][CStateWork::GetSimInfo] SafeArrayGetElement Fail.", kSimFail}, false},
      {"GetInterfaces", "nullelement", {"mInterface is null"}, false},
      // The ready state only proves that the interface answers: its SIM is read
      // all the same, and the walk stops at the first of two.
      {"GetReadyState", "0x80004005", {"[error][CStateWork::GetSimInfo] GetReadyState Fail.", home}, true, 2},
      {"GetSubscriberInformation", "0x80004005", {home}, false},
      {"GetSubscriberInformation", "null", {home}, false},
      {"get_SimIccID", "0x80004005", {home}, false},
      {"GetHomeProvider", "0x8000000A", {"[error][CStateWork::GetSimInfo] GetHomeProvider Fail."}, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.call ? c.call : "no interface") + " " + c.what);
    UseInterfaces(c.interfaces);
    ClearLog();
    if (c.call) {
      ASSERT_TRUE(mbnsim::Inject(c.call, c.what, c.interfaces > 1 ? 0 : -1));
    }
    CStateWork worker;
    ASSERT_EQ(1u, worker.InitWork());
    SetSimChangeEvent(worker, "before", "before");
    const bool home_read = std::find(c.texts.begin(), c.texts.end(), home) != c.texts.end();
    EXPECT_EQ(home_read ? 1u : 0u, worker.GetSimInfo()) << "1 once the home provider is read";
    std::vector<std::string> expected = {"SetSimChangeEvent mccmnc:", "before"};
    expected.insert(expected.end(), c.texts.begin(), c.texts.end());
    EXPECT_EQ(expected, messages());
    EXPECT_EQ(c.reads_iccid ? mbnsim::DefaultInterface(0).iccid : std::string("before"), worker.iccid());
    ExpectNothingLeft();
  }
}

TEST_F(SimTest, MccInfoReadsEveryRegistrationAndKeepsManagerAndInterfaces) {
  UseInterfaces(2);
  CMbnRegEvent sink;
  EXPECT_EQ(1u, sink.GetMccInfo());
  EXPECT_TRUE(messages().empty());
  // The manager and the two interfaces read from the array are never released.
  EXPECT_EQ(3u, counters().live_objects);
  EXPECT_EQ(0u, counters().bad_releases);

  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"CreateInstance", "0x80004005", "[Error][CMbnRegEvent::GetMccInfo] CoCreateInstance Fail."},
      {"GetInterfaces", "0x80004005", "[error][CMbnRegEvent::GetMccInfo] Get All Interface Fail."},
      {"QueryInterface.IMbnRegistration", "0x80004005", "[Error][CMbnRegEvent::GetMccInfo]QueryInterface 5-1-2"},
      {"QueryInterface.IMbnRegistration", "null", "[Error][CMbnRegEvent::GetMccInfo]NULL == mRegInterface"},
      {"GetProviderID", "0x80004005", "[Error][CMbnRegEvent::GetMccInfo] GetProviderID Fail."},
  };
  for (const auto& [call, what, text] : cases) {
    SCOPED_TRACE(text);
    UseInterfaces(2);
    ClearLog();
    ASSERT_TRUE(mbnsim::Inject(call, what));
    EXPECT_EQ(1u, sink.GetMccInfo());
    EXPECT_EQ((std::vector<std::string>{text}), messages());
  }
}

}  // namespace
}  // namespace dorvane
