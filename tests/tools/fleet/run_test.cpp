// The run engine: its target and command checked, and a run against a broker
// of the test's own with boxes the test plays (a client subscribed to each
// box's commands, its status retained), whose replies are good, late,
// doubled, of another run or hostile.
#include "tools/fleet/run.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "tests/support/mqtt_broker.h"
#include "tests/support/mqtt_test_client.h"
#include "tests/support/temp_dir.h"
#include "tests/tools/fleet/fleet_test.h"

namespace zel::fleet {
namespace {

using std::chrono::milliseconds;
using test::LoopbackSettings;
using test::PlayedBox;
using test::Pong;
using ::zel::test::MqttBroker;
using ::zel::test::MqttTestClient;
using ::zel::test::TempDir;
namespace core = zel::service_client;

std::string TargetFailure(const std::string& text) {
  Target target;
  core::Failure failure;
  EXPECT_FALSE(ParseTarget(text, target, failure)) << text;
  EXPECT_EQ(failure.status, core::kStatusUsage);
  return failure.what + ": " + failure.why;
}

std::string CommandFailure(const std::vector<std::string>& words) {
  RunCommand command;
  core::Failure failure;
  EXPECT_FALSE(ParseRunCommand(words, command, failure));
  EXPECT_EQ(failure.status, core::kStatusUsage);
  return failure.what + ": " + failure.why;
}

TEST(TargetTest, AllOneOrSeveralBoxes) {
  Target target;
  core::Failure failure;
  ASSERT_TRUE(ParseTarget("all", target, failure));
  EXPECT_TRUE(target.all);
  ASSERT_TRUE(ParseTarget("b1", target, failure));
  EXPECT_FALSE(target.all);
  EXPECT_EQ(target.boxes, std::vector<std::string>{"b1"});
  ASSERT_TRUE(ParseTarget("b2,b1,b2", target, failure));
  EXPECT_EQ(target.boxes, (std::vector<std::string>{"b2", "b1"}));
}

TEST(TargetTest, EveryNameMustBeABoxId) {
  EXPECT_EQ(TargetFailure(""), "\"\": a box's ID may not be empty or hold '/', '+' or '#'");
  EXPECT_EQ(TargetFailure("b1,,b2"), "\"\": a box's ID may not be empty or hold '/', '+' or '#'");
  EXPECT_EQ(TargetFailure("b1,"), "\"\": a box's ID may not be empty or hold '/', '+' or '#'");
  EXPECT_EQ(TargetFailure("kdx/b1"), "\"kdx/b1\": a box's ID may not be empty or hold '/', '+' or '#'");
  EXPECT_EQ(TargetFailure("b1,all"), "\"all\": \"all\" stands for every box, and is no box's ID");
  EXPECT_EQ(TargetFailure("b\x1b"), "\"b\\x1b\": a box's ID is UTF-8 text without control characters");
}

TEST(RunCommandTest, IsTheWordsJoinedByABlank) {
  RunCommand command;
  core::Failure failure;
  ASSERT_TRUE(ParseRunCommand({"send", "2", "a", "b"}, command, failure));
  EXPECT_EQ(command.line, "send 2 a b");
  EXPECT_STREQ(command.request.command->name, "send");
  ASSERT_TRUE(ParseRunCommand({"send_ping"}, command, failure));
  EXPECT_EQ(command.line, "send_ping");
  EXPECT_STREQ(command.request.command->name, "ping");
}

TEST(RunCommandTest, MustBeACommandOfALineOfStandardInput) {
  EXPECT_EQ(CommandFailure({}), "command: missing");
  EXPECT_EQ(CommandFailure({"reboot"}), "reboot: unknown command");
  EXPECT_EQ(CommandFailure({"watch"}), "watch: not a command that a box runs");
  EXPECT_EQ(CommandFailure({"ping", "x"}), "ping: takes no arguments, not \"x\"");
  EXPECT_EQ(CommandFailure({"send", "9"}), "send: command number must be 1 to 5, not \"9\"");
}

TEST(RunCommandTest, EveryWordMustGoOnTheLineAsItIs) {
  const std::string why = "a word of the command cannot be empty or hold a blank, a tab or a control character";
  EXPECT_EQ(CommandFailure({"send", "2", "a b"}), "\"a b\": " + why);
  EXPECT_EQ(CommandFailure({"send", "2", "a\tb"}), "\"a\\tb\": " + why);
  EXPECT_EQ(CommandFailure({"send", "2", "a\nb"}), "\"a\\nb\": " + why);
  EXPECT_EQ(CommandFailure({"send", "2", ""}), "\"\": " + why);
}

class RunTest : public ::testing::Test, public zel::fleet::Run::Observer {
 protected:
  static void SetUpTestSuite() {
    std::string why;
    ASSERT_TRUE(zel::mqtt::InitLibrary(why)) << why;
  }

  RunTest() { link.AddReceiver(directory); }

  void SetUp() override { ASSERT_TRUE(broker.Start()); }

  void OnResult(const BoxResult& result) override { results.push_back(result); }

  PlayedBox& Box(const std::string& id, const std::string& status = "online") {
    boxes.push_back(std::make_unique<PlayedBox>(broker.Port(), id, status));
    return *boxes.back();
  }

  // Connects and starts the run of `words` on `target` (without waiting).
  void Begin(const std::string& target, const std::vector<std::string>& words = {"ping"}) {
    Target parsedTarget;
    RunCommand command;
    core::Failure failure;
    ASSERT_TRUE(ParseTarget(target, parsedTarget, failure));
    ASSERT_TRUE(ParseRunCommand(words, command, failure));
    ASSERT_TRUE(link.Start(why)) << why;
    ASSERT_EQ(Await(
                  link, -1, [this] { return link.Up(); }, Link::Clock::now() + std::chrono::seconds(10), why),
              Waited::Done)
        << why;
    run = std::make_unique<zel::fleet::Run>(link, topics, parsedTarget, command, *this);
  }

  // Runs it to its end on a thread of its own, so that the test can play
  // the boxes meanwhile.
  void Execute(milliseconds timeout = std::chrono::seconds(10)) {
    executor =
        std::thread([this, timeout] { waited = zel::fleet::Execute(link, directory, *run, timeout, -1, executeWhy); });
  }
  Waited Finish() {
    if (executor.joinable()) executor.join();
    return waited;
  }
  void TearDown() override { Finish(); }

  const BoxResult* ResultOf(const std::string& box) const {
    for (const BoxResult& result : results) {
      if (result.box == box) return &result;
    }
    return nullptr;
  }

  TempDir dir;
  MqttBroker broker{dir.path()};
  Topics topics{"kdx"};
  zel::mqtt::ConnectionSettings settings = LoopbackSettings(broker.Port());
  Link link{settings, topics, std::chrono::seconds(10)};
  BoxDirectory directory{topics};
  std::vector<std::unique_ptr<PlayedBox>> boxes;
  std::unique_ptr<zel::fleet::Run> run;
  std::vector<BoxResult> results;
  std::thread executor;
  Waited waited = Waited::Gone;
  std::string why;
  std::string executeWhy;
};

TEST_F(RunTest, EveryOnlineBoxIsAskedOnceAndTheRunEndsWithTheLastReply) {
  PlayedBox& b1 = Box("b1");
  PlayedBox& b2 = Box("b2");
  PlayedBox& b3 = Box("b3", "offline");
  ASSERT_NO_FATAL_FAILURE(Begin("all"));
  Execute();
  ASSERT_TRUE(b2.Answer({Pong("b2")}));
  ASSERT_TRUE(b1.Answer({Pong("b1")}));
  EXPECT_EQ(Finish(), Waited::Done) << executeWhy;
  ASSERT_EQ(results.size(), 2u);
  EXPECT_EQ(results[0].box, "b2");
  EXPECT_EQ(results[0].status, BoxResult::kSuccess);
  EXPECT_EQ(results[0].plain, "b2\tPONG\n");
  EXPECT_EQ(results[0].json, Pong("b2"));
  EXPECT_EQ(results[1].plain, "b1\tPONG\n");
  EXPECT_EQ(run->Expected(), 2u);
  EXPECT_EQ(run->Counted(BoxResult::kSuccess), 2u);
  EXPECT_EQ(b1.Commands().size(), 1u);
  EXPECT_TRUE(b3.Commands().empty());
  EXPECT_EQ(run->Skipped().Total(), 0u);
}

TEST_F(RunTest, CommandCarriesAResponseTopicInsideItsBoxAndCorrelationDataNamingRunAndBox) {
  PlayedBox& b1 = Box("b1");
  ASSERT_NO_FATAL_FAILURE(Begin("b1", {"send", "2", "a", "b"}));
  Execute(milliseconds(200));
  ASSERT_TRUE(b1.Client().WaitForCount("kdx/b1/cmd", 1));
  EXPECT_EQ(Finish(), Waited::Done);
  const MqttTestClient::Message command = b1.Commands().front();
  EXPECT_EQ(command.payload, "send 2 a b");
  EXPECT_EQ(command.qos, 1);
  EXPECT_EQ(command.responseTopic, std::optional<std::string>("kdx/b1/reply/" + run->Id()));
  EXPECT_EQ(command.correlation, std::optional<std::string>(run->Id() + "/b1"));
}

TEST_F(RunTest, NamedBoxesOfflineOrUnknownAreReportedAtOnceAndNotAsked) {
  PlayedBox& b3 = Box("b3", "offline");
  ASSERT_NO_FATAL_FAILURE(Begin("b3,b9"));
  EXPECT_EQ(zel::fleet::Execute(link, directory, *run, std::chrono::seconds(60), -1, why), Waited::Done);
  ASSERT_EQ(results.size(), 2u);
  EXPECT_EQ(results[0].box, "b3");
  EXPECT_EQ(results[0].status, BoxResult::kNoAnswer);
  EXPECT_EQ(results[0].why, "the box is offline");
  EXPECT_EQ(results[0].json, R"({"box":"b3","status":3,"error":"the box is offline"})");
  EXPECT_EQ(results[1].why, "the broker holds no status of this box");
  EXPECT_EQ(run->Expected(), 2u);
  EXPECT_EQ(run->Counted(BoxResult::kNoAnswer), 2u);
  EXPECT_TRUE(b3.Commands().empty());
}

TEST_F(RunTest, OnlineBoxThatNothingTakesCommandsForIsReportedAtOnce) {
  MqttTestClient stale(broker.Port());
  ASSERT_TRUE(stale.Publish("kdx/b1/status", "online", 1, true));
  ASSERT_NO_FATAL_FAILURE(Begin("b1"));
  EXPECT_EQ(zel::fleet::Execute(link, directory, *run, std::chrono::seconds(60), -1, why), Waited::Done);
  ASSERT_EQ(results.size(), 1u);
  EXPECT_EQ(results[0].status, BoxResult::kNoAnswer);
  EXPECT_EQ(results[0].why, "nothing takes its commands: no one is subscribed to kdx/b1/cmd");
}

TEST_F(RunTest, NoOnlineBoxMeansNothingToWaitFor) {
  Box("b1", "offline");
  ASSERT_NO_FATAL_FAILURE(Begin("all"));
  EXPECT_EQ(zel::fleet::Execute(link, directory, *run, std::chrono::seconds(60), -1, why), Waited::Done);
  EXPECT_EQ(run->Expected(), 0u);
  EXPECT_TRUE(results.empty());
}

TEST_F(RunTest, BoxThatDoesNotAnswerIsGivenUpAtTheTimeOut) {
  Box("b1");
  PlayedBox& b2 = Box("b2");
  ASSERT_NO_FATAL_FAILURE(Begin("all"));
  Execute(milliseconds(300));
  ASSERT_TRUE(b2.Answer({Pong("b2")}));
  EXPECT_EQ(Finish(), Waited::Done);
  ASSERT_EQ(results.size(), 2u);
  EXPECT_EQ(results[1].box, "b1");
  EXPECT_EQ(results[1].status, BoxResult::kNoAnswer);
  EXPECT_EQ(results[1].why, "no reply within 300 ms");
  EXPECT_EQ(results[1].json, R"({"box":"b1","status":3,"error":"no reply within 300 ms"})");
}

TEST_F(RunTest, ReplyWithOtherCorrelationDataIsSkippedAndTheRightOneCounts) {
  PlayedBox& b1 = Box("b1");
  ASSERT_NO_FATAL_FAILURE(Begin("b1"));
  Execute();
  ASSERT_TRUE(
      b1.Answer({R"({"command":"ping","code":1,"args":["NOT MINE"],"box":"b1"})"}, std::string("another-run/b1")));
  ASSERT_TRUE(b1.Answer({Pong("b1")}));
  EXPECT_EQ(Finish(), Waited::Done);
  ASSERT_EQ(results.size(), 1u);
  EXPECT_EQ(results[0].status, BoxResult::kSuccess);
  EXPECT_EQ(results[0].plain, "b1\tPONG\n");
  EXPECT_EQ(run->Skipped().Of(Skip::Unasked), 1u);
}

TEST_F(RunTest, HostileRepliesAreSkippedByReasonAndNeverCount) {
  PlayedBox& b1 = Box("b1");
  PlayedBox& b2 = Box("b2");
  ASSERT_NO_FATAL_FAILURE(Begin("all"));
  Execute(milliseconds(1500));
  ASSERT_TRUE(b1.Answer({"PONG", std::string(70000, ' '), Pong("b2"),
                         R"({"command":"mac","code":1,"args":["x"],"box":"b1"})", Pong("b1"), Pong("b1")}));
  // b2's own reply topic, used by b1: it names b1, so it fails there.
  ASSERT_TRUE(b2.Client().WaitForCount("kdx/b2/cmd", 1));
  const MqttTestClient::Message command = b2.Commands().front();
  ASSERT_TRUE(b1.Client().Request(*command.responseTopic, Pong("b1"), "unused/reply", command.correlation));
  EXPECT_EQ(Finish(), Waited::Done);
  ASSERT_EQ(results.size(), 2u);
  EXPECT_EQ(results[0].box, "b1");
  EXPECT_EQ(results[0].status, BoxResult::kSuccess);
  EXPECT_EQ(results[1].box, "b2");
  EXPECT_EQ(results[1].status, BoxResult::kNoAnswer);
  EXPECT_EQ(run->Skipped().Of(Skip::Malformed), 2u);
  EXPECT_EQ(run->Skipped().Of(Skip::TooLarge), 1u);
  EXPECT_EQ(run->Skipped().Of(Skip::OtherBox), 2u);
  EXPECT_EQ(run->Skipped().Of(Skip::Unasked), 1u);
}

TEST_F(RunTest, ReplyOfAnotherCodeIsAnAnswerOtherwise) {
  PlayedBox& b1 = Box("b1");
  ASSERT_NO_FATAL_FAILURE(Begin("b1"));
  Execute();
  const std::string reply = R"({"command":"ping","code":5,"args":[],"box":"b1"})";
  ASSERT_TRUE(b1.Answer({reply}));
  EXPECT_EQ(Finish(), Waited::Done);
  ASSERT_EQ(results.size(), 1u);
  EXPECT_EQ(results[0].status, BoxResult::kOtherwise);
  EXPECT_EQ(results[0].why, "the service answered with code 5");
  EXPECT_EQ(results[0].plain, "");
  EXPECT_EQ(results[0].json, reply);
}

TEST_F(RunTest, BridgesErrorObjectIsAnAnswerOtherwise) {
  PlayedBox& b1 = Box("b1");
  ASSERT_NO_FATAL_FAILURE(Begin("b1", {"send", "4", "/tmp/x"}));
  Execute();
  const std::string reply = R"({"box":"b1","command":"send","status":2,"error":"send: not allowed from the broker"})";
  ASSERT_TRUE(b1.Answer({reply}));
  EXPECT_EQ(Finish(), Waited::Done);
  ASSERT_EQ(results.size(), 1u);
  EXPECT_EQ(results[0].status, BoxResult::kOtherwise);
  EXPECT_EQ(results[0].why, "send: not allowed from the broker");
  EXPECT_EQ(results[0].json, reply);
}

TEST_F(RunTest, SendsReplyIsPrintedWholeWhateverItsCode) {
  PlayedBox& b1 = Box("b1");
  ASSERT_NO_FATAL_FAILURE(Begin("b1", {"send", "2"}));
  Execute();
  ASSERT_TRUE(b1.Answer({R"({"command":"send","code":5,"args":["x","y"],"box":"b1"})"}));
  EXPECT_EQ(Finish(), Waited::Done);
  ASSERT_EQ(results.size(), 1u);
  EXPECT_EQ(results[0].plain, "b1\t5\tx\ty\n");
  EXPECT_EQ(results[0].why, "the service answered with code 5");
}

TEST_F(RunTest, FieldsOfAReplyAreEscapedOneByOneInItsLines) {
  PlayedBox& b1 = Box("b1");
  ASSERT_NO_FATAL_FAILURE(Begin("b1", {"stations"}));
  Execute();
  ASSERT_TRUE(b1.Answer({R"({"command":"stations","code":1,"args":["a\tb","\u001b[2J\nx","\u009b"],"box":"b1"})"}));
  EXPECT_EQ(Finish(), Waited::Done);
  ASSERT_EQ(results.size(), 1u);
  EXPECT_EQ(results[0].plain, "b1\ta\\tb\nb1\t\\x1b[2J\\nx\nb1\t\\xc2\\x9b\n");
  EXPECT_EQ(results[0].json, R"({"command":"stations","code":1,"args":["a\tb","\u001b[2J\nx","\u009b"],"box":"b1"})");
}

}  // namespace
}  // namespace zel::fleet
