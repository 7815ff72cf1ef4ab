// What the channel and monitor tests take on trust from the simulator, seen
// from a bare sink: completion timings and shapes, concurrent delivery, and the
// counters behind every "nothing left" check. Where the simulator got these
// wrong, the product tests would pass without testing what they claim to.
#include <gtest/gtest.h>

#include <objbase.h>
#include <olectl.h>

#include <atomic>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include "mbim/services_events.h"
#include "support/simulator.h"
#include "tools/mbnsim/scenario.h"
#include "util/com_ptr.h"
#include "util/mbnapi.h"

namespace dorvane {
namespace {

// Records the open and set completions: the thread, the time, and whether the
// test's call that started it had returned by then. The channel's sink gives
// the COM plumbing.
class RecordingSink : public CrMbimServicesEvents {
 public:
  struct Call {
    ULONG request_id;
    HRESULT status;
    bool has_data;
    std::string bytes;
    DWORD thread, tick;
    bool caller_returned;
  };
  RecordingSink() : CrMbimServicesEvents(std::make_shared<PendingList>()) {}
  HRESULT STDMETHODCALLTYPE OnOpenCommandSessionComplete(IMbnDeviceService*, HRESULT status, ULONG id) override {
    return Record(id, status, nullptr);
  }
  HRESULT STDMETHODCALLTYPE OnSetCommandComplete(IMbnDeviceService*, ULONG, SAFEARRAY* data,
                                                 HRESULT status, ULONG id) override {
    Record(id, status, data);
    // Held until a second set completion is being delivered too, or 300 ms.
    const DWORD start = ::GetTickCount();
    for (++inside; hold && inside.load() < 2 && ::GetTickCount() - start < 300;) ::Sleep(1);
    overlapped = overlapped || inside.load() >= 2;
    --inside;
    return S_OK;
  }
  // Waits until `n` completions have come (or `timeout_ms`), takes them.
  std::vector<Call> Take(size_t n, DWORD timeout_ms = 5000) {
    for (const DWORD start = ::GetTickCount();; ::Sleep(2)) {
      std::lock_guard<std::mutex> lock(mutex_);
      if (calls_.size() >= n || ::GetTickCount() - start > timeout_ms) return std::move(calls_);
    }
  }

  std::atomic<bool> caller_returned{true}, hold{false}, overlapped{false};
  std::atomic<int> inside{0};

 private:
  HRESULT Record(ULONG id, HRESULT status, SAFEARRAY* data) {
    Call call{id, status, data != nullptr, "", ::GetCurrentThreadId(), ::GetTickCount(), caller_returned};
    void* raw = nullptr;
    if (data != nullptr && SUCCEEDED(::SafeArrayAccessData(data, &raw))) {
      call.bytes.assign(static_cast<const char*>(raw), data->rgsabound[0].cElements);
      ::SafeArrayUnaccessData(data);
    }
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.push_back(call);
    return S_OK;
  }

  std::mutex mutex_;
  std::vector<Call> calls_;
};

// The AT device service of interface 0 with an open session, the sink advised.
class SimulatorTest : public testing::SimFixture {
 protected:
  void SetUp() override {
    SimFixture::SetUp();
    sink_ = new RecordingSink();
    ASSERT_EQ(S_OK, ::CoCreateInstance(CLSID_MbnDeviceServicesManager, nullptr, CLSCTX_ALL,
                                       IID_IMbnDeviceServicesManager, manager_.put_void()));
    ComPtr<IConnectionPointContainer> container;
    ASSERT_EQ(S_OK, manager_->QueryInterface(IID_IConnectionPointContainer, container.put_void()));
    ASSERT_EQ(S_OK, container->FindConnectionPoint(IID_IMbnDeviceServicesEvents, point_.put()));
    ASSERT_EQ(S_OK, point_->Advise(sink_, &cookie_));
    ScopedBstr interface_id(AnsiToWide(mbnsim::DefaultInterface(0).interface_id).c_str());
    ASSERT_EQ(S_OK, manager_->GetDeviceServicesContext(interface_id.get(), context_.put()));
    ScopedBstr service_id(L"{ffffffff-abca-4b11-a4e2-f2fc87f94488}");
    ASSERT_EQ(S_OK, context_->GetDeviceService(service_id.get(), service_.put()));
    ULONG id = 0;
    ASSERT_EQ(S_OK, service_->OpenCommandSession(&id));
    ASSERT_EQ(1u, sink_->Take(1).size());
  }
  void TearDown() override {
    if (point_) {
      EXPECT_EQ(S_OK, point_->Unadvise(cookie_));
    }
    service_.reset();
    context_.reset();
    point_.reset();
    manager_.reset();
    if (sink_) sink_->Release();
    ExpectNothingLeft(bad_unadvises_, bad_releases_);
  }

  // SetCommand as the test's own call: the sink sees whether it had returned.
  HRESULT Set(const std::string& bytes, ULONG* id) {
    ScopedSafeArray data(testing::ByteArray(bytes));
    sink_->caller_returned = false;
    const HRESULT hr = service_->SetCommand(1, data.get(), id);
    sink_->caller_returned = true;
    return hr;
  }

  RecordingSink* sink_ = nullptr;  // made once the log is set up, released by the teardown
  ComPtr<IMbnDeviceServicesManager> manager_;
  ComPtr<IConnectionPoint> point_;
  ComPtr<IMbnDeviceServicesContext> context_;
  ComPtr<IMbnDeviceService> service_;
  DWORD cookie_ = 0;
  DWORD bad_unadvises_ = 0, bad_releases_ = 0;  // what the test expects the simulator to have counted
};

// A completion comes on another thread after the call has returned, or before
// ("early"), or as late as its delay says while the call itself returns at
// once, or never ("none").
TEST_F(SimulatorTest, CompletionsComeOnAnotherThreadAfterTheCallUnlessEarly) {
  for (const char* what : {"", "early"}) {
    SCOPED_TRACE(what);
    ASSERT_TRUE(mbnsim::Inject("SetCommand.Complete", what));
    ULONG id = 0;
    ASSERT_EQ(S_OK, Set("AT\r\n", &id));
    const auto calls = sink_->Take(1, *what ? 0 : 5000);
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(id, calls[0].request_id);
    EXPECT_EQ("\r\nOK\r\n", calls[0].bytes);
    EXPECT_EQ(!*what, calls[0].caller_returned);
    EXPECT_NE(::GetCurrentThreadId(), calls[0].thread) << "on a delivery thread";
  }
  ASSERT_TRUE(mbnsim::Inject("SetCommand.Complete", ""));
  mbnsim::SetDelay("SetCommand.Complete", 300);
  const DWORD sent = ::GetTickCount();
  ULONG id = 0;
  ASSERT_EQ(S_OK, Set("AT\r\n", &id));
  EXPECT_LT(::GetTickCount() - sent, 150u) << "the call itself is not delayed";
  EXPECT_EQ(1u, counters().pending_completions);
  const auto calls = sink_->Take(1);
  ASSERT_EQ(1u, calls.size());
  EXPECT_GE(calls[0].tick - sent, 290u);

  mbnsim::SetDelay("SetCommand.Complete", 0);
  ASSERT_TRUE(mbnsim::Inject("SetCommand.Complete", "none"));
  ASSERT_EQ(S_OK, Set("AT\r\n", &id));
  EXPECT_TRUE(sink_->Take(1, 200).empty());
  EXPECT_EQ(0u, counters().pending_completions);
}

TEST_F(SimulatorTest, CompletionShapesTwiceSplitOtherIdStatusAndEmpty) {
  const std::string full = "\r\n+LONG: 0123456789\r\n\r\nOK\r\n";
  mbnsim::SetReply("AT+LONG", full);
  // How the completion comes, how many there are, the bytes of them all.
  for (const auto& [what, count, bytes] : std::vector<std::tuple<std::string, size_t, std::string>>{
           {"twice", 2, full + full}, {"split", 3, full}, {"wrongid", 1, full}, {"0x80004005", 1, ""},
           {"0x1", 1, ""}, {"empty", 1, ""}}) {
    SCOPED_TRACE(what);
    ASSERT_TRUE(mbnsim::Inject("SetCommand.Complete", what));
    ULONG id = 0;
    ASSERT_EQ(S_OK, Set("AT+LONG\r\n", &id));
    WaitIdle();
    const auto calls = sink_->Take(count);
    ASSERT_EQ(count, calls.size());
    const bool failed = what[0] == '0';
    std::string joined;
    for (const auto& call : calls) {
      EXPECT_EQ(what == "wrongid" ? id - 1 : id, call.request_id) << "the request before";
      EXPECT_EQ(!failed, call.has_data) << "data only comes with S_OK";
      EXPECT_EQ(failed ? static_cast<HRESULT>(std::stoul(what, nullptr, 0)) : S_OK, call.status);
      EXPECT_FALSE(what == "split" && call.bytes.empty()) << "three fragments, none empty";
      joined += call.bytes;
    }
    EXPECT_EQ(bytes, joined);
  }
}

TEST_F(SimulatorTest, DeliveryThreadsOverlapAsInAMultithreadedApartment) {
  mbnsim::SetDelay("SetCommand.Complete", 50);
  sink_->hold = true;
  for (DWORD threads : {2u, 1u}) {
    SCOPED_TRACE(threads);
    ASSERT_TRUE(mbnsim::SetOption("DeliveryThreads", threads));
    sink_->overlapped = false;
    ULONG id = 0;
    ASSERT_EQ(S_OK, Set("AT\r\n", &id));
    ASSERT_EQ(S_OK, Set("AT\r\n", &id));
    const auto calls = sink_->Take(2);
    ASSERT_EQ(2u, calls.size());
    WaitIdle();
    EXPECT_EQ(threads > 1, sink_->overlapped.load());
    EXPECT_EQ(threads > 1, calls[0].thread != calls[1].thread);
  }
}

// The counters that every "nothing left" check reads: a cookie never handed
// out (or handed back already) is refused and counted apart from leaks, a
// release too many is counted, and a sink never unadvised stays counted.
TEST_F(SimulatorTest, CountersCatchWrongCookiesOverReleasesAndLeftSinks) {
  const HRESULT refused = CONNECT_E_NOCONNECTION;
  EXPECT_EQ(refused, point_->Unadvise(0));
  EXPECT_EQ(refused, point_->Unadvise(cookie_ + 7));
  EXPECT_EQ(2u, counters().bad_unadvises);
  EXPECT_EQ(1u, counters().advised_sinks) << "nothing changed";
  EXPECT_EQ(S_OK, point_->Unadvise(cookie_));
  EXPECT_EQ(refused, point_->Unadvise(cookie_)) << "a second time";
  EXPECT_EQ(0u, counters().advised_sinks);
  EXPECT_EQ(S_OK, point_->Advise(sink_, &cookie_));
  EXPECT_EQ(1u, counters().advised_sinks) << "until the teardown";

  IMbnDeviceService* raw = service_.get();
  raw->AddRef();
  service_.reset();
  EXPECT_EQ(0u, raw->Release());
  EXPECT_EQ(0u, counters().bad_releases);
  EXPECT_EQ(0u, raw->Release()) << "one release too many";
  EXPECT_EQ(1u, counters().bad_releases);
  bad_unadvises_ = 3;
  bad_releases_ = 1;
}

}  // namespace
}  // namespace dorvane
