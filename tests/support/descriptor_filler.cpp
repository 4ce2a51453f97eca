#include "tests/support/descriptor_filler.h"

#include <unistd.h>

namespace zel::test {

namespace {

// Room above the chosen number for the descriptors the code under test opens.
constexpr rlim_t kHeadroom = 64;

}  // namespace

DescriptorFiller::DescriptorFiller(int next) {
  if (getrlimit(RLIMIT_NOFILE, &mSavedLimit) == 0 && mSavedLimit.rlim_cur < static_cast<rlim_t>(next) + kHeadroom) {
    rlimit raised = mSavedLimit;
    raised.rlim_cur = static_cast<rlim_t>(next) + kHeadroom;
    if (raised.rlim_max != RLIM_INFINITY && raised.rlim_cur > raised.rlim_max) raised.rlim_cur = raised.rlim_max;
    mLimitRaised = setrlimit(RLIMIT_NOFILE, &raised) == 0;
  }
  while (true) {
    const int fd = dup(STDERR_FILENO);
    if (fd < 0) return;
    if (fd >= next) {
      close(fd);
      return;
    }
    mFds.push_back(fd);
  }
}

DescriptorFiller::~DescriptorFiller() {
  for (int fd : mFds) close(fd);
  if (mLimitRaised) setrlimit(RLIMIT_NOFILE, &mSavedLimit);
}

}  // namespace zel::test
