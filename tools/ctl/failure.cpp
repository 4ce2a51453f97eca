#include "tools/ctl/failure.h"

#include <cstring>
#include <utility>

namespace zel::ctl {

std::string Failure::Line() const { return "kendrivex-ctl: " + what + ": " + why + "\n"; }

Failure Fail(int status, std::string what, std::string why) {
  Failure failure;
  failure.status = status;
  failure.what = std::move(what);
  failure.why = std::move(why);
  return failure;
}

std::string ErrorText(int error) {
  char buffer[256];
  // The GNU form: the text is in the buffer or in a constant string.
  return ::strerror_r(error, buffer, sizeof buffer);
}

}  // namespace zel::ctl
