// kendrivex-fleet at the central broker of a federation: two site brokers,
// each with a real box (simulator and bridge), linked to the central broker
// by Mosquitto's own bridge over MQTT 5. ls lists every box of both sites,
// run all ping gets every reply (the response topics and correlation data
// cross the links), and watch prints the events of both sites.
#include <signal.h>

#include <string>

#include "tests/support/mqtt_federation.h"
#include "tests/tools/fleet/fleet_program_test.h"

namespace zel::fleet::test {
namespace {

using ::zel::test::MqttFederation;

class FleetFederationTest : public FleetTest {
 protected:
  FleetFederationTest() : federation(dir.path(), kPrefix) {}

  void SetUp() override {
    ASSERT_TRUE(federation.Start()) << federation.Log();
    StartBox("a1", {"--event-interval", "100", "--event-id", "7", "--event-text", "from a1"}, {}, &federation.Site(0));
    StartBox("b1", {"--event-interval", "100", "--event-id", "8", "--event-text", "from b1"}, {}, &federation.Site(1));
    // What the boxes published at their sites has come up to the centre.
    for (const std::string box : {"a1", "b1"}) ASSERT_TRUE(WaitFor(box, "service", "up", &federation.Central()));
  }

  std::string Central() { return federation.Central().Url(); }

  MqttFederation federation;
};

TEST_F(FleetFederationTest, LsAtTheCentreListsTheBoxesOfEverySite) {
  const Result result = Fleet({"ls"}, Central());
  EXPECT_EQ(result.out, "a1\tonline\tup\nb1\tonline\tup\n");
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.exitCode, 0);
}

TEST_F(FleetFederationTest, RunAllAtTheCentreGetsTheReplyOfEveryBox) {
  const Result result = Fleet({"-j", "run", "all", "ping"}, Central());
  EXPECT_NE(result.out.find(Pong("a1") + "\n"), std::string::npos) << result.out;
  EXPECT_NE(result.out.find(Pong("b1") + "\n"), std::string::npos) << result.out;
  EXPECT_EQ(result.out.size(), Pong("a1").size() + Pong("b1").size() + 2);
  EXPECT_EQ(result.err,
            "kendrivex-fleet: 2 boxes expected: 2 answered with success, 0 answered otherwise, 0 did not answer\n");
  EXPECT_EQ(result.exitCode, 0);
}

TEST_F(FleetFederationTest, WatchAtTheCentreGetsTheEventsOfBothSites) {
  auto watch = std::make_unique<PipeProcess>(Command({"watch"}, Central()), Options());
  ASSERT_TRUE(watch->WaitForOut("\ta1\t7\tfrom a1\n")) << watch->Err();
  ASSERT_TRUE(watch->WaitForOut("\tb1\t8\tfrom b1\n")) << watch->Err();
  watch->Signal(SIGTERM);
  EXPECT_EQ(watch->Finish().exitCode, 0);
}

}  // namespace
}  // namespace zel::fleet::test
