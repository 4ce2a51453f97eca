// The waits between attempts to reach the broker. After a failed or lost
// connection: 1 s, doubling after each further failure up to 30 s. After the
// broker closed the connection because another client took the session over
// (the same client id on another box): 75 s, doubling up to 30 min, so that
// two boxes with one id take it from each other at most once a minute. Every
// wait is drawn at random within +-20 % of its step (and a take-over wait is
// never below 60 s), so that a thousand boxes that lost their broker at once
// do not come back in the same millisecond. The steps start again from the
// first only once a connection has stayed up, with what it needs granted,
// for 30 s: a broker that accepts and then drops each connection is not
// hammered once a second. A plain value; one thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <random>

namespace zel::mqtt {

class Backoff {
 public:
  using Clock = std::chrono::steady_clock;
  using milliseconds = std::chrono::milliseconds;

  static constexpr milliseconds kFirst{1000};
  static constexpr milliseconds kMax{30000};
  static constexpr milliseconds kTakenOverFirst{75000};
  static constexpr milliseconds kTakenOverMax{1800000};
  // No take-over wait is shorter.
  static constexpr milliseconds kTakenOverLeast{60000};
  // How long a connection must stay up before the steps start again.
  static constexpr std::chrono::seconds kSteady{30};
  // The spread of each wait around its step, in percent.
  static constexpr int kJitterPercent = 20;

  // `seed` chooses the random draws (a test gives a fixed one; the program
  // one of its own, see Seed()).
  explicit Backoff(uint32_t seed);

  // The wait before the next attempt after a failed or lost connection.
  milliseconds Next(Clock::time_point now = Clock::now());
  // The wait after the session was taken over by another client.
  milliseconds TakenOver(Clock::time_point now = Clock::now());
  // The connection is up with what it needs (the subscriptions granted).
  void Up(Clock::time_point now = Clock::now());
  // The connection went down (before the wait is asked for).
  void Down(Clock::time_point now = Clock::now());

  // A seed that differs between processes and runs: the time and the
  // process id.
  static uint32_t Seed();

 private:
  // Starts the steps again if the last connection stayed up long enough.
  void Settle(Clock::time_point now);
  milliseconds Draw(milliseconds step);

  std::minstd_rand mRandom;
  unsigned mFailures = 0;  // failures since the steps started again
  bool mUp = false;
  Clock::time_point mUpSince;
};

}  // namespace zel::mqtt
