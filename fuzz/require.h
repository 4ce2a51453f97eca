// The fuzz targets' property checks: a property that does not hold is a
// crash to the fuzzing engine (and a failed replay in the normal test run),
// in every build type. Stateless; callable from any thread.
#pragma once

namespace zel::fuzz {

// Reports `what` on standard error and aborts unless `holds`.
void Require(bool holds, const char* what);

}  // namespace zel::fuzz
