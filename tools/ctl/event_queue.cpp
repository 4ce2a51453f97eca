#include "tools/ctl/event_queue.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

// When the queue is full the event thread waits, the event socket's own
// queue fills and the service's further events are refused there, rather
// than piling up in memory while a per-event program runs.
namespace zel::ctl {

EventQueue::EventQueue(size_t capacity) : mCapacity(capacity) { mFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC); }

EventQueue::~EventQueue() {
  if (mFd >= 0) ::close(mFd);
}

bool EventQueue::Push(Entry entry) {
  {
    std::unique_lock<std::mutex> lock(mMutex);
    mRoom.wait(lock, [this] { return mClosed || mEntries.size() < mCapacity; });
    if (mClosed) return false;
    mEntries.push_back(std::move(entry));
  }
  const uint64_t one = 1;
  ssize_t ignored = ::write(mFd, &one, sizeof one);
  (void)ignored;
  return true;
}

bool EventQueue::Pop(Entry& entry) {
  uint64_t count = 0;
  ssize_t ignored = ::read(mFd, &count, sizeof count);
  (void)ignored;
  {
    std::lock_guard<std::mutex> lock(mMutex);
    if (mEntries.empty()) return false;
    entry = std::move(mEntries.front());
    mEntries.pop_front();
  }
  mRoom.notify_one();
  return true;
}

void EventQueue::Close() {
  {
    std::lock_guard<std::mutex> lock(mMutex);
    mClosed = true;
  }
  mRoom.notify_all();
}

void EventQueue::Reopen() {
  std::lock_guard<std::mutex> lock(mMutex);
  mClosed = false;
}

}  // namespace zel::ctl
