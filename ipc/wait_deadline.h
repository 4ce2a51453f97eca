// A point in time, on the monotonic clock, by which a wait must be over, and
// how much of it is left: lets a wait that something cut short (a signal) go
// on for the rest of its time rather than start again. Plain value; one
// thread.
#pragma once

#include <chrono>
#include <cstdint>

namespace zel::ipc {

class WaitDeadline {
 public:
  // `timeoutUs` from now; longer time-outs than a steady clock can count
  // (centuries) are cut to what it can.
  explicit WaitDeadline(uint64_t timeoutUs);

  // Microseconds left, 0 once the deadline has passed.
  uint64_t LeftUs() const;
  // Milliseconds left, rounded up so that a wait never ends early, as poll
  // takes them.
  int LeftMs() const;

 private:
  std::chrono::steady_clock::time_point mEnd;
};

}  // namespace zel::ipc
