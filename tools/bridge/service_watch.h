// The service's events and its comings and goings, on a thread of its own:
// the client core's watch, made again every second while the service is not
// there to register with. Each event goes to the outbox as P/event/N, its
// payload the line kendrivex-ctl watch --json prints for it (without the
// newline), waiting for room there while the broker is there; each coming
// and going goes to the service state. Owns its thread and, on that thread,
// the watch.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "tools/bridge/event_outbox.h"
#include "tools/bridge/service_state.h"
#include "tools/bridge/settings.h"
#include "tools/bridge/topics.h"
#include "tools/service_client/watch.h"

namespace zel::bridge {

class ServiceWatch {
 public:
  ServiceWatch(const Settings& settings, const Topics& topics, EventOutbox& events, ServiceState& service)
      : mSettings(settings), mTopics(topics), mEvents(events), mService(service) {}
  // Stops if Stop was not called.
  ~ServiceWatch();
  ServiceWatch(const ServiceWatch&) = delete;
  ServiceWatch& operator=(const ServiceWatch&) = delete;

  void Start();
  // Ends the watch, and an event's wait for room in the outbox: it
  // unregisters from a live service (waiting at most the reply time-out) and
  // removes its socket files; then the thread ends.
  void Stop();

 private:
  void Run();
  // Sets a watch up; false (logged when the reason is new) when the service
  // is not there.
  bool SetUp(zel::service_client::Watch& watch);
  void OnNotice(const zel::service_client::Notice& notice);
  // Waits a second before the next attempt; false once stopping.
  bool WaitBeforeRetry();

  const Settings& mSettings;
  const Topics& mTopics;
  EventOutbox& mEvents;
  ServiceState& mService;
  std::string mLastFailure;  // the watch's thread's: what the last failed set-up said
  std::mutex mMutex;         // guards mWatch and mStopping
  std::condition_variable mStopChanged;
  zel::service_client::Watch* mWatch = nullptr;  // the running watch, for Stop
  bool mStopping = false;
  std::thread mThread;
};

}  // namespace zel::bridge
