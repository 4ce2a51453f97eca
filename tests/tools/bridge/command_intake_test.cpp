// The intake of commands, in process: what counts as UTF-8, where a reply
// goes, what is queued for the worker, and "busy" beyond 64 waiting.
#include "tools/bridge/command_intake.h"

#include <syslog.h>

#include <string>

#include "gtest/gtest.h"
#include "tests/support/syslog_capture.h"

namespace zel::bridge::test {
namespace {

using ::zel::test::SyslogCapture;

class CommandIntakeTest : public ::testing::Test {
 protected:
  CommandIntakeTest() {
    settings.id = "box1";
    settings.prefix = "kdx";
  }

  static IncomingMessage Message(const std::string& payload) {
    IncomingMessage message;
    message.topic = "kdx/box1/cmd";
    message.payload = payload;
    return message;
  }

  // The replies put in the outbox.
  std::vector<Publication> Replies() {
    std::vector<Publication> replies;
    Publication reply;
    while (outbox.Pop(reply)) replies.push_back(reply);
    return replies;
  }

  Settings settings;
  Topics topics{"kdx", "box1"};
  Wakeup wakeup;
  CommandQueue queue;
  ReplyOutbox outbox{wakeup};
  CommandIntake intake{settings, topics, queue, outbox};
};

TEST_F(CommandIntakeTest, WellFormedUtf8IsValid) {
  for (const char* text :
       {"", "ping", "\xc3\xa9", "\xe2\x82\xac", "\xef\xbf\xbf", "\xf0\x9f\x98\x80", "\xf4\x8f\xbf\xbf", "\x7f"}) {
    EXPECT_TRUE(CommandIntake::ValidUtf8(text)) << text;
  }
}

TEST_F(CommandIntakeTest, MalformedUtf8IsNot) {
  for (const char* text : {"\x80", "\xc0\x80", "\xc1\xbf", "\xe0\x80\x80", "\xed\xa0\x80", "\xf0\x80\x80\x80",
                           "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xff", "\xc3", "\xe2\x82", "\xc3\x28"}) {
    EXPECT_FALSE(CommandIntake::ValidUtf8(text)) << text;
  }
}

TEST_F(CommandIntakeTest, CommandWithoutAResponseTopicIsQueuedForTheBoxsReplyTopic) {
  intake.Take(Message("ping"));
  PendingCommand command;
  ASSERT_EQ(queue.Pop(command, std::chrono::milliseconds(0)), CommandQueue::Next::Command);
  EXPECT_STREQ(command.request.command->name, "ping");
  EXPECT_EQ(command.route.topic, "kdx/box1/reply");
  EXPECT_EQ(command.route.correlation, std::nullopt);
  EXPECT_TRUE(Replies().empty());
}

TEST_F(CommandIntakeTest, CommandWithAResponseTopicIsQueuedForItWithItsCorrelationData) {
  IncomingMessage message = Message("mac");
  message.responseTopic = "ops/replies";
  message.correlation = std::string("\x00\x01", 2);
  intake.Take(message);
  PendingCommand command;
  ASSERT_EQ(queue.Pop(command, std::chrono::milliseconds(0)), CommandQueue::Next::Command);
  EXPECT_EQ(command.route.topic, "ops/replies");
  EXPECT_EQ(command.route.correlation, std::optional<std::string>(std::string("\x00\x01", 2)));
}

TEST_F(CommandIntakeTest, ResponseTopicWithWildcardsIsNeitherAnsweredNorQueued) {
  IncomingMessage message = Message("ping");
  message.responseTopic = "ops/#";
  intake.Take(message);
  EXPECT_EQ(queue.Waiting(), 0u);
  EXPECT_TRUE(Replies().empty());
  EXPECT_EQ(SyslogCapture::Records().size(), 1u);
  EXPECT_EQ(SyslogCapture::Records()[0].priority, LOG_WARNING);
}

TEST_F(CommandIntakeTest, SixtyFiveWaitingIsOneTooManyAndItIsAnsweredBusy) {
  for (size_t i = 0; i < CommandQueue::kMaxWaiting; ++i) intake.Take(Message("ping"));
  EXPECT_TRUE(Replies().empty());
  intake.Take(Message("stations"));
  EXPECT_EQ(queue.Waiting(), CommandQueue::kMaxWaiting);
  const std::vector<Publication> replies = Replies();
  ASSERT_EQ(replies.size(), 1u);
  EXPECT_EQ(replies[0].payload, "{\"box\":\"box1\",\"command\":\"stations\",\"status\":3,\"error\":\"busy\"}");
  EXPECT_EQ(replies[0].route.topic, "kdx/box1/reply");
}

TEST_F(CommandIntakeTest, PayloadOfExactly8192BytesIsTaken) {
  intake.Take(Message("ping" + std::string(8188, ' ')));
  EXPECT_EQ(queue.Waiting(), 1u);
  intake.Take(Message("ping" + std::string(8189, ' ')));
  EXPECT_EQ(queue.Waiting(), 1u);
  EXPECT_EQ(Replies().size(), 1u);
}

}  // namespace
}  // namespace zel::bridge::test
