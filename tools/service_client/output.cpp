#include "tools/service_client/output.h"

#include <signal.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>

namespace zel::service_client {
namespace {

// How long a message may be, its terminating NUL included.
constexpr size_t kMaxMessage = 1024;

// Set at start, before any other thread; read-only after.
const char* gProgram = "";
unsigned gVerbosity = 0;
bool gErrorIsTerminal = false;
int gLogMask = LOG_UPTO(LOG_DEBUG);  // as set with setlogmask

}  // namespace

void SetProgramName(const char* name) { gProgram = name; }

const char* ProgramName() { return gProgram; }

int WriteAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t written = ::write(fd, text.data() + done, text.size() - done);
    if (written < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    done += static_cast<size_t>(written);
  }
  return 0;
}

bool Output::Write(const std::string& text) {
  if (mError != 0) return false;
  mError = WriteAll(STDOUT_FILENO, text);
  return mError == 0;
}

void Report(const Failure& failure) { WriteAll(STDERR_FILENO, failure.Line(gProgram)); }

void Warn(const std::string& text) {
  std::string line = gProgram;
  line.append(": warning: ").append(text).append(1, '\n');
  WriteAll(STDERR_FILENO, line);
}

int Finish(const Output& output, int status) {
  if (!output.Broken()) return status;
  if (output.Error() == EPIPE) {
    // NOLINTBEGIN(cert-err33-c): cannot fail for SIGPIPE; if the signal did not end the program, the failure
    // below is reported instead
    signal(SIGPIPE, SIG_DFL);
    raise(SIGPIPE);
    // NOLINTEND(cert-err33-c)
  }
  Report(Fail(kStatusLocal, "standard output", ErrorText(output.Error())));
  return kStatusLocal;
}

int PrintText(const std::string& text) {
  Output output;
  output.Write(text);
  return Finish(output, kStatusOk);
}

void OpenLog(int facility, unsigned verbosity, int quietMask) {
  gVerbosity = verbosity;
  gErrorIsTerminal = ::isatty(STDERR_FILENO) == 1;
  openlog(gProgram, verbosity >= 2 ? LOG_PERROR : 0, facility);
  gLogMask = verbosity == 0 ? quietMask : LOG_UPTO(LOG_DEBUG);
  // NOLINTNEXTLINE(concurrency-mt-unsafe): set on the main thread before any other starts
  setlogmask(gLogMask);
}

// NOLINTNEXTLINE(cert-dcl50-cpp): printf-style on purpose: the compiler checks each format and its arguments
void Log(int priority, const char* format, ...) {
  const bool warning = LOG_PRI(priority) <= LOG_WARNING;
  const bool copy = gVerbosity == 1 || (gVerbosity == 0 && warning && gErrorIsTerminal);
  // A message that goes nowhere is not even formatted.
  if (!copy && (gLogMask & LOG_MASK(LOG_PRI(priority))) == 0) return;
  char text[kMaxMessage];
  va_list args;
  va_start(args, format);
  // NOLINTNEXTLINE(cert-err33-c): a longer message is cut short, as said
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  syslog(priority, "%s", text);
  if (!copy) return;
  std::string line = gProgram;
  line.append(": ").append(text).append(1, '\n');
  WriteAll(STDERR_FILENO, line);
}

}  // namespace zel::service_client
