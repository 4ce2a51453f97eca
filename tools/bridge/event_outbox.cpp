#include "tools/bridge/event_outbox.h"

#include <syslog.h>

#include <algorithm>

namespace zel::bridge {
namespace {

constexpr char kTrimText[] = "void zel::bridge::EventOutbox::Trim()";

// A waiting Push is woken once this many are left, so that the event thread
// hands over a batch at a time rather than one event per wake-up.
constexpr size_t kRoomAgain = EventOutbox::kOnlineRoom / 2;

}  // namespace

void EventOutbox::Push(OutgoingEvent event) {
  bool first = false;
  {
    std::unique_lock<std::mutex> lock(mMutex);
    if (mOnline && !mNoWaiting && mEvents.size() >= kOnlineRoom) {
      ++mPushesWaiting;
      mRoom.wait(lock, [this] { return !mOnline || mNoWaiting || mEvents.size() < kOnlineRoom; });
      --mPushesWaiting;
    }
    first = mEvents.empty();
    mEvents.push_back(std::move(event));
    Trim();
  }
  // The link takes every waiting event each time it looks, so it needs
  // waking only for the first.
  if (first) mWakeup.Notify();
}

bool EventOutbox::Pop(OutgoingEvent& event) {
  bool room = false;
  {
    std::lock_guard<std::mutex> lock(mMutex);
    if (mEvents.empty()) return false;
    event = std::move(mEvents.front());
    mEvents.pop_front();
    // A Push waits only while the outbox is full, so on its way down the
    // count passes this mark.
    room = mPushesWaiting != 0 && mEvents.size() == kRoomAgain;
  }
  if (room) mRoom.notify_all();
  return true;
}

void EventOutbox::SetOnline(bool online, std::list<OutgoingEvent> unacknowledged) {
  {
    std::lock_guard<std::mutex> lock(mMutex);
    mOnline = online;
    mEvents.splice(mEvents.begin(), unacknowledged);
    Trim();
  }
  // A Push that waits for room goes on under the broker-away bound.
  if (!online) mRoom.notify_all();
}

void EventOutbox::StopWaiting() {
  {
    std::lock_guard<std::mutex> lock(mMutex);
    mNoWaiting = true;
  }
  mRoom.notify_all();
}

uint64_t EventOutbox::TakeDropped() {
  std::lock_guard<std::mutex> lock(mMutex);
  const uint64_t dropped = mDropped;
  mDropped = 0;
  return dropped;
}

size_t EventOutbox::Waiting() const {
  std::lock_guard<std::mutex> lock(mMutex);
  return mEvents.size();
}

bool EventOutbox::PushWaits() const {
  std::lock_guard<std::mutex> lock(mMutex);
  return mPushesWaiting != 0;
}

void EventOutbox::Trim() {
  const size_t bound = mOnline ? std::max(mCapacity, kOnlineRoom) : mCapacity;
  if (mEvents.size() <= bound) return;
  const size_t excess = mEvents.size() - bound;
  // Said once for each run of drops; the link reports how many when it
  // publishes again.
  if (mDropped == 0) {
    syslog(LOG_WARNING, "%s %d: more than %zu events wait for the broker; dropping the oldest\n", kTrimText, 1, bound);
  }
  for (size_t i = 0; i < excess; ++i) mEvents.pop_front();
  mDropped += excess;
}

}  // namespace zel::bridge
