// Ends the process when the interface finds its own state broken: prints the
// standard assertion message for the given place and aborts, in every build
// type (it does not depend on NDEBUG). Stateless; callable from any thread.
#pragma once

namespace zel::cli {

// The source name that the interface's consistency checks report.
inline constexpr char kCheckFileText[] = "cmd_line_interface";

[[noreturn]] void FailConsistencyCheck(const char* file, unsigned line, const char* function);

}  // namespace zel::cli
