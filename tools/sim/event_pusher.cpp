#include "tools/sim/event_pusher.h"

#include <vector>

#include "ipc/field_split.h"
#include "ipc/ipc_message.h"

namespace zel::sim {

EventPusher::EventPusher(EventPaths& paths, SimLog& log, std::string line, std::chrono::milliseconds interval)
    : mPaths(paths), mLog(log), mLine(std::move(line)), mInterval(interval) {
  if (mInterval.count() > 0) mThread = std::thread([this] { Loop(); });
}

EventPusher::~EventPusher() { Stop(); }

void EventPusher::Stop() {
  {
    std::lock_guard<std::mutex> lock(mMutex);
    mStopping = true;
  }
  mWake.notify_one();
  if (mThread.joinable()) mThread.join();
}

std::string EventPusher::Line(int32_t id, const std::string& text) {
  std::vector<std::string> fields = {std::to_string(id)};
  if (!text.empty()) fields.push_back(text);
  return zel::ipc::JoinFields(fields, zel::ipc::kFieldSeparator);
}

void EventPusher::Loop() {
  std::unique_lock<std::mutex> lock(mMutex);
  // Deadlines advance by whole intervals, so the pace does not drift with the
  // time each push takes.
  auto next = std::chrono::steady_clock::now() + mInterval;
  while (!mStopping) {
    if (mWake.wait_until(lock, next, [this] { return mStopping; })) break;
    lock.unlock();
    PushOnce();
    lock.lock();
    next += mInterval;
    // Pushes missed while the process was held up are skipped, not bunched.
    const auto now = std::chrono::steady_clock::now();
    if (next < now) next = now + mInterval;
  }
}

void EventPusher::PushOnce() {
  const std::string shown = SimLog::Shown(mLine);
  for (const EventPaths::Report& report : mPaths.SendToAll(mLine)) {
    std::string line = "event [" + shown + "] to [" + report.path + "]";
    if (report.delivery == EventPaths::Delivery::QueueFull) {
      line += ": not sent, its queue is full";
    } else if (report.delivery == EventPaths::Delivery::Gone) {
      line += ": not sent, nothing receives there any more; forgotten";
    }
    mLog.Line(line);
  }
}

}  // namespace zel::sim
