// kendrivex-bridge at run time: the link to the broker, the watch of the
// service and the command worker, each on its own thread, and the queues
// between them. Runs until a stop signal, then stops in this order:
// "offline" published, the event socket unregistered, the command in hand
// finished (or its socket files removed), the broker disconnected. Made and
// run on the main thread, with the stop signals blocked before it starts its
// threads (which inherit the mask). Owns everything it starts.
#pragma once

#include <signal.h>

#include "tools/bridge/commands.h"
#include "tools/bridge/link.h"
#include "tools/bridge/outbox.h"
#include "tools/bridge/service.h"
#include "tools/bridge/settings.h"

namespace zel::bridge {

class Bridge {
 public:
  explicit Bridge(const Settings& settings);
  Bridge(const Bridge&) = delete;
  Bridge& operator=(const Bridge&) = delete;

  bool Ok() const { return mWakeup.Fd() >= 0; }
  // Runs until one of `signals` (blocked on this thread) arrives, then stops.
  // False when the stop left a command waiting for a stuck service: its
  // socket files are removed, and the caller ends the process without
  // waiting for it (true: every thread has ended).
  bool Run(const sigset_t& signals);

 private:
  bool Stop();

  const Settings& mSettings;
  const Topics mTopics;
  Wakeup mWakeup;
  EventOutbox mEvents;
  ReplyOutbox mReplies;
  ServiceState mService;
  CommandQueue mCommands;
  SocketFiles mFiles;
  CommandIntake mIntake;
  // Destroyed first (in reverse order): the threads that use the above.
  CommandWorker mWorker;
  ServiceWatch mWatch;
  MqttLink mLink;
};

}  // namespace zel::bridge
