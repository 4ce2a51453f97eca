// The absolute deadline of the registration retry's pause, computed from a
// wall-clock reading as the condition variable's real-time clock expects it.
// Stateless.
#pragma once

#include <sys/time.h>
#include <time.h>

namespace zel::ipc {

// Seconds of pause between two registration attempts.
constexpr time_t kRetryPauseSeconds = 5;

// `now` plus the pause: the microseconds become nanoseconds, and should they
// exceed 999,999,999 the seconds get one more and the nanoseconds lose a
// second's worth. A valid reading never needs that carry; it is kept so that
// the deadline is formed exactly as it always was.
timespec RetryDeadline(const timeval& now);

}  // namespace zel::ipc
