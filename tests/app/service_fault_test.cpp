// The program against a service that is absent, killed, started again or
// answers with what is not a usable reply. None of these waits out a reply
// time-out: a send to a service that is gone fails at once.
#include <syslog.h>

#include <chrono>
#include <string>
#include <vector>

#include "tests/app/fault_matrix.h"

namespace zel::app::test {
namespace {

using std::chrono::seconds;

// Well within the 5-second reply time-out: the command did not wait for one.
constexpr seconds kAtOnce(3);

class ServiceFaultTest : public FaultMatrixTest {
 protected:
  // Types the command and expects its exact output, arriving at once.
  void ExpectAtOnce(const std::string& command, const std::string& printed) {
    ASSERT_TRUE(client->Type(command + "\r"));
    const std::string expected = command + "\r\n" + printed + "hi>";
    EXPECT_TRUE(client->WaitForOutput(expected, kAtOnce)) << ::zel::test::Printable(client->Output());
    ExpectShown(expected);
  }

  // A new simulator on the path answers the next command, having seen the
  // registration first.
  void ExpectAnswersFromARestartedSim() {
    RestartSim();
    ExpectAtOnce("send_ping", "PING response : PONG\r\n");
    ASSERT_TRUE(sim->WaitForRequests(2));
    EXPECT_EQ(sim->Requests()[0].text, Registration());
    EXPECT_EQ(sim->Requests()[1].text, "1");
  }

  void ExpectEachDeviceCommandToFailAtOnce() {
    ExpectAtOnce("send_ping", "PING response : FAIL\r\n");
    ExpectAtOnce("atcmd_wlanapclist", "FAILED\r\n");
    ExpectAtOnce("atcmd_wlanmac", "FAILED\r\n");
  }
};

TEST_F(ServiceFaultTest, ServiceAbsentAtStartEndsWith255AndLeavesNoSocketFile) {
  std::string output;
  EXPECT_EQ(RunToEnd({ServicePath(), dir.path()}, output), 255);
  EXPECT_EQ(output, "Cannot set ipc_client: please check " + ServicePath() + " and " + dir.path() + "\r\n");
  EXPECT_TRUE(ClientFilesLeft().empty());
}

TEST_F(ServiceFaultTest, ServiceKilledMidSessionMakesEachDeviceCommandFailAtOnce) {
  StartSim();
  StartSession();
  Expect("send_ping\r", "send_ping\r\nPING response : PONG\r\nhi>");
  const size_t descriptors = ClientDescriptors();
  KillSim();
  ExpectEachDeviceCommandToFailAtOnce();
  EXPECT_EQ(ClientDescriptors(), descriptors);
  // The first send is refused by the dead socket; later ones find no
  // connection, since the socket made again could not connect.
  EXPECT_EQ(Count(NotReconnected(-111)), 1u);
  EXPECT_EQ(Count(NotReconnected(-1)), 2u);
  EXPECT_EQ(Count({LOG_ERR, std::string(kSendFormatStringText) + " 112: Recv time out\n"}), 0u);
  // The unregistration fails at once too.
  ExpectCleanExit();
}

TEST_F(ServiceFaultTest, ServiceKilledAndStartedAgainAnswersTheNextCommand) {
  StartSim();
  StartSession();
  Expect("send_ping\r", "send_ping\r\nPING response : PONG\r\nhi>");
  const size_t descriptors = ClientDescriptors();
  KillSim();
  RestartSim();
  ExpectAtOnce("send_ping", "PING response : PONG\r\n");
  ExpectAtOnce("atcmd_wlanmac", "WIFI MAC: 02:1a:7d:4c:88:e1\r\n");
  EXPECT_EQ(ClientDescriptors(), descriptors);
  EXPECT_EQ(Count(Reconnected(-111)), 1u);
  ASSERT_TRUE(sim->WaitForRequests(3));
  const std::vector<SimProcess::Request> requests = sim->Requests();
  EXPECT_EQ(requests[0].text, Registration());
  EXPECT_EQ(requests[1].text, "1");
  EXPECT_EQ(requests[2].text, "3");
  ExpectCleanExit();
  // The new instance is the one told that the client has gone.
  ASSERT_TRUE(sim->WaitForRequests(4));
  EXPECT_EQ(sim->Requests().back().text, Unregistration());
}

TEST_F(ServiceFaultTest, ServiceStoppedAndStartedAgainAnswersTheNextCommand) {
  StartSim();
  StartSession();
  ASSERT_TRUE(sim->Stop().has_value());
  ExpectAtOnce("send_ping", "PING response : FAIL\r\n");
  ExpectAnswersFromARestartedSim();
  ExpectCleanExit();
}

TEST_F(ServiceFaultTest, ServiceDeadAtStartIsFoundOnceItServes) {
  // A crashed service left its socket file: the set-up goes ahead, and the
  // registration fails at once rather than after a reply time-out.
  StartSim();
  KillSim();
  StartSession();
  ExpectEachDeviceCommandToFailAtOnce();
  ExpectAnswersFromARestartedSim();
  ExpectCleanExit();
}

TEST_F(ServiceFaultTest, GarbageAndOverlongRepliesPrintTheFailureAndAreLogged) {
  StartFake();
  const std::string longest(8189, 'x');
  fake->Script(
      1, {FakeService::Answer::Reply("#!garbage\x01\xff\tnot a reply"), FakeService::Answer::Reply("1\t" + longest),
          FakeService::Answer::Reply("1\t" + std::string(8190, 'y')),
          FakeService::Answer::Reply("1\t" + std::string(8998, 'z')), FakeService::Answer::Reply("1\tPONG")});
  StartSession();
  // Not a number in the first field: code 0.
  ExpectAtOnce("send_ping", "PING response : FAIL\r\n");
  // 8191 bytes: the longest reply that the buffer holds with its end marked.
  ExpectAtOnce("send_ping", "PING response : " + longest + "\r\n");
  // 8192 bytes fill the buffer and 9000 are cut to it: no end is marked.
  ExpectAtOnce("send_ping", "PING response : FAIL\r\n");
  ExpectAtOnce("send_ping", "PING response : FAIL\r\n");
  ExpectAtOnce("send_ping", "PING response : PONG\r\n");
  EXPECT_EQ(Count({LOG_DEBUG, "client rcv [#!garbage\x01\xff\tnot a reply]\n"}), 1u);
  EXPECT_EQ(Count({LOG_DEBUG, "client rcv [1\t" + longest + "]\n"}), 1u);
  EXPECT_EQ(Count({LOG_ERR, std::string(kSendFormatStringText) + " 116: reply too long [8192]\n"}), 2u);
  ExpectCleanExit();
}

}  // namespace
}  // namespace zel::app::test
