// Commands from the broker waiting for their turn, in arrival order: at most
// 64 wait besides the one running. Push from the link's thread; Pop from the
// worker's thread, which it makes wait; Close from any thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>

#include "tools/bridge/publication.h"
#include "tools/service_client/commands.h"

namespace zel::bridge {

struct PendingCommand {
  zel::service_client::Request request;
  ReplyRoute route;
};

class CommandQueue {
 public:
  static constexpr size_t kMaxWaiting = 64;

  enum class Next { Command, TimedOut, Closed };

  // False when 64 wait already, or the queue is closed.
  bool Push(PendingCommand command);
  // The oldest command, waiting for one up to `timeout`.
  Next Pop(PendingCommand& command, std::chrono::milliseconds timeout);
  // Takes no more; a waiting Pop returns Closed, and the commands still
  // waiting are dropped.
  void Close();
  size_t Waiting() const;

 private:
  mutable std::mutex mMutex;  // guards mCommands and mClosed
  std::condition_variable mChanged;
  std::deque<PendingCommand> mCommands;
  bool mClosed = false;
};

}  // namespace zel::bridge
