// Events on their way to the broker, in the order they came. While the
// broker is away at most `capacity` wait (--queue), and beyond that the oldest
// are dropped and counted; while it is there the link takes them as they
// come. Events the broker had not acknowledged when it went away come back to
// the front. Push from any thread (the service's event thread); the rest from
// the link's thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "tools/bridge/wakeup.h"

namespace zel::bridge {

struct OutgoingEvent {
  std::string topic;
  std::string payload;
};

class EventOutbox {
 public:
  // While the broker is there, this many may wait for the link whatever the
  // capacity, so that --queue 0 still lets every event through.
  static constexpr size_t kOnlineRoom = 1024;

  EventOutbox(size_t capacity, Wakeup& wakeup) : mCapacity(capacity), mWakeup(wakeup) {}

  // Adds an event and wakes the link, dropping the oldest beyond the bound.
  void Push(OutgoingEvent event);
  // The oldest event; false when none waits.
  bool Pop(OutgoingEvent& event);
  // The broker is there (events pass) or away (at most `capacity` wait);
  // `unacknowledged` (oldest first) go back before those waiting.
  void SetOnline(bool online, std::vector<OutgoingEvent> unacknowledged = {});
  // How many were dropped since the last call.
  uint64_t TakeDropped();
  size_t Waiting() const;

 private:
  // Drops the oldest beyond the bound; the lock is held.
  void Trim();

  const size_t mCapacity;
  Wakeup& mWakeup;
  mutable std::mutex mMutex;  // guards everything below
  std::deque<OutgoingEvent> mEvents;
  bool mOnline = false;
  uint64_t mDropped = 0;
};

}  // namespace zel::bridge
