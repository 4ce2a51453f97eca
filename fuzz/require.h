// The fuzz targets' property checks: a property that does not hold is a
// crash to the fuzzing engine (and a failed replay in the normal test run),
// in every build type. Stateless; callable from any thread.
#pragma once

namespace zel::fuzz {

// Reports `what` on standard error and aborts.
[[noreturn]] void PropertyFailed(const char* what);

// Reports `what` on standard error and aborts unless `holds`. Inline, so
// that the analyzers see that nothing after a failed check runs.
inline void Require(bool holds, const char* what) {
  if (!holds) PropertyFailed(what);
}

}  // namespace zel::fuzz
