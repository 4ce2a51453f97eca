// kendrivex-fleet ls end to end: every box with a retained status, sorted by
// ID, its service shown only while it is online; the same as JSON objects;
// the end as soon as the retained statuses are in; hostile statuses skipped
// and reported once; a broker away or silent.
#include <string>

#include "tests/tools/fleet/fleet_program_test.h"

namespace zel::fleet::test {
namespace {

class FleetLsTest : public FleetTest {
 protected:
  void SetUp() override { StartBroker(); }
};

TEST_F(FleetLsTest, ListsEveryBoxSortedWithItsStatusAndService) {
  StartBox("box2");
  StartBox("box1");
  StartBox("box10");
  StopService("box10");
  ASSERT_TRUE(WaitFor("box10", "service", "down"));
  StopBridge("box2");
  const Result result = Fleet({"ls"});
  EXPECT_EQ(result.out, "box1\tonline\tup\nbox10\tonline\tdown\nbox2\toffline\t-\n");
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.exitCode, 0);
}

TEST_F(FleetLsTest, JsonListsOneObjectABoxWithANullServiceWhenUnknown) {
  StartBox("box1");
  Play("box2", "offline");
  Play("box3", "online");
  const Result result = Fleet({"ls", "-j"});
  EXPECT_EQ(result.out,
            "{\"box\":\"box1\",\"status\":\"online\",\"service\":\"up\"}\n"
            "{\"box\":\"box2\",\"status\":\"offline\",\"service\":null}\n"
            "{\"box\":\"box3\",\"status\":\"online\",\"service\":null}\n");
  EXPECT_EQ(result.exitCode, 0);
}

TEST_F(FleetLsTest, BoxWithAServiceButNoStatusIsNotListed) {
  StartBox("box1");
  MqttTestClient stray(broker.Port());
  ASSERT_TRUE(stray.Publish("kdx/box2/service", "up", 1, true));
  const Result result = Fleet({"ls"});
  EXPECT_EQ(result.out, "box1\tonline\tup\n");
  EXPECT_EQ(result.exitCode, 0);
}

TEST_F(FleetLsTest, EmptyBrokerListsNothing) {
  const Result result = Fleet({"ls"});
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.exitCode, 0);
}

// Ten minutes of time-out, and the test's own wait far shorter: ls ends when
// the retained statuses of 1500 boxes are in, not at its time-out.
TEST_F(FleetLsTest, EndsAsSoonAsEveryRetainedStatusIsIn) {
  MqttTestClient boxes(broker.Port());
  std::string expected;
  for (int i = 1000; i < 2500; ++i) {
    const std::string id = "b" + std::to_string(i);
    ASSERT_TRUE(boxes.Publish("kdx/" + id + "/status", "online", 1, true));
    ASSERT_TRUE(boxes.Publish("kdx/" + id + "/service", "up", 1, true));
    expected += id + "\tonline\tup\n";
  }
  const Result result = PipeProcess::Run(Command({"-t", "600000", "ls"}), "", Options(), std::chrono::seconds(20));
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(result.out, expected);
}

TEST_F(FleetLsTest, HostileStatusesAreSkippedAndReportedOnceAndNeverShown) {
  PlayedBox& good = Play("good");
  ASSERT_TRUE(good.Publish("service", "up", true));
  Play("shouting", "ONLINE\x1b[2J");
  PlayedBox& big = Play("big", "online");
  ASSERT_TRUE(big.Publish("service", std::string(70000, 'u'), true));
  Play("all", "online");
  Play("nl", "online\n");
  const Result result = Fleet({"ls"});
  EXPECT_EQ(result.out, "big\tonline\t-\ngood\tonline\tup\n");
  EXPECT_EQ(result.err,
            "kendrivex-fleet: warning: skipped 4 messages from boxes: 3 not of the form a box sends, 1 larger than "
            "64 KB\n");
  EXPECT_EQ(result.exitCode, 0);
}

TEST_F(FleetLsTest, BrokerAwayExitsWith3) {
  const std::string url = "mqtt://127.0.0.1:" + std::to_string(MqttBroker::FreePort());
  const Result result = Fleet({"ls"}, url);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, ErrorLine(url, "connection refused"));
  EXPECT_EQ(result.exitCode, 3);
}

TEST_F(FleetLsTest, BrokerThatDoesNotAnswerExitsWith3AtTheTimeOut) {
  broker.Pause();
  const Result result = Fleet({"-t", "300", "ls"});
  broker.Resume();
  EXPECT_EQ(result.err, ErrorLine(broker.Url(), "no answer within 300 ms"));
  EXPECT_EQ(result.exitCode, 3);
}

}  // namespace
}  // namespace zel::fleet::test
