// Commands waiting for the worker: in order, at most 64, and closed at the
// stop.
#include "tools/bridge/command_queue.h"

#include <thread>

#include "gtest/gtest.h"

namespace zel::bridge::test {
namespace {

using std::chrono::milliseconds;

PendingCommand Command(const std::string& topic) {
  PendingCommand command;
  command.route.topic = topic;
  return command;
}

TEST(CommandQueueTest, CommandsComeOutInTheOrderTheyWentIn) {
  CommandQueue queue;
  ASSERT_TRUE(queue.Push(Command("a")));
  ASSERT_TRUE(queue.Push(Command("b")));
  PendingCommand command;
  ASSERT_EQ(queue.Pop(command, milliseconds(0)), CommandQueue::Next::Command);
  EXPECT_EQ(command.route.topic, "a");
  ASSERT_EQ(queue.Pop(command, milliseconds(0)), CommandQueue::Next::Command);
  EXPECT_EQ(command.route.topic, "b");
  EXPECT_EQ(queue.Pop(command, milliseconds(1)), CommandQueue::Next::TimedOut);
}

TEST(CommandQueueTest, SixtyFourWaitAtMost) {
  CommandQueue queue;
  for (size_t i = 0; i < CommandQueue::kMaxWaiting; ++i) ASSERT_TRUE(queue.Push(Command("c")));
  EXPECT_FALSE(queue.Push(Command("beyond")));
  EXPECT_EQ(queue.Waiting(), CommandQueue::kMaxWaiting);
}

TEST(CommandQueueTest, CloseEndsAWaitAndDropsWhatWaits) {
  CommandQueue queue;
  ASSERT_TRUE(queue.Push(Command("dropped")));
  queue.Close();
  PendingCommand command;
  EXPECT_EQ(queue.Pop(command, milliseconds(0)), CommandQueue::Next::Closed);
  EXPECT_FALSE(queue.Push(Command("late")));
  EXPECT_EQ(queue.Waiting(), 0u);
}

TEST(CommandQueueTest, CloseFromAnotherThreadWakesTheWorker) {
  CommandQueue queue;
  std::thread closer([&queue] { queue.Close(); });
  PendingCommand command;
  EXPECT_EQ(queue.Pop(command, std::chrono::seconds(10)), CommandQueue::Next::Closed);
  closer.join();
}

}  // namespace
}  // namespace zel::bridge::test
