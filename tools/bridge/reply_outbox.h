// Replies on their way to the broker, in the order they were made: the
// command worker's and the link's own (refused input). Push from any thread,
// which wakes the link; Pop from the link's thread.
#pragma once

#include <deque>
#include <mutex>

#include "tools/bridge/publication.h"
#include "tools/bridge/wakeup.h"

namespace zel::bridge {

class ReplyOutbox {
 public:
  explicit ReplyOutbox(Wakeup& wakeup) : mWakeup(wakeup) {}

  void Push(Publication reply);
  // The oldest reply; false when none waits.
  bool Pop(Publication& reply);

 private:
  Wakeup& mWakeup;
  std::mutex mMutex;  // guards mReplies
  std::deque<Publication> mReplies;
};

}  // namespace zel::bridge
