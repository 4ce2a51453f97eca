// kendrivex-ctl: the device-control service from scripts and for monitoring.
// One command per run, one command a line from standard input, or a watch of
// the service's events; exit statuses that say what happened, and every
// error as one line on standard error.
#include <signal.h>
#include <syslog.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "tools/ctl/batch_runner.h"
#include "tools/ctl/client_supply.h"
#include "tools/ctl/command_line.h"
#include "tools/ctl/help_text.h"
#include "tools/ctl/output.h"
#include "tools/ctl/preflight.h"
#include "tools/ctl/request_runner.h"
#include "tools/ctl/signal_cleanup.h"
#include "tools/ctl/watcher.h"

namespace {

using namespace zel::ctl;

// The checks made before any socket file is; false with the error reported.
bool Ready(const Settings& settings, bool withEvents, int& status) {
  Failure failure;
  if (Preflight::CheckService(settings.servicePath, failure) &&
      Preflight::CheckDirectory(settings.dir, withEvents, failure)) {
    return true;
  }
  Output::Report(failure);
  status = failure.status;
  return false;
}

int RunOneShot(const Invocation& invocation, Output& output) {
  ClientSupply supply(invocation.settings);
  RequestRunner runner(invocation.settings, supply, output);
  return runner.Run(invocation.request, "");
}

int Run(const Invocation& invocation, Output& output) {
  int status = kStatusOk;
  const bool watch = invocation.mode == Invocation::Mode::Watch;
  if (!Ready(invocation.settings, watch, status)) return status;
  if (watch) return Watcher(invocation.settings, output).Run();
  SignalCleanup::Install();
  if (invocation.mode == Invocation::Mode::Batch) return BatchRunner(invocation.settings, output).Run(stdin);
  return RunOneShot(invocation, output);
}

// The exit status, once every socket file is gone. Output into a closed pipe
// ends the program as SIGPIPE would have, had it not been ignored until the
// clean-up was done; any other failed write is a local failure.
int Finish(const Output& output, int status) {
  if (!output.Broken()) return status;
  if (output.Error() == EPIPE) {
    // NOLINTBEGIN(cert-err33-c): cannot fail for SIGPIPE; if the signal did not end the program, the failure
    // below is reported instead
    signal(SIGPIPE, SIG_DFL);
    raise(SIGPIPE);
    // NOLINTEND(cert-err33-c)
  }
  Output::Report(Fail(kStatusLocal, "standard output", ErrorText(output.Error())));
  return kStatusLocal;
}

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);  // NOLINT(cert-err33-c): cannot fail for SIGPIPE
  Invocation invocation;
  Failure failure;
  if (!CommandLine(argc, argv).Parse(invocation, failure)) {
    Output::Report(failure);
    return failure.status;
  }
  Output output;
  if (invocation.mode == Invocation::Mode::Help) {
    output.Write(HelpText::Help());
    return Finish(output, kStatusOk);
  }
  if (invocation.mode == Invocation::Mode::Version) {
    output.Write(HelpText::Version());
    return Finish(output, kStatusOk);
  }
  if (invocation.settings.verbose) openlog("kendrivex-ctl", LOG_PERROR, LOG_USER);
  return Finish(output, Run(invocation, output));
}
