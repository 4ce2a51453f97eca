// Puts a fuzz input on standard input the way the program reads its keys:
// the bytes wait in a pipe on descriptor 0 and the console polls and reads
// that descriptor itself. One feed at a time per process; owns the pipe and
// gives descriptor 0 back to /dev/null when destroyed.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zel::fuzz {

class StdinFeed {
 public:
  // The most input one feed takes; longer inputs are cut to it.
  static constexpr size_t kCapacity = 65536;
  // What a pipe holds at the least, should it not take kCapacity.
  static constexpr size_t kMinCapacity = 4096;

  StdinFeed(const uint8_t* data, size_t size);
  ~StdinFeed();
  StdinFeed(const StdinFeed&) = delete;
  StdinFeed& operator=(const StdinFeed&) = delete;

  // The bytes of the input not read yet.
  size_t Remaining() const;
  // The bytes of the input that went into the pipe.
  size_t Size() const { return mSize; }

 private:
  int mWriter = -1;
  size_t mSize = 0;
};

}  // namespace zel::fuzz
