// Standard output into a pipe, as in `kendrivex-cli svc dir | tee session.log`:
// the keys still come from the terminal, and every line reaches the pipe as
// soon as it is complete, not when the session ends. The pipe carries the
// bytes a terminal gets, in the same order, without the terminal's "\r\n".
#include <signal.h>

#include <optional>
#include <string>

#include "tests/app/app_test.h"
#include "tests/support/pty_process.h"

namespace zel::app::test {
namespace {

// The banner and the first prompt as the pipe carries them.
const char kPipedStart[] = "*******************************\n kendrivex cli\n*******************************\nhi>";

class PipedOutputTest : public AppTest {
 protected:
  // Starts the program against the simulator with its standard output on a
  // pipe, and waits for the banner and the prompt there.
  void StartPipedSession() {
    StartSim();
    PtyProcess::Options options;
    options.output = PtyProcess::OutputSink::Pipe;
    StartClient(std::nullopt, options);
    ASSERT_TRUE(client->WaitForPipeOutput(kPipedStart)) << client->PipeOutput();
    ASSERT_TRUE(client->WaitForKeyRead());
  }
};

TEST_F(PipedOutputTest, ReplyReachesThePipeWhileTheSessionGoesOn) {
  StartPipedSession();
  ASSERT_TRUE(client->Type("send_ping\r"));
  ASSERT_TRUE(client->WaitForPipeOutput("PING response : PONG\n")) << client->PipeOutput();
  // The program waits at the next prompt: the session has not ended.
  ASSERT_TRUE(client->WaitForKeyRead());
  EXPECT_EQ(client->PipeOutput(), std::string(kPipedStart) + "send_ping\nPING response : PONG\nhi>");
}

TEST_F(PipedOutputTest, SignalReportReachesThePipeAtOnceAfterThePrompt) {
  AllowPrintingSignalHandler();
  StartPipedSession();
  SignalAtThePrompt(SIGINT);
  ASSERT_TRUE(client->WaitForPipeOutput("got SIGNAL [2]\n")) << client->PipeOutput();
  ASSERT_TRUE(client->WaitForKeyRead());
  EXPECT_EQ(client->PipeOutput(), std::string(kPipedStart) + "got SIGNAL [2]\n");
}

TEST_F(PipedOutputTest, SessionCarriesTheTerminalsBytesInOrder) {
  StartPipedSession();
  struct Step {
    const char* keys;
    const char* shown;
  };
  const Step steps[] = {
      {"send_ping\r",         "send_ping\nPING response : PONG\nhi>"           },
      {"atcmd_wlanmac\r",     "atcmd_wlanmac\nWIFI MAC: 02:1a:7d:4c:88:e1\nhi>"},
      {"atcmd_wlanapclist\r",
       "atcmd_wlanapclist\n"
       "f2:3a:9c:51:0e:47 192.168.43.12 pixel-7\n"
       "3c:22:fb:91:4d:a7 192.168.43.27 maintenance-laptop\n"
       "b8:27:eb:6f:03:d2 192.168.43.40 sensor-gateway\n"
       "hi>"                                                                   },
      {"send_ping?\r",        "send_ping?\nUsage : send_ping\nhi>"             },
  };
  std::string expected = kPipedStart;
  for (const Step& step : steps) {
    ASSERT_TRUE(client->Type(step.keys));
    expected += step.shown;
    ASSERT_TRUE(client->WaitForPipeOutput(expected)) << client->PipeOutput();
  }
  ASSERT_TRUE(client->Type("exit\r"));
  const std::optional<int> status = client->WaitForExit();
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(PtyProcess::ExitCode(*status), 0);
  EXPECT_EQ(client->PipeOutput(), expected + "exit\n");
}

}  // namespace
}  // namespace zel::app::test
