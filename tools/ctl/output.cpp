#include "tools/ctl/output.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>

namespace zel::ctl {
namespace {

const char kProgram[] = "kendrivex-ctl";

// Writes all of `text`, resuming after interruptions and partial writes; the
// errno of a failure, 0 on success.
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

}  // namespace

bool Output::Write(const std::string& text) {
  if (mError != 0) return false;
  mError = WriteAll(STDOUT_FILENO, text);
  return mError == 0;
}

void Report(const service_client::Failure& failure) { WriteError(failure.Line(kProgram)); }

void WriteError(const std::string& text) { WriteAll(STDERR_FILENO, text); }

int Finish(const Output& output, int status) {
  if (!output.Broken()) return status;
  if (output.Error() == EPIPE) {
    // NOLINTBEGIN(cert-err33-c): cannot fail for SIGPIPE; if the signal did not end the program, the failure
    // below is reported instead
    signal(SIGPIPE, SIG_DFL);
    raise(SIGPIPE);
    // NOLINTEND(cert-err33-c)
  }
  Report(
      service_client::Fail(service_client::kStatusLocal, "standard output", service_client::ErrorText(output.Error())));
  return service_client::kStatusLocal;
}

}  // namespace zel::ctl
