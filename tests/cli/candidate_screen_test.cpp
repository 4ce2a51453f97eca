#include "cli/candidate_screen.h"

#include <list>
#include <memory>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "tests/cli/cli_test_support.h"
#include "tests/cli/test_commands.h"
#include "tests/support/pty_stdio.h"
#include "tests/support/syslog_capture.h"

namespace zel::cli::test {
namespace {

using ::zel::test::LogRecord;
using ::zel::test::SyslogCapture;
using Names = std::list<std::string>;
using Records = std::vector<LogRecord>;
using Screen = Access::Screen;
using namespace keys;

const Names kAtcmdNames = {"atcmd_wlanapclist", "atcmd_wlanmac"};

// The list as the terminal receives it, the selected name in red.
std::string Drawn(const Names& names, int selected) {
  std::string drawn;
  int index = 0;
  for (const std::string& name : names) {
    const bool highlighted = index++ == selected;
    drawn += (highlighted ? "\x1b[31m" : "") + std::string("\r\n") + name + (highlighted ? "\x1b[0m" : "");
  }
  return drawn;
}

// The restore text of the two atcmd names after typing `typed`, as the
// terminal receives it.
std::string AtcmdRestore(const std::string& typed) {
  return "\x1b[1F\x1b[1F\r\n" + std::string(17, ' ') + "\r\n" + std::string(13, ' ') + "\x1b[1F\x1b[1Fhi>" + typed;
}

class CandidateScreenTest : public CliTest {
 protected:
  // Types "a" and Tab, which opens the list of the two atcmd names.
  void OpenAtcmdScreen() {
    Edit({"a", kTab});
    ASSERT_NE(screen(), nullptr);
    Written();
  }
  int32_t selected() { return Access::selected(*screen()); }
  // Hands one key to the open screen alone, without the editor.
  Screen::KeyOutcome OnKey(KeyType type) {
    Console::KeyInfo info{0, type};
    return screen()->onKey(&info);
  }
};

// --- Completing ---

struct Completion {
  const char* typed;
  const char* completed;
};

void PrintTo(const Completion& row, std::ostream* os) {
  *os << "\"" << row.typed << "\" -> \"" << row.completed << "\"";
}

class SingleMatchTest : public CandidateScreenTest, public ::testing::WithParamInterface<Completion> {};

TEST_P(SingleMatchTest, TabReplacesTheLineWithTheName) {
  const std::string typed = GetParam().typed;
  Edit(Chars(typed, {kTab}));
  ASSERT_EQ(Written(), typed + EraseLine(typed.size()) + GetParam().completed);
  EXPECT_EQ(line(), GetParam().completed);
  EXPECT_EQ(cursor(), line().size());
  EXPECT_EQ(screen(), nullptr);
}

INSTANTIATE_TEST_SUITE_P(SystemCommands, SingleMatchTest,
                         ::testing::Values(Completion{"e", "exit"}, Completion{"q", "quit"},
                                           Completion{"s", "send_ping"}, Completion{"he", "help"},
                                           Completion{"atcmd_wlanm", "atcmd_wlanmac"}),
                         [](const ::testing::TestParamInfo<Completion>& info) {
                           return std::string(info.param.completed);
                         });

TEST_F(CandidateScreenTest, TabAfterAFullNameChangesNothing) {
  Edit(Chars("help"));
  Written();
  Press({kTab});
  ASSERT_EQ(Written(), "");
  EXPECT_EQ(line(), "help");
  EXPECT_EQ(screen(), nullptr);
}

TEST_F(CandidateScreenTest, TabOnAnEmptyLineChangesNothing) {
  Edit({kTab});
  ASSERT_EQ(Written(), "");
  EXPECT_EQ(screen(), nullptr);
}

TEST_F(CandidateScreenTest, TabWithoutAMatchChangesNothing) {
  Edit({"x", kTab});
  ASSERT_EQ(Written(), "x");
  EXPECT_EQ(line(), "x");
  EXPECT_EQ(screen(), nullptr);
}

TEST_F(CandidateScreenTest, TabAfterANameWithAnArgumentChangesNothing) {
  Edit(Chars("send_ping 1"));
  Written();
  Press({kTab});
  ASSERT_EQ(Written(), "");
  EXPECT_EQ(line(), "send_ping 1");
  EXPECT_EQ(screen(), nullptr);
}

TEST_F(CandidateScreenTest, TabMatchesOnlyAtTheStartOfNames) {
  Edit(Chars("wlan", {kTab}));
  ASSERT_EQ(Written(), "wlan");
  EXPECT_EQ(screen(), nullptr);
}

class OpenScreenTest : public CandidateScreenTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(OpenScreenTest, SeveralMatchesOpenAListBelowTheLineWithTheFirstInRed) {
  const std::string typed = GetParam();
  Edit(Chars(typed, {kTab}));
  ASSERT_EQ(Written(), typed + "\x1b[31m\r\natcmd_wlanapclist\x1b[0m\r\natcmd_wlanmac");
  ASSERT_NE(screen(), nullptr);
  EXPECT_EQ(Access::candidates(*screen()), kAtcmdNames);
  EXPECT_EQ(selected(), 0);
  EXPECT_EQ(Access::restoreText(*screen()),
            "\x1b[1F\x1b[1F\n" + std::string(17, ' ') + "\n" + std::string(13, ' ') + "\x1b[1F\x1b[1Fhi>" + typed);
  EXPECT_EQ(line(), typed);
}

INSTANTIATE_TEST_SUITE_P(Prefixes, OpenScreenTest, ::testing::Values("a", "atcmd_wlan"),
                         [](const ::testing::TestParamInfo<const char*>& info) { return std::string(info.param); });

// --- Moving the selection ---

TEST_F(CandidateScreenTest, DownTwiceReturnsToTheFirstCandidate) {
  OpenAtcmdScreen();
  Press({kDown});
  ASSERT_EQ(Written(), AtcmdRestore("a") + Drawn(kAtcmdNames, 1));
  EXPECT_EQ(selected(), 1);
  Press({"\x0e"});
  ASSERT_EQ(Written(), AtcmdRestore("a") + Drawn(kAtcmdNames, 0));
  EXPECT_EQ(selected(), 0);
}

TEST_F(CandidateScreenTest, UpFromTheFirstSelectsTheLast) {
  OpenAtcmdScreen();
  Press({kUp});
  ASSERT_EQ(Written(), AtcmdRestore("a") + Drawn(kAtcmdNames, 1));
  EXPECT_EQ(selected(), 1);
  Press({"\x10"});
  EXPECT_EQ(selected(), 0);
}

TEST_F(CandidateScreenTest, PageDownSelectsTheLastAndPageUpTheFirst) {
  OpenAtcmdScreen();
  Press({kPageDown});
  ASSERT_EQ(Written(), AtcmdRestore("a") + Drawn(kAtcmdNames, 1));
  EXPECT_EQ(selected(), 1);
  Press({kPageUp});
  ASSERT_EQ(Written(), AtcmdRestore("a") + Drawn(kAtcmdNames, 0));
  EXPECT_EQ(selected(), 0);
}

TEST_F(CandidateScreenTest, NavigationWrapsAroundALongerList) {
  cli.registerCommands({
      {"atcmd_x", "", "atcmd_x", nullptr}
  });
  OpenAtcmdScreen();
  const Names names = {"atcmd_wlanapclist", "atcmd_wlanmac", "atcmd_x"};
  Press({kDown, kPageDown});
  EXPECT_EQ(selected(), 2);
  Press({kDown});
  EXPECT_EQ(selected(), 0);
  Press({kUp, kUp});
  EXPECT_EQ(selected(), 1);
  const std::string restore = "\x1b[1F\x1b[1F\x1b[1F\r\n" + std::string(17, ' ') + "\r\n" + std::string(13, ' ') +
                              "\r\n" + std::string(7, ' ') + "\x1b[1F\x1b[1F\x1b[1Fhi>a";
  ASSERT_EQ(Written(), restore + Drawn(names, 1) + restore + Drawn(names, 2) + restore + Drawn(names, 0) + restore +
                           Drawn(names, 2) + restore + Drawn(names, 1));
}

TEST_F(CandidateScreenTest, TypedCharactersAndOtherKeysAreIgnoredWhileOpen) {
  OpenAtcmdScreen();
  Press({"z", kLeft, kRight, kHome, kEnd, kInsert, kDelete, kCtrlLeft, "\x01"});
  ASSERT_EQ(Written(), "");
  EXPECT_EQ(line(), "a");
  EXPECT_EQ(selected(), 0);
  ASSERT_NE(screen(), nullptr);
  EXPECT_EQ(SyslogCapture::Records(), Records({UnknownKeyRecord(0x1)}));
}

// --- What a key leaves to the editor ---

TEST_F(CandidateScreenTest, NavigationKeysKeepTheListOpen) {
  OpenAtcmdScreen();
  EXPECT_EQ(OnKey(KeyType::Down), Screen::KeyOutcome::Keep);
  EXPECT_EQ(selected(), 1);
  ASSERT_EQ(Written(), AtcmdRestore("a") + Drawn(kAtcmdNames, 1));
}

class ClosingKeyTest : public CandidateScreenTest, public ::testing::WithParamInterface<KeyType> {};

TEST_P(ClosingKeyTest, LeavesClosingTheListToTheEditor) {
  OpenAtcmdScreen();
  EXPECT_EQ(OnKey(GetParam()), Screen::KeyOutcome::Close);
  EXPECT_NE(screen(), nullptr);
  ASSERT_EQ(Written(), "");
}

INSTANTIATE_TEST_SUITE_P(Keys, ClosingKeyTest, ::testing::Values(KeyType::Backspace, KeyType::Tab),
                         [](const ::testing::TestParamInfo<KeyType>& info) {
                           return std::string(info.param == KeyType::Tab ? "Tab" : "Backspace");
                         });

TEST_F(CandidateScreenTest, EnterLeavesSelectingToTheEditor) {
  OpenAtcmdScreen();
  EXPECT_EQ(OnKey(KeyType::Enter), Screen::KeyOutcome::Select);
  EXPECT_NE(screen(), nullptr);
  EXPECT_EQ(line(), "a");
  ASSERT_EQ(Written(), "");
}

TEST_F(CandidateScreenTest, EnterTakesTheSelectedNameIntoTheLine) {
  OpenAtcmdScreen();
  Press({kDown});
  Written();
  terminal.Type(kEnter);
  EXPECT_FALSE(Access::readKey(cli));  // the Enter that selects does not end the line
  ASSERT_EQ(Written(), AtcmdRestore("a") + EraseLine(1) + "atcmd_wlanmac");
  EXPECT_EQ(line(), "atcmd_wlanmac");
  EXPECT_EQ(cursor(), 13u);
  EXPECT_EQ(screen(), nullptr);
}

TEST_F(CandidateScreenTest, EnterAfterSelectingRunsTheCommand) {
  RunLine(std::string("a") + kTab + kDown + kEnter + kEnter);
  std::string expected = "a\x1b[31m\r\natcmd_wlanapclist\x1b[0m\r\natcmd_wlanmac";
  expected += AtcmdRestore("a") + Drawn(kAtcmdNames, 1);
  expected += AtcmdRestore("a") + EraseLine(1) + "atcmd_wlanmac\r\nran [atcmd_wlanmac]\r\n";
  ASSERT_EQ(Written(), expected);
  EXPECT_EQ(history(), std::list<std::string>({"atcmd_wlanmac"}));
}

TEST_F(CandidateScreenTest, BackspaceClosesTheListAndDeletesNothing) {
  OpenAtcmdScreen();
  Press({kBackspace});
  ASSERT_EQ(Written(), AtcmdRestore("a"));
  EXPECT_EQ(screen(), nullptr);
  EXPECT_EQ(line(), "a");
  EXPECT_EQ(cursor(), 1u);
}

TEST_F(CandidateScreenTest, TabClosesTheListAndChangesNothing) {
  OpenAtcmdScreen();
  Press({kDown});
  Written();
  Press({kTab});
  ASSERT_EQ(Written(), AtcmdRestore("a"));
  EXPECT_EQ(screen(), nullptr);
  EXPECT_EQ(line(), "a");
}

TEST_F(CandidateScreenTest, KeysGoToTheEditorAgainAfterClosing) {
  OpenAtcmdScreen();
  Press({"\b", "t"});
  ASSERT_EQ(Written(), AtcmdRestore("a") + "t");
  EXPECT_EQ(line(), "at");
}

TEST_F(CandidateScreenTest, OpenListIsDestroyedWithTheInterface) {
  auto other = std::make_unique<CmdLineInterface>();
  other->registerCommands(DeviceCommands());
  terminal.Type(std::string("a") + kTab);
  Access::startLine(*other);
  Access::readKey(*other);
  Access::readKey(*other);
  EXPECT_NE(Access::screen(*other), nullptr);
  other.reset();  // the address sanitizer build reports a leaked screen
  ASSERT_EQ(Written(), "a\x1b[31m\r\natcmd_wlanapclist\x1b[0m\r\natcmd_wlanmac");
}

TEST(CandidateScreenDeathTest, SelectWithoutAValidSelectionLogsAndAborts) {
  ::zel::test::PtyStdio terminal;
  CmdLineInterface cli;
  cli.registerCommands(DeviceCommands());
  terminal.Type(std::string("a") + kTab);
  Access::readKey(cli);
  Access::readKey(cli);
  ASSERT_NE(Access::screen(cli), nullptr);
  Access::selected(*Access::screen(cli)) = 2;
  EXPECT_DEATH(
      {
        ::zel::test::SyslogCapture::EchoToStderr(true);
        Access::screen(cli)->select();
      },
      LiteralRegex("syslog[3]: bool zel::cli::CmdLineInterface::CandidateScreen::select() 698: "
                   "don't do this to me :(\n") +
          ".*" +
          LiteralRegex("cmd_line_interface:699: bool "
                       "zel::cli::CmdLineInterface::CandidateScreen::select(): "
                       "Assertion `0' failed."));
}

TEST(CandidateScreenDeathTest, SelectWithANegativeSelectionLogsAndAborts) {
  ::zel::test::PtyStdio terminal;
  CmdLineInterface cli;
  cli.registerCommands(DeviceCommands());
  terminal.Type(std::string("a") + kTab);
  Access::readKey(cli);
  Access::readKey(cli);
  ASSERT_NE(Access::screen(cli), nullptr);
  Access::selected(*Access::screen(cli)) = -1;
  EXPECT_DEATH(
      {
        ::zel::test::SyslogCapture::EchoToStderr(true);
        Access::screen(cli)->select();
      },
      LiteralRegex("syslog[3]: bool zel::cli::CmdLineInterface::CandidateScreen::select() 698: "
                   "don't do this to me :(\n"));
}

}  // namespace
}  // namespace zel::cli::test
