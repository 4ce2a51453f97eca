// The waits between attempts to reach the broker: 1 s after the first failed
// or lost connection, doubling after each further failure up to 30 s, and back
// to 1 s once the broker accepts a connection. A plain value; one thread.
#pragma once

namespace zel::bridge {

class Backoff {
 public:
  static constexpr unsigned kFirstSeconds = 1;
  static constexpr unsigned kMaxSeconds = 30;

  // The wait before the next attempt, in seconds; the one after is twice as
  // long, up to kMaxSeconds.
  unsigned Next();
  // The broker accepted a connection: the next wait is the first again.
  void Reset() { mNext = kFirstSeconds; }

 private:
  unsigned mNext = kFirstSeconds;
};

}  // namespace zel::bridge
