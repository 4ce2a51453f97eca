#include "tools/ctl/signal_block.h"

#include <initializer_list>

namespace zel::ctl {

SignalBlock::SignalBlock() {
  const sigset_t signals = StopSignals();
  pthread_sigmask(SIG_BLOCK, &signals, &mPrevious);
}

SignalBlock::~SignalBlock() { pthread_sigmask(SIG_SETMASK, &mPrevious, nullptr); }

sigset_t SignalBlock::StopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (int signo : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, signo);
  return signals;
}

}  // namespace zel::ctl
