// Pushes the configured event to every registered event path at a fixed
// interval, from a thread of its own, and reports each delivery on the log.
// Owns its thread; the paths and the log must outlive it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

#include "tools/sim/event_paths.h"
#include "tools/sim/sim_log.h"

namespace zel::sim {

class EventPusher {
 public:
  // An interval of 0 starts no thread and pushes nothing.
  EventPusher(EventPaths& paths, SimLog& log, std::string line, std::chrono::milliseconds interval);
  ~EventPusher();
  EventPusher(const EventPusher&) = delete;
  EventPusher& operator=(const EventPusher&) = delete;

  // Ends the thread; later calls do nothing.
  void Stop();

  // The event line: the number, then the text as a second field unless it is
  // empty.
  static std::string Line(int32_t id, const std::string& text);

 private:
  void Loop();
  void PushOnce();

  EventPaths& mPaths;
  SimLog& mLog;
  const std::string mLine;
  const std::chrono::milliseconds mInterval;
  // Guards mStopping; mWake ends the wait between two pushes early.
  std::mutex mMutex;
  std::condition_variable mWake;
  bool mStopping = false;
  std::thread mThread;
};

}  // namespace zel::sim
