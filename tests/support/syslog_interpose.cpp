// Replaces the C library's syslog entry points inside test executables, so
// that every record is captured instead of reaching the system log. The
// fortified forms (__syslog_chk, __vsyslog_chk) are what _FORTIFY_SOURCE
// builds call.
#include <cerrno>
#include <cstdarg>

#include "tests/support/syslog_capture.h"
#include "tests/support/syslog_format.h"

namespace {

void Capture(int priority, const char* format, va_list args) {
  const int savedErrno = errno;
  zel::test::SyslogCapture::Append(priority, zel::test::FormatSyslog(format, args, savedErrno));
  errno = savedErrno;
}

}  // namespace

extern "C" {

void syslog(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  Capture(priority, format, args);
  va_end(args);
}

void vsyslog(int priority, const char* format, va_list args) { Capture(priority, format, args); }

void __syslog_chk(int priority, int /*flag*/, const char* format, ...) {
  va_list args;
  va_start(args, format);
  Capture(priority, format, args);
  va_end(args);
}

void __vsyslog_chk(int priority, int /*flag*/, const char* format, va_list args) { Capture(priority, format, args); }

}  // extern "C"
