#include "tools/sim/delayed_sender.h"

#include <utility>

namespace zel::sim {

DelayedSender::DelayedSender() {
  mThread = std::thread([this] { Loop(); });
}

DelayedSender::~DelayedSender() { Stop(); }

void DelayedSender::Post(Send send, std::chrono::milliseconds delay) {
  {
    std::lock_guard<std::mutex> lock(mMutex);
    if (mStopping) return;
    mQueue.emplace(Clock::now() + delay, std::move(send));
  }
  mWake.notify_one();
}

void DelayedSender::Stop() {
  {
    std::lock_guard<std::mutex> lock(mMutex);
    mStopping = true;
    mQueue.clear();
  }
  mWake.notify_one();
  if (mThread.joinable()) mThread.join();
}

size_t DelayedSender::Pending() const {
  std::lock_guard<std::mutex> lock(mMutex);
  return mQueue.size();
}

void DelayedSender::Loop() {
  std::unique_lock<std::mutex> lock(mMutex);
  while (!mStopping) {
    if (mQueue.empty()) {
      mWake.wait(lock);
      continue;
    }
    const auto first = mQueue.begin();
    // A copy: the entry may be gone (a stop clears the queue) when the wait
    // looks at its deadline again.
    const Clock::time_point due = first->first;
    if (due > Clock::now()) {
      mWake.wait_until(lock, due);
      continue;
    }
    const Send send = std::move(first->second);
    mQueue.erase(first);
    // Run without the lock, so that posting never waits for a send.
    lock.unlock();
    send();
    lock.lock();
  }
}

}  // namespace zel::sim
