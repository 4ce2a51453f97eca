// The fleet's link against a Mosquitto broker of each test's own: the sync
// marker after thousands of retained messages, the broker's answers to
// subscriptions and publications, a broker away, refusing or silent, and a
// kept link riding out a broker restart.
#include "tools/fleet/link.h"

#include <unistd.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "tests/support/mqtt_broker.h"
#include "tests/support/mqtt_test_client.h"
#include "tests/support/temp_dir.h"
#include "tests/tools/fleet/fleet_test.h"

namespace zel::fleet {
namespace {

using std::chrono::milliseconds;
using test::LoopbackSettings;
using ::zel::test::MqttBroker;
using ::zel::test::MqttTestClient;
using ::zel::test::TempDir;

// What the link handed over.
struct Recorder final : Link::Receiver {
  void OnMessage(const zel::mqtt::Message& message) override {
    messages.emplace_back(std::string(message.topic), std::string(message.payload));
  }
  std::vector<std::pair<std::string, std::string>> messages;
};

// A kept link's changes.
struct Changes final : Link::Watcher {
  void OnUp() override { ++ups; }
  void OnDown(const std::string& why, milliseconds retryIn) override {
    downs.push_back(why);
    lastWait = retryIn;
  }
  int ups = 0;
  std::vector<std::string> downs;
  milliseconds lastWait{0};
};

class LinkTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    std::string why;
    ASSERT_TRUE(zel::mqtt::InitLibrary(why)) << why;
  }

  LinkTest() { link.AddReceiver(recorder); }

  // Polls until `done` holds; how the wait ended.
  Waited Until(const std::function<bool()>& done, milliseconds timeout = std::chrono::seconds(10)) {
    return Await(link, -1, done, Link::Clock::now() + timeout, why);
  }

  void Connect() {
    ASSERT_TRUE(link.Start(why)) << why;
    ASSERT_EQ(Until([this] { return link.Up(); }), Waited::Done) << why;
  }

  // Subscribes and waits for the broker's answer.
  Link::Answer Subscribe(const std::vector<std::string>& filters, int qos = 1) {
    std::optional<Link::Answer> answer;
    EXPECT_TRUE(link.Subscribe(
        filters, qos, [&](const Link::Answer& given) { answer = given; }, why))
        << why;
    EXPECT_EQ(Until([&] { return answer.has_value(); }), Waited::Done) << why;
    return answer.value_or(Link::Answer{false, 0, "no answer"});
  }

  Link::Answer Publish(const std::string& topic, const std::string& payload) {
    std::optional<Link::Answer> answer;
    EXPECT_TRUE(link.Publish(
        zel::mqtt::Publication(topic, payload), [&](const Link::Answer& given) { answer = given; }, why))
        << why;
    EXPECT_EQ(Until([&] { return answer.has_value(); }), Waited::Done) << why;
    return answer.value_or(Link::Answer{false, 0, "no answer"});
  }

  TempDir dir;
  MqttBroker broker{dir.path()};
  Topics topics{"kdx"};
  zel::mqtt::ConnectionSettings settings = LoopbackSettings(broker.Port());
  Link link{settings, topics, milliseconds(2000)};
  Recorder recorder;
  std::string why;
};

// With the directory's subscription at QoS 0, the broker sends all of two
// thousand retained messages (beyond its queue of a thousand for QoS 1), and
// the marker comes back after the last of them.
TEST_F(LinkTest, SyncEndsAfterEveryRetainedMessageOfTheSubscriptionsBeforeIt) {
  ASSERT_TRUE(broker.Start());
  {
    MqttTestClient boxes(broker.Port());
    for (int i = 0; i < 2000; ++i)
      ASSERT_TRUE(boxes.Publish("kdx/b" + std::to_string(i) + "/status", "online", 1, true));
  }
  ASSERT_NO_FATAL_FAILURE(Connect());
  ASSERT_TRUE(link.Subscribe({topics.OfEveryBox("status")}, 0, nullptr, why)) << why;
  size_t atSync = 0;
  bool synced = false;
  ASSERT_TRUE(link.Sync(
      [&](const Link::Answer& answer) {
        EXPECT_TRUE(answer.ok) << answer.why;
        atSync = recorder.messages.size();
        synced = true;
      },
      why));
  ASSERT_EQ(Until([&] { return synced; }), Waited::Done) << why;
  EXPECT_EQ(atSync, 2000u);
}

TEST_F(LinkTest, MarkerIsNeverHandedToTheReceivers) {
  ASSERT_TRUE(broker.Start());
  ASSERT_NO_FATAL_FAILURE(Connect());
  bool synced = false;
  ASSERT_TRUE(link.Sync([&](const Link::Answer&) { synced = true; }, why));
  ASSERT_EQ(Until([&] { return synced; }), Waited::Done);
  synced = false;
  ASSERT_TRUE(link.Sync([&](const Link::Answer&) { synced = true; }, why));
  ASSERT_EQ(Until([&] { return synced; }), Waited::Done);
  EXPECT_TRUE(recorder.messages.empty());
}

TEST_F(LinkTest, SubscriptionIsAnsweredAndBringsWhatIsPublished) {
  ASSERT_TRUE(broker.Start());
  ASSERT_NO_FATAL_FAILURE(Connect());
  const Link::Answer answer = Subscribe({"kdx/+/event/#"});
  EXPECT_TRUE(answer.ok) << answer.why;
  MqttTestClient box(broker.Port());
  ASSERT_TRUE(box.Publish("kdx/b1/event/7", "e"));
  ASSERT_EQ(Until([&] { return !recorder.messages.empty(); }), Waited::Done);
  EXPECT_EQ(recorder.messages[0], std::make_pair(std::string("kdx/b1/event/7"), std::string("e")));
}

TEST_F(LinkTest, UnsubscribedFilterBringsNothingMore) {
  ASSERT_TRUE(broker.Start());
  ASSERT_NO_FATAL_FAILURE(Connect());
  ASSERT_TRUE(Subscribe({"kdx/a"}).ok);
  ASSERT_TRUE(Subscribe({"kdx/b"}).ok);
  link.Unsubscribe({"kdx/a"});
  // The broker takes one client's packets in order: the marker comes back
  // after the unsubscription is done.
  bool synced = false;
  ASSERT_TRUE(link.Sync([&](const Link::Answer&) { synced = true; }, why));
  ASSERT_EQ(Until([&] { return synced; }), Waited::Done);
  MqttTestClient other(broker.Port());
  ASSERT_TRUE(other.Publish("kdx/a", "1"));
  ASSERT_TRUE(other.Publish("kdx/b", "2"));
  ASSERT_EQ(Until([&] { return !recorder.messages.empty(); }), Waited::Done);
  EXPECT_EQ(recorder.messages[0].first, "kdx/b");
}

TEST_F(LinkTest, PublicationIsAcknowledgedWithItsReason) {
  ASSERT_TRUE(broker.Start());
  ASSERT_NO_FATAL_FAILURE(Connect());
  const Link::Answer nobody = Publish("kdx/b1/cmd", "ping");
  EXPECT_TRUE(nobody.ok);
  EXPECT_EQ(nobody.reason, 0x10);
  MqttTestClient box(broker.Port());
  ASSERT_TRUE(box.Subscribe("kdx/b1/cmd"));
  const Link::Answer taken = Publish("kdx/b1/cmd", "ping");
  EXPECT_TRUE(taken.ok);
  EXPECT_EQ(taken.reason, 0);
  ASSERT_TRUE(box.WaitForCount("kdx/b1/cmd", 1));
}

TEST_F(LinkTest, PublicationLargerThanTheBrokerTakesIsRefusedAtOnce) {
  broker.AddConfig({"max_packet_size 1000"});
  ASSERT_TRUE(broker.Start());
  ASSERT_NO_FATAL_FAILURE(Connect());
  EXPECT_FALSE(link.Publish(zel::mqtt::Publication("kdx/b1/cmd", std::string(2000, 'x')), nullptr, why));
  EXPECT_EQ(why, "the message makes a packet larger than the broker takes");
}

TEST_F(LinkTest, NothingGoesOutWithoutAConnection) {
  EXPECT_FALSE(link.Subscribe({"kdx/#"}, 1, nullptr, why));
  EXPECT_EQ(why, "not connected to the broker");
  why.clear();
  EXPECT_FALSE(link.Sync(nullptr, why));
  EXPECT_EQ(why, "not connected to the broker");
  why.clear();
  EXPECT_FALSE(link.Publish(zel::mqtt::Publication("kdx/b1/cmd", "ping"), nullptr, why));
  EXPECT_EQ(why, "not connected to the broker");
}

TEST_F(LinkTest, BrokerAwayEndsTheLinkWithConnectionRefused) {
  // A refusal on the loopback interface may come before the connect call
  // returns.
  if (link.Start(why)) {
    EXPECT_EQ(Until([this] { return link.Up(); }), Waited::Gone);
  }
  EXPECT_EQ(why, "connection refused");
  EXPECT_FALSE(link.Up());
}

TEST_F(LinkTest, RefusedConnectionEndsTheLinkWithTheBrokersReason) {
  broker.AddConfig({"allow_anonymous false"});
  ASSERT_TRUE(broker.Start());
  ASSERT_TRUE(link.Start(why)) << why;
  EXPECT_EQ(Until([this] { return link.Up(); }), Waited::Gone);
  EXPECT_EQ(why, "the broker refused the connection: not authorized (0x87)");
}

TEST_F(LinkTest, BrokerThatDoesNotAnswerIsGivenUpAfterTheConnectTimeout) {
  ASSERT_TRUE(broker.Start());
  broker.Pause();
  const auto start = Link::Clock::now();
  ASSERT_TRUE(link.Start(why)) << why;
  EXPECT_EQ(Until([this] { return link.Up(); }), Waited::Gone);
  broker.Resume();
  EXPECT_EQ(why, "no answer within 2000 ms");
  EXPECT_GE(Link::Clock::now() - start, milliseconds(2000));
}

TEST_F(LinkTest, KeptLinkComesBackAfterABrokerRestartWithItsSubscriptions) {
  Changes changes;
  link.Keep(changes);
  ASSERT_TRUE(broker.Start());
  ASSERT_NO_FATAL_FAILURE(Connect());
  EXPECT_EQ(changes.ups, 1);
  ASSERT_TRUE(Subscribe({"kdx/+/event/#"}).ok);
  ASSERT_TRUE(broker.Stop());
  ASSERT_EQ(Until([&] { return !changes.downs.empty(); }), Waited::Done);
  EXPECT_EQ(changes.downs[0], "the connection was lost");
  EXPECT_GE(changes.lastWait, milliseconds(800));
  EXPECT_LE(changes.lastWait, milliseconds(1200));
  ASSERT_TRUE(broker.Start());
  ASSERT_EQ(Until([&] { return changes.ups == 2; }), Waited::Done) << why;
  EXPECT_TRUE(link.Up());
  MqttTestClient box(broker.Port());
  ASSERT_TRUE(box.Publish("kdx/b1/event/1", "again"));
  ASSERT_EQ(Until([&] { return !recorder.messages.empty(); }), Waited::Done);
  EXPECT_EQ(recorder.messages[0].second, "again");
}

TEST_F(LinkTest, KeptLinkTriesAgainWhileTheBrokerIsAway) {
  Changes changes;
  link.Keep(changes);
  ASSERT_TRUE(link.Start(why)) << why;
  ASSERT_EQ(Until([&] { return changes.downs.size() == 2; }), Waited::Done);
  EXPECT_EQ(changes.downs[0], "connection refused");
  EXPECT_GE(changes.lastWait, milliseconds(1600));
  ASSERT_TRUE(broker.Start());
  ASSERT_EQ(Until([&] { return link.Up(); }), Waited::Done);
  EXPECT_EQ(changes.ups, 1);
}

TEST_F(LinkTest, AwaitEndsWhenTheStopDescriptorIsReadableAndAtItsDeadline) {
  ASSERT_TRUE(broker.Start());
  ASSERT_NO_FATAL_FAILURE(Connect());
  EXPECT_EQ(Await(
                link, -1, [] { return false; }, Link::Clock::now() + milliseconds(50), why),
            Waited::TimedOut);
  int fds[2] = {-1, -1};
  ASSERT_EQ(::pipe(fds), 0);
  ASSERT_EQ(::write(fds[1], "x", 1), 1);
  EXPECT_EQ(Await(
                link, fds[0], [] { return false; }, Link::Clock::now() + std::chrono::seconds(10), why),
            Waited::Stopped);
  ::close(fds[0]);
  ::close(fds[1]);
}

TEST_F(LinkTest, CloseEndsTheConnectionAtTheBroker) {
  ASSERT_TRUE(broker.Start());
  ASSERT_NO_FATAL_FAILURE(Connect());
  link.Close(std::chrono::seconds(1));
  EXPECT_FALSE(link.Up());
  std::vector<pollfd> none;
  EXPECT_FALSE(link.Poll(0, none, why));
}

}  // namespace
}  // namespace zel::fleet
