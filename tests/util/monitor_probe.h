// Helpers for driving an fd monitor in the util tests: a gate that holds the
// monitor thread inside a callback until the test releases it, and a record of
// callback calls. Both are shared between the test and the monitor thread
// under their own locks.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <vector>

#include "tests/util/test_pipe.h"
#include "util/fd_monitor.h"

namespace zel::util::testkit {

class Gate {
 public:
  // Registers the gate's pipe with `monitor`.
  void Attach(FdMonitor& monitor);
  // Makes the gate's pipe readable and waits until the monitor thread is held
  // inside the gate's callback; false on time-out.
  bool Hold();
  // Lets the held callback (and every later one) return.
  void Release();
  int Fd() const { return mPipe.ReadFd(); }

 private:
  void Pass();

  TestPipe mPipe;
  std::mutex mMutex;  // guards mEntered and mOpen
  std::condition_variable mChanged;
  size_t mEntered = 0;
  bool mOpen = false;
};

class Calls {
 public:
  // A callback that records its descriptor and drains `pipe` (when given).
  FdCallbackFn Recorder(const TestPipe* pipe = nullptr);
  void Add(int fd, FdType type);
  std::vector<int> Fds();
  std::vector<FdType> Types();
  size_t Count(int fd);
  bool WaitForCount(size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(10));

 private:
  std::mutex mMutex;  // guards mFds and mTypes
  std::condition_variable mChanged;
  std::vector<int> mFds;
  std::vector<FdType> mTypes;
};

}  // namespace zel::util::testkit
