#include "ipc/retry_deadline.h"

namespace zel::ipc {

timespec RetryDeadline(const timeval& now) {
  timespec deadline{};
  deadline.tv_sec = now.tv_sec + kRetryPauseSeconds;
  deadline.tv_nsec = static_cast<long>(now.tv_usec) * 1000;
  if (deadline.tv_nsec > 999999999L) {
    deadline.tv_sec = now.tv_sec + kRetryPauseSeconds + 1;
    deadline.tv_nsec -= 1000000000L;
  }
  return deadline;
}

}  // namespace zel::ipc
