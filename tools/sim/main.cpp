// kendrivex-sim: plays the device-control service on a Unix datagram socket so
// that the client can run, and be tested, on any machine. Serves until SIGINT,
// SIGTERM or SIGHUP, then removes its socket file and exits with status 0.
#include <signal.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "tools/sim/service_path.h"
#include "tools/sim/sim_log.h"
#include "tools/sim/sim_options.h"
#include "tools/sim/sim_service.h"
#include "util/stop_signals.h"

namespace {

constexpr int kStatusFailure = 1;
constexpr int kStatusUsage = 2;

// The stop signals are blocked in every thread (the threads inherit the
// mask) and taken by sigwait in main, so that stopping runs as ordinary code
// rather than in a signal handler; one that was ignored when the program
// started stays ignored.
int WaitForStopSignal(const sigset_t& signals) {
  int signo = 0;
  while (sigwait(&signals, &signo) != 0) {
  }
  return signo;
}

// Writes a message for the user. A write to standard output or error that
// fails has nowhere to be reported, so its result is not looked at.
void Print(std::FILE* stream, const std::string& text) {
  std::fputs(text.c_str(), stream);  // NOLINT(cert-err33-c): see above
}

}  // namespace

int main(int argc, char** argv) {
  const std::string program = argc > 0 ? argv[0] : "kendrivex-sim";
  const std::vector<std::string> args(argv + (argc > 0 ? 1 : 0), argv + argc);
  zel::sim::SimOptions options;
  std::string error;
  switch (zel::sim::SimOptions::Parse(args, options, error)) {
    case zel::sim::SimOptions::Outcome::Help:
      Print(stdout, zel::sim::SimOptions::Usage(program));
      return 0;
    case zel::sim::SimOptions::Outcome::Version:
      Print(stdout, std::string("kendrivex-sim ") + KDX_VERSION + "\n");
      return 0;
    case zel::sim::SimOptions::Outcome::Error:
      // One line, as kendrivex-ctl has it: the whole usage text would bury it.
      Print(stderr, program + ": " + error + " (try --help)\n");
      return kStatusUsage;
    case zel::sim::SimOptions::Outcome::Run:
      break;
  }
  const std::string problem = zel::sim::ServicePath::Problem(options.socketPath);
  if (!problem.empty()) {
    Print(stderr, program + ": " + problem + "\n");
    return kStatusUsage;
  }

  const sigset_t stopSignals = zel::util::StopSignals();
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  // A report reader that went away (a closed pipe) must not end the service
  // before it has removed its socket file; the lines are simply lost.
  signal(SIGPIPE, SIG_IGN);  // NOLINT(cert-err33-c): cannot fail for SIGPIPE

  auto log = options.logPath.empty() ? std::make_unique<zel::sim::SimLog>()
                                     : std::make_unique<zel::sim::SimLog>(options.logPath);
  if (!log->Ok()) {
    Print(stderr, program + ": cannot open the log file [" + options.logPath + "]\n");
    return kStatusFailure;
  }
  auto service = std::make_unique<zel::sim::SimService>(options, *log);
  if (!service->Ready()) {
    Print(stderr, program + ": cannot bind a socket at [" + options.socketPath + "]\n");
    return kStatusFailure;
  }
  log->Line("serving on [" + options.socketPath + "]");
  const int signo = WaitForStopSignal(stopSignals);
  log->Line("stopping on signal " + std::to_string(signo));
  service.reset();
  return 0;
}
