// The stop signals of a front end (util::StopSignals: SIGINT, SIGTERM and
// SIGHUP, less any that was ignored when the program started, which stays
// ignored). A program that runs commands and ends has its socket files
// removed by a handler, which then lets the signal end it (SignalCleanup,
// told of the files by the runner). A program with a loop of its own takes
// its signals through a descriptor there (SignalChannel). Main thread only.
#pragma once

#include <signal.h>

#include <string>

#include "tools/service_client/runner.h"

namespace zel::service_client {

// Installs its handler when the runner first makes a file, and holds the
// stop signals off while one is made and not yet recorded. What the handler
// reads is written so that it never sees an entry half-written, without a
// system call. There is one table for the process: one cleanup at a time.
class SignalCleanup final : public FileObserver {
 public:
  void BeginMaking() override;
  void EndMaking() override;
  // A path too long or beyond the table's room is simply not cleaned up on
  // a signal.
  void Added(const std::string& path, bool directory) override;
  void Removed(const std::string& path) override;

 private:
  sigset_t mStopSignals{};  // found once, when the handler is installed
  sigset_t mPrevious{};
  bool mInstalled = false;
};

// Takes signals through a descriptor rather than a handler. The signals are
// blocked on the thread that makes the channel, and the threads it starts
// later (the IPC client's) inherit the block. They stay blocked when the
// channel goes: a second stop signal while the watch cleans up then changes
// nothing, and the program ends as the first one asked. Owns the descriptor.
class SignalChannel {
 public:
  explicit SignalChannel(const sigset_t& signals);
  ~SignalChannel();
  SignalChannel(const SignalChannel&) = delete;
  SignalChannel& operator=(const SignalChannel&) = delete;

  bool Ok() const { return mFd >= 0; }
  // Readable while a signal is pending.
  int Fd() const { return mFd; }
  // The next pending signal; 0 when none is.
  int Take();

 private:
  int mFd = -1;
};

}  // namespace zel::service_client
