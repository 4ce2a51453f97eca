// Takes up this process's lowest free descriptor numbers with copies of
// standard error until the next one the kernel hands out is a chosen number,
// so that a test can see code meet descriptors beyond select's FD_SETSIZE.
// Raises the soft limit on descriptors if that number would not fit under
// it. Gives everything back on destruction; use from one thread.
#pragma once

#include <sys/resource.h>

#include <vector>

namespace zel::test {

class DescriptorFiller {
 public:
  // Stops early if the process runs out of descriptors.
  explicit DescriptorFiller(int next);
  ~DescriptorFiller();
  DescriptorFiller(const DescriptorFiller&) = delete;
  DescriptorFiller& operator=(const DescriptorFiller&) = delete;

 private:
  rlimit mSavedLimit{};
  bool mLimitRaised = false;
  std::vector<int> mFds;
};

}  // namespace zel::test
