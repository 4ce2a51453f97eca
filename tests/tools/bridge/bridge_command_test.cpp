// Commands from the broker: each answered with what kendrivex-ctl -j prints
// plus the box, on the request's response topic with its correlation data or
// on P/reply; every box takes PREFIX/all/cmd; send only when allowed; bad
// input refused without a word to the service; one command at a time in
// arrival order, and "busy" beyond 64 waiting.
#include <signal.h>

#include <string>
#include <vector>

#include "kdx_test_paths.h"
#include "tests/support/wait_until.h"
#include "tests/tools/bridge/bridge_test.h"

namespace zel::bridge::test {
namespace {

using Answer = FakeService::Answer;
using ::zel::test::WaitUntil;

// The simulator's stations unless told otherwise.
std::vector<std::string> SimStations() {
  return {"f2:3a:9c:51:0e:47 192.168.43.12 pixel-7", "3c:22:fb:91:4d:a7 192.168.43.27 maintenance-laptop",
          "b8:27:eb:6f:03:d2 192.168.43.40 sensor-gateway"};
}

class BridgeCommandTest : public BridgeTest {
 protected:
  void SetUp() override { StartBroker(); }

  // The requests the fake service got other than registrations.
  std::vector<FakeService::Request> Commands() const {
    std::vector<FakeService::Request> commands;
    for (const FakeService::Request& request : fake->Requests()) {
      if (request.command != 4 && request.command != 5) commands.push_back(request);
    }
    return commands;
  }
};

TEST_F(BridgeCommandTest, PingIsAnsweredOnItsResponseTopicWithItsCorrelationData) {
  StartSim();
  StartOnline();
  EXPECT_EQ(Ask("ping"), AnsweredPayload("ping", 1, {"PONG"}));
}

TEST_F(BridgeCommandTest, StationsAndMacAreAnsweredAsKendrivexCtlPrintsThemInJson) {
  StartSim();
  StartOnline();
  EXPECT_EQ(Ask("stations"), AnsweredPayload("stations", 1, SimStations()));
  EXPECT_EQ(Ask("mac"), AnsweredPayload("mac", 1, {"02:1a:7d:4c:88:e1"}));
}

TEST_F(BridgeCommandTest, TheInteractiveNamesAreTakenAndAnsweredUnderTheirCommandsNames) {
  StartSim();
  StartOnline();
  EXPECT_EQ(Ask("send_ping"), AnsweredPayload("ping", 1, {"PONG"}));
  EXPECT_EQ(Ask("  atcmd_wlanmac\r\n"), AnsweredPayload("mac", 1, {"02:1a:7d:4c:88:e1"}));
}

TEST_F(BridgeCommandTest, RequestWithoutAResponseTopicIsAnsweredOnTheBoxsReplyTopic) {
  StartSim();
  StartOnline();
  MqttTestClient::Options v311;
  v311.protocol = 4;
  auto requester = Client({Topic("reply")}, v311);
  ASSERT_TRUE(requester->Publish(Topic("cmd"), "ping"));
  ASSERT_TRUE(requester->WaitForCount(Topic("reply"), 1));
  const Message reply = requester->On(Topic("reply"))[0];
  EXPECT_EQ(reply.payload, AnsweredPayload("ping", 1, {"PONG"}));
  EXPECT_FALSE(reply.retain);
}

TEST_F(BridgeCommandTest, EmptyAllowListTakesNoCommand) {
  StartFake();
  StartOnline({"--allow", ""});
  EXPECT_EQ(Ask("ping"), ErrorPayload("ping", 2, "ping: not allowed from the broker"));
  EXPECT_TRUE(Commands().empty());
}

TEST_F(BridgeCommandTest, ServiceAnswerOfAnotherCodeIsPassedOn) {
  StartFake();
  fake->Script(3, Answer::Reply("0\tno radio"));
  StartOnline();
  EXPECT_EQ(Ask("mac"), AnsweredPayload("mac", 0, {"no radio"}));
}

TEST_F(BridgeCommandTest, CommandOnTheAllTopicReachesEveryBox) {
  StartSim();
  SimProcess second(KDX_SIM_PATH, dir.File("svc2"), dir.File("sim2.log"), dir.File("sim2.syslog"),
                    {"--mac", "02:00:00:00:00:02"});
  ASSERT_TRUE(second.WaitUntilServing());
  auto status = Client({"kdx/+/status"});
  StartBridge();
  PipeProcess other(
      {KDX_BRIDGE_PATH, "-s", dir.File("svc2"), "-d", dir.path(), "-b", broker.Url(), "-i", "box2", "-p", "kdx"},
      Options());
  ASSERT_TRUE(status->WaitForCount("kdx/box1/status", 1));
  ASSERT_TRUE(status->WaitForCount("kdx/box2/status", 1));
  auto requester = Client({"kdx/+/reply"});
  ASSERT_TRUE(requester->Publish("kdx/all/cmd", "mac"));
  ASSERT_TRUE(requester->WaitForCount("kdx/box1/reply", 1));
  ASSERT_TRUE(requester->WaitForCount("kdx/box2/reply", 1));
  EXPECT_EQ(requester->PayloadsOn("kdx/box1/reply"),
            std::vector<std::string>{AnsweredPayload("mac", 1, {"02:1a:7d:4c:88:e1"}, "box1")});
  EXPECT_EQ(requester->PayloadsOn("kdx/box2/reply"),
            std::vector<std::string>{AnsweredPayload("mac", 1, {"02:00:00:00:00:02"}, "box2")});
  other.Signal(SIGTERM);
  EXPECT_EQ(other.Finish(StopLimit(std::chrono::seconds(2))).exitCode, 0);
}

TEST_F(BridgeCommandTest, SendIsRefusedUnlessAllowed) {
  StartFake();
  StartOnline();
  EXPECT_EQ(Ask("send 4 /x/y"), ErrorPayload("send", 2, "send: not allowed from the broker"));
  EXPECT_EQ(Ask("ping"), AnsweredPayload("ping", 1, {"PONG"}));
  EXPECT_EQ(Commands().size(), 1u);
}

TEST_F(BridgeCommandTest, SendRunsWhenAllowed) {
  StartFake();
  fake->Script(2, Answer::Reply("1\ta\tb"));
  StartOnline({"--allow", "ping,send"});
  EXPECT_EQ(Ask("send 2 x -y"), AnsweredPayload("send", 1, {"a", "b"}));
  ASSERT_EQ(Commands().size(), 1u);
  EXPECT_EQ(Commands()[0].text, "2\tx\t-y");
  EXPECT_EQ(Ask("mac"), ErrorPayload("mac", 2, "mac: not allowed from the broker"));
}

TEST_F(BridgeCommandTest, BadInputIsAnsweredWithAnErrorAndNothingReachesTheService) {
  StartFake();
  StartOnline({"--allow", "ping,stations,send"});
  const std::string tooLong(8193, 'p');
  struct Case {
    std::string payload;
    std::string reply;
  };
  const std::vector<Case> cases = {
      {"",                ErrorPayload(std::nullopt, 2,                         "no command in the message")},
      {"  \t ",           ErrorPayload(std::nullopt, 2,                         "no command in the message")},
      {"\n",              ErrorPayload(std::nullopt, 2,                         "no command in the message")},
      {"# ping",          ErrorPayload("#",          2,                         "#: unknown command")       },
      {"ping\xff",        ErrorPayload(std::nullopt, 2,                         "not valid UTF-8")          },
      {"\xc0\x80",        ErrorPayload(std::nullopt, 2,                         "not valid UTF-8")          },
      {tooLong,           ErrorPayload(std::nullopt, 2,                         "longer than 8192 bytes")   },
      {"ping\nping",      ErrorPayload(std::nullopt, 2,                         "not one line of text")     },
      {std::string("p\0", 2),                        ErrorPayload(std::nullopt, 2,                            "not one line of text")},
      {"reboot",                 ErrorPayload("reboot",                                   2,                       "reboot: unknown command")               },
      {"mac",                 ErrorPayload("mac",                                      2,                             "mac: not allowed from the broker")   },
      {"watch",                 ErrorPayload("watch",                                    2,                         "watch: not allowed from the broker")             },
      {"ping now",                 ErrorPayload("ping",                                 2,                       "ping: takes no arguments, not \"now\"")    },
      {"send",                 ErrorPayload("send",                                     2,                           "send: missing command number N (1 to 5)")             },
      {"send 9",                 ErrorPayload("send",                                   2,                         "send: command number must be 1 to 5, not \"9\"")    },
  };
  for (const Case& c : cases) EXPECT_EQ(Ask(c.payload), c.reply) << c.payload.substr(0, 20);
  EXPECT_EQ(Commands().size(), 0u);
  // The bridge goes on.
  EXPECT_EQ(Ask("ping"), AnsweredPayload("ping", 1, {"PONG"}));
}

TEST_F(BridgeCommandTest, ReplyTopicWithWildcardsGetsNoReply) {
  StartFake();
  StartOnline();
  auto requester = Client({"wild/#"});
  ASSERT_TRUE(requester->Request(Topic("cmd"), "ping", "wild/+", std::string("x")));
  EXPECT_TRUE(
      WaitForLog("a command on kdx/box1/cmd names wild/+ for its reply, where nothing can be published; it is "
                 "not answered"));
  EXPECT_EQ(Ask("ping"), AnsweredPayload("ping", 1, {"PONG"}));
  EXPECT_EQ(Commands().size(), 1u);
  EXPECT_EQ(requester->Messages().size(), 0u);
}

TEST_F(BridgeCommandTest, CommandsRunOneAtATimeInArrivalOrder) {
  StartFake();
  fake->Script(1, Answer::Reply("1\tPONG", std::chrono::milliseconds(100)));
  fake->Script(2, Answer::Reply("1\tst", std::chrono::milliseconds(100)));
  fake->Script(3, Answer::Reply("1\tmac", std::chrono::milliseconds(100)));
  StartOnline();
  auto requester = Client({"test/replies/#"});
  const std::vector<std::string> commands = {"ping", "stations", "mac", "ping", "mac", "stations"};
  for (size_t i = 0; i < commands.size(); ++i) {
    ASSERT_TRUE(requester->Request(Topic("cmd"), commands[i], "test/replies/" + std::to_string(i), std::nullopt));
  }
  ASSERT_TRUE(requester->WaitFor([&](const std::vector<Message>& m) { return m.size() == commands.size(); }));
  const std::vector<FakeService::Request> received = Commands();
  ASSERT_EQ(received.size(), commands.size());
  const std::vector<uint32_t> numbers = {1, 2, 3, 1, 3, 2};
  for (size_t i = 0; i < received.size(); ++i) {
    EXPECT_EQ(received[i].command, numbers[i]) << i;
    // Each went out after the reply to the one before.
    EXPECT_EQ(received[i].repliesOwed, 0u) << i;
  }
  const std::vector<Message> replies = requester->Messages();
  for (size_t i = 0; i < replies.size(); ++i) EXPECT_EQ(replies[i].topic, "test/replies/" + std::to_string(i));
}

TEST_F(BridgeCommandTest, CommandBeyondSixtyFourWaitingIsAnsweredBusyAtOnce) {
  StartFake();
  fake->Script(1, Answer::Never());
  StartOnline();
  auto requester = Client({"test/replies/#"});
  ASSERT_TRUE(requester->Request(Topic("cmd"), "ping", "test/replies/running", std::nullopt));
  ASSERT_TRUE(fake->WaitForRequestsFor(1, 1));
  for (int i = 0; i < 64; ++i) {
    ASSERT_TRUE(requester->Request(Topic("cmd"), "ping", "test/replies/" + std::to_string(i), std::nullopt));
  }
  ASSERT_TRUE(requester->Request(Topic("cmd"), "ping", "test/replies/beyond", std::string("b")));
  ASSERT_TRUE(requester->WaitForCount("test/replies/beyond", 1));
  EXPECT_EQ(requester->Messages().size(), 1u);
  EXPECT_EQ(requester->PayloadsOn("test/replies/beyond"), std::vector<std::string>{ErrorPayload("ping", 3, "busy")});
  EXPECT_EQ(requester->On("test/replies/beyond")[0].correlation, std::optional<std::string>("b"));
  // The stop does not wait for the command stuck at the service.
  ExpectCleanStop(SIGTERM, std::chrono::seconds(2));
}

TEST_F(BridgeCommandTest, ResponseTopicInsideThePrefixButNotTheBoxsRepliesIsRefusedOnItsReplyTopic) {
  StartFake();
  auto watcher = Client({"kdx/#"});
  StartOnline();
  auto requester = Client({});
  for (const char* topic : {"kdx/box1/status", "kdx/box1/service", "kdx/box1/event/7", "kdx/box2/cmd"}) {
    watcher->Clear();
    ASSERT_TRUE(requester->Request(Topic("cmd"), "ping", topic, std::string("c")));
    ASSERT_TRUE(watcher->WaitForCount(Topic("reply"), 1)) << topic;
    EXPECT_EQ(watcher->PayloadsOn(Topic("reply")),
              std::vector<std::string>{ErrorPayload(
                  "ping", 2, "response topic " + std::string(topic) + ": not at or below kdx/box1/reply")});
    for (const Message& message : watcher->On(topic)) {
      EXPECT_EQ(message.payload.find("\"command\""), std::string::npos) << topic << ": " << message.payload;
    }
  }
  EXPECT_TRUE(Commands().empty());
  // At or below the box's own replies, it is answered there.
  ASSERT_TRUE(requester->Request(Topic("cmd"), "ping", Topic("reply/ops"), std::nullopt));
  ASSERT_TRUE(watcher->WaitForCount(Topic("reply/ops"), 1));
  EXPECT_EQ(watcher->PayloadsOn(Topic("reply/ops")), std::vector<std::string>{AnsweredPayload("ping", 1, {"PONG"})});
}

TEST_F(BridgeCommandTest, EventRegistrationIsNeverTakenFromTheBrokerEvenWithSendAllowed) {
  StartFake();
  StartOnline({"--allow", "ping,send"});
  for (const char* number : {"4", "5"}) {
    EXPECT_EQ(Ask(std::string("send ") + number + " /tmp/x"),
              ErrorPayload("send", 2, "send: event registration (commands 4 and 5) is never taken from the broker"));
  }
  EXPECT_EQ(fake->RequestsFor(4).size(), 1u);  // the bridge's own registration
  EXPECT_TRUE(fake->RequestsFor(5).empty());
}

TEST_F(BridgeCommandTest, CommandLargerThanTheAnnouncedPacketSizeNeverReachesTheBridge) {
  StartFake();
  StartOnline();
  auto requester = Client({Topic("reply")});
  ASSERT_TRUE(requester->Publish("kdx/all/cmd", "ping" + std::string(100 << 20, ' ')));
  ASSERT_TRUE(requester->Publish("kdx/all/cmd", "ping" + std::string(70000, ' ')));
  // Larger than the bridge takes, smaller than the packet size: refused
  // without being run.
  ASSERT_TRUE(requester->Publish("kdx/all/cmd", "ping" + std::string(20000, ' ')));
  ASSERT_TRUE(requester->Publish("kdx/all/cmd", "ping"));
  ASSERT_TRUE(requester->WaitForCount(Topic("reply"), 2));
  EXPECT_EQ(requester->PayloadsOn(Topic("reply")),
            (std::vector<std::string>{ErrorPayload(std::nullopt, 2, "longer than 8192 bytes"),
                                      AnsweredPayload("ping", 1, {"PONG"})}));
  EXPECT_EQ(Commands().size(), 1u);
}

}  // namespace
}  // namespace zel::bridge::test
