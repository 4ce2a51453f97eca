// Events on their way to the broker, in the order they came. While the
// broker is there none is dropped: at most kOnlineRoom wait, and a Push
// beyond that waits for room, so that the service's event socket fills and
// the service's sends wait in turn. While the broker is away at most
// `capacity` wait (--queue), and beyond that the oldest are dropped and
// counted. Events the broker had not acknowledged when it went away come back
// to the front. Push from the service's event thread, which it may hold up;
// StopWaiting from any thread; the rest from the link's thread.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <list>
#include <mutex>
#include <string>

#include "tools/bridge/wakeup.h"

namespace zel::bridge {

struct OutgoingEvent {
  std::string topic;
  std::string payload;
  // The link's: the message id of its last publication.
  int mid = 0;
};

class EventOutbox {
 public:
  // While the broker is there, this many may wait for the link whatever the
  // capacity (so that --queue 0 still lets every event through), and no
  // more: a Push then waits until half of them have gone.
  static constexpr size_t kOnlineRoom = 1024;

  EventOutbox(size_t capacity, Wakeup& wakeup) : mCapacity(capacity), mWakeup(wakeup) {}

  // Adds an event, waking the link when it is the only one. While the broker
  // is there and kOnlineRoom wait, it first waits for room, for the broker
  // to go away or for StopWaiting; while the broker is away it drops the
  // oldest beyond the capacity.
  void Push(OutgoingEvent event);
  // The oldest event; false when none waits.
  bool Pop(OutgoingEvent& event);
  // The broker is there (events pass) or away (at most `capacity` wait);
  // `unacknowledged` (oldest first) go back before those waiting.
  void SetOnline(bool online, std::list<OutgoingEvent> unacknowledged = {});
  // Push waits no more (the bridge stops and takes no more from the
  // service): beyond the bound the oldest are dropped.
  void StopWaiting();
  // How many were dropped since the last call.
  uint64_t TakeDropped();
  size_t Waiting() const;
  // Whether a Push waits for room.
  bool PushWaits() const;

 private:
  // Drops the oldest beyond the bound; the lock is held.
  void Trim();

  const size_t mCapacity;
  Wakeup& mWakeup;
  mutable std::mutex mMutex;  // guards everything below
  std::condition_variable mRoom;
  // A list, as every queue of the bridge (see ReplyOutbox): the events that
  // the broker had not acknowledged go back to its front in one splice.
  std::list<OutgoingEvent> mEvents;
  bool mOnline = false;
  bool mNoWaiting = false;  // set by StopWaiting
  size_t mPushesWaiting = 0;
  uint64_t mDropped = 0;
};

}  // namespace zel::bridge
