// Starting, joining and detaching the thread wrapper.
#include "util/thread.h"

#include <syslog.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/wait_until.h"
#include "tests/util/proc_probe.h"

namespace zel::util {
namespace {

using test::LogRecord;
using test::SyslogCapture;
using test::WaitUntil;
using ::testing::ElementsAre;

// A one-shot gate a thread can wait at.
struct Gate {
  std::mutex mutex;  // guards open
  std::condition_variable changed;
  bool open = false;

  void Open() {
    {
      std::lock_guard<std::mutex> lock(mutex);
      open = true;
    }
    changed.notify_all();
  }
  void Wait() {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [this] { return open; });
  }
};

TEST(ThreadTest, StartRunsTheFunctionAndJoinWaitsForIt) {
  Thread thread;
  std::atomic<int> runs{0};
  EXPECT_EQ(thread.Start([&runs] { ++runs; }, false), 0);
  EXPECT_EQ(thread.Join(), 0);
  EXPECT_EQ(runs.load(), 1);
}

TEST(ThreadTest, StartRunsOnAnotherThread) {
  Thread thread;
  pid_t tid = 0;
  thread.Start([&tid] { tid = testkit::CurrentTid(); }, false);
  thread.Join();
  EXPECT_NE(tid, 0);
  EXPECT_NE(tid, testkit::CurrentTid());
}

TEST(ThreadTest, ThreadCanBeStartedAgainAfterJoin) {
  Thread thread;
  std::atomic<int> runs{0};
  thread.Start([&runs] { ++runs; }, false);
  thread.Join();
  thread.Start([&runs] { runs += 10; }, false);
  thread.Join();
  EXPECT_EQ(runs.load(), 11);
}

TEST(ThreadTest, JoinOnADetachedThreadReturnsAtOnce) {
  auto gate = std::make_shared<Gate>();
  auto tid = std::make_shared<std::atomic<pid_t>>(0);
  Thread thread;
  EXPECT_EQ(thread.Start(
                [gate, tid] {
                  *tid = testkit::CurrentTid();
                  gate->Wait();
                },
                true),
            0);
  // The thread still waits at the gate, so Join cannot have waited for it.
  EXPECT_EQ(thread.Join(), 0);
  ASSERT_TRUE(WaitUntil([tid] { return tid->load() != 0; }));
  EXPECT_TRUE(testkit::TaskExists(tid->load()));
  gate->Open();
  EXPECT_TRUE(WaitUntil([tid] { return !testkit::TaskExists(tid->load()); }));
}

TEST(ThreadTest, JoinOfAThreadNeverStartedFails) {
  Thread thread;
  EXPECT_EQ(thread.Join(), -1);
  EXPECT_THAT(SyslogCapture::Records(), ElementsAre(LogRecord{LOG_ERR, "Thread::Join: no thread to join\n"}));
}

TEST(ThreadDeathTest, StartingOverAJoinableThreadEndsTheProcess) {
  EXPECT_DEATH(
      {
        SyslogCapture::EchoToStderr(true);
        Thread thread;
        Gate gate;
        thread.Start([&gate] { gate.Wait(); }, false);
        thread.Start([] {}, false);
      },
      "syslog\\[3\\]: Thread::Start: a joinable thread is still running");
}

}  // namespace
}  // namespace zel::util
