// Events on their way from the client library's event thread to the watch's
// main loop, with an eventfd that wakes the loop. Bounded: a full queue makes
// the event thread wait (Close releases it). Push from any thread; Pop from one.
#pragma once

#include <time.h>

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>

#include "ipc/ipc_types.h"

namespace zel::ctl {

class EventQueue {
 public:
  struct Entry {
    zel::ipc::IPCEvent event;
    timespec arrived;  // wall-clock time of arrival
  };

  explicit EventQueue(size_t capacity);
  ~EventQueue();
  EventQueue(const EventQueue&) = delete;
  EventQueue& operator=(const EventQueue&) = delete;

  bool Ok() const { return mFd >= 0; }
  // Readable after a push; read it (Pop does) before waiting again.
  int Fd() const { return mFd; }

  // Waits while the queue is full; false once it is closed.
  bool Push(Entry entry);
  // The oldest entry; false when there is none.
  bool Pop(Entry& entry);
  void Close();
  // Takes events again after a Close (for the next client).
  void Reopen();

 private:
  const size_t mCapacity;
  int mFd = -1;
  std::mutex mMutex;  // guards mEntries and mClosed
  std::condition_variable mRoom;
  std::deque<Entry> mEntries;
  bool mClosed = false;
};

}  // namespace zel::ctl
