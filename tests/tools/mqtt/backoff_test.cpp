// The waits between attempts to reach the broker, drawn from a seeded random
// source: each within +-20 % of its step, the steps doubling to their
// ceiling, a take-over wait never below 60 s, and the steps starting again
// only after a connection stayed up for 30 s.
#include "tools/mqtt/backoff.h"

#include <set>

#include "gtest/gtest.h"

namespace zel::mqtt::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = Backoff::Clock;

// Whether `wait` lies within +-20 % of `step`.
bool Around(milliseconds wait, milliseconds step) { return wait >= step * 8 / 10 && wait <= step * 12 / 10; }

TEST(BackoffTest, WaitsDoubleFromOneSecondToThirtyEachWithinTwentyPercent) {
  for (uint32_t seed = 1; seed <= 50; ++seed) {
    Backoff backoff(seed);
    const Clock::time_point now;
    for (const int step : {1, 2, 4, 8, 16, 30, 30, 30}) {
      const milliseconds wait = backoff.Next(now);
      EXPECT_TRUE(Around(wait, seconds(step))) << "seed " << seed << ": " << wait.count() << " ms for " << step;
    }
  }
}

TEST(BackoffTest, WaitsAreSpreadNotTheSameForEveryBox) {
  std::set<int64_t> firsts;
  int64_t least = 2000;
  int64_t most = 0;
  for (uint32_t seed = 1; seed <= 100; ++seed) {
    const int64_t wait = Backoff(seed).Next().count();
    firsts.insert(wait);
    least = std::min(least, wait);
    most = std::max(most, wait);
  }
  // 100 draws from 401 values: a few coincide.
  EXPECT_GT(firsts.size(), 80u);
  // Spread over most of the 800 to 1200 ms.
  EXPECT_LT(least, 850);
  EXPECT_GT(most, 1150);
}

TEST(BackoffTest, TakenOverWaitsAtLeastSixtySecondsAndGrowsAsTheBackoffDoes) {
  for (uint32_t seed = 1; seed <= 50; ++seed) {
    Backoff backoff(seed);
    const Clock::time_point now;
    const milliseconds first = backoff.TakenOver(now);
    EXPECT_GE(first, seconds(60)) << seed;
    EXPECT_LE(first, seconds(90)) << seed;
    EXPECT_TRUE(Around(backoff.TakenOver(now), seconds(150))) << seed;
    EXPECT_TRUE(Around(backoff.TakenOver(now), seconds(300))) << seed;
    for (int i = 0; i < 10; ++i) backoff.TakenOver(now);
    EXPECT_TRUE(Around(backoff.TakenOver(now), seconds(1800))) << seed;
  }
}

TEST(BackoffTest, ConnectionUpForThirtySecondsStartsTheStepsAgain) {
  Backoff backoff(7);
  const Clock::time_point start;
  for (int i = 0; i < 4; ++i) backoff.Next(start);
  backoff.Up(start);
  backoff.Down(start + seconds(30));
  EXPECT_TRUE(Around(backoff.Next(start + seconds(30)), seconds(1)));
}

TEST(BackoffTest, ConnectionUpForLessThanThirtySecondsKeepsTheSteps) {
  Backoff backoff(7);
  const Clock::time_point start;
  for (int i = 0; i < 4; ++i) backoff.Next(start);
  backoff.Up(start);
  backoff.Down(start + seconds(29));
  EXPECT_TRUE(Around(backoff.Next(start + seconds(29)), seconds(16)));
}

TEST(BackoffTest, AcceptedConnectionAloneDoesNotStartTheStepsAgain) {
  // A broker that accepts the connection and then refuses the subscription:
  // the connection never counts as up.
  Backoff backoff(3);
  const Clock::time_point now;
  for (const int step : {1, 2, 4, 8}) EXPECT_TRUE(Around(backoff.Next(now), seconds(step))) << step;
}

TEST(BackoffTest, SeedsDifferBetweenCalls) { EXPECT_NE(Backoff::Seed(), Backoff::Seed()); }

}  // namespace
}  // namespace zel::mqtt::test
