// Each case here waits out at least one 5-second reply time-out, so each is
// its own test for CTest to run in parallel with the rest.
#include <syslog.h>

#include <chrono>
#include <memory>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "ipc/ipc_client.h"
#include "tests/ipc/client_test_env.h"

namespace zel::test {
namespace {

using zel::ipc::IPCClient;
using zel::ipc::IPCResult;
using Clock = std::chrono::steady_clock;
using Fields = std::vector<std::string>;

const LogRecord kRecvTimeOut{LOG_ERR, std::string(kSendFormatStringText) + " 112: Recv time out\n"};

TEST_F(ClientTest, UnansweredRequestFailsAfterFiveSeconds) {
  mService.Script(zel::ipc::Ping, Answer::Never());
  IPCClient client;
  ASSERT_TRUE(client.SetLocalPath(mService.path(), mDir.path(), nullptr));
  const auto start = Clock::now();
  const IPCResult result = client.Send(zel::ipc::Ping);
  const double waited = SecondsBetween(start, Clock::now());
  EXPECT_EQ(result.code, zel::ipc::ResultIoFailure);
  EXPECT_TRUE(result.args.empty());
  EXPECT_TRUE(HasRecord(kRecvTimeOut));
  EXPECT_GE(waited, 4.9);
  EXPECT_LT(waited, 8.0);
}

TEST_F(ClientTest, LateReplyIsReadByTheNextRequest) {
  mService.Script(zel::ipc::Ping, {Answer::Reply("1\tLATE", milliseconds(5300)), Answer::Reply("1\tSECOND"),
                                   Answer::Reply("1\tTHIRD")});
  IPCClient client;
  ASSERT_TRUE(client.SetLocalPath(mService.path(), mDir.path(), nullptr));
  EXPECT_EQ(client.Send(zel::ipc::Ping).code, zel::ipc::ResultIoFailure);
  ASSERT_TRUE(mService.WaitForRepliesSent(1));
  EXPECT_EQ(client.Send(zel::ipc::Ping).args, Fields{"LATE"});
  // The lag stays: each request now reads the reply to the one before it.
  EXPECT_EQ(client.Send(zel::ipc::Ping).args, Fields{"SECOND"});
}

TEST_F(ClientTest, UnansweredRegistrationCostsFiveSecondsAndIsRetriedAboutEveryTenSeconds) {
  mService.Script(zel::ipc::RegisterEventPath, {Answer::Never(), Answer::Never(), Answer::Reply("1")});
  IPCClient client;
  const auto start = Clock::now();
  ASSERT_TRUE(client.SetLocalPath(mService.path(), mDir.path(), IgnoreEvents()));
  const double setUp = SecondsBetween(start, Clock::now());
  EXPECT_GE(setUp, 4.9);
  EXPECT_LT(setUp, 8.0);
  EXPECT_TRUE(HasRecord(kRecvTimeOut));

  ASSERT_TRUE(mService.WaitForRequestsFor(zel::ipc::RegisterEventPath, 3, seconds(20)));
  const auto attempts = mService.RequestsFor(zel::ipc::RegisterEventPath);
  // The retry thread tries at once, then waits out its reply time-out and its
  // 5-second pause before the next attempt.
  const double firstGap = SecondsBetween(attempts[0].received, attempts[1].received);
  const double retryGap = SecondsBetween(attempts[1].received, attempts[2].received);
  EXPECT_GE(firstGap, 4.9);
  EXPECT_LT(firstGap, 8.0);
  EXPECT_GE(retryGap, 9.0);
  EXPECT_LT(retryGap, 13.0);
}

TEST_F(ClientTest, RefusedRegistrationIsRetriedAfterFiveSecondsUntilAccepted) {
  mService.Script(zel::ipc::RegisterEventPath, {Answer::Reply("0"), Answer::Reply("2"), Answer::Reply("1")});
  {
    IPCClient client;
    ASSERT_TRUE(client.SetLocalPath(mService.path(), mDir.path(), IgnoreEvents()));
    ASSERT_TRUE(mService.WaitForRequestsFor(zel::ipc::RegisterEventPath, 3, seconds(20)));
    const auto attempts = mService.RequestsFor(zel::ipc::RegisterEventPath);
    const double pause = SecondsBetween(attempts[1].received, attempts[2].received);
    EXPECT_GE(pause, 4.9);
    EXPECT_LT(pause, 8.0);
  }
  // Accepted at the third attempt: no fourth, then the unregistration.
  const std::string eventPath = SlotPath(mDir.path(), 0) + "-event";
  EXPECT_THAT(RequestTexts(),
              ::testing::ElementsAre("4\t" + eventPath, "4\t" + eventPath, "4\t" + eventPath, "5\t" + eventPath));
}

}  // namespace
}  // namespace zel::test
