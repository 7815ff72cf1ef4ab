// The sink and the monitor on a machine without a mobile-broadband stack: the
// simulator is unregistered first.
#include "monitor/mbn_monitor.h"

#include <gtest/gtest.h>

#include <thread>

#include "log/logger.h"
#include "monitor/state_work.h"
#include "support/log_reader.h"
#include "support/simulator.h"

namespace dorvane {
namespace {

using testing::Messages;
using testing::ReadLog;

class MonitorTest : public testing::LogFixture {
 protected:
  void SetUp() override {
    ASSERT_TRUE(testing::UnregisterSimulator());
    LogFixture::SetUp();
  }
};

class ObservedSink : public CMbnRegEvent {
 public:
  explicit ObservedSink(bool* destroyed) : destroyed_(destroyed) {}
  ~ObservedSink() override { *destroyed_ = true; }

 private:
  bool* destroyed_;
};

TEST(RegEventSink, AcceptsOnlyTheEventInterfaceAndCountsReferences) {
  bool destroyed = false;
  CMbnRegEvent* sink = new ObservedSink(&destroyed);
  void* out = reinterpret_cast<void*>(0x5a5a);
  EXPECT_EQ(E_NOINTERFACE, sink->QueryInterface(IID_IUnknown, &out));
  EXPECT_EQ(reinterpret_cast<void*>(0x5a5a), out) << "untouched on refusal";
  EXPECT_EQ(E_NOINTERFACE, sink->QueryInterface(IID_IMbnInterfaceManager, &out));

  EXPECT_EQ(S_OK, sink->QueryInterface(IID_IMbnInterfaceManagerEvents, &out));
  EXPECT_EQ(static_cast<IMbnInterfaceManagerEvents*>(sink), out);
  EXPECT_EQ(2u, sink->AddRef());
  EXPECT_EQ(1u, sink->Release());
  EXPECT_FALSE(destroyed);
  EXPECT_EQ(0u, sink->Release());
  EXPECT_TRUE(destroyed);
}

TEST(RegEventSink, ReferenceCountIsSafeAcrossThreads) {
  bool destroyed = false;
  CMbnRegEvent* sink = new ObservedSink(&destroyed);
  sink->AddRef();
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
  EXPECT_FALSE(destroyed);
  EXPECT_EQ(0u, sink->Release());
  EXPECT_TRUE(destroyed);
}

TEST_F(MonitorTest, ArrivalWakesTheWorkerAndRemovalOnlyLogs) {
  CStateWork* worker = CStateWork::GetInstance();
  ASSERT_EQ(1u, worker->InitWork());
  HANDLE sim = worker->event(CStateWork::SIM_CHANGE);

  CMbnRegEvent* sink = new CMbnRegEvent();
  sink->AddRef();
  EXPECT_EQ(S_OK, sink->OnInterfaceRemoval(nullptr));
  EXPECT_EQ(static_cast<DWORD>(WAIT_TIMEOUT), ::WaitForSingleObject(sim, 0));
  EXPECT_EQ(S_OK, sink->OnInterfaceArrival(nullptr));
  EXPECT_EQ(WAIT_OBJECT_0, ::WaitForSingleObject(sim, 0));
  sink->Release();

  EXPECT_EQ("OnInterfaceArrival", worker->mccmnc());
  EXPECT_EQ("", worker->iccid());
  EXPECT_EQ((std::vector<std::string>{"----------------[Info][CMbnChangeEvent::OnInterfaceRemoval]",
                                      "----------------[Info][CMbnChangeEvent::OnInterfaceArrival]",
                                      "SetSimChangeEvent mccmnc:", "OnInterfaceArrival"}),
            messages());
}

TEST_F(MonitorTest, WithoutAMobileBroadbandStackAttachFailsAndDetachIsSafe) {
  CMbnMonitor monitor;
  EXPECT_EQ(0u, monitor.AttachStateMbnRegEvent());
  EXPECT_FALSE(monitor.attached());
  monitor.Detach();
  monitor.Detach();
  const auto records = ReadLog(log_);
  ASSERT_EQ(2u, records.size());
  EXPECT_EQ("[ERROR] ", records[1].tag);
  EXPECT_EQ(
      "[Fail][CMbnMonitor::AttachStateMbnRegEvent] CoCreateInstance CLSID_MbnInterfaceManager "
      "Fail.",
      records[1].message);
}

TEST_F(MonitorTest, AttachFromASingleThreadedApartmentFailsAtCoInitialize) {
  std::thread sta([] {
    ASSERT_TRUE(SUCCEEDED(::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)));
    CMbnMonitor monitor;
    EXPECT_EQ(0u, monitor.AttachStateMbnRegEvent());
    ::CoUninitialize();
  });
  sta.join();
  EXPECT_EQ((std::vector<std::string>{"[Fail][CMbnMonitor::AttachStateMbnRegEvent] CoInitializeEx Fail."}),
            messages());
}

TEST_F(MonitorTest, SimQueryWithoutAStackKeepsTheTexts) {
  std::thread worker_thread([] {
    ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    CStateWork worker;
    EXPECT_EQ(0u, worker.GetSimInfo());
    EXPECT_EQ("", worker.mccmnc());
    EXPECT_EQ("", worker.iccid());
    CMbnRegEvent sink;
    EXPECT_EQ(1u, sink.GetMccInfo());
  });
  worker_thread.join();
  const auto records = ReadLog(log_);
  ASSERT_EQ(3u, records.size());
  EXPECT_EQ("[ERROR] ", records[1].tag);
  EXPECT_EQ("[Fail][CStateWork::GetSimInfo] CoInitializeEx Fail.", records[1].message);
  EXPECT_EQ("[Error][CMbnRegEvent::GetMccInfo] CoCreateInstance Fail.", records[2].message);
}

}  // namespace
}  // namespace dorvane
