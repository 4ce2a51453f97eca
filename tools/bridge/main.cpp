// kendrivex-bridge: this box on the fleet's MQTT broker. The service's events
// go out as messages, commands come in from the broker and their replies go
// back, and retained messages say whether the bridge and the service are
// there. It runs until SIGINT, SIGTERM or SIGHUP; a broker or service that is
// away is waited for, never a reason to end.
#include <signal.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <string>

#include "tools/bridge/bridge.h"
#include "tools/bridge/settings.h"
#include "tools/mqtt/session.h"
#include "tools/service_client/output.h"
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

// Reports `failure` on standard error; its status.
int Fail(const core::Failure& failure) {
  core::Report(failure);
  return failure.status;
}

int Run(const zel::bridge::Settings& settings) {
  core::Failure failure;
  if (!core::CheckDirectory(settings.dir, true, failure)) return Fail(failure);
  ::umask(core::SocketUmask(settings.dir));
  // Blocked before any thread starts, so that every thread inherits the
  // mask and the signals reach only the main thread's wait.
  const sigset_t signals = zel::util::StopSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::string why;
  if (!zel::mqtt::InitLibrary(why)) return Fail(core::Fail(core::kStatusLocal, "libmosquitto", why));
  zel::bridge::Bridge bridge(settings);
  if (!bridge.Ok()) return Fail(core::Fail(core::kStatusLocal, "eventfd", "cannot make the link's wakeup"));
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
  core::SetProgramName("kendrivex-bridge");
  zel::bridge::Invocation invocation;
  core::Failure failure;
  if (!zel::bridge::ParseArguments(argc, argv, invocation, failure)) return Fail(failure);
  if (invocation.mode == zel::bridge::Invocation::Mode::Help) return core::PrintText(zel::bridge::HelpText());
  if (invocation.mode == zel::bridge::Invocation::Mode::Version) return core::PrintText(zel::bridge::VersionText());
  // Without -v the IPC client's records of each request, reply and event
  // (LOG_DEBUG) stay out of the system log: each would be formatted and sent
  // for every command and event, where the bridge's own lifecycle records,
  // its warnings and errors always go. What reaches standard error is the
  // core's rule: warnings and errors when it is a terminal, the bridge's
  // messages with -v, the IPC client's records too with -v -v.
  core::OpenLog(LOG_DAEMON, invocation.verbosity, LOG_UPTO(LOG_INFO));
  for (const std::string& warning : invocation.warnings) core::Log(LOG_WARNING, "%s", warning.c_str());
  return Run(invocation.settings);
}
