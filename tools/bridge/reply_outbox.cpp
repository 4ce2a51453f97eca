#include "tools/bridge/reply_outbox.h"

namespace zel::bridge {

void ReplyOutbox::Push(Publication reply) {
  {
    std::lock_guard<std::mutex> lock(mMutex);
    mReplies.push_back(std::move(reply));
  }
  mWakeup.Notify();
}

bool ReplyOutbox::Pop(Publication& reply) {
  std::lock_guard<std::mutex> lock(mMutex);
  if (mReplies.empty()) return false;
  reply = std::move(mReplies.front());
  mReplies.pop_front();
  return true;
}

}  // namespace zel::bridge
