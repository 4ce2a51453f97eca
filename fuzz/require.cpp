#include "fuzz/require.h"

#include <cstdio>
#include <cstdlib>

namespace zel::fuzz {

void Require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "property does not hold: %s\n", what);
  std::abort();
}

}  // namespace zel::fuzz
