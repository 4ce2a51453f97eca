#include "tools/ctl/output.h"

#include <unistd.h>

#include <cerrno>

namespace zel::ctl {
namespace {

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

void Output::Report(const Failure& failure) { WriteError(failure.Line()); }

void Output::WriteError(const std::string& text) { WriteAll(STDERR_FILENO, text); }

}  // namespace zel::ctl
