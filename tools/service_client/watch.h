// The watch of the service's events: an event socket registered with the
// service (a refused registration is repeated by the IPC client, at once and
// then every 5 seconds), the events handed on in order of arrival, and the
// service's socket file looked at every second, so that a service that went
// away is reported and one that started anew is registered with again. It
// prints nothing (its own messages go to the log, output.h): its user takes
// each notice from a queue (poll Fd() in a loop of its own) or has them
// called back (Run on a thread of its own).
//
// Threading: Start, Check, Take and Run on one thread; Stop from any. The
// client's threads (the event socket's monitor, the registration retry)
// start in Start and inherit that thread's signal mask. Owns its client, its
// socket files and the queue.
#pragma once

#include <time.h>

#include <functional>
#include <memory>

#include "ipc/ipc_types.h"
#include "tools/service_client/failure.h"
#include "tools/service_client/runner.h"

namespace zel::service_client {

// One thing the watch has to tell.
struct Notice {
  enum class Kind : uint8_t {
    Event,        // an event from the service
    ServiceUp,    // the event socket is set up with a service (after Start, and after a restart)
    ServiceDown,  // the service's socket file has gone, or a new one replaced it
  };
  Kind kind = Kind::Event;
  zel::ipc::IPCEvent event;  // the event, for Kind::Event
  timespec time{};           // wall-clock time of its arrival or of the change
};

class Watch {
 public:
  explicit Watch(Settings settings);
  // Unregisters from a live service (waiting at most the reply time-out) and
  // removes the socket files.
  ~Watch();
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

  // Makes the event socket and registers it; a ServiceUp notice follows.
  // False with the failure (3: no service; 4: the directory, a path, or a
  // socket that could not be bound, with the reason) when it cannot.
  bool Start(Failure& failure);

  // Readable while a notice waits. A loop polls it with NextCheckMs() as the
  // time-out, then calls Check() and Take() until it gives false.
  int Fd() const;
  // Milliseconds until Check() is due (0 when it is).
  int NextCheckMs() const;
  // When due, looks at the service's socket file: a service gone gives
  // ServiceDown; one started anew, a new event socket registered with it and
  // ServiceUp (after ServiceDown, unless that was given already).
  void Check();
  // The oldest notice; false when none waits. While no one takes them, the
  // queue holds up to 1024 events; then the event socket's own queue fills
  // and the service's further events are refused there.
  bool Take(Notice& notice);

  // Calls `onNotice` for each notice, on the calling thread, until Stop().
  void Run(const std::function<void(const Notice&)>& onNotice);
  // Ends Run; callable from any thread, before or during Run.
  void Stop();

 private:
  class State;
  std::unique_ptr<State> mState;
};

}  // namespace zel::service_client
