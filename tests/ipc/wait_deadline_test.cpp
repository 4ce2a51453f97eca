#include "ipc/wait_deadline.h"

#include <climits>
#include <cstdint>

#include "gtest/gtest.h"

namespace zel::ipc {
namespace {

TEST(WaitDeadlineTest, FreshDeadlineHasItsTimeLeft) {
  const WaitDeadline deadline(60000000);
  EXPECT_GT(deadline.LeftUs(), 59000000u);
  EXPECT_LE(deadline.LeftUs(), 60000000u);
}

TEST(WaitDeadlineTest, PassedDeadlineHasNothingLeft) {
  const WaitDeadline deadline(0);
  EXPECT_EQ(deadline.LeftUs(), 0u);
  EXPECT_EQ(deadline.LeftMs(), 0);
}

TEST(WaitDeadlineTest, MillisecondsAreRoundedUpSoAWaitNeverEndsEarly) {
  const WaitDeadline deadline(60000001);
  EXPECT_GE(static_cast<uint64_t>(deadline.LeftMs()) * 1000, deadline.LeftUs());
}

TEST(WaitDeadlineTest, LongestTimeOutIsCutToWhatTheClockCounts) {
  const WaitDeadline deadline(UINT64_MAX);
  EXPECT_GT(deadline.LeftUs(), 0u);
  EXPECT_EQ(deadline.LeftMs(), INT_MAX);
}

}  // namespace
}  // namespace zel::ipc
