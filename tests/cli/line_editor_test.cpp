#include <syslog.h>

#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "tests/cli/cli_test_support.h"
#include "tests/support/syslog_capture.h"

namespace zel::cli::test {
namespace {

using ::zel::test::LogRecord;
using ::zel::test::SyslogCapture;
using Records = std::vector<LogRecord>;
using namespace keys;

class LineEditorTest : public CliTest {
 protected:
  void SetHistory(std::list<std::string> entries) { history() = std::move(entries); }
  uint8_t browsing() { return Access::browsingHistory(cli); }
  uint32_t offset() { return Access::historyOffset(cli); }
  std::string& saved() { return Access::savedLine(cli); }
};

// --- Inserting ---

TEST_F(LineEditorTest, TypingAtTheEndWritesEachCharacter) {
  Edit(Chars("help"));
  ASSERT_EQ(Written(), "help");
  EXPECT_EQ(line(), "help");
  EXPECT_EQ(cursor(), 4u);
}

TEST_F(LineEditorTest, InsertingInTheMiddleWritesCharacterTailAndBackspaces) {
  Edit(Chars("help", {kLeft, kLeft}));
  ASSERT_EQ(Written(), "help\b\b");
  Press({"X"});
  ASSERT_EQ(Written(), "Xlp\b\b");
  EXPECT_EQ(line(), "heXlp");
  EXPECT_EQ(cursor(), 3u);
}

TEST_F(LineEditorTest, EscapeFollowedByControlByteInsertsThatByte) {
  Edit({"a", "\x1b\x01", "b"});
  ASSERT_EQ(Written(), "a\001b");
  EXPECT_EQ(line(), "a\001b");
  EXPECT_EQ(SyslogCapture::Records(), Records());
}

// --- Deleting ---

TEST_F(LineEditorTest, BackspaceAtTheStartWritesNothing) {
  Edit({kBackspace});
  ASSERT_EQ(Written(), "");
  Edit({"a", "b", kHome});
  Written();
  Press({kBackspace, "\b"});
  ASSERT_EQ(Written(), "");
  EXPECT_EQ(line(), "ab");
  EXPECT_EQ(cursor(), 0u);
}

TEST_F(LineEditorTest, BackspaceInTheMiddleShiftsTheTailLeft) {
  Edit({"a", "b", "c", kLeft});
  Written();
  Press({kBackspace});
  ASSERT_EQ(Written(), "\bc \b\b");
  EXPECT_EQ(line(), "ac");
  EXPECT_EQ(cursor(), 1u);
}

TEST_F(LineEditorTest, BackspaceAtTheEndErasesTheLastCharacter) {
  Edit({"a", "b", "\b"});
  ASSERT_EQ(Written(), "ab\b \b");
  EXPECT_EQ(line(), "a");
}

// --- Moving ---

TEST_F(LineEditorTest, EndWritesTheTextAfterTheCursor) {
  Edit(Chars("abcd", {kLeft, kLeft, kLeft}));
  Written();
  Press({kEnd});
  ASSERT_EQ(Written(), "bcd");
  EXPECT_EQ(cursor(), 4u);
}

TEST_F(LineEditorTest, HomeWritesAsManyBackspacesAsTheCursorIndex) {
  Edit(Chars("abcd", {kLeft}));
  Written();
  Press({kHome});
  ASSERT_EQ(Written(), "\b\b\b");
  EXPECT_EQ(cursor(), 0u);
}

TEST_F(LineEditorTest, RightRewritesTheTailAndStepsBackBehindOneCharacter) {
  Edit(Chars("abcd", {kHome}));
  Written();
  Press({kRight, "\x06"});
  ASSERT_EQ(Written(), "abcd\b\b\bbcd\b\b");
  EXPECT_EQ(cursor(), 2u);
}

TEST_F(LineEditorTest, LeftAndCtrlBWriteOneBackspaceEach) {
  Edit(Chars("ab"));
  Written();
  Press({kLeft, "\x02"});
  ASSERT_EQ(Written(), "\b\b");
  EXPECT_EQ(cursor(), 0u);
}

TEST_F(LineEditorTest, MovesBeyondTheEndsAreRefusedSilently) {
  Edit({kLeft, kRight, "a", kRight});
  ASSERT_EQ(Written(), "a");
  Press({kLeft, kLeft});
  ASSERT_EQ(Written(), "\b");
  EXPECT_EQ(cursor(), 0u);
}

TEST_F(LineEditorTest, HomeAtTheStartAndEndAtTheEndWriteNothing) {
  Edit({kHome, kEnd, "a", "b", kEnd, kHome, kHome});
  ASSERT_EQ(Written(), "ab\b\b");
  EXPECT_EQ(cursor(), 0u);
}

TEST_F(LineEditorTest, WordMovesInsertAndDeleteLeaveTheLineUnchanged) {
  Edit({"a", "b", kLeft});
  Written();
  Press({kCtrlLeft, kCtrlRight, kInsert, kDelete});
  ASSERT_EQ(Written(), "");
  EXPECT_EQ(line(), "ab");
  EXPECT_EQ(cursor(), 1u);
  EXPECT_EQ(SyslogCapture::Records(), Records());
}

TEST_F(LineEditorTest, UnknownKeyIsLoggedAndChangesNothing) {
  Edit({"a", "\x01"});
  ASSERT_EQ(Written(), "a");
  EXPECT_EQ(line(), "a");
  EXPECT_EQ(SyslogCapture::Records(), Records({UnknownKeyRecord(0x1)}));
}

TEST_F(LineEditorTest, KeyTypesWithoutActionChangeNothing) {
  Edit({"a"});
  Written();
  for (int type : {0, 4, 10, 11, 13, 14, 18, -3}) {
    EXPECT_FALSE(Access::handleKey(cli, 'z', static_cast<KeyType>(type))) << type;
  }
  ASSERT_EQ(Written(), "");
  EXPECT_EQ(line(), "a");
}

// --- Enter ---

TEST_F(LineEditorTest, EnterWritesANewlineWithoutMovingToTheEnd) {
  RunLine(std::string("ab") + kLeft + kEnter);
  ASSERT_EQ(Written(), "ab\b\r\n");
  EXPECT_EQ(line(), "ab");
}

TEST_F(LineEditorTest, EnterEndsHistoryBrowsing) {
  SetHistory({"c", "b"});
  Edit({"t", kUp, kUp});
  Press({kEnter});
  EXPECT_EQ(browsing(), 0u);
  EXPECT_EQ(offset(), 0u);
  EXPECT_EQ(saved(), "");
  EXPECT_EQ(line(), "b");
}

TEST_F(LineEditorTest, EachLineStartsEmpty) {
  RunLine("send_ping\r");
  Written();
  RunLine(std::string("a") + kEnter);
  ASSERT_EQ(Written(), "a\r\n");
  EXPECT_EQ(line(), "a");
}

// --- History ---

TEST_F(LineEditorTest, UpAndDownWalkTheHistoryAndPageDownBringsBackTheTypedText) {
  SetHistory({"c", "b", "a"});
  Edit({"t", "y"});
  Written();
  Press({kUp});
  ASSERT_EQ(Written(), EraseLine(2) + "c");
  EXPECT_EQ(line(), "c");
  EXPECT_EQ(saved(), "ty");
  Press({kUp});
  ASSERT_EQ(Written(), EraseLine(1) + "b");
  Press({kUp});
  ASSERT_EQ(Written(), EraseLine(1) + "a");
  Press({kUp});
  ASSERT_EQ(Written(), "");
  EXPECT_EQ(line(), "a");
  Press({kDown});
  ASSERT_EQ(Written(), EraseLine(1) + "b");
  Press({kPageDown});
  ASSERT_EQ(Written(), EraseLine(1) + "ty");
  EXPECT_EQ(line(), "ty");
  EXPECT_EQ(cursor(), 2u);
  EXPECT_EQ(browsing(), 0u);
  EXPECT_EQ(offset(), 0u);
}

TEST_F(LineEditorTest, CtrlPAndCtrlNRecallLikeUpAndDown) {
  SetHistory({"c", "b"});
  Edit({"\x10", "\x10", "\x0e"});
  ASSERT_EQ(Written(), "c" + EraseLine(1) + "b" + EraseLine(1) + "c");
  EXPECT_EQ(line(), "c");
}

TEST_F(LineEditorTest, DownAtTheNewestEntryBringsBackTheTypedText) {
  SetHistory({"c", "b"});
  Edit({"t", kUp});
  Written();
  Press({kDown});
  ASSERT_EQ(Written(), EraseLine(1) + "t");
  EXPECT_EQ(browsing(), 0u);
}

TEST_F(LineEditorTest, DownWhileNotBrowsingDoesNothing) {
  SetHistory({"c"});
  Edit({"t", kDown});
  ASSERT_EQ(Written(), "t");
  EXPECT_EQ(line(), "t");
}

TEST_F(LineEditorTest, PageUpJumpsToTheOldestEntry) {
  SetHistory({"c", "b", "a"});
  Edit({"t", kPageUp});
  ASSERT_EQ(Written(), "t" + EraseLine(1) + "a");
  EXPECT_EQ(offset(), 2u);
  EXPECT_EQ(browsing(), 1u);
  Press({kPageDown});
  ASSERT_EQ(Written(), EraseLine(1) + "t");
}

TEST_F(LineEditorTest, PageUpWhileBrowsingJumpsToTheOldestEntry) {
  SetHistory({"c", "b", "a"});
  Edit({kUp, kPageUp});
  ASSERT_EQ(Written(), "c" + EraseLine(1) + "a");
  EXPECT_EQ(offset(), 2u);
}

TEST_F(LineEditorTest, PageDownWhileNotBrowsingReplacesTheTypedTextWithoutSavingIt) {
  SetHistory({"c", "b", "a"});
  Edit({"t", "y"});
  Written();
  Press({kPageDown});
  ASSERT_EQ(Written(), EraseLine(2) + "c");
  EXPECT_EQ(line(), "c");
  EXPECT_EQ(saved(), "");
  EXPECT_EQ(browsing(), 0u);
}

TEST_F(LineEditorTest, PageUpWithEmptyHistoryStartsBrowsingWithoutChangingTheScreen) {
  Edit({"t", "y"});
  Written();
  Press({kPageUp});
  ASSERT_EQ(Written(), "");
  EXPECT_EQ(line(), "ty");
  EXPECT_EQ(browsing(), 1u);
  EXPECT_EQ(saved(), "ty");
  Press({kUp, kDown, kPageDown});
  ASSERT_EQ(Written(), "");
  EXPECT_EQ(line(), "ty");
  EXPECT_EQ(browsing(), 1u);
  Press({kEnter});
  ASSERT_EQ(Written(), "\r\n");
  EXPECT_EQ(browsing(), 0u);
  EXPECT_EQ(offset(), 0u);
  EXPECT_EQ(saved(), "");
}

TEST_F(LineEditorTest, RecallErasesTheLineWithATrailingNulByte) {
  SetHistory({"xyz"});
  Edit({"a", "b"});
  Written();
  Press({kUp});
  ASSERT_EQ(Written(), std::string("\b\b  \b\b\0xyz", 10));
}

TEST_F(LineEditorTest, RecallAfterMovingLeftErasesFromTheLineLengthNotTheCursor) {
  // The erase assumes the terminal cursor at the end of the line, so here it
  // runs back into the prompt; this is how the editor behaves.
  SetHistory({"x"});
  Edit({"a", "b", "c", kHome});
  Written();
  Press({kUp});
  ASSERT_EQ(Written(), EraseLine(3) + "x");
  EXPECT_EQ(cursor(), 1u);
}

TEST_F(LineEditorTest, RecallOfAnEmptyEntryLeavesTheScreenAlone) {
  SetHistory({"", "b"});
  Edit({"t", kUp});
  ASSERT_EQ(Written(), "t");
  EXPECT_EQ(browsing(), 1u);
  EXPECT_EQ(saved(), "t");
}

// --- Long lines and pastes ---

TEST_F(LineEditorTest, LongLineEditedInTheMiddle) {
  const std::string text = Times("0123456789", 40);  // 400 characters
  Edit(Chars(text, std::vector<std::string>(200, kLeft)));
  ASSERT_EQ(Written(), text + Bs(200));
  Press({"X"});
  const std::string tail = text.substr(200);
  ASSERT_EQ(Written(), "X" + tail + Bs(200));
  Press({kBackspace, kBackspace});
  // First the X goes, then the character before it; the tail moves left each time.
  ASSERT_EQ(Written(), Times("\b" + tail + " " + Bs(201), 2));
  EXPECT_EQ(line(), text.substr(0, 199) + tail);
  EXPECT_EQ(cursor(), 199u);
  Press({kEnd});
  ASSERT_EQ(Written(), tail);
  EXPECT_EQ(cursor(), 399u);
}

TEST_F(LineEditorTest, PasteOfManyKeysArrivingAtOnceIsAppliedInOrder) {
  const std::string typed = Times("hello ", 100);
  RunLine(typed + Times(kLeft, 50) + "X" + Times(kRight, 2) + kBackspace + kEnter);
  std::string expected = typed + Bs(50);                // the Lefts
  expected += "X" + typed.substr(550) + Bs(50);         // the X
  expected += typed.substr(550) + Bs(49);               // first Right
  expected += typed.substr(551) + Bs(48);               // second Right
  expected += "\b" + typed.substr(552) + " " + Bs(49);  // the Backspace
  expected += "\r\n";
  ASSERT_EQ(Written(), expected);
  std::string line = typed;
  line.insert(550, "X");
  line.erase(552, 1);
  EXPECT_EQ(this->line(), line);
  EXPECT_EQ(PendingInput(), 0u);
}

TEST(LineEditorDeathTest, InsertWithTheCursorBeyondTheLineLogsAndAborts) {
  EXPECT_DEATH(
      {
        ::zel::test::SyslogCapture::EchoToStderr(true);
        CmdLineInterface cli;
        Access::cursor(cli) = 1;
        std::string text = "x";
        Access::insertString(cli, text);
      },
      LiteralRegex("syslog[3]: insertString 466 : this should not happend\n") + ".*" +
          LiteralRegex("cmd_line_interface:467: bool "
                       "zel::cli::CmdLineInterface::insertString(std::string&): "
                       "Assertion `0' failed."));
}

}  // namespace
}  // namespace zel::cli::test
