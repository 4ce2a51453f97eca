#include "tests/support/pty_stdio.h"

#include <termios.h>
#include <unistd.h>

#include "gtest/gtest.h"

namespace zel::test {
namespace {

TEST(PtyStdioTest, CollectsExactlyWhatWasWrittenToStandardOutput) {
  PtyStdio terminal;
  ASSERT_EQ(::write(STDOUT_FILENO, "a\nb", 3), 3);
  EXPECT_EQ(terminal.TakeWritten(), "a\r\nb");
  EXPECT_EQ(terminal.TakeWritten(), "");
}

TEST(PtyStdioTest, TypedKeysAreReadFromStandardInput) {
  PtyStdio terminal;
  struct termios settings;
  ASSERT_EQ(tcgetattr(STDIN_FILENO, &settings), 0);
  settings.c_lflag &= ~ICANON;
  ASSERT_EQ(tcsetattr(STDIN_FILENO, TCSANOW, &settings), 0);
  terminal.Type("k");
  char c = 0;
  ASSERT_EQ(::read(STDIN_FILENO, &c, 1), 1);
  EXPECT_EQ(c, 'k');
  EXPECT_EQ(terminal.TakeWritten(), "");
}

TEST(PtyStdioTest, RestoresStandardDescriptors) {
  const bool wasTerminal = isatty(STDIN_FILENO);
  {
    PtyStdio terminal;
    EXPECT_TRUE(isatty(STDIN_FILENO));
  }
  EXPECT_EQ(isatty(STDIN_FILENO), wasTerminal);
  EXPECT_FALSE(PtyStdio::Active());
}

}  // namespace
}  // namespace zel::test
