// Sends replies later: each posted send runs when its delay has passed, in
// the order they fall due, on a thread of its own, so that a late reply never
// holds up the requests that arrive meanwhile. Post is safe from any thread.
// Owns its thread; sends still pending at Stop are dropped.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

namespace zel::sim {

class DelayedSender {
 public:
  using Clock = std::chrono::steady_clock;
  // One send; runs on the sender's thread.
  using Send = std::function<void()>;

  DelayedSender();
  ~DelayedSender();
  DelayedSender(const DelayedSender&) = delete;
  DelayedSender& operator=(const DelayedSender&) = delete;

  // Ignored once stopped.
  void Post(Send send, std::chrono::milliseconds delay);
  // Drops what is pending and ends the thread; later calls do nothing.
  void Stop();
  size_t Pending() const;

 private:
  void Loop();

  // Guards mQueue and mStopping; mWake announces a new send or the stop.
  mutable std::mutex mMutex;
  std::condition_variable mWake;
  // Ordered by due time; equal times keep the order of posting.
  std::multimap<Clock::time_point, Send> mQueue;
  bool mStopping = false;
  std::thread mThread;
};

}  // namespace zel::sim
