// The watch as kendrivex-ctl shows it: one line per event (plain or JSON) as
// it arrives, the --exec program run for each event in turn, --count, and
// the end on a stop signal, a closed output or the last counted event, after
// which the client core's watch unregisters. Main thread, before any other
// thread starts.
#pragma once

#include <sys/types.h>

#include "tools/ctl/arguments.h"
#include "tools/service_client/output.h"

namespace zel::ctl {

// Watches to the end; the exit status (0 unless set-up failed). The --exec
// program runs with `programUmask` (the one the program started with) as its
// umask.
int RunWatch(const Invocation& invocation, service_client::Output& output, mode_t programUmask);

}  // namespace zel::ctl
