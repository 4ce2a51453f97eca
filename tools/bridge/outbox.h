// What waits for the broker link, between the bridge's threads: the wakeup
// that ends the link's wait, the events on their way out and the replies on
// their way out. Both outboxes are bounded: while the broker is there the
// events wait for room (the service's sends wait in turn) and the replies
// drop their oldest beyond kMaxReplies; while it is away at most `capacity`
// events wait (--queue) and the oldest beyond are dropped and counted.
// Push from any thread (the service's event thread may be held up in an
// event Push); Pop and the rest from the link's thread.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <list>
#include <mutex>

#include "tools/mqtt/session.h"

namespace zel::bridge {

// Wakes the link's thread from its wait: an eventfd that any thread makes
// readable and the link's thread drains before it waits again. Owns the
// descriptor.
class Wakeup {
 public:
  Wakeup();
  ~Wakeup();
  Wakeup(const Wakeup&) = delete;
  Wakeup& operator=(const Wakeup&) = delete;

  // Readable after a Notify until the next Drain; -1 when the eventfd could
  // not be made.
  int Fd() const { return mFd; }
  void Notify();
  void Drain();

 private:
  int mFd = -1;
};

// A message for the broker and, once the link has handed it to the session,
// its message id.
struct Outgoing {
  zel::mqtt::Publication message;
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
  void Push(Outgoing event);
  // The oldest event; false when none waits.
  bool Pop(Outgoing& event);
  // The broker is there (events pass) or away (at most `capacity` wait);
  // `unacknowledged` (oldest first) go back before those waiting.
  void SetOnline(bool online, std::list<Outgoing> unacknowledged = {});
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
  // A list, as every queue of the bridge: a deque of each element type would
  // add some 300 bytes of code to the device's program, and the events that
  // the broker had not acknowledged go back to its front in one splice.
  std::list<Outgoing> mEvents;
  bool mOnline = false;
  bool mNoWaiting = false;  // set by StopWaiting
  size_t mPushesWaiting = 0;
  uint64_t mDropped = 0;
};

// Replies on their way to the broker, in the order they were made: the
// command worker's and the link's own (refused input).
class ReplyOutbox {
 public:
  // At most this many wait; beyond, the oldest are dropped and counted. The
  // worker makes one reply per command (64 wait at most) and the link one
  // per refused command, so only a broker that stops acknowledging, or a
  // flood of refused commands, ever fills it.
  static constexpr size_t kMaxReplies = 256;

  explicit ReplyOutbox(Wakeup& wakeup) : mWakeup(wakeup) {}

  void Push(Outgoing reply);
  // The oldest reply; false when none waits.
  bool Pop(Outgoing& reply);
  // How many were dropped since the last call.
  uint64_t TakeDropped();

 private:
  Wakeup& mWakeup;
  std::mutex mMutex;  // guards mReplies and mDropped
  std::list<Outgoing> mReplies;
  uint64_t mDropped = 0;
};

}  // namespace zel::bridge
