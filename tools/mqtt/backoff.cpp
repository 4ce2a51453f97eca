#include "tools/mqtt/backoff.h"

#include <unistd.h>

#include <algorithm>

namespace zel::mqtt {
namespace {

using std::chrono::milliseconds;

// `first` doubled `times` times, at most `max`.
milliseconds Step(milliseconds first, unsigned times, milliseconds max) {
  milliseconds step = first;
  for (unsigned i = 0; i < times && step < max; ++i) step *= 2;
  return std::min(step, max);
}

// A seed spread over all its bits (a finalizer of MurmurHash3): the linear
// congruential engine's first draws from seeds close together lie close
// together too.
uint32_t Spread(uint32_t seed) {
  seed ^= seed >> 16U;
  seed *= 0x85EBCA6BU;
  seed ^= seed >> 13U;
  seed *= 0xC2B2AE35U;
  seed ^= seed >> 16U;
  // The engine's seed must not be 0 modulo its modulus.
  return seed % 2147483646U + 1U;
}

}  // namespace

Backoff::Backoff(uint32_t seed) : mRandom(Spread(seed)) {}

milliseconds Backoff::Next(Clock::time_point now) {
  Settle(now);
  return Draw(Step(kFirst, mFailures++, kMax));
}

milliseconds Backoff::TakenOver(Clock::time_point now) {
  Settle(now);
  return std::max(Draw(Step(kTakenOverFirst, mFailures++, kTakenOverMax)), kTakenOverLeast);
}

void Backoff::Up(Clock::time_point now) {
  mUp = true;
  mUpSince = now;
}

void Backoff::Down(Clock::time_point now) { Settle(now); }

void Backoff::Settle(Clock::time_point now) {
  if (!mUp) return;
  mUp = false;
  if (now - mUpSince >= kSteady) mFailures = 0;
}

milliseconds Backoff::Draw(milliseconds step) {
  // Steps are at most half an hour: their milliseconds and the spread fit 32
  // bits. The modulo's bias, at most 2^-20 here, does not matter.
  const auto spread = static_cast<uint32_t>(step.count() * kJitterPercent / 100);
  const uint32_t offset = static_cast<uint32_t>(mRandom()) % (2 * spread + 1);
  return step - milliseconds(spread) + milliseconds(offset);
}

uint32_t Backoff::Seed() {
  const auto ticks = static_cast<uint64_t>(Clock::now().time_since_epoch().count());
  return static_cast<uint32_t>(ticks ^ (ticks >> 32U)) ^ (static_cast<uint32_t>(::getpid()) << 16U);
}

}  // namespace zel::mqtt
