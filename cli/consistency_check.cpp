#include "cli/consistency_check.h"

// The C library's assertion handler: prints "<program>: <file>:<line>:
// <function>: Assertion `<text>' failed." and aborts. <assert.h> declares it
// only without NDEBUG, so it is declared here, exactly as the library does.
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the C library's own name
extern "C" [[noreturn]] void __assert_fail(const char* assertion, const char* file, unsigned int line,
                                           const char* function) noexcept;

namespace zel::cli {

void FailConsistencyCheck(const char* file, unsigned line, const char* function) {
  __assert_fail("0", file, line, function);
}

}  // namespace zel::cli
