// The loop ends on its own when standard input ends or when a stop is
// requested (as the program's hang-up handler does), without running a line
// that was left unfinished and without printing anything more.
#include <poll.h>
#include <pthread.h>
#include <signal.h>

#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "tests/cli/cli_test_support.h"
#include "tests/cli/test_commands.h"
#include "tests/support/syslog_capture.h"

namespace zel::cli::test {
namespace {

using ::zel::test::LogRecord;
using ::zel::test::SyslogCapture;
using Records = std::vector<LogRecord>;

class SessionEndTest : public CliTest {
 protected:
  SessionEndTest() { cli.setBanner(kBanner); }
};

TEST_F(SessionEndTest, EndOfInputEndsRunWithoutRunningTheUnfinishedLine) {
  StdinPipe input;
  input.Write("help");
  std::thread ender([&] {
    input.WaitUntilAllRead();
    input.CloseWriter();
  });
  cli.run();
  ender.join();
  EXPECT_EQ(Written(), kStart + "help");
  EXPECT_TRUE(history().empty());
}

TEST_F(SessionEndTest, LineFinishedBeforeTheEndOfInputIsRun) {
  StdinPipe input;
  input.Write("help\r");
  std::thread ender([&] {
    input.WaitUntilAllRead();
    input.CloseWriter();
  });
  cli.run();
  ender.join();
  EXPECT_EQ(Written(), kStart + "help\r\n" + HelpTableOnTerminal() + "hi>");
}

TEST_F(SessionEndTest, EndOfInputLeavesTheLoopNotRunning) {
  StdinPipe input;
  input.CloseWriter();
  cli.run();
  EXPECT_FALSE(Access::running(cli));
}

TEST_F(SessionEndTest, StopRequestedBeforeRunPrintsNothing) {
  cli.requestStop();
  cli.run();
  EXPECT_EQ(Written(), "");
  EXPECT_EQ(SyslogCapture::Records(), Records());
}

TEST_F(SessionEndTest, StopRequestedByACommandEndsRunAfterItWithoutAPrompt) {
  cli.registerCommands({
      {"hangup", "", "hangup", [this](int, char**) {
         std::printf("ran\n");
         cli.requestStop();
         return Result::Ok;
       }}
  });
  terminal.Type("hangup\r");
  cli.run();
  EXPECT_EQ(Written(), kStart + "hangup\r\nran\r\n");
  EXPECT_EQ(history(), std::list<std::string>{"hangup"});
}

// The interface that the signal handler below stops.
CmdLineInterface* gStopped = nullptr;

void StopFromSignal(int /*signo*/) { gStopped->requestStop(); }

// ThreadSanitizer's runtime (that of GCC 12) sets up a thread's record of
// pending signals at the thread's first blocking call. A signal that arrives
// while it does so is kept in a second record, which the first then replaces:
// the handler never runs, and the wait it should end goes on. The loop
// thread's first blocking call would be the wait for a key, just when the
// helper sends its signal, so it makes one before; a poll of no descriptors
// returns at once. Without the sanitizer this changes nothing.
void MakeFirstBlockingCall() { ::poll(nullptr, 0, 0); }

TEST_F(SessionEndTest, StopRequestedFromASignalHandlerEndsTheWaitForAKey) {
  gStopped = &cli;
  struct sigaction action = {};
  action.sa_handler = StopFromSignal;
  sigemptyset(&action.sa_mask);
  struct sigaction saved = {};
  sigaction(SIGUSR1, &action, &saved);
  const pthread_t loopThread = pthread_self();
  MakeFirstBlockingCall();
  std::thread stopper([&] {
    terminal.pty().WaitForKeyRead(std::chrono::seconds(10));
    pthread_kill(loopThread, SIGUSR1);
  });
  cli.run();
  stopper.join();
  sigaction(SIGUSR1, &saved, nullptr);
  EXPECT_EQ(Written(), kStart);
  // The interrupted key read yields byte 0, which is logged as unknown.
  EXPECT_EQ(SyslogCapture::Records(), Records({UnknownKeyRecord(0x0)}));
}

}  // namespace
}  // namespace zel::cli::test
