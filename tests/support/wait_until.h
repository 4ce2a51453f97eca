// The one way a test waits for something that another thread or process
// brings about: check a condition, and check again after a short pause until
// it holds or the time is up. Stateless; callable from any thread.
#pragma once

#include <chrono>
#include <functional>

namespace zel::test {

// True as soon as `condition` holds (it is checked at once, then every
// `pause`); false when it still does not hold after `timeout`.
bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout = std::chrono::seconds(10),
               std::chrono::milliseconds pause = std::chrono::milliseconds(1));

}  // namespace zel::test
