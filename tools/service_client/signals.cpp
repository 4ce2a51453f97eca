#include "tools/service_client/signals.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "util/stop_signals.h"

// The handler only calls unlink, rmdir, signal and raise, which are
// async-signal-safe, on paths copied into fixed storage beforehand. An entry
// is filled before it is marked used, and marked unused before it is filled
// again; the handler runs on the thread that writes the table (a one-shot
// command or a batch starts no other), so it sees each entry whole or not at
// all.
namespace zel::service_client {
namespace {

// A socket path always fits a socket address; directories are shorter still.
constexpr size_t kMaxPath = 108;
// The client sockets of one directory (ten) and of the runner's own (ten
// more), and that directory.
constexpr size_t kMaxEntries = 24;

struct Entry {
  std::atomic<bool> used;
  bool directory;
  char path[kMaxPath];
};

// Written on the main thread; read by the handler.
Entry gEntries[kMaxEntries];

static_assert(std::atomic<bool>::is_always_lock_free, "the handler reads the flags");

void OnSignal(int signo) {
  for (const Entry& entry : gEntries) {
    if (entry.used && !entry.directory) ::unlink(entry.path);
  }
  for (const Entry& entry : gEntries) {
    if (entry.used && entry.directory) ::rmdir(entry.path);
  }
  // NOLINTBEGIN(cert-err33-c): cannot fail for a signal that had this handler; a handler has no one to report to
  ::signal(signo, SIG_DFL);
  ::raise(signo);
  // NOLINTEND(cert-err33-c)
}

// Installs the handler for each stop signal of `stopSignals`, those that
// are not ignored; one that is stays so, and is never handled.
void Install(const sigset_t& stopSignals) {
  struct sigaction action = {};
  action.sa_handler = OnSignal;
  // The others wait while one runs, so that the entries are walked once.
  action.sa_mask = stopSignals;
  for (int signo : zel::util::kStopSignals) {
    struct sigaction now = {};
    if (sigaction(signo, nullptr, &now) == 0 && now.sa_handler != SIG_IGN) sigaction(signo, &action, nullptr);
  }
}

}  // namespace

void SignalCleanup::BeginMaking() {
  if (!mInstalled) mStopSignals = zel::util::StopSignals();
  pthread_sigmask(SIG_BLOCK, &mStopSignals, &mPrevious);
  if (mInstalled) return;
  Install(mStopSignals);
  mInstalled = true;
}

void SignalCleanup::EndMaking() { pthread_sigmask(SIG_SETMASK, &mPrevious, nullptr); }

void SignalCleanup::Added(const std::string& path, bool directory) {
  if (path.size() >= kMaxPath) return;
  for (Entry& entry : gEntries) {
    if (entry.used) continue;
    std::memcpy(entry.path, path.c_str(), path.size() + 1);
    entry.directory = directory;
    entry.used = true;
    return;
  }
}

void SignalCleanup::Removed(const std::string& path) {
  for (Entry& entry : gEntries) {
    if (entry.used && path == entry.path) entry.used = false;
  }
}

SignalChannel::SignalChannel(const sigset_t& signals) {
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  mFd = ::signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC);
}

SignalChannel::~SignalChannel() {
  if (mFd >= 0) ::close(mFd);
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

}  // namespace zel::service_client
