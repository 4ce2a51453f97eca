// The program against a service that is slow, stuck or refusing: each case
// waits out a 5-second time-out or pause, so each is a test of its own for
// CTest to run side by side.
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/app/fault_matrix.h"
#include "tests/support/wait_until.h"

namespace zel::app::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// Sends from a socket of its own to `path` until its queue takes no more;
// how many datagrams it took.
size_t FillQueue(const std::string& path) {
  const int filler = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
  size_t count = 0;
  while (::sendto(filler, "x", 1, MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 1) {
    ++count;
  }
  ::close(filler);
  return count;
}

// True once every thread of process `pid` is stopped.
bool WaitUntilStopped(pid_t pid) {
  const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
  return ::zel::test::WaitUntil([&tasks] {
    for (const auto& task : std::filesystem::directory_iterator(tasks)) {
      std::ifstream stat(task.path() / "stat");
      std::string line;
      std::getline(stat, line);
      // The state follows the command name, which is in parentheses.
      const size_t end = line.rfind(')');
      if (end == std::string::npos || line.compare(end, 3, ") T") != 0) return false;
    }
    return true;
  });
}

class ServiceFaultTimeoutTest : public FaultMatrixTest {
 protected:
  // Types the command and expects its exact output after the time-out.
  void ExpectAfterTimeOut(const std::string& command, const std::string& printed) {
    ASSERT_TRUE(client->Type(command + "\r"));
    const std::string expected = command + "\r\n" + printed + "hi>";
    EXPECT_TRUE(client->WaitForOutput(expected, seconds(15))) << ::zel::test::Printable(client->Output());
    ExpectShown(expected);
  }

  // Stops the simulator and fills its queue, so that nothing more can be sent
  // to it. A stop takes effect when each thread next runs, so the queue is
  // filled only once every thread has stopped.
  void StickSim() {
    sim->Process().Signal(SIGSTOP);
    ASSERT_TRUE(WaitUntilStopped(sim->Process().Pid()));
    ASSERT_GT(FillQueue(ServicePath()), 0u);
  }

  LogRecord SendTimeOut() const {
    return {LOG_ERR, std::string(kSendWhenWritableText) + " 231: Send time out, the service at [" + ServicePath() +
                         "] takes no datagram within [5000000] us\n"};
  }

  size_t PingsTheSimSaw() const {
    const std::vector<SimProcess::Request> requests = sim->Requests();
    return static_cast<size_t>(
        std::count_if(requests.begin(), requests.end(), [](const SimProcess::Request& r) { return r.text == "1"; }));
  }
};

TEST_F(ServiceFaultTimeoutTest, StuckServiceFailsTheCommandAfterTheTimeOutAndTheClientGoesOnWhenItRuns) {
  StartSim();
  StartSession();
  const size_t descriptors = ClientDescriptors();
  StickSim();
  ExpectAfterTimeOut("send_ping", "PING response : FAIL\r\n");
  EXPECT_EQ(Count(SendTimeOut()), 1u);
  sim->Process().Signal(SIGCONT);
  Expect("send_ping\r", "send_ping\r\nPING response : PONG\r\nhi>");
  EXPECT_EQ(ClientDescriptors(), descriptors);
  // The request that could not leave was never sent.
  EXPECT_EQ(PingsTheSimSaw(), 1u);
  ExpectCleanExit();
}

TEST_F(ServiceFaultTimeoutTest, StuckServiceFailsTheCommandAfterTheTimeOutAndTheClientGoesOnWhenItIsReplaced) {
  StartSim();
  StartSession();
  StickSim();
  ExpectAfterTimeOut("atcmd_wlanmac", "FAILED\r\n");
  EXPECT_EQ(Count(SendTimeOut()), 1u);
  KillSim();
  RestartSim();
  Expect("atcmd_wlanmac\r", "atcmd_wlanmac\r\nWIFI MAC: 02:1a:7d:4c:88:e1\r\nhi>");
  EXPECT_EQ(Count(Reconnected(-111)), 1u);
  ExpectCleanExit();
}

TEST_F(ServiceFaultTimeoutTest, SlowReplyIsReadByTheNextCommandAsDesigned) {
  StartFake();
  fake->Script(1, {FakeService::Answer::Reply("1\tLATE", milliseconds(6000)), FakeService::Answer::Reply("1\tSECOND"),
                   FakeService::Answer::Reply("1\tTHIRD")});
  StartSession();
  ExpectAfterTimeOut("send_ping", "PING response : FAIL\r\n");
  EXPECT_EQ(Count({LOG_ERR, std::string(kSendFormatStringText) + " 112: Recv time out\n"}), 1u);
  // The registration's reply and the late one.
  ASSERT_TRUE(fake->WaitForRepliesSent(2));
  // A reply is not matched to its request: each now reads the one before.
  Expect("send_ping\r", "send_ping\r\nPING response : LATE\r\nhi>");
  Expect("send_ping\r", "send_ping\r\nPING response : SECOND\r\nhi>");
  ExpectCleanExit();
}

TEST_F(ServiceFaultTimeoutTest, RegistrationRefusedTwiceIsAcceptedAtTheThirdAttemptWhileCommandsWork) {
  StartSim({"--refuse-register", "2"});
  StartSession();
  Expect("send_ping\r", "send_ping\r\nPING response : PONG\r\nhi>");
  // Refused at start and at once by the retry thread; accepted after its
  // 5-second pause.
  EXPECT_TRUE(sim->WaitForLine(
      "request [4\\t" + EventPath() + "] from [" + ClientPath() + "]: reply [1] (registered, 1 event path)",
      seconds(15)));
  Expect("atcmd_wlanmac\r", "atcmd_wlanmac\r\nWIFI MAC: 02:1a:7d:4c:88:e1\r\nhi>");
  const std::vector<SimProcess::Request> requests = sim->Requests();
  const auto registrations = std::count_if(requests.begin(), requests.end(),
                                           [this](const SimProcess::Request& r) { return r.text == Registration(); });
  EXPECT_EQ(registrations, 3);
  ExpectCleanExit();
  ASSERT_TRUE(sim->WaitForRequests(requests.size() + 1));
  EXPECT_EQ(sim->Requests().back().text, Unregistration());
}

}  // namespace
}  // namespace zel::app::test
