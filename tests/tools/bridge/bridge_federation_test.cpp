// Boxes on a federation of brokers: one box (the simulator and the real
// bridge) on each of two site brokers, seen and commanded from the central
// broker that Mosquitto's own bridge links them to.
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "kdx_test_paths.h"
#include "tests/support/mqtt_federation.h"
#include "tests/support/syslog_file.h"
#include "tests/tools/bridge/bridge_test.h"

namespace zel::bridge::test {
namespace {

using ::zel::test::MqttFederation;

constexpr const char* kPrefix = "kdx";
constexpr int kSites = MqttFederation::kSites;

// The box on site `site`: "a1" on the first, "b1" on the second.
std::string Box(int site) { return std::string(1, static_cast<char>('a' + site)) + "1"; }

std::string Topic(const std::string& box, const std::string& leaf) {
  return std::string(kPrefix) + "/" + box + "/" + leaf;
}

// Each box's simulator pushes its own event, so that where an event came from
// is told by its number as well as by its topic.
int EventId(int site) { return 7 + site; }

size_t CountOf(const std::vector<Message>& messages, const std::string& topic, const std::string& payload) {
  return static_cast<size_t>(std::count_if(messages.begin(), messages.end(), [&](const Message& message) {
    return message.topic == topic && message.payload == payload;
  }));
}

// The "command" of a reply payload, or "" when it has none.
std::string CommandOf(const std::string& payload) {
  const nlohmann::json reply = nlohmann::json::parse(payload, nullptr, false);
  return reply.is_object() && reply.contains("command") && reply["command"].is_string()
             ? reply["command"].get<std::string>()
             : std::string();
}

class BridgeFederationTest : public ::testing::Test {
 protected:
  BridgeFederationTest() : federation(dir.path(), kPrefix) {}

  void SetUp() override {
    ASSERT_TRUE(federation.Start()) << federation.Log();
    for (int site = 0; site < kSites; ++site) ASSERT_NO_FATAL_FAILURE(StartBox(site));
  }

  void TearDown() override {
    for (auto& bridge : bridges) {
      if (bridge->WaitForExit(std::chrono::milliseconds(0))) continue;
      bridge->Signal(SIGTERM);
      const Result result = bridge->Finish(StopLimit(std::chrono::seconds(6)));
      EXPECT_EQ(result.exitCode, 0) << result.err;
    }
  }

  // The simulator and the bridge of the box on site `site`, in a directory
  // of the box's own. Health pings are off, so that every request a
  // simulator gets is one sent through the brokers.
  void StartBox(int site) {
    const std::string box = Box(site);
    const std::string boxDir = dir.File(box);
    ASSERT_TRUE(std::filesystem::create_directory(boxDir));
    const std::string service = boxDir + "/svc";
    sims.push_back(std::make_unique<SimProcess>(
        KDX_SIM_PATH, service, boxDir + "/sim.log", boxDir + "/sim.syslog",
        std::vector<std::string>{"--event-interval", "100", "--event-id", std::to_string(EventId(site)), "--event-text",
                                 "from " + box}));
    ASSERT_TRUE(sims.back()->WaitUntilServing());
    PipeProcess::Options options;
    options.env = {"KENDRIVEX_SERVICE=", "KENDRIVEX_DIR="};
    const std::vector<std::string> capture = ::zel::test::SyslogCaptureEnv(boxDir + "/syslog");
    options.env.insert(options.env.end(), capture.begin(), capture.end());
    bridges.push_back(std::make_unique<PipeProcess>(
        std::vector<std::string>{KDX_BRIDGE_PATH, "-s", service, "-d", boxDir, "-b", federation.Site(site).Url(), "-i",
                                 box, "-p", kPrefix, "--health", "0"},
        options));
  }

  // A client of the central broker subscribed to `filters`.
  std::unique_ptr<MqttTestClient> CentralClient(const std::vector<std::string>& filters) {
    auto client = std::make_unique<MqttTestClient>(federation.Central().Port());
    EXPECT_TRUE(client->Connected());
    for (const std::string& filter : filters) EXPECT_TRUE(client->Subscribe(filter)) << filter;
    return client;
  }

  // Waits until the central broker has had every box's status "online".
  bool WaitUntilAllOnline() {
    auto watcher = CentralClient({std::string(kPrefix) + "/+/status"});
    return watcher->WaitFor([](const std::vector<Message>& messages) {
      for (int site = 0; site < kSites; ++site) {
        if (CountOf(messages, Topic(Box(site), "status"), "online") == 0) return false;
      }
      return true;
    });
  }

  TempDir dir;
  MqttFederation federation;
  std::vector<std::unique_ptr<SimProcess>> sims;
  std::vector<std::unique_ptr<PipeProcess>> bridges;
};

TEST_F(BridgeFederationTest, BoxesOfBothSitesAreRetainedOnlineAndUpAtTheCentralBroker) {
  ASSERT_TRUE(WaitUntilAllOnline());
  // Both are retained messages there now: a subscriber that comes later is
  // given them at once.
  auto late = CentralClient({std::string(kPrefix) + "/+/status", std::string(kPrefix) + "/+/service"});
  ASSERT_TRUE(late->WaitFor([](const std::vector<Message>& messages) {
    for (int site = 0; site < kSites; ++site) {
      if (CountOf(messages, Topic(Box(site), "status"), "online") == 0) return false;
      if (CountOf(messages, Topic(Box(site), "service"), "up") == 0) return false;
    }
    return true;
  }));
  for (const Message& message : late->Messages()) EXPECT_TRUE(message.retain) << message.topic;
}

TEST_F(BridgeFederationTest, RequestAtTheCentralBrokerIsAnsweredThereWithItsCorrelationData) {
  ASSERT_TRUE(WaitUntilAllOnline());
  auto asker = CentralClient({std::string(kPrefix) + "/+/reply/#"});
  for (int site = 0; site < kSites; ++site) {
    const std::string box = Box(site);
    // The response topic lies inside the box's own topics, as it must under
    // the fleet's access control, and so inside what the links carry up.
    const std::string replyTopic = Topic(box, "reply/run1");
    ASSERT_TRUE(asker->Request(Topic(box, "cmd"), "ping", replyTopic, "run1-" + box));
    ASSERT_TRUE(asker->WaitForCount(replyTopic, 1)) << box;
    const std::vector<Message> replies = asker->On(replyTopic);
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(replies[0].payload, AnsweredPayload("ping", 1, {"PONG"}, box));
    EXPECT_EQ(replies[0].correlation, std::optional<std::string>("run1-" + box));
  }
}

TEST_F(BridgeFederationTest, RequestToAllBoxesReachesEachBoxOnceAcrossTheSites) {
  ASSERT_TRUE(WaitUntilAllOnline());
  // One response topic for every box's reply, as a requester without the
  // fleet's access control may ask; it too lies inside what the links carry
  // up.
  const std::string replyTopic = Topic("all", "reply/run2");
  auto asker = CentralClient({replyTopic});
  const auto answered = [&](const std::string& command) {
    return asker->WaitFor([&](const std::vector<Message>& messages) {
      return std::count_if(messages.begin(), messages.end(),
                           [&](const Message& message) { return CommandOf(message.payload) == command; }) >= kSites;
    });
  };
  ASSERT_TRUE(asker->Request(Topic("all", "cmd"), "ping", replyTopic, "run2"));
  ASSERT_TRUE(answered("ping"));
  // A second request after the first: each box runs its commands in the
  // order they came, so once both have answered it, a copy of the first
  // that took a longer way would have been answered too.
  ASSERT_TRUE(asker->Request(Topic("all", "cmd"), "mac", replyTopic, "run2"));
  ASSERT_TRUE(answered("mac"));
  std::vector<std::string> pingedBoxes;
  for (const Message& message : asker->On(replyTopic)) {
    EXPECT_EQ(message.correlation, std::optional<std::string>("run2"));
    if (CommandOf(message.payload) == "ping") {
      pingedBoxes.push_back(nlohmann::json::parse(message.payload)["box"].get<std::string>());
    }
  }
  std::sort(pingedBoxes.begin(), pingedBoxes.end());
  EXPECT_EQ(pingedBoxes, (std::vector<std::string>{Box(0), Box(1)}));
  for (size_t site = 0; site < sims.size(); ++site) {
    const std::vector<SimProcess::Request> requests = sims[site]->Requests();
    const auto count = [&](const std::string& text) {
      return std::count_if(requests.begin(), requests.end(),
                           [&](const SimProcess::Request& request) { return request.text == text; });
    };
    EXPECT_EQ(count("1"), 1) << "pings that reached " << Box(static_cast<int>(site));
    EXPECT_EQ(count("3"), 1) << "mac requests that reached " << Box(static_cast<int>(site));
  }
}

TEST_F(BridgeFederationTest, EventsOfBothSitesArriveAtTheCentralBroker) {
  auto watcher = CentralClient({std::string(kPrefix) + "/+/event/#"});
  ASSERT_TRUE(watcher->WaitFor([](const std::vector<Message>& messages) {
    for (int site = 0; site < kSites; ++site) {
      const std::string topic = Topic(Box(site), "event/" + std::to_string(EventId(site)));
      if (std::none_of(messages.begin(), messages.end(), [&](const Message& m) { return m.topic == topic; })) {
        return false;
      }
    }
    return true;
  }));
  for (const Message& message : watcher->Messages()) {
    const nlohmann::json event = nlohmann::json::parse(message.payload, nullptr, false);
    ASSERT_TRUE(event.is_object()) << message.payload;
    const std::string box = message.topic.substr(std::string(kPrefix).size() + 1, 2);
    EXPECT_EQ(event["args"], nlohmann::json::array({"from " + box})) << message.topic;
    EXPECT_EQ(message.qos, 1);
  }
}

}  // namespace
}  // namespace zel::bridge::test
