// Signals: SIGINT and SIGTERM are reported and the session goes on; SIGSEGV
// is reported and ends the program with status 255 through its normal
// clean-up. A signal taken by the main thread while it waits for a key makes
// the console read the key byte 0, which it logs as unknown and otherwise
// ignores; one taken while it waits for a reply leaves the wait going on for
// the rest of its time.
// Signals are sent to the process, as an operator's kill or Ctrl-C would be;
// the program keeps them from its other threads, so the main thread takes
// every one.
#include <signal.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "tests/app/app_test.h"
#include "tests/support/syslog_file.h"

namespace zel::app::test {
namespace {

bool Exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

size_t Count(const std::vector<LogRecord>& records, const LogRecord& record) {
  return static_cast<size_t>(std::count(records.begin(), records.end(), record));
}

class SignalTest : public AppTest {
 protected:
  // The program's handler prints with printf, as it is meant to; the thread
  // sanitizer would report that as a signal-unsafe call and stop it.
  SignalTest() {
    const char* tsan = std::getenv("TSAN_OPTIONS");
    clientEnv.push_back("TSAN_OPTIONS=" + std::string(tsan != nullptr ? tsan : "") +
                        (tsan != nullptr && *tsan != '\0' ? ":" : "") + "report_signal_unsafe=0");
  }

  // Sends the signal while the program waits for a key at the prompt.
  void SignalAtThePrompt(int signo) {
    ASSERT_TRUE(client->WaitForKeyRead());
    ASSERT_TRUE(WaitUntilBlockedInPoll());
    client->Signal(signo);
  }

  void ExpectReportedAndSessionGoesOn(int signo) {
    StartSim();
    StartSession();
    SignalAtThePrompt(signo);
    const std::string report = "got SIGNAL [" + std::to_string(signo) + "]\r\n";
    ASSERT_TRUE(client->WaitForOutput(report));
    ASSERT_TRUE(WaitForRecord(UnknownKey(0))) << ::testing::PrintToString(Records());
    // The prompt is not printed again; the line goes on where it was.
    ExpectShown(report);
    Expect("send_ping\r", "send_ping\r\nPING response : PONG\r\nhi>");
    EXPECT_EQ(Count(Records(), UnknownKey(0)), 1u);
  }
};

TEST_F(SignalTest, SigintIsReportedAndThePromptKeepsWorking) { ExpectReportedAndSessionGoesOn(SIGINT); }

TEST_F(SignalTest, SigtermIsReportedAndThePromptKeepsWorking) { ExpectReportedAndSessionGoesOn(SIGTERM); }

TEST_F(SignalTest, CtrlCIsReportedAndThePromptKeepsWorking) {
  StartSim();
  StartSession();
  ASSERT_TRUE(client->WaitForKeyRead());
  ASSERT_TRUE(WaitUntilBlockedInPoll());
  ASSERT_TRUE(client->Type("\x03"));
  ASSERT_TRUE(client->WaitForOutput("got SIGNAL [2]\r\n"));
  ExpectShown("got SIGNAL [2]\r\n");
  Expect("send_ping\r", "send_ping\r\nPING response : PONG\r\nhi>");
  // The main thread took the signal: its key read was interrupted.
  EXPECT_EQ(Count(Records(), UnknownKey(0)), 1u);
}

TEST_F(SignalTest, SignalLeavesTheLineBeingTypedAsItWas) {
  StartSim();
  StartSession();
  Expect("send_", "send_");
  SignalAtThePrompt(SIGINT);
  ASSERT_TRUE(client->WaitForOutput("got SIGNAL [2]\r\n"));
  ASSERT_TRUE(WaitForRecord(UnknownKey(0)));
  Expect("ping\r", "got SIGNAL [2]\r\nping\r\nPING response : PONG\r\nhi>");
}

TEST_F(SignalTest, EverySignalIsReported) {
  StartSim();
  StartSession();
  for (int signo : {SIGINT, SIGTERM, SIGINT}) {
    SignalAtThePrompt(signo);
    ASSERT_TRUE(client->WaitForOutput("got SIGNAL [" + std::to_string(signo) + "]\r\n"));
    ExpectShown("got SIGNAL [" + std::to_string(signo) + "]\r\n");
  }
  EXPECT_TRUE(::zel::test::WaitForSyslogFile(
      SyslogFile(), [](const std::vector<LogRecord>& records) { return Count(records, UnknownKey(0)) == 3; }));
  ExpectEnd("exit\r", "exit\r\n");
}

TEST_F(SignalTest, SigsegvIsReportedAndEndsTheProgramWith255) {
  StartSim();
  StartSession();
  SignalAtThePrompt(SIGSEGV);
  const std::optional<int> status = client->WaitForExit();
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(PtyProcess::ExitCode(*status), 255);
  EXPECT_EQ(client->Output(), "got SIGNAL [11]\r\n");
}

TEST_F(SignalTest, SigsegvDuringAKeyReadPutsTheTerminalBackIntoLineMode) {
  StartSim();
  StartSession();
  SignalAtThePrompt(SIGSEGV);
  ASSERT_TRUE(client->WaitForExit().has_value());
  EXPECT_FALSE(client->ReadsKeyNow());
}

TEST_F(SignalTest, SigsegvStillUnregistersAndRemovesTheSockets) {
  StartSim();
  StartSession();
  SignalAtThePrompt(SIGSEGV);
  ASSERT_TRUE(client->WaitForExit().has_value());
  ASSERT_TRUE(sim->WaitForRequests(2));
  EXPECT_EQ(sim->Requests().back().text, Unregistration());
  EXPECT_FALSE(Exists(ClientPath()));
  EXPECT_FALSE(Exists(EventPath()));
}

TEST_F(SignalTest, SignalDuringARequestLeavesItWaitingForItsOwnReply) {
  // The reply comes 3 s late; the signal cuts the wait short, and the wait
  // goes on for the rest of its 5 s, so the reply still answers this request.
  StartSim({"--delay", "3000", "--faults-on", "1"});
  StartSession();
  ASSERT_TRUE(client->Type("send_ping\r"));
  ASSERT_TRUE(sim->WaitForRequests(2));
  ASSERT_TRUE(WaitUntilBlockedInPoll());
  client->Signal(SIGINT);
  ASSERT_TRUE(client->WaitForOutput("hi>"));
  EXPECT_TRUE(client->WaitForKeyRead());
  EXPECT_EQ(client->TakeOutput(), "send_ping\r\ngot SIGNAL [2]\r\nPING response : PONG\r\nhi>");
  const std::vector<LogRecord> records = Records();
  ASSERT_GE(records.size(), 3u);
  EXPECT_EQ(
      std::vector<LogRecord>(records.end() - 3, records.end()),
      (std::vector<LogRecord>{
          {LOG_DEBUG, "client snd [1]\n"                                                                           },
          {LOG_ERR,   "ssize_t zel::util::Socket::RecvTimedWait(void*, size_t, uint64_t) 639: res [-1] errno [4]\n"},
          {LOG_DEBUG, "client rcv [1\tPONG]\n"                                                                     }
  }));
  // The next request gets its own reply, not a stale one.
  Expect("send_ping\r", "send_ping\r\nPING response : PONG\r\nhi>");
}

}  // namespace
}  // namespace zel::app::test
