// kendrivex-ctl: the device-control service from scripts and for monitoring.
// One command per run, one command a line from standard input, or a watch of
// the service's events; exit statuses that say what happened, and every
// error as one line on standard error. The work is the client core's
// (tools/service_client); this is its front end: options, output and exit
// status.
#include <signal.h>
#include <sys/stat.h>
#include <syslog.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "tools/ctl/arguments.h"
#include "tools/ctl/events.h"
#include "tools/service_client/output.h"
#include "tools/service_client/runner.h"
#include "tools/service_client/signals.h"
#include "util/decimal_text.h"

namespace {

using zel::ctl::Invocation;
using zel::service_client::Outcome;
using zel::service_client::Output;

// The lines of a stream through POSIX getline, whose buffer it owns.
class LineReader {
 public:
  explicit LineReader(FILE* input) : mInput(input) {}
  ~LineReader() { std::free(mBuffer); }
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;

  // The next line without its line end; false at the end of input. A line
  // from a file in Windows form loses its carriage return too.
  bool Next(std::string& line) {
    const ssize_t length = ::getline(&mBuffer, &mCapacity, mInput);
    if (length < 0) return false;
    auto end = static_cast<size_t>(length);
    if (end > 0 && mBuffer[end - 1] == '\n') --end;
    if (end > 0 && mBuffer[end - 1] == '\r') --end;
    line.assign(mBuffer, end);
    return true;
  }

 private:
  FILE* mInput;
  char* mBuffer = nullptr;
  size_t mCapacity = 0;
};

// What a command printed, then its error line; `where` goes before the
// command word in the error line ("line 3: " in a batch). The status.
int Show(Outcome& outcome, const std::string& where, bool json, Output& output) {
  if (json && outcome.answered) output.Write(outcome.Json());
  if (!json && !outcome.plain.empty()) output.Write(outcome.plain);
  if (outcome.failure.Failed()) {
    outcome.failure.what = where + outcome.failure.what;
    zel::service_client::Report(outcome.failure);
  }
  return outcome.status;
}

int RunOneShot(const Invocation& invocation, Output& output) {
  zel::service_client::SignalCleanup cleanup;
  zel::service_client::Runner runner(invocation.settings, &cleanup);
  Outcome outcome = runner.Run(invocation.request);
  return Show(outcome, "", invocation.json, output);
}

// Runs standard input to its end (or until standard output fails), a line
// at a time; a failing line does not stop the batch, whose status is that
// of the first failure.
int RunBatch(const Invocation& invocation, Output& output) {
  // A batch that cannot reach the service says so once, before it reads a
  // line, rather than once for every line.
  zel::service_client::Failure failure;
  if (!zel::service_client::CheckService(invocation.settings.servicePath, failure) ||
      !zel::service_client::CheckDirectory(invocation.settings.dir, false, failure)) {
    zel::service_client::Report(failure);
    return failure.status;
  }
  zel::service_client::SignalCleanup cleanup;
  zel::service_client::Runner runner(invocation.settings, &cleanup);
  LineReader reader(stdin);
  int firstFailure = zel::service_client::kStatusOk;
  size_t number = 0;
  std::string line;
  while (!output.Broken() && reader.Next(line)) {
    ++number;
    Outcome outcome = runner.RunLine(line);
    zel::ctl::PointToHelp(outcome.failure);
    const int status =
        Show(outcome, "line " + zel::util::DecimalText(static_cast<uint32_t>(number)) + ": ", invocation.json, output);
    if (firstFailure == zel::service_client::kStatusOk) firstFailure = status;
  }
  return firstFailure;
}

// What reaches the system log. Without --verbose, a one-shot command or a
// batch leaves out the IPC client's records of each socket and each request
// (LOG_INFO and LOG_DEBUG), which a script run every few minutes would
// otherwise write each time, and the watch its records of each event
// (LOG_DEBUG); warnings and errors always go. What reaches standard error is
// the client core's rule (tools/service_client/output.h): with -v the
// program's own messages, with -v -v the IPC client's records too.
void SetUpLog(const Invocation& invocation) {
  const int quietMask = LOG_UPTO(invocation.mode == Invocation::Mode::Watch ? LOG_INFO : LOG_NOTICE);
  zel::service_client::OpenLog(LOG_USER, invocation.verbosity, quietMask);
}

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);  // NOLINT(cert-err33-c): cannot fail for SIGPIPE
  zel::service_client::SetProgramName("kendrivex-ctl");
  Invocation invocation;
  zel::service_client::Failure failure;
  if (!zel::ctl::ParseArguments(argc, argv, invocation, failure)) {
    zel::service_client::Report(failure);
    return failure.status;
  }
  switch (invocation.mode) {
    case Invocation::Mode::Help:
      return zel::service_client::PrintText(zel::ctl::HelpText());
    case Invocation::Mode::Version:
      return zel::service_client::PrintText(zel::ctl::VersionText());
    case Invocation::Mode::OneShot:
    case Invocation::Mode::Batch:
    case Invocation::Mode::Watch:
      break;
  }
  SetUpLog(invocation);
  // For the whole run: the IPC client makes its socket again whenever it
  // finds the service restarted.
  const mode_t programUmask = ::umask(zel::service_client::SocketUmask(invocation.settings.dir));
  Output output;
  int status = zel::service_client::kStatusOk;
  if (invocation.mode == Invocation::Mode::Watch) {
    status = zel::ctl::RunWatch(invocation, output, programUmask);
  } else if (invocation.mode == Invocation::Mode::Batch) {
    status = RunBatch(invocation, output);
  } else {
    status = RunOneShot(invocation, output);
  }
  return zel::service_client::Finish(output, status);
}
