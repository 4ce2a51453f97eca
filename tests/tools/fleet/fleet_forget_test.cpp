// kendrivex-fleet forget end to end: a box that is gone has its retained
// status and service cleared and ls no longer lists it; an online box is
// refused; an unknown one is nothing to forget.
#include <string>

#include "tests/tools/fleet/fleet_program_test.h"

namespace zel::fleet::test {
namespace {

class FleetForgetTest : public FleetTest {
 protected:
  void SetUp() override {
    StartBroker();
    StartBox("box1");
    StartBox("box2");
    StopBridge("box2");
  }
};

TEST_F(FleetForgetTest, OfflineBoxIsClearedAndNoLongerListed) {
  Result result = Fleet({"forget", "box2"});
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.exitCode, 0);
  result = Fleet({"ls"});
  EXPECT_EQ(result.out, "box1\tonline\tup\n");
  // Both retained messages are gone: a new subscriber gets nothing of box2.
  MqttTestClient later(broker.Port());
  ASSERT_TRUE(later.Subscribe("kdx/box2/#"));
  ASSERT_TRUE(later.Subscribe("kdx/box1/status"));
  ASSERT_TRUE(later.WaitForCount("kdx/box1/status", 1));
  EXPECT_TRUE(later.On("kdx/box2/status").empty());
  EXPECT_TRUE(later.On("kdx/box2/service").empty());
}

TEST_F(FleetForgetTest, OnlineBoxIsRefusedAndKept) {
  Result result = Fleet({"forget", "box1"});
  EXPECT_EQ(result.err, ErrorLine("box1", "online: only a box that is gone can be forgotten"));
  EXPECT_EQ(result.exitCode, 1);
  result = Fleet({"ls"});
  EXPECT_EQ(result.out, "box1\tonline\tup\nbox2\toffline\t-\n");
}

TEST_F(FleetForgetTest, EveryOnlineBoxIsRefusedInTurn) {
  StartBox("box3");
  const Result result = Fleet({"forget", "box1", "box3"});
  EXPECT_EQ(result.err, ErrorLine("box1", "online: only a box that is gone can be forgotten") +
                            ErrorLine("box3", "online: only a box that is gone can be forgotten"));
  EXPECT_EQ(result.exitCode, 1);
}

TEST_F(FleetForgetTest, GoneBoxesAreForgottenBesideARefusedOne) {
  Result result = Fleet({"forget", "box1", "box2", "box9"});
  EXPECT_EQ(result.err, ErrorLine("box1", "online: only a box that is gone can be forgotten"));
  EXPECT_EQ(result.exitCode, 1);
  result = Fleet({"ls"});
  EXPECT_EQ(result.out, "box1\tonline\tup\n");
}

TEST_F(FleetForgetTest, UnknownBoxIsNothingToForget) {
  const Result result = Fleet({"forget", "box9"});
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.exitCode, 0);
}

}  // namespace
}  // namespace zel::fleet::test
