#include <syslog.h>

#include <chrono>
#include <memory>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "ipc/ipc_client.h"
#include "tests/ipc/client_test_env.h"

namespace zel::test {
namespace {

using ::testing::ElementsAre;
using zel::ipc::IPCClient;
using Clock = std::chrono::steady_clock;

TEST(IPCClientOptionsTest, ReplyTimeoutIsFiveSecondsUnlessSet) {
  IPCClient client;
  EXPECT_EQ(client.GetReplyTimeout(), 5000000u);
  client.SetReplyTimeout(250000);
  EXPECT_EQ(client.GetReplyTimeout(), 250000u);
}

TEST_F(ClientTest, ShortReplyTimeoutEndsTheWaitEarly) {
  mService.Script(zel::ipc::Ping, Answer::Never());
  IPCClient client;
  ASSERT_TRUE(client.SetLocalPath(mService.path(), mDir.path(), nullptr));
  client.SetReplyTimeout(200000);
  const auto start = Clock::now();
  EXPECT_EQ(client.Send(zel::ipc::Ping).code, zel::ipc::ResultIoFailure);
  const double waited = SecondsBetween(start, Clock::now());
  EXPECT_TRUE(HasRecord({LOG_ERR, std::string(kSendFormatStringText) + " 112: Recv time out\n"}));
  EXPECT_GE(waited, 0.19);
  EXPECT_LT(waited, 4.0);
}

TEST_F(ClientTest, DestructorUnregistersByDefault) {
  {
    IPCClient client;
    ASSERT_TRUE(client.SetLocalPath(mService.path(), mDir.path(), nullptr));
  }
  EXPECT_THAT(RequestTexts(), ElementsAre("5\t" + SlotPath(mDir.path(), 0) + "-event"));
}

TEST_F(ClientTest, DestructorSendsNothingWhenUnregisteringIsSwitchedOff) {
  {
    IPCClient client;
    ASSERT_TRUE(client.SetLocalPath(mService.path(), mDir.path(), nullptr));
    client.SetUnregisterAtExit(false);
    EXPECT_EQ(client.Send(zel::ipc::Ping).code, zel::ipc::ResultSuccess);
  }
  EXPECT_THAT(RequestTexts(), ElementsAre("1"));
  EXPECT_FALSE(FileExists(SlotPath(mDir.path(), 0)));
}

}  // namespace
}  // namespace zel::test
