// What a front end writes: the write-all and its retries, standard output
// that fails, failure and warning lines, and the rules of the log, with
// standard error as a pipe and as a pseudo-terminal.
#include "tools/service_client/output.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "tests/support/log_record.h"
#include "tests/support/pty.h"
#include "tests/support/redirect.h"
#include "tests/support/syslog_capture.h"

namespace zel::service_client {
namespace {

using ::zel::test::LogRecord;
using ::zel::test::Redirect;
using ::zel::test::SyslogCapture;

const char kEndMark[] = "<end>";

// A pipe; what came through it up to the end mark, once the mark is
// written after what is tested.
class Pipe {
 public:
  Pipe() { EXPECT_EQ(::pipe2(mFds, O_CLOEXEC), 0); }
  ~Pipe() {
    for (int fd : mFds) {
      if (fd >= 0) ::close(fd);
    }
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  int ReadEnd() const { return mFds[0]; }
  int WriteEnd() const { return mFds[1]; }
  void CloseReadEnd() {
    ::close(mFds[0]);
    mFds[0] = -1;
  }

  std::string ReadToMark() {
    std::string text;
    char buffer[4096];
    while (text.find(kEndMark) == std::string::npos) {
      const ssize_t length = ::read(mFds[0], buffer, sizeof buffer);
      if (length <= 0) break;
      text.append(buffer, static_cast<size_t>(length));
    }
    return text.substr(0, text.find(kEndMark));
  }

 private:
  int mFds[2] = {-1, -1};
};

void WriteMark(int fd) { ASSERT_EQ(WriteAll(fd, kEndMark), 0); }

class OutputTest : public ::testing::Test {
 protected:
  void SetUp() override { SetProgramName("kdx-test"); }
  // The log as a program that never opened it has it.
  void TearDown() override { OpenLog(LOG_USER, 0, LOG_UPTO(LOG_DEBUG)); }
};

TEST_F(OutputTest, WriteAllWritesEverythingToAPipe) {
  Pipe pipe;
  const std::string text(3000, 'w');
  ASSERT_EQ(WriteAll(pipe.WriteEnd(), text), 0);
  WriteMark(pipe.WriteEnd());
  EXPECT_EQ(pipe.ReadToMark(), text);
}

std::atomic<int> gInterruptions{0};
void CountInterruption(int /*signo*/) { ++gInterruptions; }

TEST_F(OutputTest, WriteAllResumesAfterInterruptions) {
  // A handler without SA_RESTART: a write held up by a full pipe returns
  // early (with what it wrote, or EINTR) whenever the signal comes.
  struct sigaction action = {};
  action.sa_handler = CountInterruption;
  struct sigaction previous = {};
  ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);
  Pipe pipe;
  std::string text;
  for (int i = 0; text.size() < (4U << 20); ++i) text += std::to_string(i) + ",";
  const pthread_t writer = pthread_self();
  std::string received;
  std::thread reader([&] {
    char buffer[4096];
    while (received.size() < text.size()) {
      pthread_kill(writer, SIGUSR1);
      const ssize_t length = ::read(pipe.ReadEnd(), buffer, sizeof buffer);
      if (length <= 0) break;
      received.append(buffer, static_cast<size_t>(length));
    }
  });
  const int error = WriteAll(pipe.WriteEnd(), text);
  reader.join();
  sigaction(SIGUSR1, &previous, nullptr);
  EXPECT_EQ(error, 0);
  EXPECT_GT(gInterruptions.load(), 0);
  EXPECT_TRUE(received == text);
}

TEST_F(OutputTest, WriteAllGivesTheErrnoOfAFailedWrite) {
  const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(WriteAll(fd, "x"), EBADF);
  ::close(fd);
}

TEST_F(OutputTest, OutputRemembersTheFirstFailedWriteAndWritesNoMore) {
  const int full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
  ASSERT_GE(full, 0);
  Output output;
  {
    Redirect stdoutToFull(STDOUT_FILENO, full);
    EXPECT_FALSE(output.Write("x"));
  }
  ::close(full);
  EXPECT_TRUE(output.Broken());
  EXPECT_EQ(output.Error(), ENOSPC);
  Pipe pipe;
  {
    Redirect stdoutToPipe(STDOUT_FILENO, pipe.WriteEnd());
    EXPECT_FALSE(output.Write("y"));
  }
  WriteMark(pipe.WriteEnd());
  EXPECT_EQ(pipe.ReadToMark(), "");
}

TEST_F(OutputTest, FinishGivesTheStatusWhenEveryWriteWorked) {
  const Output output;
  EXPECT_EQ(Finish(output, kStatusUnreachable), kStatusUnreachable);
}

TEST_F(OutputTest, FinishReportsAFailedWriteAsALocalFailure) {
  const int full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
  ASSERT_GE(full, 0);
  Output output;
  Pipe pipe;
  int status = 0;
  {
    Redirect stdoutToFull(STDOUT_FILENO, full);
    Redirect stderrToPipe(STDERR_FILENO, pipe.WriteEnd());
    output.Write("x");
    status = Finish(output, kStatusOk);
  }
  ::close(full);
  WriteMark(pipe.WriteEnd());
  EXPECT_EQ(status, kStatusLocal);
  EXPECT_EQ(pipe.ReadToMark(), "kdx-test: standard output: No space left on device\n");
}

TEST_F(OutputTest, FinishEndsAsAClosedPipeAsks) {
  EXPECT_EXIT(
      {
        struct sigaction ignore = {};
        ignore.sa_handler = SIG_IGN;
        sigaction(SIGPIPE, &ignore, nullptr);
        Pipe pipe;
        pipe.CloseReadEnd();
        ::dup2(pipe.WriteEnd(), STDOUT_FILENO);
        Output output;
        output.Write("x");
        ::_exit(Finish(output, kStatusOk) + 100);
      },
      testing::KilledBySignal(SIGPIPE), "");
}

TEST_F(OutputTest, ProgramNameIsTheOneSet) { EXPECT_STREQ(ProgramName(), "kdx-test"); }

TEST_F(OutputTest, ReportPrintsProgramWhatAndWhy) {
  Pipe pipe;
  {
    Redirect stderrToPipe(STDERR_FILENO, pipe.WriteEnd());
    Report(Fail(kStatusUsage, "-x", "unknown option (try --help)"));
  }
  WriteMark(pipe.WriteEnd());
  EXPECT_EQ(pipe.ReadToMark(), "kdx-test: -x: unknown option (try --help)\n");
}

TEST_F(OutputTest, WarnPrintsAWarningLine) {
  Pipe pipe;
  {
    Redirect stderrToPipe(STDERR_FILENO, pipe.WriteEnd());
    Warn("/etc/kdx/password is readable by others");
  }
  WriteMark(pipe.WriteEnd());
  EXPECT_EQ(pipe.ReadToMark(), "kdx-test: warning: /etc/kdx/password is readable by others\n");
}

// The log's rules, with standard error on a pipe or a terminal: each test
// opens the log as a program does, logs, and looks at both.
class LogTest : public OutputTest {
 protected:
  // Logs a notice and a warning with standard error on a pipe; what the
  // pipe carried.
  std::string OnAPipe(unsigned verbosity) {
    Pipe pipe;
    {
      Redirect stderrToPipe(STDERR_FILENO, pipe.WriteEnd());
      OpenLog(LOG_DAEMON, verbosity, LOG_UPTO(LOG_INFO));
      Log(LOG_NOTICE, "a notice %d", 1);
      Log(LOG_WARNING, "a %s", "warning");
    }
    WriteMark(pipe.WriteEnd());
    return pipe.ReadToMark();
  }

  // The same with standard error on a terminal, output processing on.
  std::string OnATerminal(unsigned verbosity) {
    ::zel::test::Pty pty;
    const int slave = pty.OpenSlave();
    {
      Redirect stderrToTerminal(STDERR_FILENO, slave);
      OpenLog(LOG_DAEMON, verbosity, LOG_UPTO(LOG_INFO));
      Log(LOG_NOTICE, "a notice %d", 1);
      Log(LOG_WARNING, "a %s", "warning");
    }
    WriteMark(slave);
    ::close(slave);
    EXPECT_TRUE(pty.WaitForOutput(kEndMark, std::chrono::seconds(10)));
    const std::string output = pty.Output();
    return output.substr(0, output.find(kEndMark));
  }
};

TEST_F(LogTest, EveryMessageGoesToTheSystemLog) {
  OnAPipe(0);
  EXPECT_EQ(SyslogCapture::Records(), std::vector<LogRecord>({
                                          {LOG_NOTICE,  "a notice 1"},
                                          {LOG_WARNING, "a warning" }
  }));
}

TEST_F(LogTest, WithoutVerboseNothingReachesAPipe) { EXPECT_EQ(OnAPipe(0), ""); }

TEST_F(LogTest, WithoutVerboseWarningsReachATerminal) { EXPECT_EQ(OnATerminal(0), "kdx-test: a warning\r\n"); }

TEST_F(LogTest, VerboseCopiesEveryMessageToAPipe) {
  EXPECT_EQ(OnAPipe(1), "kdx-test: a notice 1\nkdx-test: a warning\n");
}

TEST_F(LogTest, VerboseCopiesEveryMessageToATerminal) {
  EXPECT_EQ(OnATerminal(1), "kdx-test: a notice 1\r\nkdx-test: a warning\r\n");
}

TEST_F(LogTest, VerboseTwiceLeavesTheCopyToTheCLibrary) {
  // The C library copies every record then (LOG_PERROR), this one included;
  // the capture of this test stands in for it and copies nothing.
  EXPECT_EQ(OnAPipe(2), "");
  EXPECT_EQ(OnATerminal(2), "");
  EXPECT_EQ(SyslogCapture::Records().size(), 4U);
}

TEST_F(LogTest, WithoutVerboseTheQuietMaskHolds) {
  OpenLog(LOG_USER, 0, LOG_UPTO(LOG_NOTICE));
  // NOLINTNEXTLINE(concurrency-mt-unsafe): reads the mask; this test has no other thread
  EXPECT_EQ(setlogmask(0), LOG_UPTO(LOG_NOTICE));
  Log(LOG_INFO, "left out");
  Log(LOG_NOTICE, "kept");
  EXPECT_EQ(SyslogCapture::Records(), std::vector<LogRecord>({
                                          {LOG_NOTICE, "kept"}
  }));
}

TEST_F(LogTest, VerboseLiftsTheQuietMask) {
  Pipe pipe;
  Redirect stderrToPipe(STDERR_FILENO, pipe.WriteEnd());
  OpenLog(LOG_USER, 1, LOG_UPTO(LOG_NOTICE));
  // NOLINTNEXTLINE(concurrency-mt-unsafe): reads the mask; this test has no other thread
  EXPECT_EQ(setlogmask(0), LOG_UPTO(LOG_DEBUG));
  Log(LOG_DEBUG, "kept");
  EXPECT_EQ(SyslogCapture::Records(), std::vector<LogRecord>({
                                          {LOG_DEBUG, "kept"}
  }));
}

TEST_F(LogTest, LongMessageIsCutShort) {
  Log(LOG_ERR, "%s", std::string(5000, 'm').c_str());
  ASSERT_EQ(SyslogCapture::Records().size(), 1U);
  EXPECT_EQ(SyslogCapture::Records()[0].text, std::string(1023, 'm'));
}

}  // namespace
}  // namespace zel::service_client
