// kendrivex-fleet run end to end, against real boxes (simulator and bridge)
// and boxes the test plays: each box's lines as its reply arrives, the JSON
// objects, the summary and the exit status; boxes that answer otherwise,
// are offline or unknown, do not answer or are hostile; a reply of another
// run; the progress line on a terminal; and the command checked before
// anything is sent.
#include <string>
#include <vector>

#include "tests/support/pty_process.h"
#include "tests/tools/fleet/fleet_program_test.h"

namespace zel::fleet::test {
namespace {

std::string Summary(const std::string& text) { return "kendrivex-fleet: " + text + "\n"; }

class FleetRunTest : public FleetTest {
 protected:
  void SetUp() override { StartBroker(); }
};

TEST_F(FleetRunTest, PingOnAllBoxesPrintsEachReplyAndTheSummary) {
  StartBox("box1");
  StartBox("box2");
  const Result result = Fleet({"run", "all", "ping"});
  EXPECT_EQ(SortedLines(result.out), (std::vector<std::string>{"box1\tPONG", "box2\tPONG"}));
  EXPECT_EQ(result.err, Summary("2 boxes expected: 2 answered with success, 0 answered otherwise, 0 did not answer"));
  EXPECT_EQ(result.exitCode, 0);
}

TEST_F(FleetRunTest, JsonPrintsTheReplyObjectsTheBridgesPublished) {
  StartBox("box1");
  StartBox("box2", {"--mac", "02:00:00:00:00:02"});
  const Result result = Fleet({"-j", "run", "all", "mac"});
  EXPECT_EQ(SortedLines(result.out),
            (std::vector<std::string>{R"({"command":"mac","code":1,"args":["02:00:00:00:00:02"],"box":"box2"})",
                                      R"({"command":"mac","code":1,"args":["02:1a:7d:4c:88:e1"],"box":"box1"})"}));
  EXPECT_EQ(result.exitCode, 0);
}

TEST_F(FleetRunTest, NamedBoxesGetTheCommandAndEachLineOfTheirReplies) {
  StartBox("box1", {"--station", "aa:bb:cc:dd:ee:01 10.0.0.2 tablet", "--station", "aa:bb:cc:dd:ee:02 10.0.0.3 tv"});
  StartBox("box2");
  StartBox("box3");
  const Result result = Fleet({"run", "box1", "stations"});
  EXPECT_EQ(result.out, "box1\taa:bb:cc:dd:ee:01 10.0.0.2 tablet\nbox1\taa:bb:cc:dd:ee:02 10.0.0.3 tv\n");
  EXPECT_EQ(result.err, Summary("1 box expected: 1 answered with success, 0 answered otherwise, 0 did not answer"));
  EXPECT_EQ(result.exitCode, 0);
}

TEST_F(FleetRunTest, CommandRefusedByTheBridgeIsAnAnswerOtherwiseAndExits1) {
  StartBox("box1");
  const Result result = Fleet({"run", "box1", "send", "2", "x"});
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, ErrorLine("box1", "send: not allowed from the broker") +
                            Summary("1 box expected: 0 answered with success, 1 answered otherwise, 0 did not answer"));
  EXPECT_EQ(result.exitCode, 1);
}

TEST_F(FleetRunTest, SendsReplyIsPrintedWholeWithItsCode) {
  StartBox("box1", {}, {"--allow", "ping,send"});
  const Result result = Fleet({"run", "box1", "send", "2"});
  EXPECT_EQ(result.out,
            "box1\t1\tf2:3a:9c:51:0e:47 192.168.43.12 pixel-7\t3c:22:fb:91:4d:a7 192.168.43.27 maintenance-laptop\t"
            "b8:27:eb:6f:03:d2 192.168.43.40 sensor-gateway\n");
  EXPECT_EQ(result.exitCode, 0);
}

TEST_F(FleetRunTest, BoxWhoseServiceIsDownAnswersOtherwise) {
  StartBox("box1");
  StartBox("box2");
  StopService("box2");
  ASSERT_TRUE(WaitFor("box2", "service", "down"));
  const Result result = Fleet({"run", "all", "ping"});
  EXPECT_EQ(result.out, "box1\tPONG\n");
  EXPECT_EQ(result.err,
            ErrorLine("box2", dir.File("box2") + "/svc: No such file or directory") +
                Summary("2 boxes expected: 1 answered with success, 1 answered otherwise, 0 did not answer"));
  EXPECT_EQ(result.exitCode, 1);
}

// Ten minutes of time-out: the offline and the unknown box are reported at
// once, and the run ends with the one reply it waits for.
TEST_F(FleetRunTest, NamedBoxesOfflineOrUnknownAreReportedAtOnce) {
  StartBox("box1");
  StartBox("box2");
  StopBridge("box2");
  const Result result = PipeProcess::Run(Command({"-t", "600000", "run", "box2,box1,box9", "ping"}), "", Options(),
                                         std::chrono::seconds(20));
  EXPECT_EQ(result.out, "box1\tPONG\n");
  EXPECT_EQ(result.err,
            ErrorLine("box2", "the box is offline") + ErrorLine("box9", "the broker holds no status of this box") +
                Summary("3 boxes expected: 1 answered with success, 0 answered otherwise, 2 did not answer"));
  EXPECT_EQ(result.exitCode, 3);
}

TEST_F(FleetRunTest, BoxThatDoesNotAnswerIsReportedAtTheTimeOutAndExits3) {
  StartBox("box1");
  Play("box2");
  // Long enough for the real box's reply behind an emulator or valgrind.
  const Result result = Fleet({"-t", "2000", "run", "all", "ping"});
  EXPECT_EQ(result.out, "box1\tPONG\n");
  EXPECT_EQ(result.err,
            ErrorLine("box2", "no reply within 2000 ms") +
                Summary("2 boxes expected: 1 answered with success, 0 answered otherwise, 1 did not answer"));
  EXPECT_EQ(result.exitCode, 3);
}

TEST_F(FleetRunTest, JsonSaysOfABoxThatDidNotAnswerOnStandardOutput) {
  Play("box2");
  const Result result = Fleet({"-j", "-t", "300", "run", "box2", "ping"});
  EXPECT_EQ(result.out, "{\"box\":\"box2\",\"status\":3,\"error\":\"no reply within 300 ms\"}\n");
  EXPECT_EQ(result.err, Summary("1 box expected: 0 answered with success, 0 answered otherwise, 1 did not answer"));
  EXPECT_EQ(result.exitCode, 3);
}

TEST_F(FleetRunTest, OnlineBoxWhoseBridgeIsGoneIsReportedAtOnce) {
  MqttTestClient stale(broker.Port());
  ASSERT_TRUE(stale.Publish("kdx/box3/status", "online", 1, true));
  const Result result =
      PipeProcess::Run(Command({"-t", "600000", "run", "box3", "ping"}), "", Options(), std::chrono::seconds(20));
  EXPECT_EQ(result.err, ErrorLine("box3", "nothing takes its commands: no one is subscribed to kdx/box3/cmd") +
                            Summary("1 box expected: 0 answered with success, 0 answered otherwise, 1 did not answer"));
  EXPECT_EQ(result.exitCode, 3);
}

TEST_F(FleetRunTest, NoBoxOnlineExits3) {
  Play("box1", "offline");
  const Result result = Fleet({"run", "all", "ping"});
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err,
            ErrorLine("all", "no box is online") +
                Summary("0 boxes expected: 0 answered with success, 0 answered otherwise, 0 did not answer"));
  EXPECT_EQ(result.exitCode, 3);
}

// A reply on this run's topic with correlation data of another run (another
// requester's, say) is skipped; the box's own reply then counts.
TEST_F(FleetRunTest, ReplyOfAnotherRunIsNeverCounted) {
  PlayedBox& box = Play("box1");
  auto fleet = StartFleet({"run", "all", "ping"});
  ASSERT_TRUE(box.Answer({R"({"command":"ping","code":1,"args":["NOT MINE"],"box":"box1"})"},
                         std::string("0123456789abcdef/box1")));
  ASSERT_TRUE(box.Answer({Pong("box1")}));
  const Result result = fleet->Finish();
  EXPECT_EQ(result.out, "box1\tPONG\n");
  EXPECT_EQ(result.err, "kendrivex-fleet: warning: skipped 1 message from boxes: 1 not asked for by this run\n" +
                            Summary("1 box expected: 1 answered with success, 0 answered otherwise, 0 did not answer"));
  EXPECT_EQ(result.exitCode, 0);
}

TEST_F(FleetRunTest, HostileRepliesAreSkippedCountedAndNeverReachTheTerminalRaw) {
  PlayedBox& box = Play("box1");
  auto fleet = StartFleet({"run", "all", "ping"});
  ASSERT_TRUE(box.Answer({"\x1b]0;owned\x07", std::string(70000, '{'), Pong("box2")}));
  ASSERT_TRUE(box.Answer({Pong("box1")}, std::string("0123456789abcdef/box1")));
  ASSERT_TRUE(box.Answer({R"({"command":"ping","code":1,"args":["\u001b[2JPONG\u009b"],"box":"box1"})"}));
  const Result result = fleet->Finish();
  EXPECT_EQ(result.out, "box1\t\\x1b[2JPONG\\xc2\\x9b\n");
  EXPECT_EQ(result.err,
            "kendrivex-fleet: warning: skipped 4 messages from boxes: 1 not of the form a box sends, 1 larger than "
            "64 KB, 1 naming another box than their topic, 1 not asked for by this run\n" +
                Summary("1 box expected: 1 answered with success, 0 answered otherwise, 0 did not answer"));
  EXPECT_EQ(result.exitCode, 0);
}

TEST_F(FleetRunTest, HostileReplyInJsonIsEscapedThere) {
  PlayedBox& box = Play("box1");
  auto fleet = StartFleet({"-j", "run", "all", "ping"});
  ASSERT_TRUE(
      box.Answer({"{\"command\":\"ping\",\"code\":1,\"args\":[\"\\u001b[2J\\u007f\xc2\x9b\"],\"box\":\"box1\"}"}));
  const Result result = fleet->Finish();
  EXPECT_EQ(result.out, "{\"command\":\"ping\",\"code\":1,\"args\":[\"\\u001b[2J\\u007f\\u009b\"],\"box\":\"box1\"}\n");
  EXPECT_EQ(result.exitCode, 0);
}

TEST_F(FleetRunTest, UnknownCommandIsAUsageErrorBeforeTheBrokerIsAsked) {
  const std::string away = "mqtt://127.0.0.1:" + std::to_string(MqttBroker::FreePort());
  Result result = Fleet({"run", "all", "reboot"}, away);
  EXPECT_EQ(result.err, ErrorLine("reboot", "unknown command (try --help)"));
  EXPECT_EQ(result.exitCode, 2);
  result = Fleet({"run", "all", "watch"}, away);
  EXPECT_EQ(result.err, ErrorLine("watch", "not a command that a box runs"));
  EXPECT_EQ(result.exitCode, 2);
  result = Fleet({"run", "all", "send", "2", "a b"}, away);
  EXPECT_EQ(
      result.err,
      ErrorLine("\"a b\"", "a word of the command cannot be empty or hold a blank, a tab or a control character"));
  EXPECT_EQ(result.exitCode, 2);
}

TEST_F(FleetRunTest, BrokerAwayExits3) {
  const std::string url = "mqtt://127.0.0.1:" + std::to_string(MqttBroker::FreePort());
  const Result result = Fleet({"run", "all", "ping"}, url);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, ErrorLine(url, "connection refused"));
  EXPECT_EQ(result.exitCode, 3);
}

// Standard error on a terminal gets the progress line, kept in place and
// taken away before each other line; the replies go to a pipe.
TEST_F(FleetRunTest, ProgressLineIsKeptInPlaceWhileStandardErrorIsATerminal) {
  StartBox("box1");
  Play("box2");
  ::zel::test::PtyProcess::Options options;
  options.output = ::zel::test::PtyProcess::OutputSink::Pipe;
  options.input = ::zel::test::PtyProcess::Input::File;
  options.inputPath = "/dev/null";
  options.env = {"KENDRIVEX_BROKER="};
  ::zel::test::PtyProcess fleet(Command({"-t", "2000", "run", "box2,box1", "ping"}), options);
  const std::optional<int> status = fleet.WaitForExit();
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(::zel::test::PtyProcess::ExitCode(*status), 3);
  EXPECT_EQ(fleet.PipeOutput(), "box1\tPONG\n");
  EXPECT_EQ(fleet.Output(),
            "\rkendrivex-fleet: 0 of 2 boxes answered\x1b[K"
            "\r\x1b[K\rkendrivex-fleet: 1 of 2 boxes answered\x1b[K"
            "\r\x1b[Kkendrivex-fleet: box2: no reply within 2000 ms\r\n"
            "\rkendrivex-fleet: 2 of 2 boxes answered\x1b[K"
            "\r\x1b[Kkendrivex-fleet: 2 boxes expected: 1 answered with success, 0 answered otherwise, 1 did not "
            "answer\r\n");
}

}  // namespace
}  // namespace zel::fleet::test
