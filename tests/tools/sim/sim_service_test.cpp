// The simulated service in this process: requests over real sockets, replies
// to the sender's path, late replies, events, and the report lines.
#include "tools/sim/sim_service.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "tests/support/sim_process.h"
#include "tests/support/temp_dir.h"
#include "tests/tools/sim/test_peer.h"
#include "tools/sim/sim_log.h"
#include "tools/sim/sim_options.h"

namespace zel::sim {
namespace {

using ::zel::sim::test::TestPeer;
using ::zel::test::PathExists;
using ::zel::test::SimProcess;
using ::zel::test::TempDir;

class SimServiceTest : public ::testing::Test {
 protected:
  SimServiceTest() {
    options.socketPath = dir.File("svc");
    options.eventIntervalMs = 0;
  }

  void Start() {
    service = std::make_unique<SimService>(options, log);
    ASSERT_TRUE(service->Ready());
  }

  // A client bound at `name` in the test's directory, aimed at the service.
  std::unique_ptr<TestPeer> Client(const std::string& name) {
    return std::make_unique<TestPeer>(name.empty() ? "" : dir.File(name), options.socketPath);
  }

  bool WaitForLogLine(const std::string& line) { return SimProcess::WaitForLineIn(dir.File("log"), line); }

  TempDir dir;
  SimOptions options;
  SimLog log{dir.File("log")};
  std::unique_ptr<SimService> service;
};

TEST_F(SimServiceTest, PingOfABoundClientIsAnswered) {
  Start();
  auto client = Client("c");
  ASSERT_TRUE(client->Send("1"));
  EXPECT_EQ(client->Receive(), "1\tPONG");
}

TEST_F(SimServiceTest, EachRequestIsReportedOnOneLine) {
  Start();
  auto client = Client("c");
  client->Send("3");
  ASSERT_TRUE(client->Receive().has_value());
  EXPECT_TRUE(WaitForLogLine("request [3] from [" + dir.File("c") + "]: reply [1\\t02:1a:7d:4c:88:e1]"));
}

TEST_F(SimServiceTest, ReplyGoesBackToTheSendersOwnPath) {
  Start();
  auto first = Client("a");
  auto second = Client("b");
  first->Send("1");
  second->Send("3");
  EXPECT_EQ(second->Receive(), "1\t02:1a:7d:4c:88:e1");
  EXPECT_EQ(first->Receive(), "1\tPONG");
}

TEST_F(SimServiceTest, UnboundSenderGetsNoReplyAndALineSaysWhy) {
  Start();
  auto client = Client("");
  ASSERT_TRUE(client->Send("1"));
  EXPECT_TRUE(WaitForLogLine("request [1] from []: no reply, the sender has no socket path to answer to"));
  EXPECT_EQ(client->Waiting(), std::nullopt);
}

TEST_F(SimServiceTest, DroppedReplyIsReported) {
  options.dropReplies = true;
  Start();
  auto client = Client("c");
  client->Send("2");
  EXPECT_TRUE(WaitForLogLine("request [2] from [" + dir.File("c") + "]: no reply (dropped on purpose)"));
  EXPECT_EQ(client->Waiting(), std::nullopt);
}

TEST_F(SimServiceTest, LateReplyLeavesAfterItsDelayWhileOtherRequestsAreServed) {
  options.delayMs = 100;
  options.faultyCommands = {1};
  Start();
  auto client = Client("c");
  const auto sent = std::chrono::steady_clock::now();
  client->Send("1");
  client->Send("3");
  EXPECT_EQ(client->Receive(), "1\t02:1a:7d:4c:88:e1");
  EXPECT_EQ(client->Receive(), "1\tPONG");
  EXPECT_GE(std::chrono::steady_clock::now() - sent, std::chrono::milliseconds(100));
  EXPECT_TRUE(WaitForLogLine("request [1] from [" + dir.File("c") + "]: reply [1\\tPONG] in 100 ms"));
}

TEST_F(SimServiceTest, LateReplyThatCannotBeSentIsReported) {
  options.delayMs = 20;
  Start();
  // Handed over as the server would, from a path where nothing receives.
  TestPeer replier("", "");
  service->OnRequest(replier.Socket().GetFd(), dir.File("gone"), "1");
  EXPECT_TRUE(WaitForLogLine("late reply [1\\tPONG] to [" + dir.File("gone") + "] could not be sent"));
  EXPECT_EQ(SimProcess::ReadLines(dir.File("log")).front(),
            "request [1] from [" + dir.File("gone") + "]: reply [1\\tPONG] in 20 ms");
}

TEST_F(SimServiceTest, ReplyThatCannotBeSentIsReported) {
  Start();
  // Handed over as the server would, from a path where nothing receives.
  TestPeer replier("", "");
  service->OnRequest(replier.Socket().GetFd(), dir.File("gone"), "1");
  EXPECT_EQ(SimProcess::ReadLines(dir.File("log")),
            (std::vector<std::string>{"request [1] from [" + dir.File("gone") + "]: reply [1\\tPONG]",
                                      "reply [1\\tPONG] to [" + dir.File("gone") + "] could not be sent"}));
}

TEST_F(SimServiceTest, UnreadRepliesOfOneClientDoNotKeepAnotherWaiting) {
  Start();
  // More than a receiver's queue holds from a socket it is not connected to.
  auto stuck = Client("stuck");
  for (int i = 0; i < 50; ++i) ASSERT_TRUE(stuck->Send("1"));
  EXPECT_TRUE(WaitForLogLine("request [1] from [" + dir.File("stuck") + "]: reply [1\\tPONG]"));
  auto other = Client("other");
  ASSERT_TRUE(other->Send("1"));
  EXPECT_EQ(other->Receive(), "1\tPONG");
}

TEST_F(SimServiceTest, ReplyWithoutRoomIsLostAndReportedAndTheServiceGoesOn) {
  Start();
  auto stuck = Client("stuck");
  const std::string lost = "reply [1\\tPONG] to [" + dir.File("stuck") + "]: not sent, no room for it";
  auto noRoom = [&lost](const std::vector<std::string>& lines) {
    for (const std::string& line : lines) {
      if (line.compare(0, lost.size(), lost) == 0) return true;
    }
    return false;
  };
  // Requests whose replies are never read, until their replies fill the
  // service's buffer: before, the service then waited in its send for ever.
  for (int i = 0; i < 2000 && !noRoom(SimProcess::ReadLines(dir.File("log"))); ++i) ASSERT_TRUE(stuck->Send("1"));
  ASSERT_TRUE(SimProcess::WaitForLines(dir.File("log"), noRoom));
  auto other = Client("other");
  ASSERT_TRUE(other->Send("3"));
  EXPECT_TRUE(WaitForLogLine("request [3] from [" + dir.File("other") + "]: reply [1\\t02:1a:7d:4c:88:e1]"));
  // Once the stuck client's socket is gone, its replies give their room back.
  stuck.reset();
  while (other->Waiting().has_value()) {
  }
  ASSERT_TRUE(other->Send("1"));
  EXPECT_EQ(other->Receive(), "1\tPONG");
}

TEST_F(SimServiceTest, RegisteredClientReceivesEvents) {
  options.eventIntervalMs = 10;
  Start();
  TestPeer events(dir.File("c-event"), "");
  auto client = Client("c");
  client->Send("4\t" + dir.File("c-event"));
  EXPECT_EQ(client->Receive(), "1");
  EXPECT_EQ(events.Receive(), "100\theartbeat");
  EXPECT_TRUE(WaitForLogLine("request [4\\t" + dir.File("c-event") + "] from [" + dir.File("c") +
                             "]: reply [1] (registered, 1 event path)"));
  EXPECT_TRUE(WaitForLogLine("event [100\\theartbeat] to [" + dir.File("c-event") + "]"));
}

TEST_F(SimServiceTest, UnregisteredClientReceivesNoMoreEvents) {
  Start();
  TestPeer events(dir.File("c-event"), "");
  auto client = Client("c");
  client->Send("4\t" + dir.File("c-event"));
  EXPECT_EQ(client->Receive(), "1");
  client->Send("5\t" + dir.File("c-event"));
  EXPECT_EQ(client->Receive(), "1");
  EXPECT_EQ(service->Paths().Count(), 0u);
}

TEST_F(SimServiceTest, SocketFileExistsWhileServingAndGoesWithTheService) {
  Start();
  struct stat info;
  ASSERT_EQ(::stat(options.socketPath.c_str(), &info), 0);
  EXPECT_TRUE(S_ISSOCK(info.st_mode));
  service.reset();
  EXPECT_FALSE(PathExists(options.socketPath));
}

TEST_F(SimServiceTest, PathThatCannotBeBoundIsNotReady) {
  options.socketPath = dir.File("missing/svc");
  SimService failed(options, log);
  EXPECT_FALSE(failed.Ready());
}

}  // namespace
}  // namespace zel::sim
