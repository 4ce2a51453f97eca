#include "util/thread.h"

#include <syslog.h>

#include <cstdlib>
#include <utility>

namespace zel::util {

Thread::Thread() : mDetached(false) {}

int Thread::Start(std::function<void()> fn, bool detach) {
  // Replacing a joinable handle would end the process anyway; say why first.
  if (mThreadHandle.joinable()) {
    syslog(LOG_ERR, "Thread::Start: a joinable thread is still running\n");
    std::abort();
  }
  mFunction = std::move(fn);
  mThreadHandle = std::thread(mFunction);
  mDetached = detach;
  if (detach) mThreadHandle.detach();
  return 0;
}

int Thread::Join() {
  if (mDetached) return 0;
  if (!mThreadHandle.joinable()) {
    syslog(LOG_ERR, "Thread::Join: no thread to join\n");
    return -1;
  }
  mThreadHandle.join();
  return 0;
}

}  // namespace zel::util
