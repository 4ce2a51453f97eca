#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "ipc/ipc_client.h"
#include "tests/ipc/client_test_env.h"

namespace zel::test {
namespace {

using ::testing::ElementsAre;
using zel::ipc::IPCClient;
using zel::ipc::IPCResult;
using Clock = std::chrono::steady_clock;
using Fields = std::vector<std::string>;

class RetryTest : public ClientTest {
 protected:
  std::string EventPath() const { return SlotPath(mDir.path(), 0) + "-event"; }
};

TEST_F(RetryTest, RefusedRegistrationStartsTheRetryThreadWhichTriesAgainAtOnce) {
  mService.Script(zel::ipc::RegisterEventPath, Answer::Reply("0"));
  auto client = std::make_unique<IPCClient>();
  const size_t threadsBefore = ThreadCount();
  ASSERT_TRUE(client->SetLocalPath(mService.path(), mDir.path(), IgnoreEvents()));
  ASSERT_TRUE(mService.WaitForRequestsFor(zel::ipc::RegisterEventPath, 2));
  // The event server's monitor thread and the retry thread.
  EXPECT_EQ(ThreadCount(), threadsBefore + 2);
  client.reset();
  EXPECT_THAT(RequestTexts(), ElementsAre("4\t" + EventPath(), "4\t" + EventPath(), "5\t" + EventPath()));
}

TEST_F(RetryTest, DestructionWakesTheRetryPauseAndUnregistersLast) {
  mService.Script(zel::ipc::RegisterEventPath, Answer::Reply("0"));
  auto client = std::make_unique<IPCClient>();
  ASSERT_TRUE(client->SetLocalPath(mService.path(), mDir.path(), IgnoreEvents()));
  ASSERT_TRUE(mService.WaitForRepliesSent(2));
  const auto start = Clock::now();
  client.reset();
  // Well within the 5-second pause that the stop cuts short.
  EXPECT_LT(SecondsBetween(start, Clock::now()), 3.0);
  EXPECT_THAT(RequestTexts(), ElementsAre("4\t" + EventPath(), "4\t" + EventPath(), "5\t" + EventPath()));
}

TEST_F(RetryTest, RequestsFromTheRetryThreadAndTheCallerNeverInterleave) {
  // Slow answers widen the window in which both want the socket.
  mService.Script(zel::ipc::RegisterEventPath, Answer::Reply("0", milliseconds(100)));
  mService.Script(zel::ipc::Ping, Answer::Reply("1\tPONG", milliseconds(20)));
  IPCClient client;
  ASSERT_TRUE(client.SetLocalPath(mService.path(), mDir.path(), IgnoreEvents()));
  std::vector<IPCResult> results;
  for (int i = 0; i < 10; ++i) results.push_back(client.Send(zel::ipc::Ping));
  ASSERT_TRUE(mService.WaitForRequestsFor(zel::ipc::RegisterEventPath, 2));

  for (const IPCResult& result : results) EXPECT_EQ(result.args, Fields{"PONG"});
  for (const auto& request : mService.Requests()) {
    EXPECT_EQ(request.repliesOwed, 0u) << "overlapping request " << request.text;
  }
}

TEST_F(RetryTest, AcceptedRegistrationStartsNoRetry) {
  {
    IPCClient client;
    ASSERT_TRUE(client.SetLocalPath(mService.path(), mDir.path(), IgnoreEvents()));
    EXPECT_EQ(client.Send(zel::ipc::Ping).code, zel::ipc::ResultSuccess);
  }
  EXPECT_THAT(RequestTexts(), ElementsAre("4\t" + EventPath(), "1", "5\t" + EventPath()));
}

TEST_F(RetryTest, StartAndStopAlwaysAnswerTrue) {
  IPCClient client;
  // Without an event socket the loop ends at once.
  EXPECT_TRUE(client.StopRetryThread());
  EXPECT_TRUE(client.StartRetryThread());
  EXPECT_TRUE(client.StartRetryThread());
  EXPECT_TRUE(client.StopRetryThread());
  EXPECT_TRUE(client.StopRetryThread());
  EXPECT_TRUE(mService.Requests().empty());
}

}  // namespace
}  // namespace zel::test
