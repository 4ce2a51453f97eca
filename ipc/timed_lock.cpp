#include "ipc/timed_lock.h"

#include <syslog.h>
#include <time.h>

#include <cstdlib>

namespace zel::ipc {
namespace {

constexpr uint64_t kUsPerSecond = 1000000;
constexpr long kNsPerSecond = 1000000000L;
constexpr long kNsPerUs = 1000;
// Longer limits are cut to a day, which keeps the deadline within a 32-bit
// time_t.
constexpr uint64_t kLongestUs = 86400 * kUsPerSecond;

// The mutex's clock is the real-time one; the deadline is an absolute reading
// of it.
timespec RealTimeAfter(uint64_t timeoutUs) {
  if (timeoutUs > kLongestUs) timeoutUs = kLongestUs;
  timespec deadline{};
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += static_cast<time_t>(timeoutUs / kUsPerSecond);
  deadline.tv_nsec += static_cast<long>(timeoutUs % kUsPerSecond) * kNsPerUs;
  if (deadline.tv_nsec >= kNsPerSecond) {
    deadline.tv_sec += 1;
    deadline.tv_nsec -= kNsPerSecond;
  }
  return deadline;
}

}  // namespace

TimedLock::~TimedLock() {
  if (!mHeld) return;
  // A failing unlock means a corrupted or misused mutex; carrying on would
  // silently break what it guards.
  const int rc = pthread_mutex_unlock(&mMutex);
  if (rc != 0) {
    syslog(LOG_ERR, "TimedLock: pthread_mutex_unlock failed [%d]\n", rc);
    std::abort();
  }
}

bool TimedLock::TryFor(uint64_t timeoutUs) {
  if (mHeld) return true;
  const timespec deadline = RealTimeAfter(timeoutUs);
  mHeld = pthread_mutex_timedlock(&mMutex, &deadline) == 0;
  return mHeld;
}

}  // namespace zel::ipc
