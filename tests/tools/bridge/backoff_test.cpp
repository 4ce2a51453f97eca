// The waits between attempts to reach the broker.
#include "tools/bridge/backoff.h"

#include <vector>

#include "gtest/gtest.h"

namespace zel::bridge::test {
namespace {

std::vector<unsigned> Waits(Backoff& backoff, size_t count) {
  std::vector<unsigned> waits;
  for (size_t i = 0; i < count; ++i) waits.push_back(backoff.Next());
  return waits;
}

TEST(BackoffTest, StartsAtOneSecondAndDoublesUpToThirty) {
  Backoff backoff;
  EXPECT_EQ(Waits(backoff, 8), (std::vector<unsigned>{1, 2, 4, 8, 16, 30, 30, 30}));
}

TEST(BackoffTest, StartsAgainAtOneSecondOnceConnected) {
  Backoff backoff;
  Waits(backoff, 4);
  backoff.Reset();
  EXPECT_EQ(Waits(backoff, 3), (std::vector<unsigned>{1, 2, 4}));
}

}  // namespace
}  // namespace zel::bridge::test
