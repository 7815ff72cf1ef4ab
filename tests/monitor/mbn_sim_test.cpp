// The sink, the monitor and the SIM query against the Mobile Broadband
// simulator, registered in the test prefix and driven from this process.
#include <gtest/gtest.h>

#include <objbase.h>

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

TEST_F(SimTest, EachAttachFailureHasItsTextAndDetachStillReleasesEverything) {
  const std::tuple<std::string, const char*, const char*> cases[] = {
      {"CreateInstance", "0x80040154", "CoCreateInstance CLSID_MbnInterfaceManager Fail."},
      {"CreateInstance", "null", "NULL == mbnInterfaceRegManager"},
      {"QueryInterface.IConnectionPointContainer", "0x80004002", "QueryInterface IConnectionPointContainer Fail."},
      {"QueryInterface.IConnectionPointContainer", "null", "NULL == m_connRegPointContainer"},
      {"FindConnectionPoint", "0x80040200", "IConnectionPointContainer FindConnectionPoint Fail."},
      {"FindConnectionPoint", "null", "NULL == m_connRegPoint"},
      {"Advise", "0x80040202", "IConnectionPoint Advise Fail."},
  };
  for (const auto& [call, what, text] : cases) {
    SCOPED_TRACE(call + " " + what);
    UseInterfaces(1);
    ClearLog();
    ASSERT_TRUE(mbnsim::Inject(call, what));
    CMbnMonitor monitor;
    EXPECT_EQ(0u, monitor.AttachStateMbnRegEvent());
    EXPECT_FALSE(monitor.attached());
    monitor.Detach();
    monitor.Detach();
    EXPECT_EQ((std::vector<std::string>{std::string("[Fail][CMbnMonitor::AttachStateMbnRegEvent] ") + text}),
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

// Every line of the query is at the error level, its home provider line too.
TEST_F(SimTest, SimQueryReadsTheLastInterfacesSimAndEachFailureHasItsTextAndReleasesEverything) {
  // The call that fails and how ("": none), the texts before the home provider
  // line, the interface whose home provider and ICCID are read (or -1), the
  // interfaces there are.
  const std::tuple<std::string, const char*, std::vector<std::string>, int, int, int> cases[] = {
      {"", "", {}, 0, 0, 1},
      {"", "", {}, 1, 1, 2},
      {"", "", {kSimFail}, -1, -1, 0},
      {"CreateInstance", "0x80040154", {"[Fail][CStateWork::GetSimInfo] CoInitializeEx Fail."}, -1, -1, 1},
      {"CreateInstance", "null", {"InterfaceManager is null"}, -1, -1, 1},
      {"GetInterfaces", "0x80004005", {"[error][CStateWork::GetSimInfo] Get All Interface Fail."}, -1, -1, 1},
      {"GetInterfaces", "wrongtype", {"[error][CStateWork::GetSimInfo] SafeArrayGetElement Fail.", kSimFail}, -1, -1, 1},
      {"GetInterfaces", "nullelement", {"mInterface is null"}, -1, -1, 1},
      // The ready state only proves that the interface answers: its SIM is read
      // all the same, and the walk stops at the first of two.
      {"GetReadyState", "0x80004005", {"[error][CStateWork::GetSimInfo] GetReadyState Fail."}, 0, 0, 2},
      {"GetSubscriberInformation", "0x80004005", {}, 0, -1, 1},
      {"GetSubscriberInformation", "null", {}, 0, -1, 1},
      {"get_SimIccID", "0x80004005", {}, 0, -1, 1},
      {"GetHomeProvider", "0x8000000A", {"[error][CStateWork::GetSimInfo] GetHomeProvider Fail."}, -1, 0, 1},
  };
  for (const auto& [call, what, texts, home_of, iccid_of, interfaces] : cases) {
    SCOPED_TRACE(call + " " + what + " of " + std::to_string(interfaces));
    UseInterfaces(interfaces);
    ClearLog();
    if (!call.empty()) {
      ASSERT_TRUE(mbnsim::Inject(call, what, interfaces > 1 ? 0 : -1));
    }
    CStateWork worker;
    ASSERT_EQ(1u, worker.InitWork());
    SetSimChangeEvent(worker, "before", "before");
    EXPECT_EQ(home_of >= 0 ? 1u : 0u, worker.GetSimInfo()) << "1 once the home provider is read";
    const std::string home = home_of >= 0 ? mbnsim::DefaultInterface(home_of).home_provider_id : "before";
    std::vector<std::string> expected = {"[DETAIL]SetSimChangeEvent mccmnc:", "[DETAIL]before"};
    for (const std::string& text : texts) expected.push_back("[ERROR] " + text);
    if (home_of >= 0) expected.push_back("[ERROR] " + (kHomeLine + home));
    EXPECT_EQ(expected, tagged());
    EXPECT_EQ(home, worker.mccmnc());
    EXPECT_EQ(iccid_of >= 0 ? mbnsim::DefaultInterface(iccid_of).iccid : "before", worker.iccid());
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
