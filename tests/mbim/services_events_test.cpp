// The completion sink on its own: completions are called directly.
#include "mbim/services_events.h"

#include <gtest/gtest.h>

#include "log/logger.h"
#include "support/log_reader.h"
#include "support/simulator.h"
#include "util/com_ptr.h"

namespace dorvane {
namespace {

class SinkTest : public testing::LogFixture {
 protected:
  void SetUp() override {
    LogFixture::SetUp();
    sink_ = new CrMbimServicesEvents(pending_, 50);
  }
  void TearDown() override {
    if (sink_) sink_->Release();
  }
  void AddPending(ULONG request_id) {
    ASSERT_TRUE(pending_->Append("AT\r\n"));
    pending_->StampLast(request_id);
  }
  // Takes the answer of the entries with `request_id` out of the list.
  std::string Answer(ULONG request_id) {
    std::string text = "none";
    std::string hex;
    pending_->Collect(request_id, text, hex);
    return text;
  }
  std::shared_ptr<PendingList> pending_ = std::make_shared<PendingList>();
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
  ScopedSafeArray data(testing::ByteArray("OK"));
  EXPECT_EQ(S_OK, sink_->OnSetCommandComplete(nullptr, 1, data.get(), S_OK, 7));
  EXPECT_EQ(0u, sink_->WaitForSetEventFinish());
  // Collected in list order: the second entry's empty answer is taken last.
  std::string text;
  std::string hex;
  EXPECT_TRUE(pending_->Collect(7, text, hex));
  EXPECT_EQ("4F 4B ", hex) << "only the first entry had bytes";
  EXPECT_EQ(1u, pending_->size()) << "the index moves past an erased entry";
  EXPECT_EQ("", Answer(7));
  EXPECT_EQ(0u, pending_->size());
}

TEST_F(SinkTest, UnusableCompletionsAreLoggedAndLeaveTheWaiterToItsTimeOut) {
  AddPending(3);
  ScopedSafeArray data(testing::ByteArray("OK"));
  EXPECT_EQ(S_FALSE, sink_->OnSetCommandComplete(nullptr, 1, data.get(), S_FALSE, 3));
  EXPECT_EQ(S_OK, sink_->OnSetCommandComplete(nullptr, 1, data.get(), S_OK, 4));
  EXPECT_EQ(1u, sink_->WaitForSetEventFinish());
  // Unreadable data still releases the waiter, with an empty answer.
  EXPECT_EQ(S_OK, sink_->OnSetCommandComplete(nullptr, 1, nullptr, S_OK, 3));
  EXPECT_EQ(0u, sink_->WaitForSetEventFinish());
  EXPECT_EQ("", Answer(3));
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
  ScopedSafeArray data(testing::ByteArray("x"));
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
