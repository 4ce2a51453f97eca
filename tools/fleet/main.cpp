// kendrivex-fleet: the operator's client of the boxes on the fleet's MQTT
// broker. ls lists them, run runs a command on all of them, some or one and
// gathers every answer, watch prints their events, forget clears boxes that
// are gone for good. The work is the fleet library's (tools/fleet), on the
// tools' client core and MQTT layer; this is its thin main: the command
// line, the library set-up and the exit status.
#include <signal.h>
#include <syslog.h>

#include <string>

#include "tools/fleet/commands.h"
#include "tools/fleet/options.h"
#include "tools/mqtt/session.h"
#include "tools/service_client/output.h"

namespace core = zel::service_client;

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);  // NOLINT(cert-err33-c): cannot fail for SIGPIPE
  core::SetProgramName("kendrivex-fleet");
  zel::fleet::Invocation invocation;
  core::Failure failure;
  if (!zel::fleet::ParseArguments(argc, argv, invocation, failure)) {
    core::Report(failure);
    return failure.status;
  }
  if (invocation.mode == zel::fleet::Invocation::Mode::Help) return core::PrintText(zel::fleet::HelpText());
  if (invocation.mode == zel::fleet::Invocation::Mode::Version) return core::PrintText(zel::fleet::VersionText());
  // The operator's own messages (a broker lost and found again by watch)
  // reach standard error when it is a terminal, or with -v; the MQTT
  // library's records only with -v.
  core::OpenLog(LOG_USER, invocation.verbosity, LOG_UPTO(LOG_NOTICE));
  for (const std::string& warning : invocation.warnings) core::Warn(warning);
  std::string why;
  if (!zel::mqtt::InitLibrary(why)) {
    core::Report(core::Fail(core::kStatusLocal, core::ProgramName(), why));
    return core::kStatusLocal;
  }
  core::Output output;
  const int status = zel::fleet::Perform(invocation, output);
  zel::mqtt::CleanupLibrary();
  return core::Finish(output, status);
}
