// What the process holds right now, read from /proc/self: resident memory,
// open descriptors and threads. A plain value; reading it is safe from any
// thread.
#pragma once

#include <cstddef>
#include <string>

namespace zel::bench {

struct ProcessFootprint {
  size_t rssKiB = 0;
  size_t descriptors = 0;
  size_t threads = 0;

  static ProcessFootprint Now();
  // "RSS <n> KiB, <n> descriptors, <n> threads"
  std::string Text() const;
};

}  // namespace zel::bench
