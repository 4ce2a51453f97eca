#include "ipc/wait_deadline.h"

#include <time.h>

#include <climits>

namespace zel::ipc {
namespace {

using std::chrono::microseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

// About 30 years: far beyond any reply time-out, and far within what a
// steady clock of 64-bit nanoseconds can add to its present reading.
constexpr uint64_t kLongestUs = 1000000000000000ULL;

// The steady clock's present reading. It is the monotonic clock, read here
// directly: steady_clock::now() reads the same clock through a call into the
// C++ library, an import that each binary would carry for nothing.
steady_clock::time_point Now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return steady_clock::time_point(
      std::chrono::duration_cast<steady_clock::duration>(seconds(now.tv_sec) + nanoseconds(now.tv_nsec)));
}

}  // namespace

WaitDeadline::WaitDeadline(uint64_t timeoutUs)
    : mEnd(Now() + microseconds(static_cast<microseconds::rep>(timeoutUs < kLongestUs ? timeoutUs : kLongestUs))) {}

uint64_t WaitDeadline::LeftUs() const {
  const auto left = std::chrono::duration_cast<microseconds>(mEnd - Now()).count();
  return left > 0 ? static_cast<uint64_t>(left) : 0;
}

int WaitDeadline::LeftMs() const {
  const uint64_t ms = (LeftUs() + 999) / 1000;
  return ms < static_cast<uint64_t>(INT_MAX) ? static_cast<int>(ms) : INT_MAX;
}

}  // namespace zel::ipc
