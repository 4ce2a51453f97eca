// The bridge's side of the service: whether the service is up or down as
// the bridge last found it, with each change in turn (so that a restart that
// comes and goes between two looks of the link still shows as down, then
// up); the watch of its events and its comings and goings, on a thread of
// its own (the client core's watch, made again every second while the
// service is not there to register with), each event going to the outbox as
// P/event/N with the line kendrivex-ctl watch --json prints for it and
// "box"; and the socket files the bridge makes in its directory: those of
// the command worker's runner, which a stop that cannot wait for a command
// stuck at the service removes itself, and those that ended processes left
// there, removed at start.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tools/bridge/outbox.h"
#include "tools/bridge/settings.h"
#include "tools/service_client/runner.h"
#include "tools/service_client/watch.h"

namespace zel::bridge {

// Set from any thread; the changes are taken by the link's thread, which it
// wakes.
class ServiceState {
 public:
  enum class Value { Unknown, Up, Down };

  ServiceState(std::string servicePath, Wakeup& wakeup) : mServicePath(std::move(servicePath)), mWakeup(wakeup) {}

  // Records `value`, and a change when it differs from the last.
  void Set(Value value);
  // The changes since the last call, oldest first.
  std::vector<Value> TakeChanges();
  Value Current() const;
  // The value now, forgetting the changes that led to it, in one step: a
  // change made between a separate take and read would be published twice.
  Value TakeCurrent();

  // "up" or "down", as P/service carries it.
  static const char* Text(Value value);

 private:
  const std::string mServicePath;
  Wakeup& mWakeup;
  mutable std::mutex mMutex;  // guards mValue and mChanges
  Value mValue = Value::Unknown;
  std::vector<Value> mChanges;
};

// Owns its thread and, on that thread, the watch.
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

// The socket files the command worker's runner has made and not yet
// removed. Told by the runner on the worker's thread; read by the main
// thread.
class SocketFiles : public zel::service_client::FileObserver {
 public:
  void Added(const std::string& path, bool directory) override;
  void Removed(const std::string& path) override;
  // Removes every file, then every directory, still listed.
  void RemoveAll();

 private:
  std::mutex mMutex;  // guards mFiles and mDirectories
  std::vector<std::string> mFiles;
  std::vector<std::string> mDirectories;
};

// Removes the client sockets (ipc_client-<pid>-<n> and the same with
// -event) in `dir` whose process is gone, as a process killed with SIGKILL
// leaves them; returns how many. Sockets of live processes stay.
size_t RemoveStaleSocketFiles(const std::string& dir);

}  // namespace zel::bridge
