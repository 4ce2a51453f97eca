#include "tools/ctl/events.h"

#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tools/service_client/format.h"
#include "tools/service_client/output.h"
#include "tools/service_client/signals.h"
#include "tools/service_client/watch.h"
#include "util/decimal_text.h"
#include "util/stop_signals.h"

extern char** environ;

namespace zel::ctl {
namespace {

using service_client::Fail;
using service_client::Failure;
using service_client::Notice;
using service_client::Output;
using service_client::Report;
using service_client::SignalChannel;

// The exit status a program dies with when its exec fails.
constexpr int kExecFailed = 127;

// The full path of the program that execvp would run for `program`: a path
// with a slash as it is, a bare name looked up on PATH; false when there is
// no executable one.
bool FindExecutable(const std::string& program, std::string& path) {
  if (program.find('/') != std::string::npos) {
    path = program;
    return ::access(path.c_str(), X_OK) == 0;
  }
  const char* search = std::getenv("PATH");  // NOLINT(concurrency-mt-unsafe): nothing here changes the environment
  const std::string dirs = search != nullptr ? search : "/usr/local/bin:/usr/bin:/bin";
  size_t start = 0;
  while (start <= dirs.size()) {
    size_t end = dirs.find(':', start);
    if (end == std::string::npos) end = dirs.size();
    path = end > start ? dirs.substr(start, end - start) : ".";
    path.append("/").append(program);
    if (::access(path.c_str(), X_OK) == 0) return true;
    start = end + 1;
  }
  return false;
}

std::string HowItEnded(int status) {
  if (WIFEXITED(status)) return "exited with status " + zel::util::SignedDecimalText(WEXITSTATUS(status));
  if (WIFSIGNALED(status)) return "killed by signal " + zel::util::SignedDecimalText(WTERMSIG(status));
  return "ended with wait status " + zel::util::SignedDecimalText(status);
}

// The program that --exec runs for each event, with the event's number and
// arguments as its arguments. One runs at a time; the watch learns of its end
// through SIGCHLD and collects it with Reap. It starts with every signal
// unblocked and at its default action and with the umask the watch started
// with, whatever the watch blocks, ignores or uses for its sockets: all of it
// is set in the child between fork and exec, with async-signal-safe calls
// only, the arguments made beforehand. Owns the running child until reaped.
class EventProgram {
 public:
  EventProgram(std::string program, mode_t umask) : mProgram(std::move(program)), mUmask(umask) {}

  // Starts the program for `event`; false with the reason when it cannot.
  bool Start(const zel::ipc::IPCEvent& event, Failure& failure) {
    std::string path;
    if (!FindExecutable(mProgram, path)) {
      failure = Fail(service_client::kStatusLocal, Shown(), "cannot start: no such executable program");
      return false;
    }
    std::vector<std::string> words = {mProgram, zel::util::SignedDecimalText(event.id)};
    words.insert(words.end(), event.args.begin(), event.args.end());
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) RunChild(path.c_str(), argv.data(), mUmask);
    if (pid < 0) {
      failure = Fail(service_client::kStatusLocal, Shown(), "cannot start: " + service_client::ErrorText(errno));
      return false;
    }
    mPid = pid;
    return true;
  }

  bool Running() const { return mPid > 0; }

  // Collects the program if it has ended: true then, with `failure` set
  // (status not 0) when it failed.
  bool Reap(Failure& failure) {
    if (mPid <= 0) return true;
    int status = 0;
    pid_t done = 0;
    do {
      done = ::waitpid(mPid, &status, WNOHANG);
    } while (done < 0 && errno == EINTR);
    if (done == 0) return false;
    mPid = -1;
    failure = Failure();
    if (done > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0) return true;
    failure =
        Fail(service_client::kStatusRefused, Shown(), done > 0 ? HowItEnded(status) : service_client::ErrorText(errno));
    return true;
  }

 private:
  [[noreturn]] static void RunChild(const char* path, char* const* argv, mode_t umask) {
    ::umask(umask);
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
    struct sigaction defaults = {};
    defaults.sa_handler = SIG_DFL;
    // Every signal, whatever the watch did with it (exec resets a handled
    // one, not an ignored one); the C library refuses those it keeps for
    // itself, and the two that cannot be caught.
    for (int signo = 1; signo < NSIG; ++signo) sigaction(signo, &defaults, nullptr);
    ::execve(path, argv, environ);
    ::_exit(kExecFailed);
  }

  std::string Shown() const { return service_client::Shown(mProgram, service_client::kShownPathLength); }

  const std::string mProgram;
  const mode_t mUmask;
  pid_t mPid = -1;
};

// The stop signals, and SIGCHLD for the end of the program.
sigset_t WatchedSignals() {
  sigset_t signals = zel::util::StopSignals();
  sigaddset(&signals, SIGCHLD);
  return signals;
}

class Watcher {
 public:
  Watcher(const Invocation& invocation, Output& output, mode_t programUmask)
      : mInvocation(invocation), mOutput(output), mWatch(invocation.settings) {
    if (!invocation.execProgram.empty()) {
      mProgram = std::make_unique<EventProgram>(invocation.execProgram, programUmask);
    }
  }

  int Run(SignalChannel& signals) {
    Failure failure;
    if (!mWatch.Start(failure)) {
      Report(failure);
      return failure.status;
    }
    while (PrintWaiting()) {
      pollfd fds[2] = {
          {signals.Fd(), POLLIN, 0},
          {mWatch.Fd(),  POLLIN, 0}
      };
      // While a program runs, new events wait in the queue unlooked-at.
      const nfds_t count = ProgramRunning() ? 1 : 2;
      const int ready = ::poll(fds, count, mWatch.NextCheckMs());
      if (ready < 0 && errno != EINTR) break;
      if ((fds[0].revents & POLLIN) != 0 && !TakeSignals(signals)) break;
      mWatch.Check();
    }
    return service_client::kStatusOk;
  }

 private:
  bool ProgramRunning() const { return mProgram && mProgram->Running(); }

  // Prints the events waiting, starting the program for each, as long as no
  // program runs; false once the watch is done.
  bool PrintWaiting() {
    Notice notice;
    while (!Done() && !ProgramRunning() && mWatch.Take(notice)) {
      // Changes of the service are the system log's business here.
      if (notice.kind == Notice::Kind::Event && !Print(notice)) return false;
    }
    return !Done();
  }

  bool Print(const Notice& notice) {
    const std::string time = service_client::UtcTime(notice.time);
    const std::string line = mInvocation.json ? service_client::JsonEvent(time, notice.event)
                                              : service_client::PlainEvent(time, notice.event);
    if (!mOutput.Write(line)) return false;
    ++mPrinted;
    Failure failure;
    if (mProgram && !mProgram->Start(notice.event, failure)) Report(failure);
    return true;
  }

  // Handles every pending signal; false on a stop signal.
  bool TakeSignals(SignalChannel& signals) {
    for (int signo = signals.Take(); signo != 0; signo = signals.Take()) {
      if (signo != SIGCHLD) return false;
      Failure failure;
      if (mProgram && mProgram->Reap(failure) && failure.Failed()) Report(failure);
    }
    return true;
  }

  bool Done() const {
    const bool counted = mInvocation.count != 0 && mPrinted >= mInvocation.count;
    return mOutput.Broken() || (counted && !ProgramRunning());
  }

  const Invocation& mInvocation;
  Output& mOutput;
  service_client::Watch mWatch;
  std::unique_ptr<EventProgram> mProgram;
  uint64_t mPrinted = 0;
};

}  // namespace

int RunWatch(const Invocation& invocation, Output& output, mode_t programUmask) {
  // Made before the client, so that the IPC client's threads inherit the
  // mask; and it outlives the watch, so that the signals stay blocked while
  // the watch unregisters.
  SignalChannel signals(WatchedSignals());
  if (!signals.Ok()) {
    Report(Fail(service_client::kStatusLocal, "watch",
                "cannot make its descriptors: " + service_client::ErrorText(errno)));
    return service_client::kStatusLocal;
  }
  return Watcher(invocation, output, programUmask).Run(signals);
}

}  // namespace zel::ctl
