#include "tools/ctl/signal_channel.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <initializer_list>

namespace zel::ctl {

SignalChannel::SignalChannel(const sigset_t& signals) {
  pthread_sigmask(SIG_BLOCK, &signals, &mPrevious);
  mFd = ::signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC);
}

SignalChannel::~SignalChannel() {
  if (mFd >= 0) ::close(mFd);
  pthread_sigmask(SIG_SETMASK, &mPrevious, nullptr);
}

int SignalChannel::Take() {
  signalfd_siginfo info{};
  while (true) {
    const ssize_t length = ::read(mFd, &info, sizeof info);
    if (length == static_cast<ssize_t>(sizeof info)) return static_cast<int>(info.ssi_signo);
    if (length < 0 && errno == EINTR) continue;
    return 0;
  }
}

sigset_t SignalChannel::StopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (int signo : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction current = {};
    if (sigaction(signo, nullptr, &current) == 0 && current.sa_handler == SIG_IGN) continue;
    sigaddset(&signals, signo);
  }
  return signals;
}

}  // namespace zel::ctl
