// kendrivex-bridge: this box on the fleet's MQTT broker. The service's events
// go out as messages, commands come in from the broker and their replies go
// back, and retained messages say whether the bridge and the service are
// there. It runs until SIGINT, SIGTERM or SIGHUP; a broker or service that is
// away is waited for, never a reason to end.
#include <signal.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "tools/bridge/bridge.h"
#include "tools/bridge/settings.h"
#include "tools/mqtt/session.h"
#include "tools/service_client/runner.h"
#include "util/stop_signals.h"

#ifdef KDX_COVERAGE_BUILD
// gcov's runtime: writes the counters, which _exit would not.
extern "C" void __gcov_dump();  // NOLINT(bugprone-reserved-identifier): gcov's own name
#endif

namespace {

namespace core = zel::service_client;

// Ends the process at once, without the destructors of what a thread still
// uses (in a coverage build, with the counters written first).
[[noreturn]] void EndNow(int status) {
#ifdef KDX_COVERAGE_BUILD
  __gcov_dump();
#endif
  ::_exit(status);
}

const char kProgram[] = "kendrivex-bridge";

void Write(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t written = ::write(fd, text.data() + done, text.size() - done);
    if (written <= 0) return;
    done += static_cast<size_t>(written);
  }
}

int Report(const core::Failure& failure) {
  Write(STDERR_FILENO, failure.Line(kProgram));
  return failure.status;
}

int Run(const zel::bridge::Settings& settings) {
  core::Failure failure;
  if (!core::CheckDirectory(settings.dir, true, failure)) return Report(failure);
  ::umask(core::SocketUmask(settings.dir));
  // Blocked before any thread starts, so that every thread inherits the
  // mask and the signals reach only the main thread's wait.
  const sigset_t signals = zel::util::StopSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::string why;
  if (!zel::mqtt::InitLibrary(why)) return Report(core::Fail(core::kStatusLocal, kProgram, why));
  zel::bridge::Bridge bridge(settings);
  if (!bridge.Ok()) return Report(core::Fail(core::kStatusLocal, kProgram, "cannot make its descriptors"));
  if (!bridge.Run(signals)) {
    // A command still waits for a stuck service on the worker's thread; its
    // socket files are gone, and nothing else is left to wait for.
    EndNow(core::kStatusOk);
  }
  zel::mqtt::CleanupLibrary();
  return core::kStatusOk;
}

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);  // NOLINT(cert-err33-c): cannot fail for SIGPIPE
  zel::bridge::Invocation invocation;
  core::Failure failure;
  if (!zel::bridge::ParseArguments(argc, argv, invocation, failure)) return Report(failure);
  if (invocation.mode == zel::bridge::Invocation::Mode::Help) {
    Write(STDOUT_FILENO, zel::bridge::HelpText());
    return core::kStatusOk;
  }
  if (invocation.mode == zel::bridge::Invocation::Mode::Version) {
    Write(STDOUT_FILENO, zel::bridge::VersionText());
    return core::kStatusOk;
  }
  openlog(kProgram, invocation.settings.verbose ? LOG_PERROR : 0, LOG_DAEMON);
  // Without --verbose the IPC client's records of each request, reply and
  // event (LOG_DEBUG) are left out: each would be formatted and sent for
  // every command and event, where the bridge's own lifecycle records, its
  // warnings and errors always go.
  // NOLINTNEXTLINE(concurrency-mt-unsafe): set on the main thread before any other starts
  if (!invocation.settings.verbose) setlogmask(LOG_UPTO(LOG_INFO));
  for (const std::string& warning : invocation.warnings) syslog(LOG_WARNING, "%s", warning.c_str());
  return Run(invocation.settings);
}
