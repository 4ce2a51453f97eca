#include "tools/bridge/service_watch.h"

#include <syslog.h>

#include <chrono>

#include "tools/service_client/format.h"

namespace zel::bridge {
namespace {

namespace core = zel::service_client;

constexpr char kSetUpText[] = "bool zel::bridge::ServiceWatch::SetUp(zel::service_client::Watch&)";

// How long the service may be away before the next attempt to register.
constexpr std::chrono::seconds kRetryInterval(1);

}  // namespace

ServiceWatch::~ServiceWatch() { Stop(); }

void ServiceWatch::Start() {
  mThread = std::thread([this] { Run(); });
}

void ServiceWatch::Stop() {
  {
    std::lock_guard<std::mutex> lock(mMutex);
    mStopping = true;
    if (mWatch != nullptr) mWatch->Stop();
  }
  mStopChanged.notify_all();
  // The thread may wait for room in the outbox, which a broker that stopped
  // acknowledging would never make.
  mEvents.StopWaiting();
  if (mThread.joinable()) mThread.join();
}

void ServiceWatch::Run() {
  do {
    core::Watch watch(mSettings.Core());
    if (!SetUp(watch)) continue;
    {
      std::lock_guard<std::mutex> lock(mMutex);
      if (mStopping) return;
      mWatch = &watch;
    }
    watch.Run([this](const core::Notice& notice) { OnNotice(notice); });
    std::lock_guard<std::mutex> lock(mMutex);
    mWatch = nullptr;
    if (mStopping) return;
  } while (WaitBeforeRetry());
}

bool ServiceWatch::SetUp(core::Watch& watch) {
  core::Failure failure;
  if (watch.Start(failure)) {
    mLastFailure.clear();
    return true;
  }
  mService.Set(ServiceState::Value::Down);
  const std::string line = failure.what + ": " + failure.why;
  if (line != mLastFailure) {
    syslog(LOG_WARNING, "%s %d: cannot watch the service: %s; trying again every second\n", kSetUpText, 1,
           line.c_str());
    mLastFailure = line;
  }
  return false;
}

void ServiceWatch::OnNotice(const core::Notice& notice) {
  switch (notice.kind) {
    case core::Notice::Kind::Event: {
      std::string payload = core::JsonEvent(core::UtcTime(notice.time), notice.event);
      if (!payload.empty() && payload.back() == '\n') payload.pop_back();
      mEvents.Push(OutgoingEvent{mTopics.Event(notice.event.id), std::move(payload)});
      break;
    }
    case core::Notice::Kind::ServiceUp:
      mService.Set(ServiceState::Value::Up);
      break;
    case core::Notice::Kind::ServiceDown:
      mService.Set(ServiceState::Value::Down);
      break;
  }
}

bool ServiceWatch::WaitBeforeRetry() {
  std::unique_lock<std::mutex> lock(mMutex);
  return !mStopChanged.wait_for(lock, kRetryInterval, [this] { return mStopping; });
}

}  // namespace zel::bridge
