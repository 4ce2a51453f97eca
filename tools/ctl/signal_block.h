// Blocks SIGINT, SIGTERM and SIGHUP on the calling thread for as long as it
// lives, so that what a signal handler reads is never seen half-written, and
// so that threads started meanwhile inherit the mask. Lives on the stack.
#pragma once

#include <signal.h>

namespace zel::ctl {

class SignalBlock {
 public:
  SignalBlock();
  ~SignalBlock();
  SignalBlock(const SignalBlock&) = delete;
  SignalBlock& operator=(const SignalBlock&) = delete;

  // The three signals that stop the program.
  static sigset_t StopSignals();

 private:
  sigset_t mPrevious;
};

}  // namespace zel::ctl
