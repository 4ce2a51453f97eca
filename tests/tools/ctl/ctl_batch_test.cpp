// Commands from standard input: one a line, in order, from a pipe, a file or
// a terminal; failures do not stop the batch; and a late reply is never
// printed as the reply to another line.
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "tests/support/pty_process.h"
#include "tests/tools/ctl/ctl_test.h"

namespace zel::ctl::test {
namespace {

using Answer = FakeService::Answer;
using std::chrono::milliseconds;

std::string Dir(const std::string& path) { return path.substr(0, path.rfind('/')); }

TEST_F(CtlTest, BatchFromAPipeRunsEachLineInOrder) {
  StartSim({"--station", "s1", "--station", "s2", "--mac", "02:00:00:00:00:04"});
  const Result result = Ctl({"-"}, "ping\nstations\nmac\nsend 1\n");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "PONG\ns1\ns2\n02:00:00:00:00:04\n1\tPONG\n");
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(LeftOver(), std::vector<std::string>());
}

TEST_F(CtlTest, BatchFromAFileRunsEachLineInOrder) {
  StartSim({"--mac", "02:00:00:00:00:05"});
  const std::string commands = dir.File("commands");
  std::ofstream(commands) << "atcmd_wlanmac\nsend_ping\n";
  PipeProcess::Options options = Options();
  options.stdinPath = commands;
  PipeProcess ctl(Command({"-"}), options);
  const Result result = ctl.Finish();
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "02:00:00:00:00:05\nPONG\n");
}

TEST_F(CtlTest, BatchOnATerminalAnswersEachLineAsItIsTyped) {
  StartSim();
  ::zel::test::PtyProcess::Options options;
  options.env = Options().env;
  ::zel::test::PtyProcess ctl(Command({"-"}), options);
  ctl.Send("ping\n");
  EXPECT_TRUE(ctl.WaitForOutput("PONG\r\n"));
  ctl.Send("mac\n");
  EXPECT_TRUE(ctl.WaitForOutput("PONG\r\n02:1a:7d:4c:88:e1\r\n"));
  // A hang-up ends it like any stop signal, and its socket file goes.
  ctl.Signal(SIGHUP);
  const std::optional<int> status = ctl.WaitForExit();
  ASSERT_TRUE(status.has_value());
  EXPECT_TRUE(WIFSIGNALED(*status));
  EXPECT_EQ(LeftOver(), std::vector<std::string>());
}

TEST_F(CtlTest, BatchSkipsBlankAndCommentLinesAndSplitsAtBlanksAndTabs) {
  StartFake();
  fake->Script(2, Answer::Reply("1\tok"));
  const Result result = Ctl({"-"}, "\n   \n# send 2 ignored\n  send\t2   a\t\tb  \n#\n");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "1\tok\n");
  ASSERT_EQ(fake->Requests().size(), 1u);
  EXPECT_EQ(fake->Requests()[0].text, "2\ta\tb");
}

TEST_F(CtlTest, BatchTakesLinesWithWindowsLineEnds) {
  StartSim();
  const Result result = Ctl({"-"}, "ping\r\nsend 1\r\n");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "PONG\n1\tPONG\n");
}

TEST_F(CtlTest, BatchWithoutAServiceSaysSoOnceBeforeReadingALine) {
  // From a file: the program ends before it reads, and a pipe's writer would
  // find it gone.
  const std::string commands = dir.File("commands");
  std::ofstream(commands) << "ping\nmac\n";
  PipeProcess::Options options = Options();
  options.stdinPath = commands;
  const Result result = PipeProcess::Run(Command({"-"}), "", options);
  EXPECT_EQ(result.exitCode, 3);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, ErrorLine(ServicePath(), "No such file or directory"));
}

TEST_F(CtlTest, BatchOfNothingSucceedsWithoutARequest) {
  StartFake();
  const Result result = Ctl({"-"}, "");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "");
  EXPECT_TRUE(fake->Requests().empty());
}

TEST_F(CtlTest, BatchGoesOnAfterAFailureAndExitsWithTheFirstFailure) {
  StartFake();
  fake->Script(1, Answer::Reply("1\tPONG"));
  fake->Script(3, Answer::Reply("4"));
  const Result result = Ctl({"-"}, "pong\nping\nmac\nwatch\nsend 9\nping\n");
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_EQ(result.out, "PONG\nPONG\n");
  EXPECT_EQ(result.err, ErrorLine("line 1: pong", "unknown command (try --help)") +
                            ErrorLine("line 3: mac", "the service answered with code 4") +
                            ErrorLine("line 4: watch", "not on a line of standard input") +
                            ErrorLine("line 5: send", "command number must be 1 to 5, not \"9\""));
}

TEST_F(CtlTest, BatchExitStatusIsThatOfTheFirstFailureEvenWhenLaterOnesDiffer) {
  StartFake();
  fake->Script(1, {Answer::Reply("2"), Answer::Never()});
  const Result result = Ctl({"--timeout", "100", "-"}, "ping\nping\nbogus\n");
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.err, ErrorLine("line 1: ping", "the service answered with code 2") +
                            ErrorLine("line 2: ping", "no reply within 100 ms") +
                            ErrorLine("line 3: bogus", "unknown command (try --help)"));
}

TEST_F(CtlTest, BatchLineHoldingANulByteIsAnErrorForThatLine) {
  StartSim();
  const Result result = Ctl({"-"}, std::string("ping\0junk\nping\n", 15));
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_EQ(result.out, "PONG\n");
  EXPECT_EQ(result.err, ErrorLine("line 1: ping\\x00junk", "holds a NUL byte"));
  EXPECT_EQ(sim->Requests().size(), 1u);
}

TEST_F(CtlTest, BatchOfRandomBytesWritesErrorLinesWithoutControlBytes) {
  StartFake();
  // A fixed seed: the same bytes every run.
  std::string input;
  uint32_t state = 12345;
  for (int i = 0; i < 200000; ++i) {
    state = state * 1103515245 + 12345;
    input += static_cast<char>(state >> 16);
  }
  const Result result = Ctl({"--timeout", "50", "-"}, input);
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_EQ(result.out, "");
  size_t lines = 0;
  for (size_t at = 0; at < result.err.size(); ++at) {
    const auto byte = static_cast<unsigned char>(result.err[at]);
    if (byte == '\n') ++lines;
    EXPECT_TRUE(byte == '\n' || (byte >= 0x20 && byte != 0x7f)) << "byte " << int(byte) << " at " << at;
  }
  EXPECT_GT(lines, 100u);
  EXPECT_LE(result.err.size(), lines * 200);
}

TEST_F(CtlTest, BatchRequestTooLongForOneDatagramIsReportedAsSuch) {
  StartFake();
  fake->Script(1, Answer::Reply("1\tPONG"));
  const std::string field(1 << 20, 'f');
  const Result result = Ctl({"-"}, "send 1 " + field + "\nping\n");
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_EQ(result.out, "PONG\n");
  EXPECT_EQ(result.err, ErrorLine("line 1: send", "the request of " + std::to_string(field.size() + 2) +
                                                      " bytes is too long for one datagram"));
  ASSERT_EQ(fake->Requests().size(), 1u);
  EXPECT_EQ(fake->Requests()[0].text, "1");
}

TEST_F(CtlTest, BatchJsonPrintsOneObjectPerLineInOrder) {
  StartSim({"--no-stations"});
  const Result result = Ctl({"-j", "-"}, "send_ping\nstations\n");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out,
            "{\"command\":\"ping\",\"code\":1,\"args\":[\"PONG\"]}\n"
            "{\"command\":\"stations\",\"code\":1,\"args\":[]}\n");
}

TEST_F(CtlTest, BatchKeepsOneClientWhileEveryRequestIsAnswered) {
  StartSim();
  ASSERT_EQ(Ctl({"-"}, "ping\nmac\nstations\n").exitCode, 0);
  const std::vector<SimProcess::Request> requests = sim->Requests();
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_EQ(requests[1].from, requests[0].from);
  EXPECT_EQ(requests[2].from, requests[0].from);
}

TEST_F(CtlTest, BatchNeverPrintsALateReplyAsTheReplyToTheNextLine) {
  StartFake();
  // The first reply comes after its line gave up, while the second line
  // still waits; the second line's own reply comes after it.
  fake->Script(1, {Answer::Reply("1\tFIRST", milliseconds(800)), Answer::Reply("1\tSECOND", milliseconds(400)),
                   Answer::Reply("1\tTHIRD")});
  const Result result = Ctl({"--timeout", "500", "-"}, "ping\nping\nping\n");
  EXPECT_EQ(result.exitCode, 3);
  EXPECT_EQ(result.out, "SECOND\nTHIRD\n");
  EXPECT_EQ(result.err, ErrorLine("line 1: ping", "no reply within 500 ms"));
  const std::vector<FakeService::Request> requests = fake->Requests();
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_NE(requests[1].sender, requests[0].sender);
  EXPECT_EQ(requests[2].sender, requests[1].sender);
  EXPECT_EQ(LeftOver(), std::vector<std::string>());
}

TEST_F(CtlTest, BatchAgainstASlowSimulatorPrintsNoReplyOfAnotherLine) {
  StartSim({"--delay", "300"});
  const Result result = Ctl({"--timeout", "200", "-"}, "ping\nmac\nstations\n");
  EXPECT_EQ(result.exitCode, 3);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, ErrorLine("line 1: ping", "no reply within 200 ms") +
                            ErrorLine("line 2: mac", "no reply within 200 ms") +
                            ErrorLine("line 3: stations", "no reply within 200 ms"));
  const std::vector<SimProcess::Request> requests = sim->Requests();
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_EQ(std::set<std::string>({requests[0].from, requests[1].from, requests[2].from}).size(), 3u);
}

TEST_F(CtlTest, BatchWithMoreTimeoutsThanSlotsGoesOnInADirectoryOfItsOwn) {
  StartFake();
  std::string input;
  for (int i = 0; i < 12; ++i) input += "ping\n";
  const Result result = Ctl({"--timeout", "30", "-"}, input);
  EXPECT_EQ(result.exitCode, 3);
  EXPECT_EQ(result.out, "");
  const std::vector<FakeService::Request> requests = fake->Requests();
  ASSERT_EQ(requests.size(), 12u);
  std::set<std::string> senders;
  for (const FakeService::Request& request : requests) senders.insert(request.sender);
  EXPECT_EQ(senders.size(), 12u);
  for (size_t i = 0; i < 10; ++i) EXPECT_EQ(Dir(requests[i].sender), dir.path()) << i;
  const std::string own = Dir(requests[10].sender);
  EXPECT_EQ(Dir(own), dir.path());
  EXPECT_EQ(own.substr(own.rfind('/') + 1, 4), "ctl-");
  EXPECT_EQ(Dir(requests[11].sender), own);
  EXPECT_EQ(LeftOver(), std::vector<std::string>());
}

}  // namespace
}  // namespace zel::ctl::test
