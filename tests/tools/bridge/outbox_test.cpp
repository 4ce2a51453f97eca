// What waits for the link. Events: in order, at most --queue while the
// broker is away with the oldest dropped and counted, every event while it
// is there (a push waiting for room rather than dropping), and the
// unacknowledged ones back at the front. Replies: in order, and at most 256,
// the oldest dropped and counted beyond.
#include "tools/bridge/outbox.h"

#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/wait_until.h"

namespace zel::bridge::test {
namespace {

using ::zel::test::LogRecord;
using ::zel::test::SyslogCapture;
using ::zel::test::WaitUntil;

Outgoing Event(int number) {
  return Outgoing{
      zel::mqtt::Publication{"k/b/event/" + std::to_string(number), std::to_string(number)}
  };
}

std::vector<std::string> Drain(EventOutbox& outbox) {
  std::vector<std::string> payloads;
  Outgoing event;
  while (outbox.Pop(event)) payloads.push_back(event.message.payload);
  return payloads;
}

TEST(EventOutboxTest, KeepsEventsInTheOrderTheyCame) {
  Wakeup wakeup;
  EventOutbox outbox(10, wakeup);
  for (int i = 1; i <= 3; ++i) outbox.Push(Event(i));
  EXPECT_EQ(Drain(outbox), (std::vector<std::string>{"1", "2", "3"}));
  EXPECT_EQ(outbox.TakeDropped(), 0u);
}

TEST(EventOutboxTest, DropsTheOldestBeyondItsCapacityWhileTheBrokerIsAway) {
  Wakeup wakeup;
  EventOutbox outbox(3, wakeup);
  for (int i = 1; i <= 5; ++i) outbox.Push(Event(i));
  EXPECT_EQ(Drain(outbox), (std::vector<std::string>{"3", "4", "5"}));
  EXPECT_EQ(outbox.TakeDropped(), 2u);
  EXPECT_EQ(outbox.TakeDropped(), 0u);
}

TEST(EventOutboxTest, SaysOnceThatItDrops) {
  Wakeup wakeup;
  EventOutbox outbox(1, wakeup);
  for (int i = 1; i <= 4; ++i) outbox.Push(Event(i));
  EXPECT_EQ(SyslogCapture::Records(),
            (std::vector<LogRecord>{
                {LOG_WARNING, "more than 1 events wait for the broker; dropping the oldest"}
  }));
}

TEST(EventOutboxTest, QueueOfZeroKeepsNoneWhileTheBrokerIsAway) {
  Wakeup wakeup;
  EventOutbox outbox(0, wakeup);
  outbox.Push(Event(1));
  EXPECT_EQ(outbox.Waiting(), 0u);
  EXPECT_EQ(outbox.TakeDropped(), 1u);
}

TEST(EventOutboxTest, QueueOfZeroLetsEveryEventThroughWhileTheBrokerIsThere) {
  Wakeup wakeup;
  EventOutbox outbox(0, wakeup);
  outbox.SetOnline(true);
  for (int i = 1; i <= 3; ++i) outbox.Push(Event(i));
  EXPECT_EQ(Drain(outbox), (std::vector<std::string>{"1", "2", "3"}));
  EXPECT_EQ(outbox.TakeDropped(), 0u);
}

TEST(EventOutboxTest, UnacknowledgedEventsGoBackBeforeTheWaitingOnes) {
  Wakeup wakeup;
  EventOutbox outbox(10, wakeup);
  outbox.SetOnline(true);
  outbox.Push(Event(3));
  outbox.SetOnline(false, {Event(1), Event(2)});
  outbox.Push(Event(4));
  EXPECT_EQ(Drain(outbox), (std::vector<std::string>{"1", "2", "3", "4"}));
}

TEST(EventOutboxTest, GoingAwayTrimsToTheCapacityOldestFirst) {
  Wakeup wakeup;
  EventOutbox outbox(2, wakeup);
  outbox.SetOnline(true);
  outbox.Push(Event(3));
  outbox.Push(Event(4));
  outbox.SetOnline(false, {Event(1), Event(2)});
  EXPECT_EQ(Drain(outbox), (std::vector<std::string>{"3", "4"}));
  EXPECT_EQ(outbox.TakeDropped(), 2u);
}

TEST(EventOutboxTest, PushWakesTheLinkOnceForEventsThatFindOthersWaiting) {
  Wakeup wakeup;
  EventOutbox outbox(5, wakeup);
  for (int i = 1; i <= 3; ++i) outbox.Push(Event(i));
  uint64_t count = 0;
  EXPECT_EQ(::read(wakeup.Fd(), &count, sizeof count), static_cast<ssize_t>(sizeof count));
  EXPECT_EQ(count, 1u);
  // Once the link has taken them all, the next one wakes it again.
  Drain(outbox);
  outbox.Push(Event(4));
  EXPECT_EQ(::read(wakeup.Fd(), &count, sizeof count), static_cast<ssize_t>(sizeof count));
  EXPECT_EQ(count, 1u);
}

// Pushes `count` numbered events on a thread of its own, counting those
// pushed. Its end lets a push still waiting go on, so that a failed test
// ends.
class Pusher {
 public:
  Pusher(EventOutbox& outbox, int first, int count)
      : mOutbox(outbox), mThread([this, first, count] {
          for (int i = first; i < first + count; ++i) {
            mOutbox.Push(Event(i));
            ++mPushed;
          }
        }) {}
  ~Pusher() {
    mOutbox.StopWaiting();
    mThread.join();
  }
  Pusher(const Pusher&) = delete;
  Pusher& operator=(const Pusher&) = delete;

  int Pushed() const { return mPushed; }

 private:
  EventOutbox& mOutbox;
  std::atomic<int> mPushed{0};
  std::thread mThread;
};

TEST(EventOutboxTest, FullOutboxHoldsThePushBackWhileTheBrokerIsThereAndDropsNothing) {
  Wakeup wakeup;
  EventOutbox outbox(3, wakeup);
  const int total = 3 * static_cast<int>(EventOutbox::kOnlineRoom);
  outbox.SetOnline(true);
  std::vector<std::string> taken;
  {
    Pusher pusher(outbox, 1, total);
    ASSERT_TRUE(WaitUntil([&] { return outbox.Waiting() == EventOutbox::kOnlineRoom; }));
    EXPECT_LT(pusher.Pushed(), total);
    ASSERT_TRUE(WaitUntil([&] {
      Outgoing event;
      while (outbox.Pop(event)) taken.push_back(event.message.payload);
      return static_cast<int>(taken.size()) == total;
    }));
  }
  std::vector<std::string> expected;
  for (int i = 1; i <= total; ++i) expected.push_back(std::to_string(i));
  EXPECT_EQ(taken, expected);
  EXPECT_EQ(outbox.TakeDropped(), 0u);
}

// An outbox filled to its room while the broker is there, and one more event
// pushed on a thread of its own, which waits for room.
class EventOutboxWaitTest : public ::testing::Test {
 protected:
  static constexpr int kRoom = static_cast<int>(EventOutbox::kOnlineRoom);

  void SetUp() override {
    outbox.SetOnline(true);
    for (int i = 1; i <= kRoom; ++i) outbox.Push(Event(i));
    pusher = std::make_unique<Pusher>(outbox, kRoom + 1, 1);
    ASSERT_TRUE(WaitUntil([&] { return outbox.PushWaits(); }));
  }

  Wakeup wakeup;
  EventOutbox outbox{3, wakeup};
  std::unique_ptr<Pusher> pusher;  // ends first
};

TEST_F(EventOutboxWaitTest, WaitingPushGoesOnOnceHalfTheRoomIsFree) {
  Outgoing event;
  for (int i = 0; i < kRoom / 2 - 1; ++i) ASSERT_TRUE(outbox.Pop(event));
  EXPECT_TRUE(outbox.PushWaits());
  EXPECT_EQ(pusher->Pushed(), 0);
  ASSERT_TRUE(outbox.Pop(event));
  ASSERT_TRUE(WaitUntil([&] { return pusher->Pushed() == 1; }));
  EXPECT_EQ(outbox.Waiting(), EventOutbox::kOnlineRoom / 2 + 1);
}

TEST_F(EventOutboxWaitTest, BrokerGoingAwayWhileAPushWaitsKeepsTheQueueDroppingTheOldest) {
  outbox.SetOnline(false);
  ASSERT_TRUE(WaitUntil([&] { return pusher->Pushed() == 1; }));
  EXPECT_EQ(Drain(outbox),
            (std::vector<std::string>{std::to_string(kRoom - 1), std::to_string(kRoom), std::to_string(kRoom + 1)}));
  EXPECT_EQ(outbox.TakeDropped(), EventOutbox::kOnlineRoom - 2);
}

TEST_F(EventOutboxWaitTest, StopWaitingLetsAWaitingPushGoOnDroppingTheOldest) {
  outbox.StopWaiting();
  ASSERT_TRUE(WaitUntil([&] { return pusher->Pushed() == 1; }));
  EXPECT_EQ(outbox.Waiting(), EventOutbox::kOnlineRoom);
  EXPECT_EQ(outbox.TakeDropped(), 1u);
  Outgoing event;
  ASSERT_TRUE(outbox.Pop(event));
  EXPECT_EQ(event.message.payload, "2");
}

TEST(ReplyOutboxTest, KeepsRepliesInOrderAndDropsTheOldestBeyond256) {
  Wakeup wakeup;
  ReplyOutbox outbox(wakeup);
  for (int i = 1; i <= 300; ++i) outbox.Push(Event(i));
  EXPECT_EQ(outbox.TakeDropped(), 44u);
  EXPECT_EQ(outbox.TakeDropped(), 0u);
  Outgoing reply;
  std::vector<std::string> payloads;
  while (outbox.Pop(reply)) payloads.push_back(reply.message.payload);
  ASSERT_EQ(payloads.size(), ReplyOutbox::kMaxReplies);
  EXPECT_EQ(payloads.front(), "45");
  EXPECT_EQ(payloads.back(), "300");
}

}  // namespace
}  // namespace zel::bridge::test
