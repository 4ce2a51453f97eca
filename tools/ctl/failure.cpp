#include "tools/ctl/failure.h"

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

}  // namespace zel::ctl
