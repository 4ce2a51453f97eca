#include "tests/support/syslog_format.h"

#include <cstdio>
#include <cstring>
#include <vector>

namespace zel::test {
namespace {

// Replaces every "%m" conversion with the error text, leaving "%%" alone, as
// syslog does before it formats the rest.
std::string ExpandErrno(const char* format, int savedErrno) {
  std::string out;
  for (const char* p = format; *p != '\0'; ++p) {
    if (p[0] == '%' && p[1] == '%') {
      out += "%%";
      ++p;
    } else if (p[0] == '%' && p[1] == 'm') {
      for (const char* e = std::strerror(savedErrno); *e != '\0'; ++e) {
        out += *e;
        if (*e == '%') out += '%';
      }
      ++p;
    } else {
      out += *p;
    }
  }
  return out;
}

}  // namespace

std::string FormatSyslog(const char* format, va_list args, int savedErrno) {
  if (format == nullptr) return std::string();
  const std::string expanded = ExpandErrno(format, savedErrno);
  va_list probe;
  va_copy(probe, args);
  const int size = std::vsnprintf(nullptr, 0, expanded.c_str(), probe);
  va_end(probe);
  if (size <= 0) return std::string();
  std::vector<char> buffer(static_cast<size_t>(size) + 1);
  std::vsnprintf(buffer.data(), buffer.size(), expanded.c_str(), args);
  return std::string(buffer.data(), static_cast<size_t>(size));
}

}  // namespace zel::test
