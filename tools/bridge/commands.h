// The commands from the broker, from their arrival to their replies. The
// intake takes each command on the link's thread: it picks where the reply
// goes (the MQTT 5 response topic with the correlation data, or P/reply),
// answers bad input at once with an error reply and sends nothing to the
// service for it (more than 8 KB, which it refuses before it copies a byte,
// invalid UTF-8, more than one line, an unknown word, a command not allowed,
// event registration, bad arguments, a response topic inside PREFIX/ other
// than the box's own replies), and queues the rest; beyond 64 waiting, a
// command is answered "busy". The worker carries them out one at a time in
// arrival order on a thread of its own, through the client core's runner
// (so that a late reply is never taken for another command's), puts each
// reply in the outbox and pings the service when no command came for
// --health seconds; what each request finds tells the service state. Replies
// are what kendrivex-ctl -j prints with "box" added, or
// {"box":ID,"command":WORD or null,"status":S,"error":"..."}.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "tools/bridge/outbox.h"
#include "tools/bridge/service.h"
#include "tools/bridge/settings.h"
#include "tools/service_client/commands.h"
#include "tools/service_client/runner.h"

namespace zel::bridge {

// A command waiting for its turn, and where its reply goes (the reply's
// topic and correlation data, its payload left empty).
struct PendingCommand {
  zel::service_client::Request request;
  zel::mqtt::Publication reply;
};

// Commands waiting for their turn, in arrival order: at most 64 wait besides
// the one running. Push from the link's thread; Pop from the worker's
// thread, which it makes wait; Close from any thread.
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
  std::list<PendingCommand> mCommands;
  bool mClosed = false;
};

// The link's thread alone uses it.
class CommandIntake {
 public:
  // The longest payload taken.
  static constexpr size_t kMaxPayload = 8192;

  CommandIntake(const Settings& settings, const Topics& topics, CommandQueue& queue, ReplyOutbox& replies)
      : mSettings(settings), mTopics(topics), mQueue(queue), mReplies(replies) {}

  void Take(const zel::mqtt::Message& message);

 private:
  // The command of `payload`, checked; false with the status and the error
  // its reply gives, and its command word once it has one.
  bool Read(std::string_view payload, zel::service_client::Request& request, std::optional<std::string>& word,
            int& status, std::string& error) const;

  const Settings& mSettings;
  const Topics& mTopics;
  CommandQueue& mQueue;
  ReplyOutbox& mReplies;
};

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
  void Carry(PendingCommand& command);
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
