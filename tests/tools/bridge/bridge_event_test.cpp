// The service's events on P/event/N and the service's state on P/service.
#include <signal.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/tools/bridge/bridge_test.h"

namespace zel::bridge::test {
namespace {

// Whether `payload` is the JSON line of kendrivex-ctl watch --json for an
// event numbered `id` with `args`, and the box:
// {"time":"<UTC>","id":N,"args":[...],"box":"box1"}.
::testing::AssertionResult IsEventPayload(const std::string& payload, int id, const std::vector<std::string>& args) {
  const nlohmann::ordered_json event = nlohmann::ordered_json::parse(payload, nullptr, false);
  if (event.is_discarded() || !event.is_object() || !event.contains("time")) {
    return ::testing::AssertionFailure() << payload;
  }
  nlohmann::ordered_json expected;
  expected["time"] = event["time"];
  expected["id"] = id;
  expected["args"] = args;
  expected["box"] = "box1";
  const std::string time = event["time"].is_string() ? event["time"].get<std::string>() : "";
  const bool timeShaped = time.size() == 24 && time[4] == '-' && time[10] == 'T' && time[19] == '.' && time[23] == 'Z';
  if (payload != expected.dump() || !timeShaped) return ::testing::AssertionFailure() << payload;
  return ::testing::AssertionSuccess();
}

class BridgeEventTest : public BridgeTest {
 protected:
  void SetUp() override {
    // The broker keeps every message for a subscriber that falls behind, so
    // that what a subscriber misses is the bridge's doing.
    broker.AddConfig({"max_queued_messages 0"});
    StartBroker();
  }
};

TEST_F(BridgeEventTest, EachEventGoesOutOnItsNumberAsTheWatchsJsonLine) {
  StartFake();
  StartOnline();
  auto subscriber = Client({Topic("event/#")});
  const std::string eventPath = EventPath();
  ASSERT_TRUE(fake->SendTo(eventPath, "7\tlink up"));
  ASSERT_TRUE(fake->SendTo(eventPath, "12"));
  ASSERT_TRUE(fake->SendTo(eventPath, "7\ta\t\tb\t\xff"));
  ASSERT_TRUE(subscriber->WaitFor([](const std::vector<Message>& m) { return m.size() == 3; }));
  const std::vector<Message> events = subscriber->Messages();
  EXPECT_EQ(events[0].topic, Topic("event/7"));
  EXPECT_TRUE(IsEventPayload(events[0].payload, 7, {"link up"}));
  EXPECT_EQ(events[0].qos, 1);
  EXPECT_FALSE(events[0].retain);
  EXPECT_EQ(events[1].topic, Topic("event/12"));
  EXPECT_TRUE(IsEventPayload(events[1].payload, 12, {}));
  EXPECT_EQ(events[2].topic, Topic("event/7"));
  EXPECT_TRUE(IsEventPayload(events[2].payload, 7, {"a", "", "b", "\xef\xbf\xbd"}));
}

TEST_F(BridgeEventTest, BurstBeyondWhatTheBridgeHoldsArrivesCompleteAndInOrder) {
  StartFake();
  StartOnline();
  auto subscriber = Client({Topic("event/#")});
  const std::string eventPath = EventPath();
  // While the broker takes nothing, the bridge holds what it can (1024
  // waiting, 256 unacknowledged) and the rest waits in the event socket's
  // queue and the service's sends; then everything goes through.
  constexpr int kBurst = 2500;
  constexpr int kBeyondTheBridge = 1800;
  broker.Pause();
  EventBurst burst(*fake, eventPath, kBurst);
  const bool filled = burst.WaitForSent(kBeyondTheBridge);
  broker.Resume();
  ASSERT_TRUE(filled) << burst.Sent();
  ASSERT_EQ(burst.Finish(), kBurst);
  ASSERT_TRUE(subscriber->WaitForCount(Topic("event/1"), kBurst, std::chrono::seconds(60)));
  const std::vector<Message> events = subscriber->Messages();
  ASSERT_EQ(events.size(), static_cast<size_t>(kBurst));
  for (int i = 0; i < kBurst; ++i) {
    ASSERT_TRUE(IsEventPayload(events[i].payload, 1, {std::to_string(i + 1)})) << i;
    EXPECT_EQ(events[i].qos, 1);
  }
}

TEST_F(BridgeEventTest, ServiceIsPublishedUpRetainedOnceConnected) {
  StartSim();
  StartOnline();
  // A client that comes later reads both from the broker's retained store.
  auto late = Client({Topic("status"), Topic("service")});
  ASSERT_TRUE(late->WaitForCount(Topic("service"), 1));
  EXPECT_EQ(late->PayloadsOn(Topic("service")), std::vector<std::string>{"up"});
  EXPECT_TRUE(late->On(Topic("service"))[0].retain);
  EXPECT_TRUE(late->On(Topic("status"))[0].retain);
}

TEST_F(BridgeEventTest, ServiceAwayAtStartIsDownUntilItComes) {
  auto subscriber = Client({Topic("status"), Topic("service"), Topic("event/#")});
  StartBridge();
  ASSERT_TRUE(WaitForStatus(*subscriber, "online"));
  ASSERT_TRUE(subscriber->WaitForCount(Topic("service"), 1));
  EXPECT_EQ(subscriber->PayloadsOn(Topic("service")), std::vector<std::string>{"down"});
  StartFake();
  ASSERT_TRUE(subscriber->WaitForCount(Topic("service"), 2));
  EXPECT_EQ(subscriber->PayloadsOn(Topic("service")), (std::vector<std::string>{"down", "up"}));
  ASSERT_TRUE(fake->SendTo(EventPath(), "3\tthere"));
  ASSERT_TRUE(subscriber->WaitForCount(Topic("event/3"), 1));
  EXPECT_TRUE(bridge->Err().empty()) << bridge->Err();
}

}  // namespace
}  // namespace zel::bridge::test
