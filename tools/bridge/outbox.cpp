#include "tools/bridge/outbox.h"

#include <sys/eventfd.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>

#include "tools/service_client/output.h"

namespace zel::bridge {
namespace {

// A waiting Push is woken once this many are left, so that the event thread
// hands over a batch at a time rather than one event per wake-up.
constexpr size_t kRoomAgain = EventOutbox::kOnlineRoom / 2;

}  // namespace

Wakeup::Wakeup() : mFd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

Wakeup::~Wakeup() {
  if (mFd >= 0) ::close(mFd);
}

void Wakeup::Notify() {
  const uint64_t one = 1;
  // A full counter (never reached) or a closed descriptor leaves it readable
  // or gone; either way there is nothing to retry.
  const ssize_t written = ::write(mFd, &one, sizeof one);
  static_cast<void>(written);
}

void Wakeup::Drain() {
  uint64_t count = 0;
  const ssize_t read = ::read(mFd, &count, sizeof count);
  static_cast<void>(read);
}

void EventOutbox::Push(Outgoing event) {
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

bool EventOutbox::Pop(Outgoing& event) {
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

void EventOutbox::SetOnline(bool online, std::list<Outgoing> unacknowledged) {
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
    zel::service_client::Log(LOG_WARNING, "more than %zu events wait for the broker; dropping the oldest", bound);
  }
  for (size_t i = 0; i < excess; ++i) mEvents.pop_front();
  mDropped += excess;
}

void ReplyOutbox::Push(Outgoing reply) {
  {
    std::lock_guard<std::mutex> lock(mMutex);
    mReplies.push_back(std::move(reply));
    if (mReplies.size() > kMaxReplies) {
      mReplies.pop_front();
      ++mDropped;
    }
  }
  mWakeup.Notify();
}

bool ReplyOutbox::Pop(Outgoing& reply) {
  std::lock_guard<std::mutex> lock(mMutex);
  if (mReplies.empty()) return false;
  reply = std::move(mReplies.front());
  mReplies.pop_front();
  return true;
}

uint64_t ReplyOutbox::TakeDropped() {
  std::lock_guard<std::mutex> lock(mMutex);
  const uint64_t dropped = mDropped;
  mDropped = 0;
  return dropped;
}

}  // namespace zel::bridge
