// The console notes when its standard input has ended or hung up, so that
// the interface's loop can end instead of reading keys that never come; a
// terminal that is still there, a wake-up and a signal do not end the input.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "cli/console.h"
#include "gtest/gtest.h"
#include "tests/cli/cli_test_support.h"
#include "tests/support/pty.h"
#include "tests/support/pty_stdio.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/wait_until.h"

namespace zel::cli::test {
namespace {

using ::zel::test::LogRecord;
using ::zel::test::Pty;
using ::zel::test::PtyStdio;
using ::zel::test::SyslogCapture;
using ::zel::test::WaitUntil;
using Records = std::vector<LogRecord>;

constexpr char kReadFailed = static_cast<char>(0xFF);

// What a descriptor of this process refers to.
std::string LinkOf(int fd) {
  char target[256] = {};
  const ssize_t length = ::readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target, sizeof target - 1);
  return length > 0 ? std::string(target, static_cast<size_t>(length)) : std::string();
}

// Owns one descriptor of the test's making.
class Fd {
 public:
  explicit Fd(int fd) : mFd(fd) {}
  ~Fd() {
    if (mFd >= 0) ::close(mFd);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return mFd; }

 private:
  int mFd;
};

// One end of a fresh pipe whose other end is closed at once: the reading end
// of a pipe that has lost its writer, or the writing end of one that has
// lost its reader.
std::unique_ptr<Fd> PipeEnd(bool readEnd) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) return nullptr;
  ::close(readEnd ? fds[1] : fds[0]);
  return std::make_unique<Fd>(readEnd ? fds[0] : fds[1]);
}

class ConsoleInputEndTest : public ::testing::Test {
 protected:
  PtyStdio terminal;
  Console console;
};

TEST_F(ConsoleInputEndTest, InputOfATerminalHasNotEndedAtFirst) { EXPECT_FALSE(console.InputEnded()); }

TEST_F(ConsoleInputEndTest, KeyFromATerminalDoesNotEndTheInput) {
  terminal.Type("k");
  EXPECT_EQ(console.GetChar(), 'k');
  EXPECT_FALSE(console.InputEnded());
}

TEST_F(ConsoleInputEndTest, WakeupDoesNotEndTheInput) {
  console.Wakeup();
  EXPECT_EQ(console.GetChar(), 0);
  EXPECT_FALSE(console.InputEnded());
}

TEST_F(ConsoleInputEndTest, ReadOfNothingEndsTheInput) {
  Fd devNull(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  StdinRedirect redirect(devNull.get());
  EXPECT_EQ(console.GetChar(), kReadFailed);
  EXPECT_TRUE(console.InputEnded());
}

TEST_F(ConsoleInputEndTest, FailedReadEndsTheInput) {
  // A directory polls as readable, and reading it fails.
  Fd directory(::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  StdinRedirect redirect(directory.get());
  EXPECT_EQ(console.GetChar(), kReadFailed);
  EXPECT_TRUE(console.InputEnded());
}

TEST_F(ConsoleInputEndTest, HangUpReportedByPollEndsTheInput) {
  const std::unique_ptr<Fd> ended = PipeEnd(true);
  ASSERT_NE(ended, nullptr);
  StdinRedirect redirect(ended->get());
  EXPECT_EQ(console.GetChar(), 0);
  EXPECT_TRUE(console.InputEnded());
}

TEST_F(ConsoleInputEndTest, ErrorReportedByPollEndsTheInput) {
  // The writing end of a pipe without a reader polls as an error.
  const std::unique_ptr<Fd> broken = PipeEnd(false);
  ASSERT_NE(broken, nullptr);
  StdinRedirect redirect(broken->get());
  EXPECT_EQ(console.GetChar(), 0);
  EXPECT_TRUE(console.InputEnded());
}

TEST_F(ConsoleInputEndTest, ClosedDescriptorEndsTheInput) {
  StdinRedirect closed(-1);
  EXPECT_EQ(console.GetChar(), 0);
  EXPECT_TRUE(console.InputEnded());
}

TEST_F(ConsoleInputEndTest, TerminalThatHungUpEndsTheInput) {
  std::unique_ptr<Pty> other = std::make_unique<Pty>();
  Fd slave(other->OpenSlave());
  other.reset();  // the terminal's other side goes away
  StdinRedirect redirect(slave.get());
  console.GetChar();
  EXPECT_TRUE(console.InputEnded());
}

TEST_F(ConsoleInputEndTest, EndedInputStaysEndedAndEveryReadReturnsAtOnce) {
  const std::unique_ptr<Fd> ended = PipeEnd(true);
  ASSERT_NE(ended, nullptr);
  StdinRedirect redirect(ended->get());
  for (int i = 0; i < 3; ++i) EXPECT_EQ(console.GetChar(), 0);
  EXPECT_TRUE(console.InputEnded());
}

TEST_F(ConsoleInputEndTest, KeyReadThatMeetsTheEndLogsItsOneWarning) {
  const std::unique_ptr<Fd> ended = PipeEnd(true);
  ASSERT_NE(ended, nullptr);
  StdinRedirect redirect(ended->get());
  EXPECT_EQ(ReadKey(console), (Key{0, KeyType::Unknown}));
  EXPECT_EQ(SyslogCapture::Records(), Records({UnknownKeyRecord(0x0)}));
}

// --- A signal interrupts the wait for a key, and that is all ---

void Ignore(int /*signo*/) {}

// Routes SIGUSR1 to a handler that does nothing, without restarting the
// interrupted call, for the object's lifetime.
class InterruptingSignal {
 public:
  InterruptingSignal() {
    struct sigaction action = {};
    action.sa_handler = Ignore;
    sigemptyset(&action.sa_mask);
    sigaction(SIGUSR1, &action, &mSaved);
  }
  ~InterruptingSignal() { sigaction(SIGUSR1, &mSaved, nullptr); }
  InterruptingSignal(const InterruptingSignal&) = delete;
  InterruptingSignal& operator=(const InterruptingSignal&) = delete;

 private:
  struct sigaction mSaved {};
};

TEST_F(ConsoleInputEndTest, InterruptedWaitIsNotTheEndOfInput) {
  InterruptingSignal interrupting;
  std::atomic<bool> done{false};
  char byte = 'x';
  std::thread reader([&] {
    byte = console.GetChar();
    done = true;
  });
  ASSERT_TRUE(terminal.pty().WaitForKeyRead(std::chrono::seconds(10)));
  // A signal that comes just before the reader starts to wait interrupts
  // nothing, so it is sent again until the wait has ended.
  const bool interrupted = WaitUntil([&] {
    if (done) return true;
    pthread_kill(reader.native_handle(), SIGUSR1);
    return done.load();
  });
  if (!interrupted) terminal.Type("k");
  reader.join();
  ASSERT_TRUE(interrupted);
  EXPECT_EQ(byte, 0);
  EXPECT_FALSE(console.InputEnded());
  terminal.Type("k");
  EXPECT_EQ(console.GetChar(), 'k');
}

// --- Standard input closed before the console is made ---

TEST(ConsoleWithoutStandardInputTest, HoldsDescriptorZeroOnTheNullDevice) {
  StdinRedirect closed(-1);
  Console console;
  EXPECT_EQ(LinkOf(STDIN_FILENO), "/dev/null");
  EXPECT_EQ(SyslogCapture::Records(), Records());
}

TEST(ConsoleWithoutStandardInputTest, ReadsAsTheEndOfInput) {
  StdinRedirect closed(-1);
  Console console;
  EXPECT_EQ(console.GetChar(), kReadFailed);
  EXPECT_TRUE(console.InputEnded());
}

TEST(ConsoleWithoutStandardInputTest, LeavesAnOpenStandardInputAlone) {
  PtyStdio terminal;
  const std::string before = LinkOf(STDIN_FILENO);
  Console console;
  EXPECT_EQ(LinkOf(STDIN_FILENO), before);
}

// --- Wake-ups ---

TEST_F(ConsoleInputEndTest, WakeupsFromSeveralThreadsAllReturnAtOnce) {
  constexpr int kThreads = 4;
  constexpr int kCalls = 1000;
  std::atomic<int> finished{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kCalls; ++i) console.Wakeup();
      ++finished;
    });
  }
  const bool allReturned = WaitUntil([&] { return finished == kThreads; });
  // A thread that blocks in a wake-up would block for ever: leave it.
  for (std::thread& thread : threads) {
    if (allReturned) {
      thread.join();
    } else {
      thread.detach();
    }
  }
  ASSERT_TRUE(allReturned);
}

TEST_F(ConsoleInputEndTest, EveryKeyReadAfterManyWakeupsReturnsZeroAtOnce) {
  for (int i = 0; i < 100; ++i) console.Wakeup();
  for (int i = 0; i < 3; ++i) EXPECT_EQ(console.GetChar(), 0);
}

}  // namespace
}  // namespace zel::cli::test
