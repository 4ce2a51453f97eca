// The device commands against a service that does not answer: each waits the
// full 5 s for its reply, so each is a test case of its own (CTest runs them
// side by side).
#include <syslog.h>

#include <string>

#include "tests/app/app_test.h"

namespace zel::app::test {
namespace {

class DeviceCommandTimeoutTest : public AppTest {
 protected:
  // The service answers registrations, and no device command.
  void ExpectAfterTimeOut(const std::string& command, const std::string& printed) {
    StartSim({"--drop"});
    StartSession();
    ASSERT_TRUE(client->Type(command + "\r"));
    const std::string expected = command + "\r\n" + printed + "hi>";
    EXPECT_TRUE(client->WaitForOutput(expected, std::chrono::seconds(15))) << ::zel::test::Printable(client->Output());
    ExpectShown(expected);
    EXPECT_TRUE(WaitForRecord(
        {LOG_ERR, "zel::ipc::IPCResult zel::ipc::IPCClient::SendFormatString(std::string) 112: Recv time out\n"}));
    ExpectEnd("exit\r", "exit\r\n");
  }
};

TEST_F(DeviceCommandTimeoutTest, UnansweredPingPrintsFail) {
  ExpectAfterTimeOut("send_ping", "PING response : FAIL\r\n");
}

TEST_F(DeviceCommandTimeoutTest, UnansweredStationListPrintsFailed) {
  ExpectAfterTimeOut("atcmd_wlanapclist", "FAILED\r\n");
}

TEST_F(DeviceCommandTimeoutTest, UnansweredMacPrintsFailed) { ExpectAfterTimeOut("atcmd_wlanmac", "FAILED\r\n"); }

}  // namespace
}  // namespace zel::app::test
