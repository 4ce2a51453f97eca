// A hang-up or a segmentation fault while a device command waits for its
// reply: the program still ends, with its socket files removed. A hang-up lets
// the command finish (its wait goes on to the reply time-out) and then ends
// as "exit" does; SIGSEGV is reported and ends the program at once through
// exit(), whose clean-up must not wait for the request that it interrupted.
#include <signal.h>
#include <syslog.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "tests/app/fault_matrix.h"

namespace zel::app::test {
namespace {

// The 5-second reply time-out (or the wait for the send lock at exit, as
// long) and the unregistration after it, with room to spare: a bound that
// catches a hang, not a measurement.
constexpr std::chrono::seconds kEndBound(10);

class SignalDuringRequestTest : public FaultMatrixTest {
 protected:
  SignalDuringRequestTest() { AllowPrintingSignalHandler(); }

  // Against the fake service, which never answers a ping: sends the signal
  // while send_ping waits for its reply, then waits for the end; false when
  // the program did not end.
  bool SignalDuringPing(int signo) {
    StartFake();
    StartSession();
    if (HasFatalFailure()) return false;
    if (!client->Type("send_ping\r") || !fake->WaitForRequestsFor(1, 1)) return false;
    if (!WaitUntilBlockedInPoll()) return false;
    client->Signal(signo);
    status = client->WaitForExit(kEndBound);
    return status.has_value();
  }

  std::optional<int> status;
};

TEST_F(SignalDuringRequestTest, HangUpLetsTheCommandFinishAndEndsWithStatus129) {
  ASSERT_TRUE(SignalDuringPing(SIGHUP));
  EXPECT_EQ(PtyProcess::ExitCode(*status), 129);
  EXPECT_EQ(client->Output(), "send_ping\r\nPING response : FAIL\r\n");
}

TEST_F(SignalDuringRequestTest, HangUpSendsTheUnregistrationAndLeavesNoSocketFile) {
  ASSERT_TRUE(SignalDuringPing(SIGHUP));
  ASSERT_TRUE(fake->WaitForRequestsFor(5, 1));
  EXPECT_EQ(fake->Requests().back().text, Unregistration());
  EXPECT_EQ(ClientFilesLeft(), std::vector<std::string>());
}

TEST_F(SignalDuringRequestTest, SegvIsReportedAndEndsWithStatus255) {
  ASSERT_TRUE(SignalDuringPing(SIGSEGV));
  EXPECT_EQ(PtyProcess::ExitCode(*status), 255);
  EXPECT_EQ(client->Output(), "send_ping\r\ngot SIGNAL [11]\r\n");
}

TEST_F(SignalDuringRequestTest, SegvLeavesNoSocketFile) {
  ASSERT_TRUE(SignalDuringPing(SIGSEGV));
  EXPECT_EQ(ClientFilesLeft(), std::vector<std::string>());
}

TEST_F(SignalDuringRequestTest, SegvLogsThatTheInterruptedRequestKeptTheUnregistrationBack) {
  ASSERT_TRUE(SignalDuringPing(SIGSEGV));
  EXPECT_EQ(Count({LOG_WARNING,
                   "zel::ipc::IPCClient::~IPCClient() 31: a request still holds the send mutex after "
                   "[5000000] us, [" +
                       EventPath() + "] not unregistered\n"}),
            1u);
  EXPECT_EQ(fake->RequestsFor(5).size(), 0u);
}

}  // namespace
}  // namespace zel::app::test
