// The stop signals of a front end: the clean-up that removes the socket files
// it was told of and lets the signal end the program (run in a child, which
// the signal ends), an ignored stop signal that stays ignored, and the
// channel that takes signals through a descriptor.
#include "tools/service_client/signals.h"

#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <string>

#include "gtest/gtest.h"
#include "tests/support/temp_dir.h"

namespace zel::service_client {
namespace {

using ::zel::test::PathExists;

// Exit statuses of a child that checks something itself.
constexpr int kChildOk = 0;
constexpr int kChildWrong = 1;

// Runs `body` in a child process, which then exits with kChildOk unless
// `body` ended it first; its wait status.
int RunInChild(const std::function<void()>& body) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    body();
    ::_exit(kChildOk);
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  return status;
}

// Sends `signo` to the calling thread; a failure fails the test.
void Raise(int signo) { ASSERT_EQ(::raise(signo), 0); }

bool EndedBySignal(int status, int signo) { return WIFSIGNALED(status) && WTERMSIG(status) == signo; }

bool Blocked(int signo) {
  sigset_t mask;
  pthread_sigmask(SIG_BLOCK, nullptr, &mask);
  return sigismember(&mask, signo) == 1;
}

class SignalCleanupTest : public ::testing::Test {
 protected:
  std::string MakeFile(const std::string& name) {
    std::string path = dir.File(name);
    std::ofstream(path) << "x";
    return path;
  }

  ::zel::test::TempDir dir;
};

TEST_F(SignalCleanupTest, StopSignalRemovesTheRecordedFilesAndEndsTheProgram) {
  const std::string file = MakeFile("ipc_client-1-0");
  const std::string subdir = dir.File("ctl-1");
  ASSERT_EQ(::mkdir(subdir.c_str(), 0755), 0);
  const int status = RunInChild([&] {
    SignalCleanup cleanup;
    cleanup.BeginMaking();
    cleanup.Added(subdir, true);
    cleanup.Added(file, false);
    cleanup.EndMaking();
    Raise(SIGTERM);
  });
  EXPECT_TRUE(EndedBySignal(status, SIGTERM)) << status;
  EXPECT_FALSE(PathExists(file));
  EXPECT_FALSE(PathExists(subdir));
}

TEST_F(SignalCleanupTest, FileReportedRemovedIsLeftAlone) {
  const std::string file = MakeFile("ipc_client-1-0");
  const int status = RunInChild([&] {
    SignalCleanup cleanup;
    cleanup.BeginMaking();
    cleanup.Added(file, false);
    cleanup.EndMaking();
    cleanup.Removed(file);
    Raise(SIGHUP);
  });
  EXPECT_TRUE(EndedBySignal(status, SIGHUP)) << status;
  EXPECT_TRUE(PathExists(file));
}

TEST_F(SignalCleanupTest, IgnoredStopSignalStaysIgnored) {
  const std::string file = MakeFile("ipc_client-1-0");
  const int status = RunInChild([&] {
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    if (sigaction(SIGINT, &ignore, nullptr) != 0) ::_exit(kChildWrong);
    SignalCleanup cleanup;
    cleanup.BeginMaking();
    cleanup.Added(file, false);
    cleanup.EndMaking();
    Raise(SIGINT);
    struct sigaction now = {};
    sigaction(SIGINT, nullptr, &now);
    if (now.sa_handler != SIG_IGN) ::_exit(kChildWrong);
  });
  EXPECT_EQ(status, kChildOk);
  EXPECT_TRUE(PathExists(file));
}

TEST_F(SignalCleanupTest, StopSignalsAreHeldOffWhileAFileIsMade) {
  const int status = RunInChild([] {
    SignalCleanup cleanup;
    cleanup.BeginMaking();
    const bool heldOff = Blocked(SIGTERM) && Blocked(SIGINT) && Blocked(SIGHUP);
    cleanup.EndMaking();
    if (!heldOff || Blocked(SIGTERM)) ::_exit(kChildWrong);
  });
  EXPECT_EQ(status, kChildOk);
}

// SIGUSR2 stands for a stop signal: blocked on this thread by the channel,
// and unblocked again by the test.
class SignalChannelTest : public ::testing::Test {
 protected:
  void SetUp() override {
    sigemptyset(&signals);
    sigaddset(&signals, SIGUSR2);
  }
  void TearDown() override { pthread_sigmask(SIG_UNBLOCK, &signals, nullptr); }

  sigset_t signals{};
};

TEST_F(SignalChannelTest, PendingSignalMakesTheDescriptorReadableAndIsTakenOnce) {
  SignalChannel channel(signals);
  ASSERT_TRUE(channel.Ok());
  Raise(SIGUSR2);
  pollfd fd = {channel.Fd(), POLLIN, 0};
  ASSERT_EQ(::poll(&fd, 1, 10000), 1);
  EXPECT_EQ(channel.Take(), SIGUSR2);
  EXPECT_EQ(channel.Take(), 0);
}

TEST_F(SignalChannelTest, TakeGivesZeroWhenNoSignalIsPending) {
  SignalChannel channel(signals);
  ASSERT_TRUE(channel.Ok());
  EXPECT_EQ(channel.Take(), 0);
}

TEST_F(SignalChannelTest, SignalsStayBlockedWhenTheChannelGoes) {
  { SignalChannel channel(signals); }
  EXPECT_TRUE(Blocked(SIGUSR2));
}

}  // namespace
}  // namespace zel::service_client
