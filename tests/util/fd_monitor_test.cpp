// The fd monitor's loop: dispatch, the eventfd commands, changes of its tables
// from other threads and from its own callbacks, and its end.
#include "util/fd_monitor.h"

#include <sys/ioctl.h>
#include <sys/select.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "tests/support/descriptor_filler.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/wait_until.h"
#include "tests/util/monitor_probe.h"
#include "tests/util/proc_probe.h"
#include "tests/util/test_pipe.h"

namespace zel::util {
namespace {

using test::LogRecord;
using test::SyslogCapture;
using test::WaitUntil;
using ::testing::ElementsAre;
using testkit::Calls;
using testkit::CommandValue;
using testkit::EventFdCount;
using testkit::Gate;
using testkit::TestPipe;

constexpr char kAddFd[] = "int zel::util::FdMonitor::AddFd(int, zel::util::FdType, zel::util::FdCallbackFn)";

// The eventfd the monitor made: the one that was not there before.
int NewEventFd(const std::vector<int>& before) {
  for (int fd : testkit::EventFds()) {
    if (std::find(before.begin(), before.end(), fd) == before.end()) return fd;
  }
  return -1;
}

// A monitor whose loop is held at a gate, with the eventfd it made, so that
// the commands written to it can be read before the loop takes them.
// Declare it after the pipes and records its callbacks use.
struct HeldMonitor {
  HeldMonitor() : before(testkit::EventFds()), eventFd(NewEventFd(before)) {
    gate.Attach(monitor);
    held = gate.Hold();
  }
  // A test that stops early must not leave the loop held while the monitor
  // waits for it to end.
  ~HeldMonitor() { gate.Release(); }

  Gate gate;
  const std::vector<int> before;
  FdMonitor monitor;
  const int eventFd;
  bool held = false;
};

// Makes both pipes readable while the loop is held at the gate, so that its
// next pass finds them ready together.
bool ReadyInOnePass(Gate& gate, const TestPipe& first, const TestPipe& second) {
  if (!gate.Hold()) return false;
  const bool written = first.Write("1") && second.Write("2");
  gate.Release();
  return written;
}

TEST(FdMonitorTest, CallsBackForAReadableDescriptorOnItsOwnThread) {
  TestPipe pipe;
  Calls calls;
  std::atomic<pid_t> tid{0};
  FdMonitor monitor;
  EXPECT_EQ(monitor.AddFd(pipe.ReadFd(), FdType::Read,
                          [&](int fd, FdType type) {
                            tid = testkit::CurrentTid();
                            pipe.Drain();
                            calls.Add(fd, type);
                          }),
            0);
  ASSERT_TRUE(pipe.Write("x"));
  ASSERT_TRUE(calls.WaitForCount(1));
  EXPECT_EQ(calls.Fds(), std::vector<int>{pipe.ReadFd()});
  EXPECT_EQ(calls.Types(), std::vector<FdType>{FdType::Read});
  EXPECT_NE(tid.load(), testkit::CurrentTid());
}

TEST(FdMonitorTest, OwnsOneThreadUntilDestroyed) {
  testkit::SettleRuntimeThreads();
  const size_t before = testkit::ThreadCount();
  {
    FdMonitor monitor;
    EXPECT_EQ(testkit::ThreadCount(), before + 1);
  }
  EXPECT_TRUE(WaitUntil([before] { return testkit::ThreadCount() == before; }));
}

TEST(FdMonitorTest, AnUnknownTypeIsWatchedForReading) {
  TestPipe pipe;
  Calls calls;
  FdMonitor monitor;
  monitor.AddFd(pipe.ReadFd(), static_cast<FdType>(7), calls.Recorder(&pipe));
  ASSERT_TRUE(pipe.Write("x"));
  ASSERT_TRUE(calls.WaitForCount(1));
  EXPECT_EQ(calls.Types(), std::vector<FdType>{FdType::Read});
}

TEST(FdMonitorTest, AddingWritesTheModifyCommandAsACounterAdd) {
  TestPipe pipe;
  HeldMonitor m;
  ASSERT_GE(m.eventFd, 0);
  ASSERT_TRUE(m.held);
  EXPECT_EQ(EventFdCount(m.eventFd), 0u);
  m.monitor.AddFd(pipe.ReadFd(), FdType::Read, nullptr);
  EXPECT_EQ(EventFdCount(m.eventFd), CommandValue("evt_modi"));
  m.monitor.RemoveFd(pipe.ReadFd(), FdType::Read);
  EXPECT_EQ(EventFdCount(m.eventFd), 2 * CommandValue("evt_modi"));
  m.gate.Release();
  EXPECT_TRUE(WaitUntil([&] { return EventFdCount(m.eventFd) == 0; }));
}

TEST(FdMonitorTest, AddingARegisteredDescriptorKeepsTheFirstCallbackAndDoesNotWakeTheLoop) {
  TestPipe pipe;
  Calls first;
  Calls second;
  HeldMonitor m;
  ASSERT_TRUE(m.held);
  EXPECT_EQ(m.monitor.AddFd(pipe.ReadFd(), FdType::Read, first.Recorder(&pipe)), 0);
  ASSERT_EQ(EventFdCount(m.eventFd), CommandValue("evt_modi"));
  EXPECT_EQ(m.monitor.AddFd(pipe.ReadFd(), FdType::Read, second.Recorder(&pipe)), 0);
  EXPECT_EQ(EventFdCount(m.eventFd), CommandValue("evt_modi"));
  m.gate.Release();
  ASSERT_TRUE(pipe.Write("x"));
  ASSERT_TRUE(first.WaitForCount(1));
  EXPECT_TRUE(second.Fds().empty());
}

TEST(FdMonitorTest, RemovingAnUnregisteredDescriptorWritesNothing) {
  TestPipe pipe;
  HeldMonitor m;
  ASSERT_TRUE(m.held);
  EXPECT_EQ(m.monitor.RemoveFd(pipe.ReadFd(), FdType::Read), 0);
  EXPECT_EQ(m.monitor.RemoveFd(m.gate.Fd(), FdType::Write), 0);
  EXPECT_EQ(EventFdCount(m.eventFd), 0u);
  m.gate.Release();
}

TEST(FdMonitorTest, PendingCommandsBeyondTheCounterLimitDoNotBlock) {
  TestPipe a;
  TestPipe b;
  TestPipe c;
  Calls calls;
  HeldMonitor m;
  ASSERT_TRUE(m.held);
  // Two pending commands nearly fill the counter; the third cannot be added.
  m.monitor.AddFd(a.ReadFd(), FdType::Read, calls.Recorder(&a));
  m.monitor.AddFd(b.ReadFd(), FdType::Read, calls.Recorder(&b));
  m.monitor.AddFd(c.ReadFd(), FdType::Read, calls.Recorder(&c));
  EXPECT_EQ(EventFdCount(m.eventFd), 2 * CommandValue("evt_modi"));
  m.gate.Release();
  ASSERT_TRUE(c.Write("x"));
  ASSERT_TRUE(calls.WaitForCount(1));
  EXPECT_EQ(calls.Fds(), std::vector<int>{c.ReadFd()});
}

TEST(FdMonitorTest, AnEmptyCallbackDrainsUpTo4096BytesPerPass) {
  TestPipe drained;
  TestPipe probe;
  Gate gate;
  std::vector<int> pendingSeen;
  Calls calls;
  FdMonitor monitor;
  gate.Attach(monitor);
  monitor.AddFd(drained.ReadFd(), FdType::Read, nullptr);
  monitor.AddFd(probe.ReadFd(), FdType::Read, [&](int fd, FdType type) {
    pendingSeen.push_back(drained.Pending());
    probe.Drain();
    calls.Add(fd, type);
  });
  ASSERT_TRUE(gate.Hold());
  ASSERT_TRUE(drained.Write(std::string(5000, 'd')));
  ASSERT_TRUE(probe.Write("p"));
  gate.Release();
  ASSERT_TRUE(calls.WaitForCount(1));
  EXPECT_EQ(pendingSeen, std::vector<int>{5000 - 4096});
  EXPECT_TRUE(WaitUntil([&] { return drained.Pending() == 0; }));
}

TEST(FdMonitorTest, ReadyCallbacksRunInAscendingDescriptorOrder) {
  TestPipe low;
  TestPipe high;
  Gate gate;
  Calls calls;
  FdMonitor monitor;
  gate.Attach(monitor);
  monitor.AddFd(high.ReadFd(), FdType::Read, calls.Recorder(&high));
  monitor.AddFd(low.ReadFd(), FdType::Read, calls.Recorder(&low));
  ASSERT_TRUE(ReadyInOnePass(gate, high, low));
  ASSERT_TRUE(calls.WaitForCount(2));
  EXPECT_EQ(calls.Fds(), (std::vector<int>{low.ReadFd(), high.ReadFd()}));
}

TEST(FdMonitorTest, ACallbackRemovingItsOwnDescriptorIsNotCalledAgain) {
  TestPipe self;
  TestPipe other;
  Calls selfCalls;
  Calls otherCalls;
  FdMonitor monitor;
  // The callback leaves its pipe readable: only the removal stops the calls.
  monitor.AddFd(self.ReadFd(), FdType::Read, [&](int fd, FdType type) {
    selfCalls.Add(fd, type);
    monitor.RemoveFd(fd, FdType::Read);
  });
  monitor.AddFd(other.ReadFd(), FdType::Read, otherCalls.Recorder(&other));
  ASSERT_TRUE(self.Write("s"));
  ASSERT_TRUE(selfCalls.WaitForCount(1));
  for (size_t pass = 1; pass <= 3; ++pass) {
    ASSERT_TRUE(other.Write("o"));
    ASSERT_TRUE(otherCalls.WaitForCount(pass));
  }
  EXPECT_EQ(selfCalls.Count(self.ReadFd()), 1u);
  EXPECT_EQ(self.Pending(), 1);
}

TEST(FdMonitorTest, ARemovedDescriptorThatWasReadyIsStillCalledInThatPass) {
  TestPipe low;
  TestPipe high;
  Gate gate;
  Calls calls;
  FdMonitor monitor;
  gate.Attach(monitor);
  monitor.AddFd(low.ReadFd(), FdType::Read, [&](int fd, FdType type) {
    low.Drain();
    calls.Add(fd, type);
    monitor.RemoveFd(high.ReadFd(), FdType::Read);
  });
  monitor.AddFd(high.ReadFd(), FdType::Read, calls.Recorder(&high));
  ASSERT_TRUE(ReadyInOnePass(gate, low, high));
  ASSERT_TRUE(calls.WaitForCount(2));
  EXPECT_EQ(calls.Fds(), (std::vector<int>{low.ReadFd(), high.ReadFd()}));
}

TEST(FdMonitorTest, ACallbackCanAddAndRemoveDescriptorsOnTheMonitorThread) {
  TestPipe trigger;
  std::vector<std::unique_ptr<TestPipe>> added;
  for (int i = 0; i < 4; ++i) added.push_back(std::make_unique<TestPipe>());
  Calls triggerCalls;
  Calls addedCalls;
  FdMonitor monitor;
  monitor.AddFd(trigger.ReadFd(), FdType::Read, [&](int fd, FdType type) {
    trigger.Drain();
    triggerCalls.Add(fd, type);
    for (auto& pipe : added) monitor.AddFd(pipe->ReadFd(), FdType::Read, addedCalls.Recorder(pipe.get()));
    monitor.RemoveFd(added.back()->ReadFd(), FdType::Read);
    monitor.RemoveFd(fd, FdType::Read);
  });
  ASSERT_TRUE(trigger.Write("t"));
  ASSERT_TRUE(triggerCalls.WaitForCount(1));
  for (size_t i = 0; i + 1 < added.size(); ++i) {
    ASSERT_TRUE(added[i]->Write("a"));
    ASSERT_TRUE(addedCalls.WaitForCount(i + 1));
    EXPECT_EQ(addedCalls.Fds().back(), added[i]->ReadFd());
  }
  // The last added pipe and the trigger were removed again.
  ASSERT_TRUE(added.back()->Write("a"));
  ASSERT_TRUE(trigger.Write("t"));
  ASSERT_TRUE(added[0]->Write("a"));
  ASSERT_TRUE(addedCalls.WaitForCount(added.size()));
  EXPECT_EQ(addedCalls.Fds().back(), added[0]->ReadFd());
  EXPECT_EQ(addedCalls.Count(added.back()->ReadFd()), 0u);
  EXPECT_EQ(triggerCalls.Fds().size(), 1u);
}

TEST(FdMonitorTest, RemovingFromAnotherThreadStopsTheCalls) {
  TestPipe removed;
  TestPipe other;
  Calls calls;
  FdMonitor monitor;
  monitor.AddFd(removed.ReadFd(), FdType::Read, calls.Recorder(&removed));
  monitor.AddFd(other.ReadFd(), FdType::Read, calls.Recorder(&other));
  EXPECT_EQ(monitor.RemoveFd(removed.ReadFd(), FdType::Read), 0);
  ASSERT_TRUE(removed.Write("r"));
  ASSERT_TRUE(other.Write("o"));
  ASSERT_TRUE(calls.WaitForCount(1));
  EXPECT_EQ(calls.Fds(), std::vector<int>{other.ReadFd()});
  EXPECT_EQ(removed.Pending(), 1);
}

TEST(FdMonitorTest, DestroyingAMonitorBlockedInSelectEndsItsLoop) {
  TestPipe pipe;
  std::atomic<pid_t> loopTid{0};
  Calls calls;
  const std::vector<int> before = testkit::EventFds();
  auto monitor = std::make_unique<FdMonitor>();
  const int eventFd = NewEventFd(before);
  ASSERT_GE(eventFd, 0);
  monitor->AddFd(pipe.ReadFd(), FdType::Read, [&](int fd, FdType type) {
    loopTid = testkit::CurrentTid();
    pipe.Drain();
    calls.Add(fd, type);
  });
  ASSERT_TRUE(pipe.Write("x"));
  ASSERT_TRUE(calls.WaitForCount(1));
  ASSERT_TRUE(WaitUntil([&] { return testkit::InSelect(loopTid.load()); }));
  monitor.reset();
  const std::vector<int> after = testkit::EventFds();
  EXPECT_EQ(std::find(after.begin(), after.end(), eventFd), after.end());
  EXPECT_TRUE(SyslogCapture::Records().empty());
}

TEST(FdMonitorTest, StopEndsTheLoopOnceAndLaterAddsAreHarmless) {
  TestPipe pipe;
  Calls calls;
  FdMonitor monitor;
  monitor.Stop();
  monitor.Stop();
  EXPECT_EQ(monitor.AddFd(pipe.ReadFd(), FdType::Read, calls.Recorder(&pipe)), 0);
  EXPECT_EQ(monitor.RemoveFd(pipe.ReadFd(), FdType::Read), 0);
  EXPECT_TRUE(calls.Fds().empty());
}

TEST(FdMonitorTest, DescriptorsSelectCannotWatchAreRefused) {
  FdMonitor monitor;
  EXPECT_EQ(monitor.AddFd(FD_SETSIZE, FdType::Read, [](int, FdType) {}), -1);
  EXPECT_EQ(monitor.AddFd(-1, FdType::Read, [](int, FdType) {}), -1);
  EXPECT_THAT(
      SyslogCapture::Records(),
      ElementsAre(
          LogRecord{LOG_ERR, std::string(kAddFd) + ": fd [1024] cannot be watched by select (FD_SETSIZE [1024])\n"},
          LogRecord{LOG_ERR, std::string(kAddFd) + ": fd [-1] cannot be watched by select (FD_SETSIZE [1024])\n"}));
}

TEST(FdMonitorTest, AnEventFdBeyondSelectsLimitIsClosedAndNoThreadStarts) {
  testkit::SettleRuntimeThreads();
  const size_t threads = testkit::ThreadCount();
  test::DescriptorFiller filler(FD_SETSIZE);
  {
    FdMonitor monitor;
    EXPECT_EQ(testkit::ThreadCount(), threads);
    // The eventfd took the first number beyond the limit and gave it back.
    const int next = dup(STDERR_FILENO);
    EXPECT_EQ(next, FD_SETSIZE);
    close(next);
  }
  EXPECT_THAT(SyslogCapture::Records(),
              ElementsAre(LogRecord{LOG_ERR,
                                    "zel::util::FdMonitor::FdMonitor(): eventfd [1024] cannot be watched by select "
                                    "(FD_SETSIZE [1024])\n"}));
}

TEST(FdMonitorTest, AClosedRegisteredDescriptorMakesSelectFailUntilRemoved) {
  TestPipe pipe;
  Calls calls;
  auto closed = std::make_unique<TestPipe>();
  const int closedFd = closed->ReadFd();
  FdMonitor monitor;
  monitor.AddFd(closedFd, FdType::Read, [](int, FdType) {});
  closed.reset();
  // Adding wakes the loop, whose next select then sees the closed descriptor.
  monitor.AddFd(pipe.ReadFd(), FdType::Read, calls.Recorder(&pipe));
  const LogRecord selectError{LOG_ERR, "void zel::util::FdMonitor::ThreadLoop() 80: select error"};
  ASSERT_TRUE(SyslogCapture::WaitForRecord(selectError));
  monitor.RemoveFd(closedFd, FdType::Read);
  ASSERT_TRUE(pipe.Write("x"));
  EXPECT_TRUE(calls.WaitForCount(1));
}

TEST(FdMonitorTest, WriteReadinessIsNeverDispatched) {
  TestPipe writable;
  TestPipe readable;
  Calls writeCalls;
  Calls readCalls;
  FdMonitor monitor;
  monitor.AddFd(writable.WriteFd(), FdType::Write, writeCalls.Recorder());
  monitor.AddFd(writable.ReadFd(), FdType::Except, writeCalls.Recorder());
  monitor.AddFd(readable.ReadFd(), FdType::Read, readCalls.Recorder(&readable));
  for (size_t pass = 1; pass <= 3; ++pass) {
    ASSERT_TRUE(readable.Write("r"));
    ASSERT_TRUE(readCalls.WaitForCount(pass));
  }
  EXPECT_TRUE(writeCalls.Fds().empty());
}

TEST(FdMonitorTest, AnEventFdNumberedZeroIsStillStopped) {
  const int savedStdin = dup(0);
  ASSERT_GE(savedStdin, 0);
  close(0);
  {
    FdMonitor monitor;
    const std::vector<int> eventFds = testkit::EventFds();
    EXPECT_NE(std::find(eventFds.begin(), eventFds.end(), 0), eventFds.end());
  }
  const std::vector<int> eventFds = testkit::EventFds();
  EXPECT_EQ(std::find(eventFds.begin(), eventFds.end(), 0), eventFds.end());
  dup2(savedStdin, 0);
  close(savedStdin);
}

}  // namespace
}  // namespace zel::util
