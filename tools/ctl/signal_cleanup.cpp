#include "tools/ctl/signal_cleanup.h"

#include <signal.h>
#include <unistd.h>

#include <cstring>
#include <initializer_list>

#include "tools/ctl/signal_block.h"
#include "tools/ctl/signal_channel.h"

// The handler only calls unlink, rmdir, signal and raise, which are
// async-signal-safe, on paths copied into fixed storage beforehand; entries
// change only with the signals blocked, so it never sees one half-written.
// The watch does not use this: it takes its signals through a descriptor.
namespace zel::ctl {
namespace {

// A socket path always fits a socket address; directories are shorter still.
constexpr size_t kMaxPath = 108;
// The client sockets of one directory (ten) and of a private one (ten more),
// and the private directory.
constexpr size_t kMaxEntries = 24;

struct Entry {
  bool used;
  bool directory;
  char path[kMaxPath];
};

// Written only with the signals blocked; read by the handler.
Entry gEntries[kMaxEntries];

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

}  // namespace

void SignalCleanup::Install() {
  const sigset_t handled = SignalChannel::StopSignals();
  for (int signo : {SIGINT, SIGTERM, SIGHUP}) {
    if (!sigismember(&handled, signo)) continue;
    struct sigaction action = {};
    action.sa_handler = OnSignal;
    // The other two wait while one runs, so that the entries are walked once.
    action.sa_mask = SignalBlock::StopSignals();
    sigaction(signo, &action, nullptr);
  }
}

bool SignalCleanup::Add(const std::string& path, bool directory) {
  if (path.size() >= kMaxPath) return false;
  SignalBlock block;
  for (Entry& entry : gEntries) {
    if (entry.used) continue;
    std::memcpy(entry.path, path.c_str(), path.size() + 1);
    entry.directory = directory;
    entry.used = true;
    return true;
  }
  return false;
}

void SignalCleanup::Remove(const std::string& path) {
  SignalBlock block;
  for (Entry& entry : gEntries) {
    if (entry.used && path == entry.path) entry.used = false;
  }
}

}  // namespace zel::ctl
