#include "tests/support/pid_files.h"

#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <cstring>

namespace zel::test {
namespace {

// Appends `count` bytes at `at` if they fit before `end`; false otherwise.
bool Append(char*& at, const char* end, const char* bytes, size_t count) {
  if (static_cast<size_t>(end - at) < count) return false;
  std::memcpy(at, bytes, count);
  at += count;
  return true;
}

// The decimal digits of a process id, without allocating.
size_t FormatPid(pid_t pid, char (&digits)[16]) {
  char reversed[16];
  size_t count = 0;
  unsigned long value = static_cast<unsigned long>(pid);
  do {
    reversed[count++] = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value != 0 && count < sizeof reversed);
  for (size_t i = 0; i < count; ++i) digits[i] = reversed[count - 1 - i];
  return count;
}

}  // namespace

PidFiles::PidFiles(std::string prefix, std::vector<std::string> suffixes)
    : mPrefix(std::move(prefix)), mSuffixes(std::move(suffixes)) {}

void PidFiles::CreateForThisProcess() const {
  char digits[16];
  const size_t digitCount = FormatPid(::getpid(), digits);
  for (const std::string& suffix : mSuffixes) {
    char name[PATH_MAX];
    char* at = name;
    const char* end = name + sizeof name - 1;  // room for the zero byte
    if (!Append(at, end, mPrefix.data(), mPrefix.size()) || !Append(at, end, digits, digitCount) ||
        !Append(at, end, suffix.data(), suffix.size())) {
      continue;
    }
    *at = '\0';
    const int fd = ::open(name, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd >= 0) ::close(fd);
  }
}

std::vector<std::string> PidFiles::Names(pid_t pid) const {
  std::vector<std::string> names;
  for (const std::string& suffix : mSuffixes) names.push_back(mPrefix + std::to_string(pid) + suffix);
  return names;
}

}  // namespace zel::test
