// The completion sink on its own: completions are called directly.
#include "mbim/services_events.h"

#include <gtest/gtest.h>

#include <cstring>

#include "log/logger.h"
#include "support/log_reader.h"
#include "util/com_ptr.h"

namespace dorvane {
namespace {

using testing::Messages;
using testing::ReadLog;

class SinkTest : public testing::LogFixture {
 protected:
  void SetUp() override {
    LogFixture::SetUp();
    sink_ = new CrMbimServicesEvents(&text_, &pending_, 50);
  }
  void TearDown() override {
    if (sink_) sink_->Release();
  }
  void AddPending(ULONG request_id) {
    PendingCommand entry;
    entry.request_id = request_id;
    pending_.push_back(std::move(entry));
  }
  static SAFEARRAY* Bytes(const std::string& bytes) {
    SAFEARRAY* a = ::SafeArrayCreateVector(VT_UI1, 0, static_cast<ULONG>(bytes.size()));
    void* raw = nullptr;
    ::SafeArrayAccessData(a, &raw);
    std::memcpy(raw, bytes.data(), bytes.size());
    ::SafeArrayUnaccessData(a);
    return a;
  }
  std::string text_;
  std::vector<PendingCommand> pending_;
  CrMbimServicesEvents* sink_ = nullptr;
};

TEST_F(SinkTest, AcceptsOnlyItsEventInterfaceAndLogsItsLifetime) {
  void* out = nullptr;
  EXPECT_EQ(E_NOINTERFACE, sink_->QueryInterface(IID_IUnknown, &out));
  EXPECT_EQ(nullptr, out);
  EXPECT_EQ(S_OK, sink_->QueryInterface(IID_IMbnDeviceServicesEvents, &out));
  EXPECT_EQ(1u, sink_->Release()) << "created with a count of 1";
  EXPECT_EQ(0u, sink_->Release());
  sink_ = nullptr;
  EXPECT_EQ((std::vector<std::string>{"Create event", "Close event"}), messages());
}

TEST_F(SinkTest, OnlyTheFirstEntryWithTheRequestIdIsFilled) {
  AddPending(7);
  AddPending(7);
  ScopedSafeArray data(Bytes("OK"));
  EXPECT_EQ(S_OK, sink_->OnSetCommandComplete(nullptr, 1, data.get(), S_OK, 7));
  ASSERT_EQ(2, pending_[0].answer_length);
  EXPECT_EQ(0, std::memcmp("OK", pending_[0].answer_bytes.get(), 2));
  EXPECT_EQ(0, pending_[1].answer_length);
  EXPECT_EQ(nullptr, pending_[1].answer_bytes);
  EXPECT_EQ(0u, sink_->WaitForSetEventFinish());
}

TEST_F(SinkTest, UnusableCompletionsAreLoggedAndLeaveTheWaiterToItsTimeOut) {
  AddPending(3);
  ScopedSafeArray data(Bytes("OK"));
  EXPECT_EQ(S_FALSE, sink_->OnSetCommandComplete(nullptr, 1, data.get(), S_FALSE, 3));
  EXPECT_EQ(S_OK, sink_->OnSetCommandComplete(nullptr, 1, data.get(), S_OK, 4));
  EXPECT_EQ(1u, sink_->WaitForSetEventFinish());
  EXPECT_EQ(0, pending_[0].answer_length);
  // Unreadable data still releases the waiter, with an empty answer.
  EXPECT_EQ(S_OK, sink_->OnSetCommandComplete(nullptr, 1, nullptr, S_OK, 3));
  EXPECT_EQ(0u, sink_->WaitForSetEventFinish());
  EXPECT_EQ(0, pending_[0].answer_length);
  const auto msgs = messages();
  EXPECT_EQ((std::vector<std::string>{"Create event", "OnSetCommandComplete, requestID = 3",
                                      "OnSetCommandComplete-status-not-ok",
                                      "OnSetCommandComplete, requestID = 4",
                                      "OnSetCommandComplete-no-match-command", "Wait event",
                                      "OnSetCommandComplete, requestID = 3", "SafeArrayAccessData",
                                      "Set event", "Wait event"}),
            msgs);
}

TEST_F(SinkTest, ResetTouchesOnlyTheOpenEvent) {
  AddPending(1);
  ScopedSafeArray data(Bytes("x"));
  EXPECT_EQ(E_FAIL, sink_->OnOpenCommandSessionComplete(nullptr, E_FAIL, 99))
      << "any open completion releases the waiter and its status is handed back";
  sink_->OnSetCommandComplete(nullptr, 1, data.get(), S_OK, 1);
  sink_->OnCloseCommandSessionComplete(nullptr, S_OK, 2);
  sink_->ResetEvents();
  EXPECT_EQ(1u, sink_->WaitForOpenEventFinish());
  EXPECT_EQ(0u, sink_->WaitForSetEventFinish()) << "a stale set signal survives the reset";
  EXPECT_EQ(0u, sink_->WaitForCloseEventFinish()) << "a stale close signal survives the reset";
  EXPECT_EQ(1u, sink_->WaitForCloseEventFinish()) << "auto-reset";
}

}  // namespace
}  // namespace dorvane
