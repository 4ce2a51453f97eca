// The watch: registers an event socket, prints one line per event (running
// --exec's program for each, in order) until a stop signal, --count or a
// closed output ends it, then unregisters. Runs on the main thread, before
// any other thread starts; owns its client, queue and program.
#pragma once

#include <time.h>

#include <cstdint>
#include <memory>

#include "ipc/ipc_client.h"
#include "tools/ctl/event_program.h"
#include "tools/ctl/event_queue.h"
#include "tools/ctl/failure.h"
#include "tools/ctl/output.h"
#include "tools/ctl/service_identity.h"
#include "tools/ctl/settings.h"
#include "tools/ctl/signal_channel.h"

namespace zel::ctl {

class Watcher {
 public:
  Watcher(const Settings& settings, Output& output);
  ~Watcher();
  Watcher(const Watcher&) = delete;
  Watcher& operator=(const Watcher&) = delete;

  // Watches to the end; the exit status (0 unless set-up failed).
  int Run();

 private:
  enum class Wake { Signal, Events, Timer };

  bool Connect(Failure& failure);
  void OnEvent(zel::ipc::IPCEvent& event);
  // Prints the events waiting, starting the program for each, as long as no
  // program runs; false once the watch is done.
  bool PrintWaiting();
  bool Print(const EventQueue::Entry& entry);
  // Handles every pending signal; false on a stop signal.
  bool TakeSignals(SignalChannel& signals);
  void CheckService();
  void Reconnect();
  // Destroys the client without letting its event thread wait on a full
  // queue; `unregister` as the destructor should.
  void Disconnect(bool unregister);
  bool Done() const;
  int PollTimeoutMs() const;

  const Settings& mSettings;
  Output& mOutput;
  EventQueue mQueue;
  std::unique_ptr<EventProgram> mProgram;
  std::unique_ptr<zel::ipc::IPCClient> mClient;
  ServiceIdentity mService;
  timespec mNextCheck{};
  uint64_t mPrinted = 0;
};

}  // namespace zel::ctl
