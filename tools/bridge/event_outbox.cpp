#include "tools/bridge/event_outbox.h"

#include <syslog.h>

#include <algorithm>

namespace zel::bridge {
namespace {

constexpr char kTrimText[] = "void zel::bridge::EventOutbox::Trim()";

}  // namespace

void EventOutbox::Push(OutgoingEvent event) {
  {
    std::lock_guard<std::mutex> lock(mMutex);
    mEvents.push_back(std::move(event));
    Trim();
  }
  mWakeup.Notify();
}

bool EventOutbox::Pop(OutgoingEvent& event) {
  std::lock_guard<std::mutex> lock(mMutex);
  if (mEvents.empty()) return false;
  event = std::move(mEvents.front());
  mEvents.pop_front();
  return true;
}

void EventOutbox::SetOnline(bool online, std::vector<OutgoingEvent> unacknowledged) {
  std::lock_guard<std::mutex> lock(mMutex);
  mOnline = online;
  mEvents.insert(mEvents.begin(), std::make_move_iterator(unacknowledged.begin()),
                 std::make_move_iterator(unacknowledged.end()));
  Trim();
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

void EventOutbox::Trim() {
  const size_t bound = mOnline ? std::max(mCapacity, kOnlineRoom) : mCapacity;
  if (mEvents.size() <= bound) return;
  const size_t excess = mEvents.size() - bound;
  // Said once for each run of drops; the link reports how many when it
  // publishes again.
  if (mDropped == 0) {
    syslog(LOG_WARNING, "%s %d: more than %zu events wait for the broker; dropping the oldest\n", kTrimText, 1, bound);
  }
  mEvents.erase(mEvents.begin(), mEvents.begin() + static_cast<std::ptrdiff_t>(excess));
  mDropped += excess;
}

}  // namespace zel::bridge
