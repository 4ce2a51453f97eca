#include "util/stop_signals.h"

namespace zel::util {

sigset_t StopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (int signo : kStopSignals) {
    struct sigaction current = {};
    if (sigaction(signo, nullptr, &current) == 0 && current.sa_handler == SIG_IGN) continue;
    sigaddset(&signals, signo);
  }
  return signals;
}

}  // namespace zel::util
