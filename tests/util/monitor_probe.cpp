#include "tests/util/monitor_probe.h"

#include <algorithm>

namespace zel::util::testkit {

void Gate::Attach(FdMonitor& monitor) {
  monitor.AddFd(mPipe.ReadFd(), FdType::Read, [this](int, FdType) { Pass(); });
}

bool Gate::Hold() {
  size_t before = 0;
  {
    std::lock_guard<std::mutex> lock(mMutex);
    before = mEntered;
  }
  if (!mPipe.Write("g")) return false;
  std::unique_lock<std::mutex> lock(mMutex);
  return mChanged.wait_for(lock, std::chrono::seconds(10), [&] { return mEntered > before; });
}

void Gate::Release() {
  {
    std::lock_guard<std::mutex> lock(mMutex);
    mOpen = true;
  }
  mChanged.notify_all();
}

void Gate::Pass() {
  mPipe.Drain();
  std::unique_lock<std::mutex> lock(mMutex);
  ++mEntered;
  mChanged.notify_all();
  mChanged.wait(lock, [this] { return mOpen; });
}

FdCallbackFn Calls::Recorder(const TestPipe* pipe) {
  return [this, pipe](int fd, FdType type) {
    if (pipe != nullptr) pipe->Drain();
    Add(fd, type);
  };
}

void Calls::Add(int fd, FdType type) {
  {
    std::lock_guard<std::mutex> lock(mMutex);
    mFds.push_back(fd);
    mTypes.push_back(type);
  }
  mChanged.notify_all();
}

std::vector<int> Calls::Fds() {
  std::lock_guard<std::mutex> lock(mMutex);
  return mFds;
}

std::vector<FdType> Calls::Types() {
  std::lock_guard<std::mutex> lock(mMutex);
  return mTypes;
}

size_t Calls::Count(int fd) {
  std::lock_guard<std::mutex> lock(mMutex);
  return static_cast<size_t>(std::count(mFds.begin(), mFds.end(), fd));
}

bool Calls::WaitForCount(size_t count, std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(mMutex);
  return mChanged.wait_for(lock, timeout, [&] { return mFds.size() >= count; });
}

}  // namespace zel::util::testkit
