// The sink, the monitor and the SIM query against the Mobile Broadband
// simulator, registered in the test prefix and driven from this process.
#include <gtest/gtest.h>

#include <objbase.h>
#include <olectl.h>

#include "log/logger.h"
#include "monitor/mbn_monitor.h"
#include "monitor/state_work.h"
#include "support/log_reader.h"
#include "support/simulator.h"
#include "tools/mbnsim/scenario.h"
#include "util/com_ptr.h"

namespace dorvane {
namespace {

using testing::Messages;
using testing::ReadLog;

const char kSimFail[] = "[error][CStateWork::GetSimInfo] Get mbim interface fail.";
const char kHomeLine[] = "[CStateWork::GetSimInfo] GetHomeProvider str_mccmnc is ";

using SimTest = testing::SimFixture;

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
  ASSERT_TRUE(testing::WaitForMessage(
      log_, "----------------[Info][CMbnChangeEvent::OnInterfaceRemoval]", 10000));
  EXPECT_EQ(static_cast<DWORD>(WAIT_TIMEOUT), ::WaitForSingleObject(sim, 0))
      << "a removal signals nothing";

  monitor.Detach();
  EXPECT_FALSE(monitor.attached());
  ExpectNothingLeft();
  EXPECT_EQ((std::vector<std::string>{"----------------[Info][CMbnChangeEvent::OnInterfaceArrival]",
                                      "SetSimChangeEvent mccmnc:", "OnInterfaceArrival",
                                      "----------------[Info][CMbnChangeEvent::OnInterfaceRemoval]"}),
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
      {"QueryInterface.IConnectionPointContainer", "0x80004002",
       "QueryInterface IConnectionPointContainer Fail."},
      {"QueryInterface.IConnectionPointContainer", "null", "NULL == m_connRegPointContainer"},
      {"FindConnectionPoint", "0x80040200", "IConnectionPointContainer FindConnectionPoint Fail."},
      {"FindConnectionPoint", "null", "NULL == m_connRegPoint"},
      {"Advise", "0x80040202", "IConnectionPoint Advise Fail."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.call) + " " + c.what);
    UseInterfaces(1);
    ClearLog();
    ASSERT_TRUE(mbnsim::Inject(c.call, c.what));
    CMbnMonitor monitor;
    EXPECT_EQ(0u, monitor.AttachStateMbnRegEvent());
    monitor.Detach();
    EXPECT_EQ((std::vector<std::string>{std::string("[Fail][CMbnMonitor::AttachStateMbnRegEvent] ") +
                                        c.text}),
              messages());
    // After a failed Advise the detach still unadvises, with the cookie 0 that
    // was never handed out: refused by the stack, and counted as such.
    ExpectNothingLeft(std::string(c.call) == "Advise" ? 1 : 0);
  }
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
    const auto records = ReadLog(log_);
    ASSERT_EQ(2u, records.size());
    EXPECT_EQ("[ERROR] ", records[1].tag) << "logged at the error level";
    EXPECT_EQ(kHomeLine + last.home_provider_id, records[1].message);
    ExpectNothingLeft();
  }
}

TEST_F(SimTest, SimQueryWithoutInterfaceKeepsTheTexts) {
  UseInterfaces(0);
  CStateWork worker;
  ASSERT_EQ(1u, worker.InitWork());
  SetSimChangeEvent(worker, "earlier", "detail");
  ClearLog();
  EXPECT_EQ(0u, worker.GetSimInfo());
  EXPECT_EQ("earlier", worker.mccmnc());
  EXPECT_EQ("detail", worker.iccid());
  EXPECT_EQ((std::vector<std::string>{kSimFail}), messages());
  ExpectNothingLeft();
}

TEST_F(SimTest, EachSimQueryFailureHasItsTextAndReleasesEverything) {
  const std::string home = kHomeLine + mbnsim::DefaultInterface(0).home_provider_id;
  const std::string iccid = mbnsim::DefaultInterface(0).iccid;
  struct Case {
    const char* call;
    const char* what;
    std::vector<std::string> texts;
    bool reads_iccid;
  };
  const Case cases[] = {
      {"CreateInstance", "0x80040154", {"[Fail][CStateWork::GetSimInfo] CoInitializeEx Fail."}, false},
      {"CreateInstance", "null", {"InterfaceManager is null"}, false},
      {"GetInterfaces", "0x80004005", {"[error][CStateWork::GetSimInfo] Get All Interface Fail."}, false},
      {"GetInterfaces", "wrongtype",
       {"[error][CStateWork::GetSimInfo] SafeArrayGetElement Fail.", kSimFail}, false},
      {"GetInterfaces", "nullelement", {"mInterface is null"}, false},
      // The ready state only proves that the interface answers: its SIM is read all the same.
      {"GetReadyState", "0x80004005", {"[error][CStateWork::GetSimInfo] GetReadyState Fail.", home}, true},
      {"GetSubscriberInformation", "0x80004005", {home}, false},
      {"GetSubscriberInformation", "null", {home}, false},
      {"get_SimIccID", "0x80004005", {home}, false},
      {"GetHomeProvider", "0x8000000A", {"[error][CStateWork::GetSimInfo] GetHomeProvider Fail."}, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.call) + " " + c.what);
    UseInterfaces(1);
    ClearLog();
    ASSERT_TRUE(mbnsim::Inject(c.call, c.what));
    CStateWork worker;
    ASSERT_EQ(1u, worker.InitWork());
    SetSimChangeEvent(worker, "before", "before");
    worker.GetSimInfo();
    std::vector<std::string> expected = {"SetSimChangeEvent mccmnc:", "before"};
    expected.insert(expected.end(), c.texts.begin(), c.texts.end());
    EXPECT_EQ(expected, messages());
    EXPECT_EQ(c.reads_iccid ? iccid : std::string("before"), worker.iccid());
    ExpectNothingLeft();
  }
}

TEST_F(SimTest, ReadyStateFailureOnTheFirstOfTwoStopsTheWalkThere) {
  UseInterfaces(2);
  ASSERT_TRUE(mbnsim::Inject("GetReadyState", "0x80004005", 0));
  CStateWork worker;
  worker.GetSimInfo();
  EXPECT_EQ(mbnsim::DefaultInterface(0).home_provider_id, worker.mccmnc());
  ExpectNothingLeft();
}

TEST_F(SimTest, MccInfoReadsEveryRegistrationAndKeepsManagerAndInterfaces) {
  UseInterfaces(2);
  CMbnRegEvent sink;
  EXPECT_EQ(1u, sink.GetMccInfo());
  EXPECT_TRUE(messages().empty());
  // The manager and the two interfaces read from the array are never released.
  EXPECT_EQ(3u, counters().live_objects);
  EXPECT_EQ(0u, counters().bad_releases);

  struct Case {
    const char* call;
    const char* text;
  };
  const Case cases[] = {
      {"CreateInstance", "[Error][CMbnRegEvent::GetMccInfo] CoCreateInstance Fail."},
      {"GetInterfaces", "[error][CMbnRegEvent::GetMccInfo] Get All Interface Fail."},
      {"QueryInterface.IMbnRegistration", "[Error][CMbnRegEvent::GetMccInfo]QueryInterface 5-1-2"},
      {"GetProviderID", "[Error][CMbnRegEvent::GetMccInfo] GetProviderID Fail."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.call);
    UseInterfaces(2);
    ClearLog();
    ASSERT_TRUE(mbnsim::Inject(c.call, "0x80004005"));
    EXPECT_EQ(1u, sink.GetMccInfo());
    EXPECT_EQ((std::vector<std::string>{c.text}), messages());
  }
  ASSERT_TRUE(mbnsim::Inject("GetProviderID", ""));
  ASSERT_TRUE(mbnsim::Inject("QueryInterface.IMbnRegistration", "null"));
  ClearLog();
  sink.GetMccInfo();
  EXPECT_EQ((std::vector<std::string>{"[Error][CMbnRegEvent::GetMccInfo]NULL == mRegInterface"}),
            messages());
}

// The simulator itself must catch what the real stack would punish.
TEST_F(SimTest, SimulatorCountsOverReleasesWrongCookiesAndLeftSinks) {
  ComPtr<IMbnInterfaceManager> manager;
  ASSERT_EQ(S_OK, ::CoCreateInstance(CLSID_MbnInterfaceManager, nullptr, CLSCTX_ALL,
                                     IID_IMbnInterfaceManager, manager.put_void()));
  ComPtr<IConnectionPointContainer> container;
  ASSERT_EQ(S_OK, manager->QueryInterface(IID_IConnectionPointContainer, container.put_void()));
  ComPtr<IConnectionPoint> point;
  ASSERT_EQ(S_OK, container->FindConnectionPoint(IID_IMbnInterfaceManagerEvents, point.put()));
  ComPtr<CMbnRegEvent> sink(new CMbnRegEvent());
  DWORD cookie = 0;
  ASSERT_EQ(S_OK, point->Advise(sink.get(), &cookie));
  EXPECT_EQ(static_cast<HRESULT>(CONNECT_E_NOCONNECTION), point->Unadvise(cookie + 100));
  EXPECT_EQ(1u, counters().bad_unadvises);
  EXPECT_EQ(1u, counters().advised_sinks);

  IMbnInterfaceManager* raw = manager.get();
  raw->AddRef();
  point.reset();
  container.reset();
  manager.reset();
  EXPECT_EQ(0u, raw->Release());
  EXPECT_EQ(0u, counters().bad_releases);
  EXPECT_EQ(0u, raw->Release()) << "one release too many";
  EXPECT_EQ(1u, counters().bad_releases);
  EXPECT_EQ(1u, counters().advised_sinks) << "never unadvised";
}

}  // namespace
}  // namespace dorvane
