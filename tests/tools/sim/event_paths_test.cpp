// The registry of event paths and the delivery of events to them.
#include "tools/sim/event_paths.h"

#include <memory>
#include <string>

#include "gtest/gtest.h"
#include "tests/support/temp_dir.h"
#include "tests/tools/sim/test_peer.h"

namespace zel::sim {
namespace {

using ::zel::sim::test::TestPeer;
using ::zel::test::TempDir;
using Delivery = EventPaths::Delivery;
using Registration = EventPaths::Registration;

class EventPathsTest : public ::testing::Test {
 protected:
  TempDir dir;
  EventPaths paths;
};

TEST_F(EventPathsTest, RegisteredPathReceivesEachEvent) {
  TestPeer receiver(dir.File("ev"), "");
  ASSERT_EQ(paths.Register(dir.File("ev")), Registration::Added);
  const std::vector<EventPaths::Report> reports = paths.SendToAll("7\tx");
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0].path, dir.File("ev"));
  EXPECT_EQ(reports[0].delivery, Delivery::Sent);
  EXPECT_EQ(receiver.Receive(), "7\tx");
}

TEST_F(EventPathsTest, EveryRegisteredPathReceivesTheEvent) {
  TestPeer first(dir.File("a"), "");
  TestPeer second(dir.File("b"), "");
  paths.Register(dir.File("a"));
  paths.Register(dir.File("b"));
  EXPECT_EQ(paths.SendToAll("1").size(), 2u);
  EXPECT_EQ(first.Receive(), "1");
  EXPECT_EQ(second.Receive(), "1");
}

TEST_F(EventPathsTest, UnregisteredPathReceivesNoMore) {
  TestPeer receiver(dir.File("ev"), "");
  paths.Register(dir.File("ev"));
  EXPECT_TRUE(paths.Unregister(dir.File("ev")));
  EXPECT_TRUE(paths.SendToAll("1").empty());
  EXPECT_EQ(receiver.Waiting(), std::nullopt);
}

TEST_F(EventPathsTest, UnregisteringAnUnknownPathReportsIt) { EXPECT_FALSE(paths.Unregister(dir.File("ev"))); }

TEST_F(EventPathsTest, SecondRegistrationOfAPathIsReported) {
  TestPeer receiver(dir.File("ev"), "");
  paths.Register(dir.File("ev"));
  EXPECT_EQ(paths.Register(dir.File("ev")), Registration::AlreadyRegistered);
  EXPECT_EQ(paths.Count(), 1u);
}

TEST_F(EventPathsTest, PathWithoutReceiverIsNotRegistered) {
  EXPECT_EQ(paths.Register(dir.File("nobody")), Registration::Unreachable);
  EXPECT_EQ(paths.Count(), 0u);
}

TEST_F(EventPathsTest, ClosedReceiverIsForgotten) {
  auto receiver = std::make_unique<TestPeer>(dir.File("ev"), "");
  paths.Register(dir.File("ev"));
  receiver.reset();
  const std::vector<EventPaths::Report> reports = paths.SendToAll("1");
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0].delivery, Delivery::Gone);
  EXPECT_EQ(paths.Count(), 0u);
}

TEST_F(EventPathsTest, FullQueueSkipsTheEventInsteadOfBlocking) {
  TestPeer receiver(dir.File("ev"), "");
  paths.Register(dir.File("ev"));
  // The receiver never reads: its queue fills within a few hundred events,
  // and from then on every event is skipped at once.
  size_t sent = 0;
  Delivery last = Delivery::Sent;
  while (last == Delivery::Sent && sent < 100000) {
    last = paths.SendToAll(std::string(512, 'e')).at(0).delivery;
    sent += last == Delivery::Sent ? 1 : 0;
  }
  EXPECT_EQ(last, Delivery::QueueFull);
  EXPECT_GT(sent, 0u);
  EXPECT_EQ(paths.SendToAll("1").at(0).delivery, Delivery::QueueFull);
  EXPECT_EQ(paths.Count(), 1u);
  size_t received = 0;
  while (receiver.Waiting().has_value()) ++received;
  EXPECT_EQ(received, sent);
  EXPECT_EQ(paths.SendToAll("1").at(0).delivery, Delivery::Sent);
}

}  // namespace
}  // namespace zel::sim
