// Ends the process when the interface finds its own state broken: prints the
// standard assertion message for the given place and aborts, in every build
// type (it does not depend on NDEBUG). Stateless; callable from any thread.
#pragma once

namespace zel::cli {

[[noreturn]] void FailConsistencyCheck(const char* file, unsigned line, const char* function);

}  // namespace zel::cli
