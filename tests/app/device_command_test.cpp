// The device commands through the real program: what each prints for the
// service's answers, and the requests it sends.
#include <syslog.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/app/app_test.h"

namespace zel::app::test {
namespace {

const LogRecord kRecvTimeOut{
    LOG_ERR, "zel::ipc::IPCResult zel::ipc::IPCClient::SendFormatString(std::string) 112: Recv time out\n"};

bool Contains(const std::vector<LogRecord>& records, const LogRecord& record) {
  return std::find(records.begin(), records.end(), record) != records.end();
}

class DeviceCommandTest : public AppTest {
 protected:
  void StartSimSession(const std::vector<std::string>& options = {}) {
    StartSim(options);
    StartSession();
  }
  void StartFakeSession() {
    StartFake();
    StartSession();
  }
};

TEST_F(DeviceCommandTest, PingPrintsTheAnswer) {
  StartSimSession();
  Expect("send_ping\r", "send_ping\r\nPING response : PONG\r\nhi>");
}

TEST_F(DeviceCommandTest, StationListPrintsOneStationALine) {
  StartSimSession();
  Expect("atcmd_wlanapclist\r",
         "atcmd_wlanapclist\r\n"
         "f2:3a:9c:51:0e:47 192.168.43.12 pixel-7\r\n"
         "3c:22:fb:91:4d:a7 192.168.43.27 maintenance-laptop\r\n"
         "b8:27:eb:6f:03:d2 192.168.43.40 sensor-gateway\r\n"
         "hi>");
}

TEST_F(DeviceCommandTest, ThreeStationsPrintThreeLinesAndNothingElse) {
  StartSimSession({"--station", "a", "--station", "b b", "--station", "c"});
  Expect("atcmd_wlanapclist\r", "atcmd_wlanapclist\r\na\r\nb b\r\nc\r\nhi>");
}

TEST_F(DeviceCommandTest, EmptyStationListPrintsNoConnectedStation) {
  StartSimSession({"--no-stations"});
  Expect("atcmd_wlanapclist\r", "atcmd_wlanapclist\r\nNO CONNECTED STATION\r\nhi>");
}

TEST_F(DeviceCommandTest, MacPrintsOneLineBeginningWithWifiMac) {
  StartSimSession({"--mac", "02:00:00:aa:bb:cc"});
  Expect("atcmd_wlanmac\r", "atcmd_wlanmac\r\nWIFI MAC: 02:00:00:aa:bb:cc\r\nhi>");
}

TEST_F(DeviceCommandTest, EachRequestIsOneDecimalDigit) {
  StartSimSession();
  Expect("send_ping\r", "send_ping\r\nPING response : PONG\r\nhi>");
  Expect("atcmd_wlanmac\r", "atcmd_wlanmac\r\nWIFI MAC: 02:1a:7d:4c:88:e1\r\nhi>");
  ASSERT_TRUE(client->Type("atcmd_wlanapclist\r"));
  ASSERT_TRUE(sim->WaitForRequests(4));
  const std::vector<SimProcess::Request> requests = sim->Requests();
  EXPECT_EQ(requests[1].text, "1");
  EXPECT_EQ(requests[2].text, "3");
  EXPECT_EQ(requests[3].text, "2");
  for (const SimProcess::Request& request : requests) EXPECT_EQ(request.from, ClientPath());
}

TEST_F(DeviceCommandTest, PingWithFurtherWordsSendsTheSameRequest) {
  StartFakeSession();
  fake->Script(1, FakeService::Answer::Reply("1\tPONG"));
  Expect("send_ping 1 two\r", "send_ping 1 two\r\nPING response : PONG\r\nhi>");
  ASSERT_EQ(fake->RequestsFor(1).size(), 1u);
  EXPECT_EQ(fake->RequestsFor(1)[0].text, "1");
}

TEST_F(DeviceCommandTest, PingPrintsOnlyTheFirstOfSeveralStrings) {
  StartFakeSession();
  fake->Script(1, FakeService::Answer::Reply("1\tPONG\tSECOND\tTHIRD"));
  Expect("send_ping\r", "send_ping\r\nPING response : PONG\r\nhi>");
}

TEST_F(DeviceCommandTest, MacPrintsOnlyTheFirstOfSeveralStrings) {
  StartFakeSession();
  fake->Script(3, FakeService::Answer::Reply("1\taa:bb\tcc:dd"));
  Expect("atcmd_wlanmac\r", "atcmd_wlanmac\r\nWIFI MAC: aa:bb\r\nhi>");
}

TEST_F(DeviceCommandTest, ReplyCodeOtherThanSuccessPrintsTheFailure) {
  StartFakeSession();
  fake->Script(1, FakeService::Answer::Reply("2\tPONG"));
  fake->Script(2, FakeService::Answer::Reply("0\tstation"));
  fake->Script(3, FakeService::Answer::Reply("11\taa:bb"));
  Expect("send_ping\r", "send_ping\r\nPING response : FAIL\r\nhi>");
  Expect("atcmd_wlanapclist\r", "atcmd_wlanapclist\r\nFAILED\r\nhi>");
  Expect("atcmd_wlanmac\r", "atcmd_wlanmac\r\nFAILED\r\nhi>");
}

TEST_F(DeviceCommandTest, SuccessWithoutTheNeededStringPrintsTheFailure) {
  StartFakeSession();
  fake->Script(1, FakeService::Answer::Reply("1"));
  fake->Script(3, FakeService::Answer::Reply("1\t"));
  Expect("send_ping\r", "send_ping\r\nPING response : FAIL\r\nhi>");
  Expect("atcmd_wlanmac\r", "atcmd_wlanmac\r\nFAILED\r\nhi>");
}

TEST_F(DeviceCommandTest, GarbageRepliesPrintTheFailures) {
  StartSimSession({"--garbage"});
  Expect("send_ping\r", "send_ping\r\nPING response : FAIL\r\nhi>");
  Expect("atcmd_wlanapclist\r", "atcmd_wlanapclist\r\nFAILED\r\nhi>");
  Expect("atcmd_wlanmac\r", "atcmd_wlanmac\r\nFAILED\r\nhi>");
  EXPECT_TRUE(Contains(Records(), {LOG_DEBUG, "client rcv [#!garbage\x01\xff\tnot a reply]\n"}));
}

TEST_F(DeviceCommandTest, OversizeReplyIsRefusedAndPrintsTheFailure) {
  StartSimSession({"--oversize"});
  Expect("send_ping\r", "send_ping\r\nPING response : FAIL\r\nhi>");
  EXPECT_TRUE(Contains(Records(), {LOG_ERR,
                                   "zel::ipc::IPCResult zel::ipc::IPCClient::SendFormatString(std::string) 116: "
                                   "reply too long [8192]\n"}));
}

TEST_F(DeviceCommandTest, CommandsFailAtOnceWhenTheServiceHasGone) {
  StartSimSession();
  ASSERT_TRUE(sim->Stop().has_value());
  Expect("send_ping\r", "send_ping\r\nPING response : FAIL\r\nhi>");
  Expect("atcmd_wlanapclist\r", "atcmd_wlanapclist\r\nFAILED\r\nhi>");
  Expect("atcmd_wlanmac\r", "atcmd_wlanmac\r\nFAILED\r\nhi>");
  // The sends failed; nothing waited for a reply.
  EXPECT_FALSE(Contains(Records(), kRecvTimeOut));
  ExpectEnd("exit\r", "exit\r\n");
}

TEST_F(DeviceCommandTest, FailedCommandIsStillRecordedInTheHistory) {
  StartSimSession();
  ASSERT_TRUE(sim->Stop().has_value());
  Expect("send_ping\r", "send_ping\r\nPING response : FAIL\r\nhi>");
  Expect(keys::kUp, "send_ping");
}

}  // namespace
}  // namespace zel::app::test
