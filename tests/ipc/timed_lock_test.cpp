#include "ipc/timed_lock.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#include "gtest/gtest.h"
#include "tests/support/wait_until.h"

namespace zel::ipc {
namespace {

class TimedLockTest : public ::testing::Test {
 protected:
  TimedLockTest() { pthread_mutex_init(&mMutex, nullptr); }
  ~TimedLockTest() override { pthread_mutex_destroy(&mMutex); }

  // Whether another thread can have the mutex right now.
  bool FreeForOthers() {
    bool free = false;
    std::thread([this, &free] {
      free = pthread_mutex_trylock(&mMutex) == 0;
      if (free) pthread_mutex_unlock(&mMutex);
    }).join();
    return free;
  }

  pthread_mutex_t mMutex;
};

// Waits until thread `tid` of this process sleeps on a futex, as a thread
// blocked in pthread_mutex_timedlock does (an emulated program's calls are
// made by the emulator's same thread).
bool WaitUntilWaitingOnAFutex(const std::atomic<pid_t>& tid) {
  return zel::test::WaitUntil([&tid] {
    if (tid == 0) return false;
    std::string where;
    std::ifstream("/proc/self/task/" + std::to_string(tid) + "/wchan") >> where;
    return where.compare(0, 5, "futex") == 0;
  });
}

TEST_F(TimedLockTest, FreeMutexIsHeldUntilTheLockGoes) {
  {
    TimedLock lock(mMutex);
    EXPECT_TRUE(lock.TryFor(1000000));
    EXPECT_TRUE(lock.Held());
    EXPECT_FALSE(FreeForOthers());
  }
  EXPECT_TRUE(FreeForOthers());
}

TEST_F(TimedLockTest, MutexHeldElsewhereIsGivenUpOnAfterTheTimeOut) {
  pthread_mutex_lock(&mMutex);
  std::thread([this] {
    TimedLock lock(mMutex);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(lock.TryFor(100000));
    EXPECT_FALSE(lock.Held());
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(99));
  }).join();
  pthread_mutex_unlock(&mMutex);
}

// The microseconds past whole seconds carry the deadline into the next second
// whatever the clock reads (but in its first microsecond): the deadline stays
// valid, and the lock is had once its holder lets it go.
TEST_F(TimedLockTest, TimeOutCarryingIntoTheNextSecondStillWaitsForTheHolder) {
  pthread_mutex_lock(&mMutex);
  std::atomic<pid_t> waiter{0};
  bool held = false;
  std::thread thread([this, &waiter, &held] {
    waiter = static_cast<pid_t>(syscall(SYS_gettid));
    TimedLock lock(mMutex);
    held = lock.TryFor(10999999);
  });
  EXPECT_TRUE(WaitUntilWaitingOnAFutex(waiter));
  pthread_mutex_unlock(&mMutex);
  thread.join();
  EXPECT_TRUE(held);
}

TEST_F(TimedLockTest, LockNotHadLeavesTheMutexAlone) {
  pthread_mutex_lock(&mMutex);
  std::thread([this] { TimedLock(mMutex).TryFor(0); }).join();
  // Still held by this thread: the failed lock released nothing.
  EXPECT_FALSE(FreeForOthers());
  pthread_mutex_unlock(&mMutex);
}

TEST_F(TimedLockTest, HeldLockIsNotTakenAgain) {
  TimedLock lock(mMutex);
  ASSERT_TRUE(lock.TryFor(0));
  EXPECT_TRUE(lock.TryFor(0));
}

}  // namespace
}  // namespace zel::ipc
