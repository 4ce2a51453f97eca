#include "util/fd_monitor.h"

#include <sys/eventfd.h>
#include <sys/select.h>
#include <syslog.h>
#include <unistd.h>

#include <cstddef>
#include <utility>

#include "util/mutex_guard.h"

namespace zel::util {
namespace {

constexpr char kThreadLoopText[] = "void zel::util::FdMonitor::ThreadLoop()";
constexpr char kAddFdText[] = "int zel::util::FdMonitor::AddFd(int, zel::util::FdType, zel::util::FdCallbackFn)";
constexpr char kFdMonitorText[] = "zel::util::FdMonitor::FdMonitor()";
// A readable descriptor without a callback is drained by this much per pass.
constexpr size_t kDrainSize = 4096;
// Commands are 8 characters, the size of the eventfd counter.
constexpr size_t kCommandSize = 8;

bool FitsSelect(int fd) { return fd >= 0 && fd < FD_SETSIZE; }

void AddToSet(const std::map<int, FdCallbackFn>& table, fd_set& set, int& maxfd) {
  for (const auto& entry : table) {
    FD_SET(entry.first, &set);
    if (entry.first > maxfd) maxfd = entry.first;
  }
}

}  // namespace

FdMonitor::FdMonitor() : mExitCommand("evt_exit"), mModifyCommand("evt_modi"), mEventFd(-1), mRunning(false) {
  pthread_mutex_init(&mMutex, nullptr);
  // Non-blocking: the counter saturates after two pending commands, and a
  // blocking write would then wait for the loop while holding the lock (or,
  // from a callback, wait for its own thread). A refused write loses nothing:
  // the counter is already non-zero, so the loop wakes and rebuilds its sets.
  mEventFd = eventfd(0, EFD_NONBLOCK);
  if (mEventFd >= FD_SETSIZE) {
    syslog(LOG_ERR, "%s: eventfd [%d] cannot be watched by select (FD_SETSIZE [%d])\n", kFdMonitorText, mEventFd,
           FD_SETSIZE);
    close(mEventFd);
    mEventFd = -1;
  }
  if (mEventFd < 0) return;
  // Set before the thread starts, so that a Stop that comes before the thread
  // runs is never undone by it.
  mRunning = true;
  mThread.Start([this] { ThreadLoop(); }, false);
}

FdMonitor::~FdMonitor() {
  Stop();
  pthread_mutex_destroy(&mMutex);
}

void FdMonitor::Stop() {
  mRunning = false;
  int eventFd = -1;
  {
    MutexGuard guard(mMutex);
    eventFd = mEventFd;
  }
  if (eventFd < 0) return;
  WriteCommand(mExitCommand);
  mThread.Join();
  MutexGuard guard(mMutex);
  close(mEventFd);
  mEventFd = -1;
}

std::map<int, FdCallbackFn>& FdMonitor::TableFor(FdType type) {
  if (type == FdType::Write) return mWriteFds;
  if (type == FdType::Except) return mExceptFds;
  return mReadFds;
}

void FdMonitor::WriteCommand(const std::string& command) {
  // A failed write is harmless: see the constructor.
  const ssize_t written = write(mEventFd, command.data(), command.length());
  (void)written;
}

int FdMonitor::AddFd(int fd, FdType type, FdCallbackFn cb) {
  if (!FitsSelect(fd)) {
    syslog(LOG_ERR, "%s: fd [%d] cannot be watched by select (FD_SETSIZE [%d])\n", kAddFdText, fd, FD_SETSIZE);
    return -1;
  }
  MutexGuard guard(mMutex);
  std::map<int, FdCallbackFn>& table = TableFor(type);
  if (table.find(fd) != table.end()) return 0;
  table.emplace(fd, std::move(cb));
  WriteCommand(mModifyCommand);
  return 0;
}

int FdMonitor::RemoveFd(int fd, FdType type) {
  MutexGuard guard(mMutex);
  std::map<int, FdCallbackFn>& table = TableFor(type);
  auto it = table.find(fd);
  if (it == table.end()) return 0;
  table.erase(it);
  WriteCommand(mModifyCommand);
  return 0;
}

void FdMonitor::ThreadLoop() {
  if (mEventFd < 0) return;
  while (mRunning) {
    fd_set readSet;
    fd_set writeSet;
    fd_set exceptSet;
    FD_ZERO(&readSet);
    FD_ZERO(&writeSet);
    FD_ZERO(&exceptSet);
    FD_SET(mEventFd, &readSet);
    int maxfd = mEventFd;
    {
      MutexGuard guard(mMutex);
      AddToSet(mReadFds, readSet, maxfd);
      AddToSet(mWriteFds, writeSet, maxfd);
      AddToSet(mExceptFds, exceptSet, maxfd);
    }
    const int n = select(maxfd + 1, &readSet, &writeSet, &exceptSet, nullptr);
    if (n < 0) {
      syslog(LOG_ERR, "%s %d: select error", kThreadLoopText, 80);
      continue;
    }
    if (n == 0) {
      syslog(LOG_DEBUG, "%s %d: select timeout", kThreadLoopText, 84);
      continue;
    }
    // Callbacks run outside the lock so that they may add and remove
    // descriptors; the map keeps them in ascending descriptor order.
    std::map<int, FdCallbackFn> ready = CollectReady(readSet);
    for (const auto& entry : ready) entry.second(entry.first, FdType::Read);
  }
}

std::map<int, FdCallbackFn> FdMonitor::CollectReady(const fd_set& readSet) {
  std::map<int, FdCallbackFn> ready;
  MutexGuard guard(mMutex);
  for (const auto& entry : mReadFds) {
    if (!FD_ISSET(entry.first, &readSet)) continue;
    if (entry.second) {
      ready.emplace(entry.first, entry.second);
    } else {
      char scratch[kDrainSize];
      const ssize_t drained = read(entry.first, scratch, sizeof(scratch));
      (void)drained;
    }
  }
  if (FD_ISSET(mEventFd, &readSet)) ReadCommand();
  return ready;
}

void FdMonitor::ReadCommand() {
  // The counter comes back as the text of a single pending command; several
  // pending commands add up to neither text and count as a modify, which
  // needs nothing beyond the rebuilt sets of the next pass.
  char command[kCommandSize + 2] = {};
  const ssize_t got = read(mEventFd, command, kCommandSize);
  (void)got;
  if (mExitCommand == command) mRunning = false;
}

}  // namespace zel::util
