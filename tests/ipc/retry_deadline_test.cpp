#include "ipc/retry_deadline.h"

#include "gtest/gtest.h"

namespace zel::ipc {
namespace {

TEST(RetryDeadlineTest, AddsFiveSecondsAndTurnsMicrosecondsIntoNanoseconds) {
  const timespec deadline = RetryDeadline(timeval{1000, 250000});
  EXPECT_EQ(deadline.tv_sec, 1005);
  EXPECT_EQ(deadline.tv_nsec, 250000000L);
}

TEST(RetryDeadlineTest, LargestValidReadingNeedsNoCarry) {
  const timespec deadline = RetryDeadline(timeval{1000, 999999});
  EXPECT_EQ(deadline.tv_sec, 1005);
  EXPECT_EQ(deadline.tv_nsec, 999999000L);
}

TEST(RetryDeadlineTest, OverfullMicrosecondsCarryIntoTheSeconds) {
  const timespec deadline = RetryDeadline(timeval{1000, 1250000});
  EXPECT_EQ(deadline.tv_sec, 1006);
  EXPECT_EQ(deadline.tv_nsec, 250000000L);
}

}  // namespace
}  // namespace zel::ipc
