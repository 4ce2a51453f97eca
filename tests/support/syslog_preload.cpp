// Preloadable syslog capture for end-to-end runs of real binaries. With
// KDX_SYSLOG_FILE set, every record that the program's log mask (setlogmask)
// lets through, as the C library's would, is appended to that file as
//   "<priority> <length>\n<text>\n"
// in one write, so records from several threads never interleave. Without the
// variable, records go on to the C library's vsyslog.
#include <dlfcn.h>
#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "tests/support/syslog_format.h"

namespace {

using VsyslogFn = void (*)(int, const char*, va_list);

void ForwardToSystem(int priority, const char* format, va_list args) {
  static VsyslogFn next = reinterpret_cast<VsyslogFn>(dlsym(RTLD_NEXT, "vsyslog"));
  if (next != nullptr) next(priority, format, args);
}

void Capture(int priority, const char* format, va_list args) {
  const int savedErrno = errno;
  const char* path = std::getenv("KDX_SYSLOG_FILE");
  if (path == nullptr || *path == '\0') {
    ForwardToSystem(priority, format, args);
    errno = savedErrno;
    return;
  }
  // setlogmask(0) reads the mask without changing it.
  // NOLINTNEXTLINE(concurrency-mt-unsafe): only reads it, under the C library's own lock
  if ((setlogmask(0) & LOG_MASK(LOG_PRI(priority))) == 0) return;
  const std::string text = zel::test::FormatSyslog(format, args, savedErrno);
  char header[48];
  std::snprintf(header, sizeof header, "%d %zu\n", priority, text.size());
  const std::string record = header + text + "\n";
  const int fd = ::open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd >= 0) {
    ssize_t ignored = ::write(fd, record.data(), record.size());
    (void)ignored;
    ::close(fd);
  }
  errno = savedErrno;
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) void syslog(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  Capture(priority, format, args);
  va_end(args);
}

__attribute__((visibility("default"))) void vsyslog(int priority, const char* format, va_list args) {
  Capture(priority, format, args);
}

__attribute__((visibility("default"))) void __syslog_chk(int priority, int /*flag*/, const char* format, ...) {
  va_list args;
  va_start(args, format);
  Capture(priority, format, args);
  va_end(args);
}

__attribute__((visibility("default"))) void __vsyslog_chk(int priority, int /*flag*/, const char* format,
                                                          va_list args) {
  Capture(priority, format, args);
}

}  // extern "C"
