#include "util/thread.h"

#include <syslog.h>

#include <cstdlib>
#include <utility>

namespace zel::util {
namespace {

// Short function texts that prefix the log messages.
constexpr char kStartShortText[] = "Thread::Start";
constexpr char kJoinShortText[] = "Thread::Join";

}  // namespace

Thread::Thread() : mDetached(false) {}

int Thread::Start(std::function<void()> fn, bool detach) {
  // Replacing a joinable handle would end the process anyway; say why first.
  if (mThreadHandle.joinable()) {
    syslog(LOG_ERR, "%s: a joinable thread is still running\n", kStartShortText);
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
    syslog(LOG_ERR, "%s: no thread to join\n", kJoinShortText);
    return -1;
  }
  mThreadHandle.join();
  return 0;
}

}  // namespace zel::util
