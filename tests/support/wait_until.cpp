#include "tests/support/wait_until.h"

#include <thread>

namespace zel::test {

bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout,
               std::chrono::milliseconds pause) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    // Checked once more after the deadline, so that a condition that came
    // true during the last pause is not reported as a time-out.
    if (std::chrono::steady_clock::now() >= deadline) return condition();
    std::this_thread::sleep_for(pause);
  }
  return true;
}

}  // namespace zel::test
