#include "tools/bridge/wakeup.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

namespace zel::bridge {

Wakeup::Wakeup() : mFd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

Wakeup::~Wakeup() {
  if (mFd >= 0) ::close(mFd);
}

void Wakeup::Notify() {
  const uint64_t one = 1;
  // A full counter (never reached) or a closed descriptor leaves it readable
  // or gone; either way there is nothing to retry.
  const ssize_t written = ::write(mFd, &one, sizeof one);
  static_cast<void>(written);
}

void Wakeup::Drain() {
  uint64_t count = 0;
  const ssize_t read = ::read(mFd, &count, sizeof count);
  static_cast<void>(read);
}

}  // namespace zel::bridge
