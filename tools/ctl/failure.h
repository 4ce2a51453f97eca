// The exit statuses of kendrivex-ctl and the one-line error that goes with
// every status but success. Plain values; no threading concerns.
#pragma once

#include <string>

namespace zel::ctl {

// What the exit status tells a script.
enum ExitStatus : int {
  kStatusOk = 0,
  kStatusRefused = 1,      // the service answered, but not with success or without the expected argument
  kStatusUsage = 2,        // unknown command or option, missing service path, bad number
  kStatusUnreachable = 3,  // no socket at the path, refused, or no reply within the time-out
  kStatusLocal = 4,        // the directory is unusable or a path is too long for a socket address
};

// One failure: its exit status and the two halves of its error line.
struct Failure {
  int status = kStatusOk;
  std::string what;
  std::string why;

  // "kendrivex-ctl: <what>: <why>" and a newline, as written to standard error.
  std::string Line() const;
};

// Shorthand for building a failure in one expression.
Failure Fail(int status, std::string what, std::string why);

// The C library's text for an errno value. Callable from any thread, which
// strerror is not.
std::string ErrorText(int error);

}  // namespace zel::ctl
