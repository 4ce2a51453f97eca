#include "tests/support/pty_process.h"

#include <signal.h>
#include <sys/wait.h>
#include <termios.h>

#include <fstream>
#include <sstream>
#include <string>

#include "gtest/gtest.h"
#include "kdx_test_paths.h"
#include "tests/support/temp_dir.h"

namespace zel::test {
namespace {

TEST(PtyProcessTest, OutputProcessingTurnsNewlineIntoCarriageReturnNewline) {
  PtyProcess probe({KDX_PTY_PROBE_PATH, "log"});
  ASSERT_TRUE(probe.WaitForExit().has_value());
  EXPECT_EQ(probe.Output(), "logged\r\n");
}

TEST(PtyProcessTest, TypedKeysReachTheProgramWithoutEcho) {
  PtyProcess probe({KDX_PTY_PROBE_PATH, "keys"});
  ASSERT_TRUE(probe.Type("a"));
  ASSERT_TRUE(probe.WaitForOutput("[61]\r\nkey>"));
  ASSERT_TRUE(probe.Type("\x1b[A"));
  ASSERT_TRUE(probe.WaitForOutput("[41]\r\nkey>"));
  ASSERT_TRUE(probe.Type("q"));
  const auto status = probe.WaitForExit();
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(PtyProcess::ExitCode(*status), 0);
  EXPECT_EQ(probe.Output(), "key>[61]\r\nkey>[1b]\r\nkey>[5b]\r\nkey>[41]\r\nkey>[71]\r\n");
}

TEST(PtyProcessTest, PastedKeysArriveInOrder) {
  PtyProcess probe({KDX_PTY_PROBE_PATH, "keys"});
  ASSERT_TRUE(probe.Type("xy\x7fq"));
  ASSERT_TRUE(probe.WaitForExit().has_value());
  EXPECT_EQ(probe.Output(), "key>[78]\r\nkey>[79]\r\nkey>[7f]\r\nkey>[71]\r\n");
}

TEST(PtyProcessTest, TakeOutputStartsAFreshCollection) {
  PtyProcess probe({KDX_PTY_PROBE_PATH, "keys"});
  ASSERT_TRUE(probe.WaitForOutput("key>"));
  EXPECT_EQ(probe.TakeOutput(), "key>");
  ASSERT_TRUE(probe.Type("q"));
  ASSERT_TRUE(probe.WaitForExit().has_value());
  EXPECT_EQ(probe.Output(), "[71]\r\n");
}

TEST(PtyProcessTest, SignalEndsAProgramWithDefaultDisposition) {
  PtyProcess probe({KDX_PTY_PROBE_PATH, "keys"});
  ASSERT_TRUE(probe.WaitForKeyRead());
  probe.Signal(SIGTERM);
  const auto status = probe.WaitForExit();
  ASSERT_TRUE(status.has_value());
  EXPECT_TRUE(WIFSIGNALED(*status));
  EXPECT_EQ(WTERMSIG(*status), SIGTERM);
  EXPECT_EQ(PtyProcess::ExitCode(*status), -1);
}

TEST(PtyProcessTest, HandledSignalReachesTheProgramWhichCarriesOn) {
  PtyProcess probe({KDX_PTY_PROBE_PATH, "catch"});
  ASSERT_TRUE(probe.WaitForKeyRead());
  probe.Signal(SIGINT);
  ASSERT_TRUE(probe.WaitForOutput("caught 02\r\n"));
  ASSERT_TRUE(probe.Type("q"));
  const auto status = probe.WaitForExit();
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(PtyProcess::ExitCode(*status), 0);
  EXPECT_EQ(probe.Output(), "key>caught 02\r\n[71]\r\n");
}

TEST(PtyProcessTest, SegvSentFromOutsideRunsTheProgramsHandler) {
  PtyProcess probe({KDX_PTY_PROBE_PATH, "catch"});
  ASSERT_TRUE(probe.WaitForKeyRead());
  probe.Signal(SIGSEGV);
  const auto status = probe.WaitForExit();
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(PtyProcess::ExitCode(*status), 4);
  EXPECT_EQ(probe.Output(), "key>caught 11\r\n");
}

TEST(PtyProcessTest, PidIsTheProcessIdTheProgramSees) {
  PtyProcess probe({KDX_PTY_PROBE_PATH, "pid"});
  ASSERT_TRUE(probe.WaitForExit().has_value());
  EXPECT_EQ(probe.Output(), "pid " + std::to_string(probe.Pid()) + "\r\n");
}

TEST(PtyProcessTest, StandardErrorCanGoToAFile) {
  TempDir dir;
  PtyProcess probe({KDX_PTY_PROBE_PATH, "stderr"}, {{}, dir.File("err")});
  ASSERT_TRUE(probe.WaitForExit().has_value());
  EXPECT_EQ(probe.Output(), "to stdout\r\n");
  std::ifstream err(dir.File("err"));
  std::stringstream text;
  text << err.rdbuf();
  EXPECT_EQ(text.str(), "to stderr\n");
}

// The standard input the probe reports for `input` (and `path`).
std::string ProbedInput(PtyProcess::Input input, const std::string& path = "") {
  PtyProcess::Options options;
  options.input = input;
  options.inputPath = path;
  PtyProcess probe({KDX_PTY_PROBE_PATH, "stdin"}, options);
  if (!probe.WaitForExit().has_value()) return "no end";
  return probe.Output();
}

TEST(PtyProcessTest, StandardInputIsTheTerminalByDefault) {
  EXPECT_EQ(ProbedInput(PtyProcess::Input::Terminal), "stdin terminal\r\n");
}

TEST(PtyProcessTest, StandardInputCanBeAFile) {
  EXPECT_EQ(ProbedInput(PtyProcess::Input::File, "/dev/null"), "stdin character device at its end\r\n");
}

TEST(PtyProcessTest, StandardInputCanBeAPipeThatHasEnded) {
  EXPECT_EQ(ProbedInput(PtyProcess::Input::EndedPipe), "stdin pipe at its end\r\n");
}

TEST(PtyProcessTest, StandardInputCanBeClosed) {
  EXPECT_EQ(ProbedInput(PtyProcess::Input::Closed), "stdin closed\r\n");
}

TEST(PtyProcessTest, StandardOutputCanBeAPipeReadWhileTheProgramRuns) {
  PtyProcess::Options options;
  options.output = PtyProcess::OutputSink::Pipe;
  PtyProcess probe({KDX_PTY_PROBE_PATH, "keys"}, options);
  ASSERT_TRUE(probe.Type("a"));
  ASSERT_TRUE(probe.WaitForPipeOutput("key>[61]\nkey>"));
  EXPECT_EQ(probe.PipeOutput(), "key>[61]\nkey>");
  EXPECT_EQ(probe.Output(), "");
}

TEST(PtyProcessTest, PipedOutputHoldsWhatNoWaitHasTakenYet) {
  PtyProcess::Options options;
  options.output = PtyProcess::OutputSink::Pipe;
  PtyProcess probe({KDX_PTY_PROBE_PATH, "keys"}, options);
  // The probe writes its prompt before it waits for a key, and nothing has
  // waited for the pipe since.
  ASSERT_TRUE(probe.WaitForKeyRead());
  EXPECT_EQ(probe.PipeOutput(), "key>");
}

TEST(PtyProcessTest, PipedOutputIsCollectedToItsEndWhenTheProgramEnds) {
  PtyProcess::Options options;
  options.output = PtyProcess::OutputSink::Pipe;
  PtyProcess probe({KDX_PTY_PROBE_PATH, "keys"}, options);
  ASSERT_TRUE(probe.Type("q"));
  ASSERT_TRUE(probe.WaitForExit().has_value());
  EXPECT_EQ(probe.PipeOutput(), "key>[71]\n");
}

TEST(PtyProcessTest, SettingsShowTheProgramsModeAndStayReadableAfterItsEnd) {
  PtyProcess probe({KDX_PTY_PROBE_PATH, "keys"});
  ASSERT_TRUE(probe.WaitForKeyRead());
  EXPECT_EQ(probe.Settings().c_lflag, probe.StartSettings().c_lflag & ~static_cast<tcflag_t>(ICANON | ECHO));
  EXPECT_FALSE(probe.SettingsAsAtStart());
  ASSERT_TRUE(probe.Type("q"));
  ASSERT_TRUE(probe.WaitForExit().has_value());
  EXPECT_TRUE(probe.SettingsAsAtStart());
}

TEST(PtyProcessTest, WaitForOutputGivesUpAfterTimeout) {
  PtyProcess probe({KDX_PTY_PROBE_PATH, "keys"});
  EXPECT_FALSE(probe.WaitForOutput("never", std::chrono::milliseconds(50)));
}

}  // namespace
}  // namespace zel::test
