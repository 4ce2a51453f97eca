#include "tests/support/wait_until.h"

#include <atomic>
#include <thread>

#include "gtest/gtest.h"

namespace zel::test {
namespace {

using std::chrono::milliseconds;

TEST(WaitUntilTest, AConditionThatHoldsReturnsTrueWithoutWaiting) {
  int checks = 0;
  EXPECT_TRUE(WaitUntil([&] { return ++checks > 0; }, milliseconds(0)));
  EXPECT_EQ(checks, 1);
}

TEST(WaitUntilTest, AConditionThatComesTrueOnAnotherThreadIsSeen) {
  std::atomic<bool> done{false};
  std::thread setter([&] { done = true; });
  EXPECT_TRUE(WaitUntil([&] { return done.load(); }));
  setter.join();
}

TEST(WaitUntilTest, AConditionThatNeverHoldsTimesOut) {
  int checks = 0;
  EXPECT_FALSE(WaitUntil([&] { return ++checks < 0; }, milliseconds(20)));
  EXPECT_GE(checks, 2);
}

}  // namespace
}  // namespace zel::test
