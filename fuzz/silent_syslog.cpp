// Keeps the fuzzed code's log records out of the system log. Each record is
// still formatted with its real arguments, so that a format that does not
// match its arguments, or an argument that points at freed or unterminated
// memory, is caught by the sanitizers like any other fault. The fortified
// forms (__syslog_chk, __vsyslog_chk) are what _FORTIFY_SOURCE builds call.
#include <cerrno>
#include <cstdarg>
#include <cstdio>

namespace {

void Discard(const char* format, va_list args) {
  const int savedErrno = errno;
  char text[1024];
  // NOLINTNEXTLINE(cert-err33-c): the text is formatted only to be checked, then dropped; a cut-off one is fine
  std::vsnprintf(text, sizeof text, format, args);
  errno = savedErrno;
}

}  // namespace

extern "C" {

void syslog(int /*priority*/, const char* format, ...) {
  va_list args;
  va_start(args, format);
  Discard(format, args);
  va_end(args);
}

void vsyslog(int /*priority*/, const char* format, va_list args) { Discard(format, args); }

// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the C library's name, interposed
void __syslog_chk(int /*priority*/, int /*flag*/, const char* format, ...) {
  va_list args;
  va_start(args, format);
  Discard(format, args);
  va_end(args);
}

// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the C library's name, interposed
void __vsyslog_chk(int /*priority*/, int /*flag*/, const char* format, va_list args) { Discard(format, args); }

}  // extern "C"
