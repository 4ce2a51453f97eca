// Late replies: each posted send runs once its delay has passed, in the order
// they fall due; a stop drops what is still pending.
#include "tools/sim/delayed_sender.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "gtest/gtest.h"

namespace zel::sim {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Collects what the posted sends did, from the sender's thread.
class Sends {
 public:
  DelayedSender::Send Make(const std::string& name) {
    return [this, name] {
      std::lock_guard<std::mutex> lock(mMutex);
      mDone.push_back(name);
      mChanged.notify_all();
    };
  }
  bool WaitFor(size_t count) {
    std::unique_lock<std::mutex> lock(mMutex);
    return mChanged.wait_for(lock, std::chrono::seconds(10), [&] { return mDone.size() >= count; });
  }
  std::vector<std::string> Done() {
    std::lock_guard<std::mutex> lock(mMutex);
    return mDone;
  }

 private:
  std::mutex mMutex;  // guards mDone
  std::condition_variable mChanged;
  std::vector<std::string> mDone;
};

TEST(DelayedSenderTest, SendRunsOnlyAfterItsDelay) {
  Sends sends;
  DelayedSender sender;
  const auto posted = Clock::now();
  sender.Post(sends.Make("a"), milliseconds(50));
  ASSERT_TRUE(sends.WaitFor(1));
  EXPECT_GE(Clock::now() - posted, milliseconds(50));
  EXPECT_EQ(sender.Pending(), 0u);
}

TEST(DelayedSenderTest, SendsRunInTheOrderTheyFallDue) {
  Sends sends;
  DelayedSender sender;
  sender.Post(sends.Make("late"), milliseconds(80));
  sender.Post(sends.Make("early"), milliseconds(20));
  sender.Post(sends.Make("early too"), milliseconds(20));
  sender.Post(sends.Make("now"), milliseconds(0));
  ASSERT_TRUE(sends.WaitFor(4));
  EXPECT_EQ(sends.Done(), (std::vector<std::string>{"now", "early", "early too", "late"}));
}

TEST(DelayedSenderTest, StopDropsPendingSends) {
  Sends sends;
  DelayedSender sender;
  sender.Post(sends.Make("never"), std::chrono::hours(1));
  EXPECT_EQ(sender.Pending(), 1u);
  sender.Stop();
  EXPECT_EQ(sender.Pending(), 0u);
  EXPECT_TRUE(sends.Done().empty());
}

TEST(DelayedSenderTest, PostAfterStopIsIgnored) {
  Sends sends;
  DelayedSender sender;
  sender.Stop();
  sender.Post(sends.Make("ignored"), milliseconds(0));
  EXPECT_EQ(sender.Pending(), 0u);
  sender.Stop();
  EXPECT_TRUE(sends.Done().empty());
}

}  // namespace
}  // namespace zel::sim
