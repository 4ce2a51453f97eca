#include "tools/bridge/command_queue.h"

namespace zel::bridge {

bool CommandQueue::Push(PendingCommand command) {
  {
    std::lock_guard<std::mutex> lock(mMutex);
    if (mClosed || mCommands.size() >= kMaxWaiting) return false;
    mCommands.push_back(std::move(command));
  }
  mChanged.notify_one();
  return true;
}

CommandQueue::Next CommandQueue::Pop(PendingCommand& command, std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(mMutex);
  if (!mChanged.wait_for(lock, timeout, [this] { return mClosed || !mCommands.empty(); })) return Next::TimedOut;
  if (mClosed) return Next::Closed;
  command = std::move(mCommands.front());
  mCommands.pop_front();
  return Next::Command;
}

void CommandQueue::Close() {
  {
    std::lock_guard<std::mutex> lock(mMutex);
    mClosed = true;
    mCommands.clear();
  }
  mChanged.notify_all();
}

size_t CommandQueue::Waiting() const {
  std::lock_guard<std::mutex> lock(mMutex);
  return mCommands.size();
}

}  // namespace zel::bridge
