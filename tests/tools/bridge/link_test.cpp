// The link to the broker, in process against a real broker: "online" only
// after the subscriptions, P/service and its changes, events in order and
// again after the broker came back, replies to their route, commands to the
// intake, the back-off, and "offline" at a clean stop.
#include "tools/bridge/link.h"

#include <syslog.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "tests/support/mqtt_broker.h"
#include "tests/support/mqtt_test_client.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait_until.h"

namespace zel::bridge::test {
namespace {

using ::zel::test::LogRecord;
using ::zel::test::MqttBroker;
using ::zel::test::MqttTestClient;
using ::zel::test::SyslogCapture;
using ::zel::test::TempDir;
using ::zel::test::WaitUntil;
using Message = MqttTestClient::Message;

class MqttLinkTest : public ::testing::Test {
 protected:
  MqttLinkTest() {
    settings.id = "box";
    settings.prefix = "k";
    settings.queue = 3;
    settings.connection.broker.host = "127.0.0.1";
    settings.connection.broker.port = broker.Port();
    settings.Complete();
  }

  void StartLink() {
    link = std::make_unique<MqttLink>(
        settings, topics, events, replies, service, wakeup, [this](const zel::mqtt::Message& message) {
          std::lock_guard<std::mutex> lock(mutex);
          received.push_back(Received{std::string(message.topic), std::string(message.payload), message.responseTopic,
                                      message.correlation});
        });
    link->Start();
  }

  // A client of the broker subscribed to `filter`.
  std::unique_ptr<MqttTestClient> Subscriber(const std::string& filter) {
    auto client = std::make_unique<MqttTestClient>(broker.Port());
    EXPECT_TRUE(client->Connected());
    EXPECT_TRUE(client->Subscribe(filter));
    return client;
  }

  bool WaitForOnline(MqttTestClient& client, size_t times = 1) {
    return client.WaitFor([times](const std::vector<Message>& messages) {
      size_t online = 0;
      for (const Message& message : messages) online += message.topic == "k/box/status" && message.payload == "online";
      return online >= times;
    });
  }

  // The link online with a broker that takes packets of at most 300 bytes,
  // and a client subscribed to `filter` and the box's status.
  std::unique_ptr<MqttTestClient> OnlineWithSmallPackets(const std::string& filter) {
    broker.AddConfig({"max_packet_size 300"});
    EXPECT_TRUE(broker.Start());
    StartLink();
    auto client = Subscriber(filter);
    EXPECT_TRUE(client->Subscribe("k/box/status"));
    EXPECT_TRUE(WaitForOnline(*client));
    return client;
  }

  // A command as the intake got it.
  struct Received {
    std::string topic;
    std::string payload;
    std::optional<std::string> responseTopic;
    std::optional<std::string> correlation;
  };

  std::vector<Received> Commands() {
    std::lock_guard<std::mutex> lock(mutex);
    return received;
  }

  static Outgoing Event(int number) {
    return Outgoing{
        zel::mqtt::Publication{"k/box/event/" + std::to_string(number), "e" + std::to_string(number)}
    };
  }

  static Outgoing Reply(const std::string& topic, const std::optional<std::string>& correlation,
                        const std::string& payload) {
    zel::mqtt::Publication reply{topic, payload};
    reply.correlation = correlation;
    return Outgoing{reply};
  }

  TempDir dir;
  MqttBroker broker{dir.path()};
  Settings settings;
  Topics topics{"k", "box"};
  Wakeup wakeup;
  EventOutbox events{3, wakeup};
  ReplyOutbox replies{wakeup};
  ServiceState service{"/svc", wakeup};
  std::mutex mutex;  // guards received
  std::vector<Received> received;
  std::unique_ptr<MqttLink> link;
};

TEST_F(MqttLinkTest, PublishesOnlineRetainedOnceItsSubscriptionsAreAcknowledged) {
  ASSERT_TRUE(broker.Start());
  StartLink();
  ASSERT_TRUE(SyslogCapture::WaitForRecord({LOG_INFO, "online: taking commands from k/box/cmd and k/all/cmd"}));
  // Retained: a client that comes later still reads it, and a command sent
  // then reaches the link.
  auto client = Subscriber("k/box/status");
  ASSERT_TRUE(WaitForOnline(*client));
  EXPECT_TRUE(client->On("k/box/status")[0].retain);
  ASSERT_TRUE(client->Publish("k/box/cmd", "ping"));
  ASSERT_TRUE(WaitUntil([this] { return Commands().size() == 1; }));
  EXPECT_EQ(Commands()[0].payload, "ping");
}

TEST_F(MqttLinkTest, CommandsReachTheIntakeWithWhereTheirRepliesGo) {
  ASSERT_TRUE(broker.Start());
  StartLink();
  auto client = Subscriber("k/box/status");
  ASSERT_TRUE(WaitForOnline(*client));
  ASSERT_TRUE(client->Request("k/all/cmd", "mac", "replies/7", std::string("\x00\x01id", 4)));
  ASSERT_TRUE(client->Publish("k/box/cmd", "stations"));
  ASSERT_TRUE(WaitUntil([this] { return Commands().size() == 2; }));
  const std::vector<Received> messages = Commands();
  EXPECT_EQ(messages[0].topic, "k/all/cmd");
  EXPECT_EQ(messages[0].payload, "mac");
  EXPECT_EQ(messages[0].responseTopic, std::optional<std::string>("replies/7"));
  EXPECT_EQ(messages[0].correlation, std::optional<std::string>(std::string("\x00\x01id", 4)));
  EXPECT_EQ(messages[1].topic, "k/box/cmd");
  EXPECT_EQ(messages[1].responseTopic, std::nullopt);
  EXPECT_EQ(messages[1].correlation, std::nullopt);
}

TEST_F(MqttLinkTest, RepliesGoToTheirTopicWithTheirCorrelationData) {
  ASSERT_TRUE(broker.Start());
  StartLink();
  auto client = Subscriber("replies/#");
  ASSERT_TRUE(client->Subscribe("k/box/status"));
  ASSERT_TRUE(WaitForOnline(*client));
  replies.Push(Reply("replies/1", std::string("c\x00r", 3), "{\"a\":1}"));
  replies.Push(Reply("replies/2", std::nullopt, "{\"b\":2}"));
  ASSERT_TRUE(client->WaitForCount("replies/2", 1));
  const std::vector<Message> first = client->On("replies/1");
  ASSERT_EQ(first.size(), 1u);
  EXPECT_EQ(first[0].payload, "{\"a\":1}");
  EXPECT_EQ(first[0].correlation, std::optional<std::string>(std::string("c\x00r", 3)));
  EXPECT_FALSE(first[0].retain);
  EXPECT_EQ(client->On("replies/2")[0].correlation, std::nullopt);
}

TEST_F(MqttLinkTest, PublishesTheServiceStateOnceConnectedAndEachChangeInTurn) {
  ASSERT_TRUE(broker.Start());
  service.Set(ServiceState::Value::Up);
  StartLink();
  auto client = Subscriber("k/box/service");
  ASSERT_TRUE(client->WaitForCount("k/box/service", 1));
  EXPECT_TRUE(client->On("k/box/service")[0].retain);
  // A restart between two looks of the link still shows as down, then up.
  service.Set(ServiceState::Value::Down);
  service.Set(ServiceState::Value::Up);
  ASSERT_TRUE(client->WaitForCount("k/box/service", 3));
  EXPECT_EQ(client->PayloadsOn("k/box/service"), (std::vector<std::string>{"up", "down", "up"}));
}

TEST_F(MqttLinkTest, PublishesEventsInOrderAtQos1) {
  ASSERT_TRUE(broker.Start());
  StartLink();
  auto client = Subscriber("k/box/event/#");
  ASSERT_TRUE(client->Subscribe("k/box/status"));
  ASSERT_TRUE(WaitForOnline(*client));
  for (int i = 1; i <= 50; ++i) events.Push(Event(i % 7));
  ASSERT_TRUE(client->WaitFor([](const std::vector<Message>& messages) { return messages.size() >= 51; }));
  const std::vector<Message> messages = client->Messages();
  for (int i = 1; i <= 50; ++i) {
    EXPECT_EQ(messages[i].topic, "k/box/event/" + std::to_string(i % 7));
    EXPECT_EQ(messages[i].payload, "e" + std::to_string(i % 7));
    EXPECT_EQ(messages[i].qos, 1);
    EXPECT_FALSE(messages[i].retain);
  }
}

TEST_F(MqttLinkTest, TriesAgainAfterOneThenTwoSecondsWhileTheBrokerIsAwayAtStart) {
  StartLink();
  const std::string cannot =
      "cannot reach the broker at " + settings.connection.broker.Url() + ": connection refused; trying again in ";
  for (const char* wait : {"1 s", "2 s"}) {
    ASSERT_TRUE(SyslogCapture::WaitForRecord({LOG_WARNING, cannot + wait})) << wait;
  }
  ASSERT_TRUE(broker.Start());
  ASSERT_TRUE(
      SyslogCapture::WaitForRecord({LOG_INFO, "connected to the broker at " + settings.connection.broker.Url()}));
  auto client = Subscriber("k/box/status");
  EXPECT_TRUE(WaitForOnline(*client));
}

TEST_F(MqttLinkTest, KeepsEventsWhileTheBrokerIsAwayDroppingTheOldestBeyondTheQueue) {
  ASSERT_TRUE(broker.Start());
  StartLink();
  {
    auto client = Subscriber("k/box/status");
    ASSERT_TRUE(WaitForOnline(*client));
  }
  ASSERT_TRUE(broker.Stop());
  const std::string lost =
      "lost the broker at " + settings.connection.broker.Url() + ": the connection was lost; trying again in 1 s";
  ASSERT_TRUE(SyslogCapture::WaitForRecord({LOG_WARNING, lost}));
  for (int i = 1; i <= 5; ++i) events.Push(Event(i));
  // The next attempt is two seconds after the failed one: time for the
  // subscriber to be there first.
  const std::string failed =
      "cannot reach the broker at " + settings.connection.broker.Url() + ": connection refused; trying again in 2 s";
  ASSERT_TRUE(SyslogCapture::WaitForRecord({LOG_WARNING, failed}));
  ASSERT_TRUE(broker.Start());
  auto client = Subscriber("k/box/#");
  ASSERT_TRUE(client->WaitForCount("k/box/event/5", 1));
  std::vector<std::string> order;
  for (const Message& message : client->Messages()) order.push_back(message.topic + " " + message.payload);
  EXPECT_EQ(order, (std::vector<std::string>{"k/box/status online", "k/box/event/3 e3", "k/box/event/4 e4",
                                             "k/box/event/5 e5"}));
  EXPECT_TRUE(SyslogCapture::WaitForRecord(
      {LOG_WARNING, "2 events dropped, the oldest first: the queue keeps 3 while the broker is away"}));
}

TEST_F(MqttLinkTest, CleanStopPublishesOfflineBeforeItDisconnects) {
  ASSERT_TRUE(broker.Start());
  StartLink();
  auto client = Subscriber("k/box/status");
  ASSERT_TRUE(WaitForOnline(*client));
  link->GoOffline(std::chrono::seconds(2));
  ASSERT_TRUE(client->WaitForCount("k/box/status", 2));
  link->Stop();
  EXPECT_EQ(client->PayloadsOn("k/box/status"), (std::vector<std::string>{"online", "offline"}));
  EXPECT_TRUE(client->On("k/box/status")[1].retain);
  // A normal disconnection: the broker publishes no will after it.
  ASSERT_TRUE(WaitUntil([this] { return broker.Log().find("disconnected") != std::string::npos; }));
  EXPECT_EQ(client->PayloadsOn("k/box/status").size(), 2u);
}

// The log line of a message dropped for its size.
std::string DroppedForItsSize(const std::string& topic, size_t bytes, size_t count) {
  return "dropped the message for " + topic + ": its payload of " + std::to_string(bytes) +
         " bytes makes a packet larger than the broker takes (at most 300 bytes); " + std::to_string(count) +
         " dropped for their size so far";
}

TEST_F(MqttLinkTest, EventLargerThanTheBrokerTakesIsDroppedAndCountedAndTheConnectionStays) {
  auto client = OnlineWithSmallPackets("k/box/event/#");
  events.Push(Outgoing{
      zel::mqtt::Publication{"k/box/event/1", std::string(400, 'x')}
  });
  events.Push(Event(2));
  events.Push(Outgoing{
      zel::mqtt::Publication{"k/box/event/3", std::string(500, 'x')}
  });
  events.Push(Event(4));
  ASSERT_TRUE(client->WaitForCount("k/box/event/4", 1));
  ASSERT_TRUE(SyslogCapture::WaitForRecord({LOG_ERR, DroppedForItsSize("k/box/event/1", 400, 1)}));
  ASSERT_TRUE(SyslogCapture::WaitForRecord({LOG_ERR, DroppedForItsSize("k/box/event/3", 500, 2)}));
  std::vector<std::string> order;
  for (const Message& message : client->Messages()) order.push_back(message.topic + " " + message.payload);
  EXPECT_EQ(order, (std::vector<std::string>{"k/box/status online", "k/box/event/2 e2", "k/box/event/4 e4"}));
  // Never sent, so never the cause of a lost connection and a resend.
  EXPECT_EQ(events.Waiting(), 0u);
  EXPECT_EQ(broker.Log().find("oversize"), std::string::npos);
  for (const LogRecord& record : SyslogCapture::Records()) {
    EXPECT_EQ(record.text.find("trying again"), std::string::npos) << record.text;
  }
}

TEST_F(MqttLinkTest, ReplyLargerThanTheBrokerTakesIsDroppedAndCountedAndTheNextGoesOut) {
  auto client = OnlineWithSmallPackets("replies/#");
  replies.Push(Reply("replies/1", std::nullopt, std::string(400, 'r')));
  replies.Push(Reply("replies/2", std::nullopt, "{\"b\":2}"));
  ASSERT_TRUE(client->WaitForCount("replies/2", 1));
  ASSERT_TRUE(SyslogCapture::WaitForRecord({LOG_ERR, DroppedForItsSize("replies/1", 400, 1)}));
  EXPECT_TRUE(client->On("replies/1").empty());
  EXPECT_EQ(broker.Log().find("oversize"), std::string::npos);
}

TEST_F(MqttLinkTest, MessageThatCannotBePublishedForAnotherReasonIsDroppedCountedAndTheNextGoesOut) {
  ASSERT_TRUE(broker.Start());
  StartLink();
  auto client = Subscriber("replies/#");
  ASSERT_TRUE(client->Subscribe("k/box/status"));
  ASSERT_TRUE(WaitForOnline(*client));
  // Correlation data holds at most 65535 bytes.
  replies.Push(Reply("replies/1", std::string(70000, 'c'), "{\"a\":1}"));
  replies.Push(Reply("replies/2", std::nullopt, "{\"b\":2}"));
  ASSERT_TRUE(client->WaitForCount("replies/2", 1));
  EXPECT_TRUE(SyslogCapture::WaitForRecord(
      {LOG_ERR,
       "dropped the message for replies/1: it cannot be published: invalid function arguments provided; 1 dropped "
       "for such reasons so far"}));
  EXPECT_TRUE(client->On("replies/1").empty());
}

}  // namespace
}  // namespace zel::bridge::test
