#include "fuzz/require.h"

#include <cstdio>
#include <cstdlib>

namespace zel::fuzz {

void PropertyFailed(const char* what) {
  // NOLINTNEXTLINE(cert-err33-c): a failed write to standard error has nowhere to be reported
  std::fprintf(stderr, "property does not hold: %s\n", what);
  std::abort();
}

}  // namespace zel::fuzz
