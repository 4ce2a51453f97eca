// A hang-up (SIGHUP, as when the terminal closes or an ssh connection drops)
// at the prompt ends the program as "exit" does: the service hears the
// unregistration, the socket files go, the terminal gets back the mode it
// had, nothing is printed (the terminal is gone), and the status is 129.
#include <signal.h>

#include <optional>
#include <string>
#include <vector>

#include "tests/app/fault_matrix.h"

namespace zel::app::test {
namespace {

class HangUpTest : public FaultMatrixTest {
 protected:
  // Starts a session against the simulator, types `keys` (no Enter), hangs
  // it up at the prompt and waits for the end; false when it did not end.
  bool HangUpAtThePrompt(const std::string& keys = "") {
    StartSim();
    StartSession();
    if (HasFatalFailure()) return false;
    if (!keys.empty()) Expect(keys, keys);
    SignalAtThePrompt(SIGHUP);
    if (HasFatalFailure()) return false;
    status = client->WaitForExit();
    return status.has_value();
  }

  std::optional<int> status;
};

TEST_F(HangUpTest, EndsWithStatus129) {
  ASSERT_TRUE(HangUpAtThePrompt());
  EXPECT_EQ(PtyProcess::ExitCode(*status), 129);
}

TEST_F(HangUpTest, PrintsNothing) {
  ASSERT_TRUE(HangUpAtThePrompt());
  EXPECT_EQ(client->Output(), "");
}

TEST_F(HangUpTest, SendsTheUnregistration) {
  ASSERT_TRUE(HangUpAtThePrompt());
  ExpectOnlyRegistrationAndUnregistration();
}

TEST_F(HangUpTest, LeavesNoSocketFileBehind) {
  ASSERT_TRUE(HangUpAtThePrompt());
  EXPECT_EQ(ClientFilesLeft(), std::vector<std::string>());
}

TEST_F(HangUpTest, PutsBackTheTerminalModeThatTheProgramStartedWith) {
  ASSERT_TRUE(HangUpAtThePrompt());
  EXPECT_TRUE(client->SettingsAsAtStart());
}

TEST_F(HangUpTest, LogsTheInterruptedKeyReadOnce) {
  ASSERT_TRUE(HangUpAtThePrompt());
  EXPECT_EQ(UnknownKeyRecords(), std::vector<LogRecord>{UnknownKey(0)});
}

TEST_F(HangUpTest, LineBeingTypedIsNotRun) {
  ASSERT_TRUE(HangUpAtThePrompt("send_ping"));
  EXPECT_EQ(client->Output(), "");
  ExpectOnlyRegistrationAndUnregistration();
}

}  // namespace
}  // namespace zel::app::test
