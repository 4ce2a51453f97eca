// The commands from the broker, in process: the queue (in order, at most 64,
// closed at the stop), and the intake: where a reply goes (the response
// topic with its correlation data, P/reply, the box's own replies only
// inside the prefix), what is queued for the worker, what is refused at
// once and how (the error reply), and "busy" beyond 64 waiting.
#include "tools/bridge/commands.h"

#include <syslog.h>

#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "tests/support/syslog_capture.h"

namespace zel::bridge::test {
namespace {

using std::chrono::milliseconds;
using ::zel::test::SyslogCapture;

PendingCommand Command(const std::string& topic) {
  PendingCommand command;
  command.reply.topic = topic;
  return command;
}

TEST(CommandQueueTest, CommandsComeOutInTheOrderTheyWentIn) {
  CommandQueue queue;
  ASSERT_TRUE(queue.Push(Command("a")));
  ASSERT_TRUE(queue.Push(Command("b")));
  PendingCommand command;
  ASSERT_EQ(queue.Pop(command, milliseconds(0)), CommandQueue::Next::Command);
  EXPECT_EQ(command.reply.topic, "a");
  ASSERT_EQ(queue.Pop(command, milliseconds(0)), CommandQueue::Next::Command);
  EXPECT_EQ(command.reply.topic, "b");
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

class CommandIntakeTest : public ::testing::Test {
 protected:
  CommandIntakeTest() {
    settings.id = "box1";
    settings.prefix = "kdx";
  }

  // Hands `payload` to the intake as a message on P/cmd, with a response
  // topic when one is given.
  void Take(const std::string& payload, const std::optional<std::string>& responseTopic = std::nullopt,
            const std::optional<std::string>& correlation = std::nullopt) {
    zel::mqtt::Message message;
    message.topic = "kdx/box1/cmd";
    message.payload = payload;
    message.responseTopic = responseTopic;
    message.correlation = correlation;
    intake.Take(message);
  }

  // The replies put in the outbox.
  std::vector<zel::mqtt::Publication> Replies() {
    std::vector<zel::mqtt::Publication> replies;
    Outgoing reply;
    while (outbox.Pop(reply)) replies.push_back(reply.message);
    return replies;
  }

  // The one reply's payload, expected on `topic`.
  std::string OnlyReply(const std::string& topic = "kdx/box1/reply") {
    const std::vector<zel::mqtt::Publication> replies = Replies();
    EXPECT_EQ(replies.size(), 1u);
    if (replies.empty()) return std::string();
    EXPECT_EQ(replies[0].topic, topic);
    return replies[0].payload;
  }

  Settings settings;
  Topics topics{"kdx", "box1"};
  Wakeup wakeup;
  CommandQueue queue;
  ReplyOutbox outbox{wakeup};
  CommandIntake intake{settings, topics, queue, outbox};
};

TEST_F(CommandIntakeTest, CommandWithoutAResponseTopicIsQueuedForTheBoxsReplyTopic) {
  Take("ping");
  PendingCommand command;
  ASSERT_EQ(queue.Pop(command, milliseconds(0)), CommandQueue::Next::Command);
  EXPECT_STREQ(command.request.command->name, "ping");
  EXPECT_EQ(command.reply.topic, "kdx/box1/reply");
  EXPECT_EQ(command.reply.correlation, std::nullopt);
  EXPECT_TRUE(Replies().empty());
}

TEST_F(CommandIntakeTest, CommandWithAResponseTopicIsQueuedForItWithItsCorrelationData) {
  Take("mac", std::string("ops/replies"), std::string("\x00\x01", 2));
  PendingCommand command;
  ASSERT_EQ(queue.Pop(command, milliseconds(0)), CommandQueue::Next::Command);
  EXPECT_EQ(command.reply.topic, "ops/replies");
  EXPECT_EQ(command.reply.correlation, std::optional<std::string>(std::string("\x00\x01", 2)));
}

TEST_F(CommandIntakeTest, ResponseTopicWithWildcardsIsNeitherAnsweredNorQueued) {
  Take("ping", std::string("ops/#"));
  EXPECT_EQ(queue.Waiting(), 0u);
  EXPECT_TRUE(Replies().empty());
  ASSERT_EQ(SyslogCapture::Records().size(), 1u);
  EXPECT_EQ(SyslogCapture::Records()[0].priority, LOG_WARNING);
  EXPECT_EQ(SyslogCapture::Records()[0].text,
            "a command on kdx/box1/cmd names ops/# for its reply, where nothing can be published; it is not "
            "answered");
}

TEST_F(CommandIntakeTest, ResponseTopicAtOrBelowTheBoxsReplyIsTaken) {
  Take("ping", std::string("kdx/box1/reply"));
  Take("ping", std::string("kdx/box1/reply/ops/7"));
  EXPECT_EQ(queue.Waiting(), 2u);
  EXPECT_TRUE(Replies().empty());
}

TEST_F(CommandIntakeTest, ResponseTopicElsewhereInsideThePrefixIsRefusedOnTheBoxsReplyTopic) {
  for (const char* topic : {"kdx/box1/status", "kdx/box1/service", "kdx/box1/event/7", "kdx/box2/cmd", "kdx/all/cmd",
                            "kdx/box1/replyx", "kdx/box2/reply"}) {
    Take("ping", std::string(topic), std::string("c1"));
    const std::vector<zel::mqtt::Publication> replies = Replies();
    ASSERT_EQ(replies.size(), 1u) << topic;
    EXPECT_EQ(replies[0].topic, "kdx/box1/reply");
    EXPECT_EQ(replies[0].correlation, std::optional<std::string>("c1"));
    EXPECT_EQ(replies[0].payload, "{\"box\":\"box1\",\"command\":\"ping\",\"status\":2,\"error\":\"response topic " +
                                      std::string(topic) + ": not at or below kdx/box1/reply\"}");
  }
  EXPECT_EQ(queue.Waiting(), 0u);
}

TEST_F(CommandIntakeTest, ResponseTopicOutsideThePrefixIsLeftToTheBroker) {
  Take("ping", std::string("kdxother/x"));
  Take("ping", std::string("ops/kdx/box2/cmd"));
  EXPECT_EQ(queue.Waiting(), 2u);
}

TEST_F(CommandIntakeTest, EventRegistrationIsNeverTakenEvenWithSendAllowed) {
  settings.allowed = {"ping", "send"};
  for (const char* payload : {"send 4 /tmp/x", "send 5 /tmp/x"}) {
    Take(payload);
    EXPECT_EQ(OnlyReply(),
              "{\"box\":\"box1\",\"command\":\"send\",\"status\":2,\"error\":\"send: event "
              "registration (commands 4 and 5) is never taken from the broker\"}")
        << payload;
  }
  Take("send 2");
  EXPECT_EQ(queue.Waiting(), 1u);
}

TEST_F(CommandIntakeTest, CommandNotAllowedIsRefused) {
  Take("send 2");
  EXPECT_EQ(OnlyReply(),
            "{\"box\":\"box1\",\"command\":\"send\",\"status\":2,\"error\":\"send: not allowed from the broker\"}");
}

TEST_F(CommandIntakeTest, SixtyFiveWaitingIsOneTooManyAndItIsAnsweredBusy) {
  for (size_t i = 0; i < CommandQueue::kMaxWaiting; ++i) Take("ping");
  EXPECT_TRUE(Replies().empty());
  Take("stations", std::string("ops/r"), std::string("c9"));
  EXPECT_EQ(queue.Waiting(), CommandQueue::kMaxWaiting);
  const std::vector<zel::mqtt::Publication> replies = Replies();
  ASSERT_EQ(replies.size(), 1u);
  EXPECT_EQ(replies[0].payload, "{\"box\":\"box1\",\"command\":\"stations\",\"status\":3,\"error\":\"busy\"}");
  EXPECT_EQ(replies[0].topic, "ops/r");
  EXPECT_EQ(replies[0].correlation, std::optional<std::string>("c9"));
}

TEST_F(CommandIntakeTest, PayloadOfExactly8192BytesIsTakenAndOneMoreIsRefused) {
  Take("ping" + std::string(8188, ' '));
  EXPECT_EQ(queue.Waiting(), 1u);
  Take("ping" + std::string(8189, ' '));
  EXPECT_EQ(queue.Waiting(), 1u);
  EXPECT_EQ(OnlyReply(), "{\"box\":\"box1\",\"command\":null,\"status\":2,\"error\":\"longer than 8192 bytes\"}");
}

TEST_F(CommandIntakeTest, BytesThatAreNotUtf8AreRefusedAndNeverEchoed) {
  Take("x\xff");
  EXPECT_EQ(OnlyReply(), "{\"box\":\"box1\",\"command\":null,\"status\":2,\"error\":\"not valid UTF-8\"}");
}

TEST_F(CommandIntakeTest, BoxNameIsWrittenAsAJsonString) {
  settings.id = "a\"b\\c";
  Take("");
  EXPECT_EQ(OnlyReply(),
            "{\"box\":\"a\\\"b\\\\c\",\"command\":null,\"status\":2,\"error\":\"no command in the message\"}");
}

}  // namespace
}  // namespace zel::bridge::test
