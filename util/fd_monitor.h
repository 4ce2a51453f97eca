// The event loop: one thread waits in select on registered descriptors and
// calls a callback for each readable one, outside its lock, so callbacks may
// add and remove descriptors. Other threads steer it through an eventfd.
// Owns its thread and eventfd; never closes the descriptors it watches.
#pragma once

#include <pthread.h>
#include <sys/select.h>

#include <atomic>
#include <functional>
#include <map>
#include <string>

#include "util/thread.h"

namespace zel::util {

enum class FdType {
  Read = 0,
  Write = 1,
  Except = 2,
};

using FdCallbackFn = std::function<void(int fd, FdType type)>;

class FdMonitor {
 public:
  static constexpr char kTag[] = "util::FdMonitor";

  // Starts the loop thread when the eventfd could be made.
  FdMonitor();
  // Stops the loop (Stop) and releases the eventfd.
  ~FdMonitor();
  FdMonitor(const FdMonitor&) = delete;
  FdMonitor& operator=(const FdMonitor&) = delete;

  // Watches `fd`; a descriptor already in the table keeps its first callback.
  // 0, or -1 for a descriptor that select cannot watch.
  int AddFd(int fd, FdType type, FdCallbackFn cb);
  // Stops watching `fd` (it is not closed). Returns 0.
  int RemoveFd(int fd, FdType type);
  // The loop body; run only by the monitor's own thread.
  void ThreadLoop();
  // Ends the loop and joins its thread; later calls do nothing. Must not be
  // called from a callback, which would wait for its own thread to end.
  void Stop();

 private:
  std::map<int, FdCallbackFn>& TableFor(FdType type);
  void WriteCommand(const std::string& command);
  // Under mMutex: the callbacks of the ready read descriptors, draining those
  // without one, and the pending eventfd command.
  std::map<int, FdCallbackFn> CollectReady(const fd_set& readSet);
  void ReadCommand();

  std::string mExitCommand;
  std::string mModifyCommand;
  pthread_mutex_t mMutex;  // guards mReadFds, mWriteFds and mExceptFds
  Thread mThread;
  int mEventFd;  // written under mMutex once the loop has stopped
  // Cleared by the destructor while the loop may read it.
  std::atomic<bool> mRunning;
  std::map<int, FdCallbackFn> mReadFds;
  std::map<int, FdCallbackFn> mWriteFds;
  std::map<int, FdCallbackFn> mExceptFds;
};

}  // namespace zel::util
