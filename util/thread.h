// Runs one callable on its own std::thread, joinable or detached. Start and
// Join are called by the owner thread only; the owner joins a joinable thread
// before destroying this object.
#pragma once

#include <functional>
#include <thread>

namespace zel::util {

class Thread {
 public:
  static constexpr char kTag[] = "util::Thread";

  Thread();
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  // Starts `fn` on a new thread. Starting while a thread is still joinable
  // ends the process. Returns 0.
  int Start(std::function<void()> fn, bool detach);
  // Waits for the thread to end; 0 at once for a detached thread, -1 for a
  // thread that was never started.
  int Join();

 private:
  std::function<void()> mFunction;
  std::thread mThreadHandle;
  bool mDetached;
};

}  // namespace zel::util
