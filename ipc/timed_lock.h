// Holds a plain POSIX mutex if it can be had within a time limit, and releases
// it on destruction: for the places that must never wait for a mutex for ever
// (a client ending while its own thread holds the lock, a background thread
// told to stop). Lives on the stack of the thread that locks; not copyable.
#pragma once

#include <pthread.h>

#include <cstdint>

namespace zel::ipc {

class TimedLock {
 public:
  explicit TimedLock(pthread_mutex_t& mutex) : mMutex(mutex) {}
  ~TimedLock();
  TimedLock(const TimedLock&) = delete;
  TimedLock& operator=(const TimedLock&) = delete;

  // Tries to lock for at most `timeoutUs` microseconds (at most a day); true
  // once held (a held lock is not taken again).
  bool TryFor(uint64_t timeoutUs);
  bool Held() const { return mHeld; }

 private:
  pthread_mutex_t& mMutex;
  bool mHeld = false;
};

}  // namespace zel::ipc
