// The program that --exec runs for each event, with the event's number and
// arguments as its arguments. One runs at a time; the watch learns of its end
// through SIGCHLD and collects it with Reap. The program starts with every
// signal unblocked and at its default action, whatever the watch blocks or
// ignores. Owns the running child until it is reaped; one thread.
#pragma once

#include <sys/types.h>

#include <string>

#include "ipc/ipc_types.h"
#include "tools/ctl/failure.h"

namespace zel::ctl {

class EventProgram {
 public:
  explicit EventProgram(std::string program) : mProgram(std::move(program)) {}

  // Starts the program for `event`; false with the reason when it cannot
  // start.
  bool Start(const zel::ipc::IPCEvent& event, Failure& failure);
  bool Running() const { return mPid > 0; }
  // Collects the program if it has ended: true then, with `failure` set
  // (status not 0) when it failed.
  bool Reap(Failure& failure);

 private:
  std::string mProgram;
  pid_t mPid = -1;
};

}  // namespace zel::ctl
