// The session against a real broker, as a short-lived client drives it
// (Pump): connect, subscribe with the retained messages, publish an MQTT 5
// request with its properties, the Maximum Packet Size announced in CONNECT
// (a larger message is never delivered), a session taken over (and the
// will's user property), a refused
// connection, a keep-alive time-out, and the texts of errors and reasons.
#include "tools/mqtt/session.h"

#include <mosquitto.h>

#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "tests/support/mqtt_broker.h"
#include "tests/support/mqtt_test_client.h"
#include "tests/support/temp_dir.h"

namespace zel::mqtt::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using ::zel::test::MqttBroker;
using ::zel::test::MqttTestClient;
using ::zel::test::TempDir;

// What the broker told the session, copied out of the callbacks.
struct Recorder : Session::Listener {
  struct Received {
    std::string topic;
    std::string payload;
    int qos = 0;
    bool retain = false;
    std::optional<std::string> responseTopic;
    std::optional<std::string> correlation;
    std::optional<UserProperty> userProperty;
  };

  void OnConnected(int reason) override { connected = reason; }
  void OnSubscribed(int mid, int count, const int* granted) override {
    subscribed = mid;
    this->granted.assign(granted, granted + count);
  }
  void OnPublished(int mid, int) override { published.push_back(mid); }
  void OnMessage(const Message& message) override {
    messages.push_back(Received{std::string(message.topic), std::string(message.payload), message.qos, message.retain,
                                message.responseTopic, message.correlation, message.userProperty});
  }

  int connected = -1;
  int subscribed = -1;
  std::vector<int> granted;
  std::vector<int> published;
  std::vector<Received> messages;
};

Session::SubscribeOptions NoRetained() {
  Session::SubscribeOptions options;
  options.retained = false;
  return options;
}

class SessionTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    std::string why;
    ASSERT_TRUE(InitLibrary(why)) << why;
  }

  SessionTest() {
    settings.broker.host = "127.0.0.1";
    settings.broker.port = broker.Port();
    settings.clientId = "session-test";
  }

  // Pumps until `done` holds, the connection is gone or 10 s have passed.
  template <typename Done>
  bool PumpUntil(Session& session, Done done, milliseconds timeout = std::chrono::seconds(10)) {
    const auto deadline = steady_clock::now() + timeout;
    while (!done()) {
      if (steady_clock::now() >= deadline || !session.Pump(100, why)) return false;
    }
    return true;
  }

  bool Connect(Session& session) {
    return session.Start(why) && PumpUntil(session, [&] { return recorder.connected >= 0; }) && recorder.connected == 0;
  }

  TempDir dir;
  MqttBroker broker{dir.path()};
  ConnectionSettings settings;
  Recorder recorder;
  std::string why;
};

TEST_F(SessionTest, ShortLivedClientReadsRetainedMessagesAndAsksWithResponseTopicAndCorrelation) {
  ASSERT_TRUE(broker.Start());
  MqttTestClient responder(broker.Port());
  ASSERT_TRUE(responder.Subscribe("k/box1/cmd"));
  ASSERT_TRUE(responder.Publish("k/box1/status", "online", 1, true));
  Session session(settings, recorder);
  ASSERT_TRUE(Connect(session)) << why;
  int mid = 0;
  ASSERT_TRUE(session.Subscribe({"k/+/status", "me/replies"}, Session::SubscribeOptions(), mid, why)) << why;
  ASSERT_TRUE(PumpUntil(session, [&] { return !recorder.messages.empty(); })) << why;
  EXPECT_EQ(recorder.subscribed, mid);
  EXPECT_EQ(recorder.granted, (std::vector<int>{1, 1}));
  EXPECT_EQ(recorder.messages[0].topic, "k/box1/status");
  EXPECT_EQ(recorder.messages[0].payload, "online");
  EXPECT_TRUE(recorder.messages[0].retain);

  int request = 0;
  Publication ping("k/box1/cmd", "ping");
  ping.responseTopic = "me/replies";
  ping.correlation = std::string("c\0r", 3);
  ASSERT_EQ(session.Publish(ping, request), 0);
  ASSERT_TRUE(PumpUntil(session, [&] { return !recorder.published.empty(); })) << why;
  EXPECT_EQ(recorder.published, std::vector<int>{request});
  ASSERT_TRUE(responder.WaitForCount("k/box1/cmd", 1));
  const MqttTestClient::Message asked = responder.On("k/box1/cmd")[0];
  EXPECT_EQ(asked.payload, "ping");
  EXPECT_EQ(asked.responseTopic, std::optional<std::string>("me/replies"));
  EXPECT_EQ(asked.correlation, std::optional<std::string>(std::string("c\0r", 3)));
  session.Close(std::chrono::seconds(1));
  EXPECT_EQ(session.Fd(), -1);
}

TEST_F(SessionTest, SubscriptionWithoutRetainedMessagesGetsOnlyNewOnes) {
  ASSERT_TRUE(broker.Start());
  MqttTestClient other(broker.Port());
  ASSERT_TRUE(other.Publish("k/old", "retained", 1, true));
  Session session(settings, recorder);
  ASSERT_TRUE(Connect(session)) << why;
  int mid = 0;
  ASSERT_TRUE(session.Subscribe({"k/#"}, NoRetained(), mid, why));
  ASSERT_TRUE(PumpUntil(session, [&] { return recorder.subscribed == mid; }));
  ASSERT_TRUE(other.Publish("k/new", "fresh"));
  ASSERT_TRUE(PumpUntil(session, [&] { return !recorder.messages.empty(); }));
  ASSERT_EQ(recorder.messages.size(), 1u);
  EXPECT_EQ(recorder.messages[0].topic, "k/new");
}

TEST_F(SessionTest, SubscriptionAtQos0GetsRetainedAndNewMessagesAtQos0) {
  ASSERT_TRUE(broker.Start());
  MqttTestClient other(broker.Port());
  ASSERT_TRUE(other.Publish("k/old", "retained", 1, true));
  Session session(settings, recorder);
  ASSERT_TRUE(Connect(session)) << why;
  Session::SubscribeOptions atMostOnce;
  atMostOnce.qos = 0;
  int mid = 0;
  ASSERT_TRUE(session.Subscribe({"k/#"}, atMostOnce, mid, why));
  ASSERT_TRUE(PumpUntil(session, [&] { return recorder.messages.size() == 1; }));
  EXPECT_EQ(recorder.granted, std::vector<int>{0});
  ASSERT_TRUE(other.Publish("k/new", "fresh"));
  ASSERT_TRUE(PumpUntil(session, [&] { return recorder.messages.size() == 2; }));
  EXPECT_EQ(recorder.messages[0].qos, 0);
  EXPECT_EQ(recorder.messages[1].qos, 0);
}

TEST_F(SessionTest, UnsubscribedFilterGetsNothingMore) {
  ASSERT_TRUE(broker.Start());
  Session session(settings, recorder);
  ASSERT_TRUE(Connect(session)) << why;
  int mid = 0;
  ASSERT_TRUE(session.Subscribe({"k/a", "k/b"}, NoRetained(), mid, why));
  ASSERT_TRUE(PumpUntil(session, [&] { return recorder.subscribed == mid; }));
  ASSERT_TRUE(session.Unsubscribe({"k/a"}, why)) << why;
  MqttTestClient other(broker.Port());
  // The broker handles one client's packets in order: the unsubscription
  // is in place before this subscription is granted.
  ASSERT_TRUE(session.Subscribe({"k/c"}, NoRetained(), mid, why));
  ASSERT_TRUE(PumpUntil(session, [&] { return recorder.subscribed == mid; }));
  ASSERT_TRUE(other.Publish("k/a", "gone"));
  ASSERT_TRUE(other.Publish("k/b", "kept"));
  ASSERT_TRUE(PumpUntil(session, [&] { return !recorder.messages.empty(); }));
  ASSERT_EQ(recorder.messages.size(), 1u);
  EXPECT_EQ(recorder.messages[0].topic, "k/b");
}

TEST_F(SessionTest, MessageLargerThanTheAnnouncedPacketSizeIsNeverDelivered) {
  ASSERT_TRUE(broker.Start());
  Session session(settings, recorder);
  ASSERT_TRUE(Connect(session)) << why;
  int mid = 0;
  ASSERT_TRUE(session.Subscribe({"k/cmd"}, NoRetained(), mid, why));
  ASSERT_TRUE(PumpUntil(session, [&] { return recorder.subscribed == mid; }));
  MqttTestClient other(broker.Port());
  // The packet holds the topic and its header besides the payload.
  ASSERT_TRUE(other.Publish("k/cmd", std::string(ConnectionSettings::kMaximumPacketSize, 'x')));
  ASSERT_TRUE(other.Publish("k/cmd", std::string(10 << 20, 'y')));
  ASSERT_TRUE(other.Publish("k/cmd", std::string(60000, 'z')));
  ASSERT_TRUE(PumpUntil(session, [&] { return !recorder.messages.empty(); })) << why;
  ASSERT_EQ(recorder.messages.size(), 1u);
  EXPECT_EQ(recorder.messages[0].payload, std::string(60000, 'z'));
}

// Mosquitto 2.0.11 closes a connection whose session another client took
// over without a DISCONNECT 0x8E, and publishes its will at once, with the
// will's user property: what the bridge tells a second box with its name by.
TEST_F(SessionTest, SessionTakenOverIsALostConnectionAndItsWillGoesOutWithItsUserProperty) {
  ASSERT_TRUE(broker.Start());
  settings.will = Will{
      "k/box1/status", "offline", true, UserProperty{"instance", "1234"}
  };
  Session session(settings, recorder);
  ASSERT_TRUE(Connect(session)) << why;
  MqttTestClient::Options same;
  same.id = settings.clientId;
  MqttTestClient other(broker.Port(), same);
  ASSERT_TRUE(other.Connected());
  EXPECT_FALSE(PumpUntil(session, [] { return false; }));
  EXPECT_FALSE(session.TakenOver());
  EXPECT_EQ(why, "the connection was lost");

  // Another client reads what the will left retained; the one that took
  // the session over stays connected.
  ConnectionSettings reader = settings;
  reader.clientId = "session-test-reader";
  reader.will.reset();
  Session later(reader, recorder);
  ASSERT_TRUE(Connect(later)) << why;
  int mid = 0;
  ASSERT_TRUE(later.Subscribe({"k/box1/status"}, Session::SubscribeOptions(), mid, why));
  ASSERT_TRUE(PumpUntil(later, [&] { return !recorder.messages.empty(); })) << why;
  EXPECT_EQ(recorder.messages[0].payload, "offline");
  EXPECT_TRUE(recorder.messages[0].retain);
  ASSERT_TRUE(recorder.messages[0].userProperty.has_value());
  EXPECT_EQ(recorder.messages[0].userProperty->name, "instance");
  EXPECT_EQ(recorder.messages[0].userProperty->value, "1234");
}

TEST_F(SessionTest, RefusedConnectionGivesTheBrokersReason) {
  broker.AddConfig({"allow_anonymous false"});
  ASSERT_TRUE(broker.Start());
  Session session(settings, recorder);
  ASSERT_TRUE(session.Start(why)) << why;
  PumpUntil(session, [&] { return recorder.connected >= 0; });
  EXPECT_EQ(recorder.connected, 0x87);
  EXPECT_EQ(ReasonText(recorder.connected), "not authorized (0x87)");
  EXPECT_FALSE(session.TakenOver());
}

TEST_F(SessionTest, BrokerThatStopsAnsweringIsReportedAsAKeepAliveTimeOut) {
  ASSERT_TRUE(broker.Start());
  settings.keepAliveSeconds = 5;
  Session session(settings, recorder);
  ASSERT_TRUE(Connect(session)) << why;
  broker.Pause();
  EXPECT_FALSE(PumpUntil(
      session, [] { return false; }, std::chrono::seconds(20)));
  broker.Resume();
  EXPECT_EQ(why, "the broker did not answer the keep-alive ping within 5 s");
}

TEST_F(SessionTest, BrokerAwayGivesConnectionRefused) {
  Session session(settings, recorder);
  if (session.Start(why)) {
    EXPECT_FALSE(PumpUntil(session, [] { return false; }));
  }
  EXPECT_EQ(why, "connection refused");
}

TEST_F(SessionTest, ErrorTextsReadAsPartsOfASentence) {
  EXPECT_EQ(ErrorText(MOSQ_ERR_CONN_LOST), "the connection was lost");
  EXPECT_EQ(ErrorText(MOSQ_ERR_KEEPALIVE), "the broker did not answer the keep-alive ping");
  EXPECT_EQ(ErrorText(MOSQ_ERR_NOMEM), "out of memory");
  EXPECT_EQ(ReasonText(0x8E), "session taken over (0x8e)");
}

}  // namespace
}  // namespace zel::mqtt::test
