#include "ipc/timed_lock.h"

#include <pthread.h>

#include <chrono>
#include <thread>

#include "gtest/gtest.h"

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
