// Types into the interface of a real program on its own pseudo-terminal and
// checks every byte it writes back ("\n" arrives as "\r\n").
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "kdx_test_paths.h"
#include "tests/cli/cli_test_support.h"
#include "tests/support/log_record.h"
#include "tests/support/pty_process.h"
#include "tests/support/syslog_file.h"
#include "tests/support/temp_dir.h"

namespace zel::cli::test {
namespace {

using ::zel::test::Printable;
using ::zel::test::PtyProcess;
using ::zel::test::ReadSyslogFile;
using ::zel::test::SyslogCaptureEnv;
using ::zel::test::TempDir;
using ::zel::test::WaitForSyslogRecord;
using namespace keys;

class CliEndToEndTest : public ::testing::Test {
 protected:
  // Starts the driver and expects the banner and the first prompt.
  void Start(const std::vector<std::string>& args = {}) {
    std::vector<std::string> argv = {KDX_CLI_DRIVER_PATH};
    argv.insert(argv.end(), args.begin(), args.end());
    PtyProcess::Options options;
    options.env = SyslogCaptureEnv(LogFile());
    process = std::make_unique<PtyProcess>(argv, options);
    ASSERT_TRUE(process->WaitForOutput(kStart)) << Printable(process->Output());
    ASSERT_TRUE(process->WaitForKeyRead());
    ASSERT_EQ(Printable(process->TakeOutput()), Printable(kStart));
  }

  // Types the keys and expects exactly `expected` back, after which the
  // program waits for the next key.
  void Expect(const std::string& keys, const std::string& expected) {
    // After a failed step the output is out of step: the rest of the dialogue
    // would only wait for bytes that never come.
    if (HasFailure()) return;
    ASSERT_TRUE(process->Type(keys));
    EXPECT_TRUE(process->WaitForOutput(expected)) << Printable(process->Output());
    EXPECT_TRUE(process->WaitForKeyRead());
    EXPECT_EQ(Printable(process->TakeOutput()), Printable(expected));
  }

  // Types the keys and expects the program to end with status 0 after
  // writing exactly `expected`.
  void ExpectExit(const std::string& keys, const std::string& expected) {
    if (HasFailure()) return;
    ASSERT_TRUE(process->Type(keys));
    const std::optional<int> status = process->WaitForExit();
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(PtyProcess::ExitCode(*status), 0);
    EXPECT_EQ(Printable(process->TakeOutput()), Printable(expected));
  }

  std::string LogFile() const { return dir.File("syslog"); }

  TempDir dir;
  std::unique_ptr<PtyProcess> process;
};

TEST_F(CliEndToEndTest, StartsWithTheBannerAndThePrompt) {
  Start();
  EXPECT_TRUE(ReadSyslogFile(LogFile()).empty());
}

TEST_F(CliEndToEndTest, HelpPrintsTheCommandTable) {
  Start();
  Expect("help\r", "help\r\n" + HelpTableOnTerminal() + "hi>");
}

TEST_F(CliEndToEndTest, CommandOutputComesBeforeTheNextPrompt) {
  Start();
  Expect("send_ping 1 2\r", "send_ping 1 2\r\nran [send_ping] [1] [2]\r\nhi>");
}

TEST_F(CliEndToEndTest, QuestionMarkPrintsTheUsage) {
  Start();
  Expect("send_ping?\r", "send_ping?\r\nUsage : send_ping\r\nhi>");
}

TEST_F(CliEndToEndTest, FailingCommandsAreReported) {
  Start({"--failing"});
  Expect("fail_cmd\r", "fail_cmd\r\nFailed to do [fail_cmd] ret code [1]\r\nhi>");
  Expect("usage_cmd\r", "usage_cmd\r\nUsage : usage_cmd <text>\r\nhi>");
  Expect("code_cmd\r", "code_cmd\r\nFailed to do [code_cmd] ret code [42]\r\nhi>");
  Expect("empty_cmd\r", "empty_cmd\r\nFailed to do [empty_cmd] ret code [1]\r\nhi>");
}

TEST_F(CliEndToEndTest, UnknownCommandIsIgnored) {
  Start();
  Expect("ping\r", "ping\r\nhi>");
}

TEST_F(CliEndToEndTest, EditingKeysMoveInsertAndDelete) {
  Start();
  Expect(std::string("help") + kLeft + kLeft + "X", "help\b\bXlp\b\b");
  Expect(std::string(kEnd) + kBackspace + kBackspace, "lp\b \b\b \b");
  Expect(kHome, "\b\b\b");
  Expect(kEnter, "\r\nhi>");
}

TEST_F(CliEndToEndTest, CompletionCompletesASingleMatch) {
  Start();
  Expect(std::string("s") + kTab, "s" + EraseLine(1) + "send_ping");
  Expect(kEnter, "\r\nran [send_ping]\r\nhi>");
}

TEST_F(CliEndToEndTest, CompletionListIsShownNavigatedAndSelected) {
  Start();
  const std::string restore =
      "\x1b[1F\x1b[1F\r\n" + std::string(17, ' ') + "\r\n" + std::string(13, ' ') + "\x1b[1F\x1b[1Fhi>a";
  Expect(std::string("a") + kTab, "a\x1b[31m\r\natcmd_wlanapclist\x1b[0m\r\natcmd_wlanmac");
  Expect(kDown, restore + "\r\natcmd_wlanapclist\x1b[31m\r\natcmd_wlanmac\x1b[0m");
  Expect(kEnter, restore + EraseLine(1) + "atcmd_wlanmac");
  Expect(kEnter, "\r\nran [atcmd_wlanmac]\r\nhi>");
}

TEST_F(CliEndToEndTest, CompletionListClosesOnBackspace) {
  Start();
  Expect(std::string("a") + kTab, "a\x1b[31m\r\natcmd_wlanapclist\x1b[0m\r\natcmd_wlanmac");
  Expect(kBackspace,
         "\x1b[1F\x1b[1F\r\n" + std::string(17, ' ') + "\r\n" + std::string(13, ' ') + "\x1b[1F\x1b[1Fhi>a");
  Expect(kBackspace, "\b \b");
}

TEST_F(CliEndToEndTest, HistoryRecallsAndRunsAnEarlierLine) {
  Start();
  Expect("send_ping 1\r", "send_ping 1\r\nran [send_ping] [1]\r\nhi>");
  Expect("help\r", "help\r\n" + HelpTableOnTerminal() + "hi>");
  Expect(std::string("x") + kUp, "x" + EraseLine(1) + "help");
  Expect(kUp, EraseLine(4) + "send_ping 1");
  Expect(kUp, "");
  Expect(kPageDown, EraseLine(11) + "x");
  Expect(kPageUp, EraseLine(1) + "send_ping 1");
  Expect(kEnter, "\r\nran [send_ping] [1]\r\nhi>");
}

TEST_F(CliEndToEndTest, PastedLongLineIsEchoedAndRun) {
  Start();
  const std::string words = Times(" word", 60);  // 300 characters
  Expect("send_ping" + words + "\r", "send_ping" + words + "\r\nran [send_ping]" + Times(" [word]", 9) + "\r\nhi>");
}

TEST_F(CliEndToEndTest, UnknownKeyIsLoggedAndNotShown) {
  Start();
  ASSERT_TRUE(process->Type("\x01"));
  EXPECT_TRUE(WaitForSyslogRecord(LogFile(), UnknownKeyRecord(0x1)));
  EXPECT_TRUE(process->WaitForKeyRead());
  EXPECT_EQ(ReadSyslogFile(LogFile()).size(), 1u);
  Expect("\r", "\r\nhi>");  // nothing was shown for the key
}

TEST_F(CliEndToEndTest, ExitEndsTheProgramWithStatusZero) {
  Start();
  ExpectExit("exit\r", "exit\r\n");
}

TEST_F(CliEndToEndTest, QuitEndsTheProgramWithStatusZero) {
  Start();
  Expect("help\r", "help\r\n" + HelpTableOnTerminal() + "hi>");
  ExpectExit("quit\r", "quit\r\n");
}

}  // namespace
}  // namespace zel::cli::test
