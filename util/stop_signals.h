// The signals that stop a program cleanly (SIGINT, SIGTERM, SIGHUP), less
// those that were ignored when it started: a shell starts background jobs of
// a non-interactive session with SIGINT ignored, and nohup ignores SIGHUP; a
// program keeps them ignored. A signal that is blocked is never discarded as
// ignored, so one that was ignored must not be blocked either. Stateless.
#pragma once

#include <signal.h>

namespace zel::util {

// Every stop signal, ignored or not: the one list of them.
inline constexpr int kStopSignals[] = {SIGINT, SIGTERM, SIGHUP};

// The stop signals whose action is not SIG_IGN now.
sigset_t StopSignals();

}  // namespace zel::util
