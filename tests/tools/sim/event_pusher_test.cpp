// Events pushed at an interval to every registered path, each delivery logged.
#include "tools/sim/event_pusher.h"

#include <chrono>
#include <memory>
#include <string>

#include "gtest/gtest.h"
#include "tests/support/sim_process.h"
#include "tests/support/temp_dir.h"
#include "tests/tools/sim/test_peer.h"
#include "tools/sim/event_paths.h"
#include "tools/sim/sim_log.h"

namespace zel::sim {
namespace {

using std::chrono::milliseconds;
using ::zel::sim::test::TestPeer;
using ::zel::test::SimProcess;
using ::zel::test::TempDir;

class EventPusherTest : public ::testing::Test {
 protected:
  bool WaitForLogLine(const std::string& line) { return SimProcess::WaitForLineIn(dir.File("log"), line); }

  TempDir dir;
  SimLog log{dir.File("log")};
  EventPaths paths;
};

TEST(EventPusherLineTest, LineIsTheNumberAndTheText) {
  EXPECT_EQ(EventPusher::Line(100, "heartbeat"), "100\theartbeat");
}

TEST(EventPusherLineTest, LineWithoutTextIsTheNumberAlone) { EXPECT_EQ(EventPusher::Line(-3, ""), "-3"); }

TEST_F(EventPusherTest, EveryRegisteredPathReceivesTheEventAgainAndAgain) {
  TestPeer first(dir.File("a"), "");
  TestPeer second(dir.File("b"), "");
  paths.Register(dir.File("a"));
  paths.Register(dir.File("b"));
  EventPusher pusher(paths, log, "7\tping", milliseconds(10));
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(first.Receive(), "7\tping");
    EXPECT_EQ(second.Receive(), "7\tping");
  }
  EXPECT_TRUE(WaitForLogLine("event [7\\tping] to [" + dir.File("a") + "]"));
  EXPECT_TRUE(WaitForLogLine("event [7\\tping] to [" + dir.File("b") + "]"));
}

TEST_F(EventPusherTest, ClosedReceiverIsReportedAndForgotten) {
  auto receiver = std::make_unique<TestPeer>(dir.File("a"), "");
  paths.Register(dir.File("a"));
  receiver.reset();
  EventPusher pusher(paths, log, "7", milliseconds(10));
  EXPECT_TRUE(
      WaitForLogLine("event [7] to [" + dir.File("a") + "]: not sent, nothing receives there any more; forgotten"));
  pusher.Stop();
  EXPECT_EQ(paths.Count(), 0u);
}

TEST_F(EventPusherTest, StopEndsTheLongWaitAtOnce) {
  TestPeer receiver(dir.File("a"), "");
  paths.Register(dir.File("a"));
  EventPusher pusher(paths, log, "7", std::chrono::hours(1));
  pusher.Stop();
  EXPECT_EQ(receiver.Waiting(), std::nullopt);
  EXPECT_TRUE(SimProcess::ReadLines(dir.File("log")).empty());
}

}  // namespace
}  // namespace zel::sim
