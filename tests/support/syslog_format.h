// Formats a syslog call's text exactly as the C library would hand it on,
// including the "%m" conversion. Stateless; safe from any thread.
#pragma once

#include <cstdarg>
#include <string>

namespace zel::test {

// `savedErrno` is errno as it was when syslog was called (for "%m").
std::string FormatSyslog(const char* format, va_list args, int savedErrno);

}  // namespace zel::test
