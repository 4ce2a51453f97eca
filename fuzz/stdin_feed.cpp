#include "fuzz/stdin_feed.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace zel::fuzz {
namespace {

[[noreturn]] void Fail(const char* what) {
  std::perror(what);
  std::abort();
}

}  // namespace

StdinFeed::StdinFeed(const uint8_t* data, size_t size) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) Fail("pipe2");
  // The whole input must fit, so that writing it cannot block. Where the
  // pipe cannot be resized (an emulator may not pass the call on), one page
  // is what every pipe holds.
  const int capacity = ::fcntl(fds[1], F_SETPIPE_SZ, static_cast<int>(kCapacity));
  mSize = std::min(size, capacity > 0 ? static_cast<size_t>(capacity) : kMinCapacity);
  size_t written = 0;
  while (written < mSize) {
    const ssize_t n = ::write(fds[1], data + written, mSize - written);
    if (n <= 0) Fail("write to the input pipe");
    written += static_cast<size_t>(n);
  }
  if (::dup2(fds[0], STDIN_FILENO) < 0) Fail("dup2 onto standard input");
  ::close(fds[0]);
  // The writer stays open while the keys are read: a pipe whose writer has
  // gone reports a hang-up together with its data.
  mWriter = fds[1];
}

StdinFeed::~StdinFeed() {
  ::close(mWriter);
  const int null = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (null >= 0) {
    ::dup2(null, STDIN_FILENO);
    ::close(null);
  }
}

size_t StdinFeed::Remaining() const {
  int count = 0;
  if (::ioctl(STDIN_FILENO, FIONREAD, &count) != 0) Fail("FIONREAD on standard input");
  return static_cast<size_t>(count);
}

}  // namespace zel::fuzz
