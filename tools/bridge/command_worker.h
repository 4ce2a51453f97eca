// Carries out the commands from the broker, one at a time in arrival order,
// on a thread of its own, through the client core's runner (so that a late
// reply is never taken for another command's), and puts each reply in the
// outbox; pings the service when no command came for --health seconds. What
// each request finds tells the service state. Owns its thread and runner.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "tools/bridge/command_queue.h"
#include "tools/bridge/reply_outbox.h"
#include "tools/bridge/service_state.h"
#include "tools/bridge/settings.h"
#include "tools/service_client/runner.h"

namespace zel::bridge {

class CommandWorker {
 public:
  // `observer` (may be null) is told of the runner's socket files.
  CommandWorker(const Settings& settings, CommandQueue& queue, ReplyOutbox& replies, ServiceState& service,
                zel::service_client::FileObserver* observer);
  // Joins the thread if Stop did not (waiting for the command in hand).
  ~CommandWorker();
  CommandWorker(const CommandWorker&) = delete;
  CommandWorker& operator=(const CommandWorker&) = delete;

  void Start();
  // Closes the queue and waits up to `timeout` for the command in hand;
  // true once the thread has ended (its socket files removed), false when a
  // request still waits for the service.
  bool Stop(std::chrono::milliseconds timeout);

 private:
  void Run();
  void Carry(const PendingCommand& command);
  void CheckHealth();
  // What a request found of the service.
  void Learn(const zel::service_client::Outcome& outcome);

  const Settings& mSettings;
  CommandQueue& mQueue;
  ReplyOutbox& mReplies;
  ServiceState& mService;
  // The worker's thread alone uses it; destroyed on that thread.
  std::unique_ptr<zel::service_client::Runner> mRunner;
  std::mutex mMutex;  // guards mFinished
  std::condition_variable mFinishedChanged;
  bool mFinished = false;
  std::thread mThread;
};

}  // namespace zel::bridge
