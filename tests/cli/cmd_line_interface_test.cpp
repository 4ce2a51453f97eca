#include "cli/cmd_line_interface.h"

#include <syslog.h>

#include <list>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "tests/cli/cli_test_support.h"
#include "tests/cli/test_commands.h"
#include "tests/support/syslog_capture.h"

namespace zel::cli::test {
namespace {

using ::zel::test::LogRecord;
using ::zel::test::SyslogCapture;
using Command = CmdLineInterface::Command;
using History = std::list<std::string>;
using Records = std::vector<LogRecord>;

std::string Blanks(size_t count) { return std::string(count, ' '); }

const std::string kHelpTable = HelpTableOnTerminal();

class CmdLineInterfaceTest : public CliTest {};

// --- Construction and registration ---

TEST(CmdLineInterfaceConstructionTest, StartsWithDefaultsAndTheBuiltins) {
  CmdLineInterface cli;
  EXPECT_EQ(Access::defaultPrompt(cli), "cli>");
  EXPECT_EQ(Access::maxHistory(cli), 20u);
  EXPECT_FALSE(Access::running(cli));
  EXPECT_EQ(Access::maxNameWidth(cli), 4u);
  EXPECT_EQ(Access::maxExplainWidth(cli), 18u);
  EXPECT_EQ(Access::currentLine(cli), "");
  EXPECT_EQ(Access::screen(cli), nullptr);
}

TEST(CmdLineInterfaceConstructionTest, SettersAndHooksReportSuccess) {
  CmdLineInterface cli;
  EXPECT_EQ(cli.setPrompt("p>"), Result::Ok);
  EXPECT_EQ(cli.setBanner("b"), Result::Ok);
  EXPECT_TRUE(cli.notifySignal());
  EXPECT_FALSE(Access::running(cli));
}

TEST_F(CmdLineInterfaceTest, RegistrationTracksTheWidestNameAndExplanation) {
  EXPECT_EQ(Access::maxNameWidth(cli), 17u);
  EXPECT_EQ(Access::maxExplainWidth(cli), 40u);
  cli.registerCommands({
      {"n", std::string(45, 'e'), "n", nullptr}
  });
  EXPECT_EQ(Access::maxNameWidth(cli), 17u);
  EXPECT_EQ(Access::maxExplainWidth(cli), 45u);
}

TEST_F(CmdLineInterfaceTest, SetColorForwardsToTheConsole) {
  EXPECT_TRUE(cli.setColor(Console::Color::Green));
  ASSERT_EQ(Written(), "\x1b[32m");
}

// --- help ---

TEST_F(CmdLineInterfaceTest, HelpPrintsHeaderAndRowsPaddedToTheWidths) {
  RunLine("help\r");
  ASSERT_EQ(Written(), "help\r\n" + kHelpTable);
  EXPECT_EQ(history(), History({"help"}));
}

TEST_F(CmdLineInterfaceTest, ShowHelpIgnoresItsArgumentsAndReturnsOk) {
  EXPECT_EQ(cli.showHelp(0, nullptr), Result::Ok);
  ASSERT_EQ(Written(), kHelpTable);
}

TEST_F(CmdLineInterfaceTest, HelpNeverCutsAndPadsOnlyShorterTexts) {
  CmdLineInterface bare;
  bare.showHelp(0, nullptr);
  ASSERT_EQ(Written(), "cmd:\texplain:" + Blanks(10) + "\tusage:\r\n" + "help\tshow commands list\thelp\r\n" +
                           "exit\texit program" + Blanks(6) + "\texit\r\n" + "quit\tquit program" + Blanks(6) +
                           "\tquit\r\n");
}

TEST_F(CmdLineInterfaceTest, HelpFollowedByWordsRunsHelpAndRecordsTheWholeLine) {
  RunLine("help me  now\r");
  ASSERT_EQ(Written(), "help me  now\r\n" + kHelpTable);
  EXPECT_EQ(history(), History({"help me  now"}));
}

TEST_F(CmdLineInterfaceTest, HelpPrecededByBlanksRuns) {
  RunLine("   help\r");
  ASSERT_EQ(Written(), "   help\r\n" + kHelpTable);
}

TEST_F(CmdLineInterfaceTest, HelpFollowedByATabRuns) {
  // Escape then Tab puts the tab byte into the line.
  RunLine("help\x1b\t\r");
  ASSERT_EQ(Written(), "help\t\r\n" + kHelpTable);
  EXPECT_EQ(history(), History({"help\t"}));
}

// --- Splitting and dispatch ---

TEST_F(CmdLineInterfaceTest, HandlerReceivesTheWordsSplitAtBlanksAndTabs) {
  line() = " \tsend_ping  a\t\tb \"c d\" ";
  Access::executeLine(cli);
  ASSERT_EQ(Written(), "ran [send_ping] [a] [b] [\"c] [d\"]\r\n");
}

TEST_F(CmdLineInterfaceTest, ElevenWordsPassOnlyTheFirstTen) {
  RunLine("send_ping 1 2 3 4 5 6 7 8 9 10 11\r");
  ASSERT_EQ(Written(),
            "send_ping 1 2 3 4 5 6 7 8 9 10 11\r\n"
            "ran [send_ping] [1] [2] [3] [4] [5] [6] [7] [8] [9]\r\n");
  EXPECT_EQ(history(), History({"send_ping 1 2 3 4 5 6 7 8 9 10 11"}));
}

TEST_F(CmdLineInterfaceTest, QuestionMarkPrintsUsageWithoutRunningOrRecording) {
  RunLine("send_ping?\r");
  ASSERT_EQ(Written(), "send_ping?\r\nUsage : send_ping\r\n");
  EXPECT_EQ(history(), History());
}

TEST_F(CmdLineInterfaceTest, QuestionMarkWithFurtherWordsStillPrintsUsage) {
  RunLine("atcmd_wlanmac? now\r");
  ASSERT_EQ(Written(), "atcmd_wlanmac? now\r\nUsage : atcmd_wlanmac\r\n");
  EXPECT_EQ(history(), History());
}

TEST_F(CmdLineInterfaceTest, LoneQuestionMarkIsIgnored) {
  RunLine("?\r");
  ASSERT_EQ(Written(), "?\r\n");
  EXPECT_EQ(history(), History());
}

TEST_F(CmdLineInterfaceTest, QuestionMarkIsCutFromTheWordInPlace) {
  char word[] = "help?";
  char* argv[] = {word};
  EXPECT_EQ(Access::dispatch(cli, 1, argv), Result::Ok);
  EXPECT_STREQ(word, "help");
  ASSERT_EQ(Written(), "Usage : help\r\n");
}

TEST_F(CmdLineInterfaceTest, UnknownWordIsSilentlyIgnored) {
  RunLine("bogus 1\r");
  ASSERT_EQ(Written(), "bogus 1\r\n");
  EXPECT_EQ(history(), History());
  EXPECT_EQ(SyslogCapture::Records(), Records());
}

TEST_F(CmdLineInterfaceTest, NamesMatchExactlyAndCaseSensitively) {
  RunLine("HELP\r");
  RunLine("hel\r");
  RunLine("helpx\r");
  ASSERT_EQ(Written(), "HELP\r\nhel\r\nhelpx\r\n");
  EXPECT_EQ(history(), History());
}

TEST_F(CmdLineInterfaceTest, EmptyLineDoesNothing) {
  RunLine("\r");
  ASSERT_EQ(Written(), "\r\n");
  EXPECT_EQ(history(), History());
}

TEST_F(CmdLineInterfaceTest, LineOfBlanksDispatchesNothing) {
  RunLine(" \x1b\t \r");
  ASSERT_EQ(Written(), " \t \r\n");
  EXPECT_EQ(history(), History());
  EXPECT_EQ(Access::dispatch(cli, 0, nullptr), Result::Ok);
}

TEST_F(CmdLineInterfaceTest, FailResultIsReportedWithItsCodeAndRecorded) {
  cli.registerCommands(FailingCommands());
  RunLine("fail_cmd\r");
  ASSERT_EQ(Written(), "fail_cmd\r\nFailed to do [fail_cmd] ret code [1]\r\n");
  EXPECT_EQ(history(), History({"fail_cmd"}));
}

TEST_F(CmdLineInterfaceTest, UsageResultPrintsTheUsageTextAndIsRecorded) {
  cli.registerCommands(FailingCommands());
  RunLine("usage_cmd x\r");
  ASSERT_EQ(Written(), "usage_cmd x\r\nUsage : usage_cmd <text>\r\n");
  EXPECT_EQ(history(), History({"usage_cmd x"}));
}

TEST_F(CmdLineInterfaceTest, OtherResultIsReportedAsFailureWithItsNumber) {
  cli.registerCommands(FailingCommands());
  RunLine("code_cmd\r");
  ASSERT_EQ(Written(), "code_cmd\r\nFailed to do [code_cmd] ret code [42]\r\n");
  EXPECT_EQ(history(), History({"code_cmd"}));
}

TEST_F(CmdLineInterfaceTest, CommandWithoutHandlerFailsWithCodeOne) {
  cli.registerCommands(FailingCommands());
  RunLine("empty_cmd\r");
  ASSERT_EQ(Written(), "empty_cmd\r\nFailed to do [empty_cmd] ret code [1]\r\n");
  EXPECT_EQ(history(), History({"empty_cmd"}));
}

TEST_F(CmdLineInterfaceTest, BuiltinsCannotBeOverridden) {
  cli.registerCommands({
      {"help", "another help", "help", [](int, char**) {
         std::printf("the other help\n");
         return Result::Ok;
       }}
  });
  RunLine("help\r");
  const std::string written = Written();
  EXPECT_EQ(written.find("the other help"), std::string::npos);
  EXPECT_NE(written.find("help" + Blanks(13) + "\tanother help"), std::string::npos);
}

TEST_F(CmdLineInterfaceTest, HandlerThatRegistersCommandsIsStillReportedByItsName) {
  cli.registerCommands({
      {"grow", "registers more", "grow", [this](int, char**) {
         cli.registerCommands(std::vector<Command>(64, Command{"x", "", "", {}}));
         return Result::Fail;
       }}
  });
  RunLine("grow\r");
  ASSERT_EQ(Written(), "grow\r\nFailed to do [grow] ret code [1]\r\n");
}

// --- History recording ---

TEST_F(CmdLineInterfaceTest, SameCommandTwiceInARowIsRecordedOnce) {
  RunLine("send_ping\r");
  RunLine("send_ping\r");
  EXPECT_EQ(history(), History({"send_ping"}));
  RunLine("help\r");
  RunLine("send_ping\r");
  EXPECT_EQ(history(), History({"send_ping", "help", "send_ping"}));
}

TEST_F(CmdLineInterfaceTest, RepeatsDifferingInBlanksAreRecordedSeparately) {
  RunLine("send_ping\r");
  RunLine("send_ping \r");
  EXPECT_EQ(history(), History({"send_ping ", "send_ping"}));
}

TEST_F(CmdLineInterfaceTest, TwentyFirstDistinctCommandPushesOutTheOldest) {
  for (int i = 1; i <= 21; ++i) RunLine("send_ping " + std::to_string(i) + "\r");
  ASSERT_EQ(history().size(), 20u);
  EXPECT_EQ(history().front(), "send_ping 21");
  EXPECT_EQ(history().back(), "send_ping 2");
}

// --- The run loop ---

TEST_F(CmdLineInterfaceTest, RunPrintsTheBannerOnceAndThePromptBeforeEachLine) {
  cli.setBanner(kBanner);
  terminal.Type("\rsend_ping\rquit\r");
  cli.run();
  ASSERT_EQ(Written(),
            "*******************************\r\n kendrivex cli\r\n"
            "*******************************\r\n"
            "hi>\r\n"
            "hi>send_ping\r\nran [send_ping]\r\n"
            "hi>quit\r\n");
}

TEST_F(CmdLineInterfaceTest, ExitEndsRunAfterTheCurrentLine) {
  terminal.Type("help\rexit\rsend_ping\r");
  cli.run();
  ASSERT_EQ(Written(), "hi>help\r\n" + kHelpTable + "hi>exit\r\n");
  EXPECT_FALSE(Access::running(cli));
  EXPECT_EQ(history(), History({"exit", "help"}));
  EXPECT_EQ(PendingInput(), std::string("send_ping\r").size());
}

TEST_F(CmdLineInterfaceTest, QuitEndsRunAfterTheCurrentLine) {
  terminal.Type("quit now\rsend_ping\r");
  cli.run();
  ASSERT_EQ(Written(), "hi>quit now\r\n");
  EXPECT_EQ(history(), History({"quit now"}));
  EXPECT_EQ(PendingInput(), std::string("send_ping\r").size());
}

TEST_F(CmdLineInterfaceTest, StopWakesTheConsole) {
  EXPECT_EQ(cli.stop(0, nullptr), Result::Ok);
  EXPECT_EQ(Access::console(cli).GetChar(), 0);
}

TEST_F(CmdLineInterfaceTest, UnknownCommandsDoNotEndRun) {
  terminal.Type("stop\rend\rexit\r");
  cli.run();
  ASSERT_EQ(Written(), "hi>stop\r\nhi>end\r\nhi>exit\r\n");
}

}  // namespace
}  // namespace zel::cli::test
