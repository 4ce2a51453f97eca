// Takes signals through a descriptor rather than a handler, so that the watch
// reacts to them in its ordinary loop. The signals are blocked on the thread
// that makes the channel, and the threads it starts later (the client
// library's) inherit the block, so none of them is ever interrupted. Owns the
// descriptor; one thread.
#pragma once

#include <signal.h>

namespace zel::ctl {

class SignalChannel {
 public:
  explicit SignalChannel(const sigset_t& signals);
  // Closes the descriptor and restores the thread's signal mask.
  ~SignalChannel();
  SignalChannel(const SignalChannel&) = delete;
  SignalChannel& operator=(const SignalChannel&) = delete;

  bool Ok() const { return mFd >= 0; }
  // Readable while a signal is pending.
  int Fd() const { return mFd; }
  // The next pending signal; 0 when none is.
  int Take();

  // The stop signals that were not ignored when the program started (a
  // background job's SIGINT and nohup's SIGHUP stay ignored).
  static sigset_t StopSignals();

 private:
  int mFd = -1;
  sigset_t mPrevious;
};

}  // namespace zel::ctl
