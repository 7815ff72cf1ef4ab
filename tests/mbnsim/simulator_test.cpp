// The simulator's rough edges, seen from a bare sink: completion timings and
// shapes, concurrent delivery, session and size rules, event counts. The client
// code is tested against these in the channel and monitor tests; here each
// scenario value is checked to do what the README says.
#include <gtest/gtest.h>

#include <objbase.h>
#include <olectl.h>

#include <cstring>
#include <vector>

#include "mbnsim/recording_sink.h"
#include "support/simulator.h"
#include "tools/mbnsim/scenario.h"
#include "util/com_ptr.h"
#include "util/mbnapi.h"

namespace dorvane {
namespace {

const HRESULT kNoSession = HRESULT_FROM_WIN32(ERROR_INVALID_STATE);

class SimulatorTest : public testing::SimFixture {
 protected:
  void SetUp() override {
    SimFixture::SetUp();
    ASSERT_EQ(S_OK, ::CoCreateInstance(CLSID_MbnDeviceServicesManager, nullptr, CLSCTX_ALL,
                                       IID_IMbnDeviceServicesManager, manager_.put_void()));
    ComPtr<IConnectionPointContainer> container;
    ASSERT_EQ(S_OK, manager_->QueryInterface(IID_IConnectionPointContainer, container.put_void()));
    ASSERT_EQ(S_OK, container->FindConnectionPoint(IID_IMbnDeviceServicesEvents, point_.put()));
    ASSERT_EQ(S_OK, point_->Advise(&sink_, &cookie_));
    ScopedBstr interface_id(AnsiToWide(mbnsim::DefaultInterface(0).interface_id).c_str());
    ASSERT_EQ(S_OK, manager_->GetDeviceServicesContext(interface_id.get(), context_.put()));
    ScopedBstr service_id(L"{ffffffff-abca-4b11-a4e2-f2fc87f94488}");
    ASSERT_EQ(S_OK, context_->GetDeviceService(service_id.get(), service_.put()));
  }
  void TearDown() override {
    if (point_) {
      EXPECT_EQ(S_OK, point_->Unadvise(cookie_));
    }
    service_.reset();
    context_.reset();
    point_.reset();
    manager_.reset();
    ExpectNothingLeft(bad_unadvises_);
  }

  static SAFEARRAY* Bytes(const std::string& bytes) {
    SAFEARRAY* a = ::SafeArrayCreateVector(VT_UI1, 0, static_cast<ULONG>(bytes.size()));
    void* raw = nullptr;
    ::SafeArrayAccessData(a, &raw);
    std::memcpy(raw, bytes.data(), bytes.size());
    ::SafeArrayUnaccessData(a);
    return a;
  }
  // SetCommand as the test's own call: the sink sees whether it had returned.
  HRESULT Set(const std::string& bytes, ULONG* id) {
    ScopedSafeArray data(Bytes(bytes));
    sink_.caller_returned = false;
    HRESULT hr = service_->SetCommand(1, data.get(), id);
    sink_.caller_returned = true;
    return hr;
  }
  void OpenSession() {
    ULONG id = 0;
    ASSERT_EQ(S_OK, service_->OpenCommandSession(&id));
    ASSERT_EQ(1u, sink_.WaitFor(1).size());
    sink_.Clear();
  }

  testing::RecordingSink sink_;
  ComPtr<IMbnDeviceServicesManager> manager_;
  ComPtr<IConnectionPoint> point_;
  ComPtr<IMbnDeviceServicesContext> context_;
  ComPtr<IMbnDeviceService> service_;
  DWORD cookie_ = 0;
  DWORD bad_unadvises_ = 0;  // what the test expects the simulator to have counted
};

TEST_F(SimulatorTest, CompletionsComeOnAnotherThreadAfterTheCallUnlessEarly) {
  OpenSession();
  ULONG id = 0;
  ASSERT_EQ(S_OK, Set("AT\r\n", &id));
  auto calls = sink_.WaitFor(1);
  ASSERT_EQ(1u, calls.size());
  EXPECT_EQ('s', calls[0].kind);
  EXPECT_EQ(id, calls[0].request_id);
  EXPECT_EQ("\r\nOK\r\n", calls[0].bytes);
  EXPECT_TRUE(calls[0].caller_returned);
  EXPECT_NE(::GetCurrentThreadId(), calls[0].thread);

  sink_.Clear();
  ASSERT_TRUE(mbnsim::Inject("SetCommand.Complete", "early"));
  ASSERT_EQ(S_OK, Set("AT\r\n", &id));
  calls = sink_.WaitFor(1, 0);
  ASSERT_EQ(1u, calls.size()) << "delivered before SetCommand returned";
  EXPECT_FALSE(calls[0].caller_returned);
  EXPECT_NE(::GetCurrentThreadId(), calls[0].thread) << "still on a delivery thread";
  EXPECT_EQ(id, calls[0].request_id);

  sink_.Clear();
  ASSERT_TRUE(mbnsim::Inject("SetCommand.Complete", ""));
  mbnsim::SetDelay("SetCommand.Complete", 400);
  const DWORD sent = ::GetTickCount();
  ASSERT_EQ(S_OK, Set("AT\r\n", &id));
  EXPECT_LT(::GetTickCount() - sent, 200u) << "the call itself is not delayed";
  EXPECT_EQ(1u, counters().pending_completions);
  calls = sink_.WaitFor(1);
  ASSERT_EQ(1u, calls.size());
  EXPECT_GE(calls[0].tick - sent, 390u);

  sink_.Clear();
  mbnsim::SetDelay("SetCommand.Complete", 0);
  ASSERT_TRUE(mbnsim::Inject("SetCommand.Complete", "none"));
  ASSERT_EQ(S_OK, Set("AT\r\n", &id));
  EXPECT_TRUE(sink_.WaitFor(1, 300).empty());
  EXPECT_EQ(0u, counters().pending_completions);
}

TEST_F(SimulatorTest, CompletionShapesTwiceSplitOtherIdStatusAndEmpty) {
  OpenSession();
  mbnsim::SetReply("AT+LONG", "\r\n+LONG: 0123456789\r\n\r\nOK\r\n");
  const std::string full = "\r\n+LONG: 0123456789\r\n\r\nOK\r\n";
  struct Case {
    const char* what;
    size_t count;
  };
  for (const Case& c : {Case{"twice", 2}, Case{"split", 3}, Case{"wrongid", 1},
                        Case{"0x80004005", 1}, Case{"0x1", 1}, Case{"empty", 1}}) {
    SCOPED_TRACE(c.what);
    sink_.Clear();
    ASSERT_TRUE(mbnsim::Inject("SetCommand.Complete", c.what));
    ULONG id = 0;
    ASSERT_EQ(S_OK, Set("AT+LONG\r\n", &id));
    WaitIdle();
    const auto calls = sink_.WaitFor(c.count);
    ASSERT_EQ(c.count, calls.size());
    const std::string what = c.what;
    std::string joined;
    for (const auto& call : calls) {
      EXPECT_EQ(what == "wrongid" ? id - 1 : id, call.request_id) << "the request before";
      joined += call.bytes;
    }
    if (what == "twice") {
      EXPECT_EQ(full, calls[0].bytes);
      EXPECT_EQ(full, calls[1].bytes);
    } else if (what == "split") {
      EXPECT_EQ(full, joined) << "three fragments in order";
      for (const auto& call : calls) EXPECT_FALSE(call.bytes.empty());
    } else if (what[0] == '0') {
      EXPECT_EQ(static_cast<HRESULT>(std::stoul(what, nullptr, 0)), calls[0].status);
      EXPECT_FALSE(calls[0].has_data) << "data only comes with S_OK";
    } else if (what == "empty") {
      EXPECT_TRUE(calls[0].has_data);
      EXPECT_EQ("", calls[0].bytes);
    }
  }
}

TEST_F(SimulatorTest, DeliveryThreadsOverlapAsInAMultithreadedApartment) {
  OpenSession();
  for (DWORD threads : {2u, 1u}) {
    SCOPED_TRACE(threads);
    ASSERT_TRUE(mbnsim::SetOption("DeliveryThreads", threads));
    mbnsim::SetDelay("SetCommand.Complete", 50);
    sink_.Clear();
    sink_.inside_ = 0;
    sink_.overlapped_ = false;
    sink_.hold_ = true;
    ULONG a = 0;
    ULONG b = 0;
    ASSERT_EQ(S_OK, Set("AT\r\n", &a));
    ASSERT_EQ(S_OK, Set("AT\r\n", &b));
    const auto calls = sink_.WaitFor(2);
    WaitIdle();
    sink_.hold_ = false;
    ASSERT_EQ(2u, calls.size());
    EXPECT_EQ(threads > 1, sink_.overlapped_.load());
    if (threads > 1) {
      EXPECT_NE(calls[0].thread, calls[1].thread);
    }
  }
}

TEST_F(SimulatorTest, SetCommandNeedsAnOpenSessionAndASmallEnoughPayload) {
  ULONG id = 0;
  EXPECT_EQ(kNoSession, Set("AT\r\n", &id)) << "no session open";
  EXPECT_EQ(kNoSession, service_->CloseCommandSession(&id));

  // An open that completes with a failure leaves the session closed.
  ASSERT_TRUE(mbnsim::Inject("OpenCommandSession.Complete", "0x80004005"));
  ASSERT_EQ(S_OK, service_->OpenCommandSession(&id));
  EXPECT_EQ(E_FAIL, sink_.WaitFor(1)[0].status);
  EXPECT_FALSE(mbnsim::SessionOpen(0));
  EXPECT_EQ(kNoSession, Set("AT\r\n", &id));
  ASSERT_TRUE(mbnsim::Inject("OpenCommandSession.Complete", ""));
  sink_.Clear();
  OpenSession();

  ASSERT_TRUE(mbnsim::SetOption("MaxCommandSize", 8));
  ULONG max = 0;
  ASSERT_EQ(S_OK, context_->get_MaxCommandSize(&max));
  EXPECT_EQ(8u, max);
  EXPECT_EQ(E_INVALIDARG, Set("AT+ABC\r\n", &id)) << "8 bytes is at the maximum";
  EXPECT_EQ(S_OK, Set("ATI\r\n", &id)) << "5 bytes";
  EXPECT_EQ(S_OK, Set("AT+ABC\r", &id)) << "7 bytes, one under the maximum";
  EXPECT_EQ(E_INVALIDARG, Set("AT+ABCD\r\n", &id));
  WaitIdle();
  EXPECT_EQ(2u, sink_.WaitFor(2).size()) << "only the accepted commands complete";
}

TEST_F(SimulatorTest, UnknownCookiesAreRefusedAndCountedApartFromLeaks) {
  EXPECT_EQ(static_cast<HRESULT>(CONNECT_E_NOCONNECTION), point_->Unadvise(0));
  EXPECT_EQ(static_cast<HRESULT>(CONNECT_E_NOCONNECTION), point_->Unadvise(cookie_ + 7));
  EXPECT_EQ(2u, counters().bad_unadvises);
  EXPECT_EQ(1u, counters().advised_sinks) << "nothing changed";
  EXPECT_EQ(S_OK, point_->Unadvise(cookie_));
  EXPECT_EQ(static_cast<HRESULT>(CONNECT_E_NOCONNECTION), point_->Unadvise(cookie_))
      << "a second time";
  point_.reset();
  EXPECT_EQ(0u, counters().advised_sinks);
  bad_unadvises_ = 3;
}

}  // namespace
}  // namespace dorvane
