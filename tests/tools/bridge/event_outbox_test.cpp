// Events on their way to the broker: in order, at most --queue while the
// broker is away with the oldest dropped and counted, every event while it
// is there, and the unacknowledged ones back at the front.
#include "tools/bridge/event_outbox.h"

#include <syslog.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "tests/support/syslog_capture.h"

namespace zel::bridge::test {
namespace {

using ::zel::test::LogRecord;
using ::zel::test::SyslogCapture;

OutgoingEvent Event(int number) { return OutgoingEvent{"k/b/event/" + std::to_string(number), std::to_string(number)}; }

std::vector<std::string> Drain(EventOutbox& outbox) {
  std::vector<std::string> payloads;
  OutgoingEvent event;
  while (outbox.Pop(event)) payloads.push_back(event.payload);
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
                {LOG_WARNING,
                 "void zel::bridge::EventOutbox::Trim() 1: more than 1 events wait for the broker; "
                 "dropping the oldest\n"}
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

TEST(EventOutboxTest, PushWakesTheLink) {
  Wakeup wakeup;
  EventOutbox outbox(2, wakeup);
  outbox.Push(Event(1));
  uint64_t count = 0;
  EXPECT_EQ(::read(wakeup.Fd(), &count, sizeof count), static_cast<ssize_t>(sizeof count));
  EXPECT_EQ(count, 1u);
}

}  // namespace
}  // namespace zel::bridge::test
