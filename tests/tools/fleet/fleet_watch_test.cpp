// kendrivex-fleet watch end to end: the events of every box (or of the --box
// ones) as lines with their box, or as the bridge's objects; the end after
// --count events or at a stop signal, with status 0; a broker restart ridden
// out; hostile events skipped and reported at the end; a broker away at the
// start.
#include <signal.h>

#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/wait_until.h"
#include "tests/tools/fleet/fleet_program_test.h"

namespace zel::fleet::test {
namespace {

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// Whether `line` is TIME<TAB>box<TAB>id<TAB>text, its time to the
// millisecond in UTC.
bool EventOf(const std::string& line, const std::string& box, int id, const std::string& text) {
  static const std::regex time("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}Z");
  const size_t tab = line.find('\t');
  return tab != std::string::npos && std::regex_match(line.substr(0, tab), time) &&
         line.substr(tab + 1) == box + "\t" + std::to_string(id) + "\t" + text;
}

class FleetWatchTest : public FleetTest {
 protected:
  void SetUp() override {
    StartBroker();
    StartBox("box1", {"--event-interval", "100", "--event-id", "7", "--event-text", "link up"});
    StartBox("box2", {"--event-interval", "100", "--event-id", "8", "--event-text", "from box2"});
  }
};

TEST_F(FleetWatchTest, PrintsTheEventsOfEveryBoxWithTheirBoxUntilTheCount) {
  const Result result = Fleet({"watch", "-n", "20"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(result.err, "");
  const std::vector<std::string> lines = Lines(result.out);
  ASSERT_EQ(lines.size(), 20u);
  size_t ofBox1 = 0;
  for (const std::string& line : lines) {
    const bool one = EventOf(line, "box1", 7, "link up");
    EXPECT_TRUE(one || EventOf(line, "box2", 8, "from box2")) << line;
    ofBox1 += one ? 1 : 0;
  }
  EXPECT_GT(ofBox1, 0u);
  EXPECT_LT(ofBox1, 20u);
}

TEST_F(FleetWatchTest, JsonPrintsTheBridgesEventObjects) {
  const Result result = Fleet({"watch", "-j", "-n", "3"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  const std::vector<std::string> lines = Lines(result.out);
  ASSERT_EQ(lines.size(), 3u);
  for (const std::string& line : lines) {
    const nlohmann::json event = nlohmann::json::parse(line, nullptr, false);
    ASSERT_TRUE(event.is_object()) << line;
    const bool one = event["box"] == "box1";
    EXPECT_EQ(event["id"], one ? 7 : 8) << line;
    EXPECT_EQ(event["args"], nlohmann::json::array({one ? "link up" : "from box2"})) << line;
    EXPECT_EQ(line.rfind("{\"time\":", 0), 0u) << line;
  }
}

TEST_F(FleetWatchTest, BoxOptionsLimitItToThoseBoxes) {
  const Result result = Fleet({"watch", "--box", "box2", "-n", "5"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  const std::vector<std::string> lines = Lines(result.out);
  ASSERT_EQ(lines.size(), 5u);
  for (const std::string& line : lines) EXPECT_TRUE(EventOf(line, "box2", 8, "from box2")) << line;
}

class FleetWatchStopTest : public FleetWatchTest, public ::testing::WithParamInterface<int> {};

TEST_P(FleetWatchStopTest, StopSignalEndsItWithStatus0) {
  auto watch = StartFleet({"watch"});
  ASSERT_TRUE(watch->WaitForOutLines(1)) << watch->Err();
  watch->Signal(GetParam());
  const Result result = watch->Finish();
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.signal, 0);
  EXPECT_EQ(result.err, "");
}

INSTANTIATE_TEST_SUITE_P(Signals, FleetWatchStopTest, ::testing::Values(SIGINT, SIGTERM, SIGHUP));

TEST_F(FleetWatchTest, RidesOutABrokerRestart) {
  auto watch = StartFleet({"-v", "watch", "--box", "box1"});
  ASSERT_TRUE(watch->WaitForOutLines(1)) << watch->Err();
  ASSERT_TRUE(broker.Stop());
  ASSERT_TRUE(watch->WaitForErr("kendrivex-fleet: lost the broker at " + broker.Url() +
                                ": the connection was lost; trying again in 1 s\n"))
      << watch->Err();
  const size_t before = Lines(watch->Out()).size();
  StartBroker();
  ASSERT_TRUE(watch->WaitForErr("kendrivex-fleet: connected to the broker at " + broker.Url() + " again\n"))
      << watch->Err();
  ASSERT_TRUE(watch->WaitForOutLines(before + 3)) << watch->Err();
  watch->Signal(SIGTERM);
  const Result result = watch->Finish();
  EXPECT_EQ(result.exitCode, 0);
  for (const std::string& line : Lines(result.out)) EXPECT_TRUE(EventOf(line, "box1", 7, "link up")) << line;
}

class FleetWatchHostileTest : public FleetTest {
 protected:
  void SetUp() override { StartBroker(); }
};

TEST_F(FleetWatchHostileTest, HostileEventsAreSkippedReportedAtTheEndAndNeverShownRaw) {
  PlayedBox& evil = Play("evil");
  auto watch = StartFleet({"watch"});
  // The watch subscribes once it is connected: a good event again and again
  // until it prints one.
  ASSERT_TRUE(::zel::test::WaitUntil([&] {
    return evil.Publish("event/1", R"({"time":"t0","id":1,"args":["probe"]})") &&
           watch->WaitForOutLines(1, std::chrono::milliseconds(50));
  }));
  ASSERT_TRUE(evil.Publish("event/1", "\x1b]2;owned\x07"));
  ASSERT_TRUE(evil.Publish("event/1", R"({"time":"t","id":"1","args":[]})"));
  ASSERT_TRUE(evil.Publish("event/1", R"({"time":"t","id":1,"args":[],"box":"box1"})"));
  ASSERT_TRUE(evil.Publish("event/1", std::string(70000, '[')));
  ASSERT_TRUE(evil.Publish("event/9", R"({"time":"t\u001b","id":9,"args":["\u001b[2Jlast","\t"]})"));
  ASSERT_TRUE(watch->WaitForOut("last"));
  watch->Signal(SIGTERM);
  const Result result = watch->Finish();
  EXPECT_EQ(result.exitCode, 0);
  const std::vector<std::string> lines = Lines(result.out);
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back(), "t\\x1b\tevil\t9\t\\x1b[2Jlast\t\\t");
  for (size_t i = 0; i + 1 < lines.size(); ++i) EXPECT_EQ(lines[i], "t0\tevil\t1\tprobe");
  EXPECT_EQ(result.err,
            "kendrivex-fleet: warning: skipped 4 messages from boxes: 2 not of the form a box sends, 1 larger than "
            "64 KB, 1 naming another box than their topic\n");
}

TEST_F(FleetWatchTest, BrokerAwayAtTheStartExits3AtTheTimeOut) {
  const std::string url = "mqtt://127.0.0.1:" + std::to_string(MqttBroker::FreePort());
  const Result result = Fleet({"-t", "300", "watch"}, url);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, ErrorLine(url, "connection refused"));
  EXPECT_EQ(result.exitCode, 3);
}

}  // namespace
}  // namespace zel::fleet::test
