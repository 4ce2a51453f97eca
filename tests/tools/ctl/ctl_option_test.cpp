// Where the program finds the service and the directory for its sockets, what
// -v and -v -v copy to standard error, and the end of options before the
// command.
#include <string>
#include <vector>

#include "tests/support/syslog_file.h"
#include "tests/tools/ctl/ctl_test.h"

namespace zel::ctl::test {
namespace {

// The directory of the socket path a request came from.
std::string SenderDir(const SimProcess::Request& request) { return request.from.substr(0, request.from.rfind('/')); }

TEST_F(CtlTest, ServiceComesFromTheEnvironmentByDefault) {
  StartSim();
  PipeProcess::Options options = Options();
  options.env.push_back("KENDRIVEX_SERVICE=" + ServicePath());
  const Result result = CtlBare({"-d", dir.path(), "ping"}, options);
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "PONG\n");
}

TEST_F(CtlTest, ServiceOptionOverridesTheEnvironment) {
  StartSim();
  PipeProcess::Options options = Options();
  options.env.push_back("KENDRIVEX_SERVICE=" + dir.File("elsewhere"));
  const Result result = CtlBare({"--service", ServicePath(), "-d", dir.path(), "ping"}, options);
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "PONG\n");
}

TEST_F(CtlTest, DirectoryComesFromKendrivexDir) {
  StartSim();
  PipeProcess::Options options = Options();
  options.env.push_back("KENDRIVEX_DIR=" + dir.path());
  options.env.push_back("TMPDIR=/nonexistent");
  ASSERT_EQ(CtlBare({"-s", ServicePath(), "ping"}, options).exitCode, 0);
  ASSERT_EQ(sim->Requests().size(), 1u);
  EXPECT_EQ(SenderDir(sim->Requests()[0]), dir.path());
}

TEST_F(CtlTest, DirectoryFallsBackToTmpdir) {
  StartSim();
  PipeProcess::Options options = Options();
  options.env.push_back("TMPDIR=" + dir.path());
  ASSERT_EQ(CtlBare({"-s", ServicePath(), "ping"}, options).exitCode, 0);
  ASSERT_EQ(sim->Requests().size(), 1u);
  EXPECT_EQ(SenderDir(sim->Requests()[0]), dir.path());
}

TEST_F(CtlTest, DirectoryOptionOverridesTheEnvironment) {
  StartSim();
  PipeProcess::Options options = Options();
  options.env.push_back("KENDRIVEX_DIR=/nonexistent");
  ASSERT_EQ(CtlBare({"-s", ServicePath(), "--dir", dir.path(), "ping"}, options).exitCode, 0);
  ASSERT_EQ(sim->Requests().size(), 1u);
  EXPECT_EQ(SenderDir(sim->Requests()[0]), dir.path());
}

TEST_F(CtlTest, DoubleDashEndsTheOptions) {
  StartSim();
  const Result result = Ctl({"-j", "--", "ping"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "{\"command\":\"ping\",\"code\":1,\"args\":[\"PONG\"]}\n");
}

TEST_F(CtlTest, OptionsMayFollowACommandThatTakesNoArguments) {
  StartSim();
  const Result result = Ctl({"ping", "--json", "-t", "3000"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "{\"command\":\"ping\",\"code\":1,\"args\":[\"PONG\"]}\n");
}

TEST_F(CtlTest, OptionsMayFollowTheStandardInputWord) {
  StartSim();
  const Result result = Ctl({"-", "-j"}, "ping\n");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "{\"command\":\"ping\",\"code\":1,\"args\":[\"PONG\"]}\n");
}

TEST_F(CtlTest, WordsAfterSendAreFieldsEvenWhenTheyLookLikeOptions) {
  StartFake();
  fake->Script(1, FakeService::Answer::Reply("1\tPONG"));
  const Result result = Ctl({"send", "1", "-j", "--timeout", "7"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "1\tPONG\n");
  ASSERT_EQ(fake->Requests().size(), 1u);
  EXPECT_EQ(fake->Requests()[0].text, "1\t-j\t--timeout\t7");
}

// The line of the runner's notice that a request went unanswered, up to the
// client's path.
const char kNoReplyStart[] = "kendrivex-ctl: no reply came to ";
const char kNoReplyEnd[] = " in time; it stays bound, and the next request goes out from a new socket\n";

TEST_F(CtlTest, VerboseCopiesTheProgramsOwnMessagesToStandardError) {
  StartFake();
  const Result result = Ctl({"--verbose", "-t", "100", "ping"});
  EXPECT_EQ(result.exitCode, 3);
  // The notice, then the failure; the client library's records stay in the
  // system log.
  ASSERT_EQ(result.err.rfind(kNoReplyStart + dir.path() + "/ipc_client-", 0), 0u) << result.err;
  const std::string failure = ErrorLine("ping", "no reply within 100 ms");
  EXPECT_EQ(result.err.substr(result.err.find(kNoReplyEnd)), kNoReplyEnd + failure) << result.err;
  EXPECT_TRUE(::zel::test::HasSyslogRecordStarting(SyslogFile(), "client snd [1]"));
}

TEST_F(CtlTest, VerboseTwiceCopiesTheClientLibrarysRecordsTooAndEachMessageOnce) {
  StartFake();
  // The system log is not captured here: the copy is the C library's.
  const Result result =
      CtlBare({"-s", ServicePath(), "-d", dir.path(), "-v", "-v", "-t", "100", "ping"}, UncapturedOptions());
  EXPECT_EQ(result.exitCode, 3);
  EXPECT_NE(result.err.find("kendrivex-ctl: client snd [1]\n"), std::string::npos) << result.err;
  EXPECT_EQ(Occurrences(result.err, kNoReplyStart), 1u) << result.err;
  EXPECT_EQ(Occurrences(result.err, kNoReplyEnd), 1u) << result.err;
}

TEST_F(CtlTest, WithoutVerboseTheProgramsNoticesStayOffStandardError) {
  StartFake();
  const Result result = Ctl({"-t", "100", "ping"});
  EXPECT_EQ(result.exitCode, 3);
  EXPECT_EQ(result.err, ErrorLine("ping", "no reply within 100 ms"));
  EXPECT_TRUE(::zel::test::HasSyslogRecordStarting(SyslogFile(), "no reply came to " + dir.path() + "/ipc_client-"));
}

TEST_F(CtlTest, WithoutVerboseStandardErrorStaysEmpty) {
  StartSim();
  const Result result = CtlBare({"-s", ServicePath(), "-d", dir.path(), "ping"}, UncapturedOptions());
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.err, "");
}

}  // namespace
}  // namespace zel::ctl::test
