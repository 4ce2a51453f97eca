// Scope guard for a plain POSIX mutex: locks on construction, unlocks on
// destruction. Not copyable; lives on the stack of the thread that locks.
#pragma once

#include <pthread.h>

namespace zel::util {

class MutexGuard {
 public:
  explicit MutexGuard(pthread_mutex_t& mutex);
  ~MutexGuard();
  MutexGuard(const MutexGuard&) = delete;
  MutexGuard& operator=(const MutexGuard&) = delete;

 private:
  pthread_mutex_t& mMutex;
};

}  // namespace zel::util
