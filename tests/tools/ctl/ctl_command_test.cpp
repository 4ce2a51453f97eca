// One-shot commands against the simulator and the fake service: what each
// command prints, its exit status, and that the service sees only the
// command's own request.
#include <signal.h>

#include <string>
#include <vector>

#include "tests/tools/ctl/ctl_test.h"

namespace zel::ctl::test {
namespace {

using Answer = FakeService::Answer;

TEST_F(CtlTest, PingPrintsTheAnswer) {
  StartSim();
  const Result result = Ctl({"ping"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "PONG\n");
  EXPECT_EQ(result.err, "");
}

TEST_F(CtlTest, SendPingIsAnAliasOfPing) {
  StartSim();
  const Result result = Ctl({"send_ping"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "PONG\n");
}

TEST_F(CtlTest, StationsPrintsEachStationOnItsOwnLine) {
  StartSim({"--station", "aa:bb:cc:dd:ee:01 10.0.0.2 tablet", "--station", "aa:bb:cc:dd:ee:02 10.0.0.3 phone"});
  const Result result = Ctl({"stations"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "aa:bb:cc:dd:ee:01 10.0.0.2 tablet\naa:bb:cc:dd:ee:02 10.0.0.3 phone\n");
  EXPECT_EQ(result.err, "");
}

TEST_F(CtlTest, StationsPrintsNothingWhenNoneIsConnected) {
  StartSim({"--no-stations"});
  const Result result = Ctl({"stations"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "");
}

TEST_F(CtlTest, AtcmdWlanapclistIsAnAliasOfStations) {
  StartSim({"--station", "one"});
  const Result result = Ctl({"atcmd_wlanapclist"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "one\n");
}

TEST_F(CtlTest, MacPrintsTheAddress) {
  StartSim({"--mac", "02:00:00:00:00:01"});
  const Result result = Ctl({"mac"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "02:00:00:00:00:01\n");
  EXPECT_EQ(result.err, "");
}

TEST_F(CtlTest, AtcmdWlanmacIsAnAliasOfMac) {
  StartSim({"--mac", "02:00:00:00:00:02"});
  const Result result = Ctl({"atcmd_wlanmac"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "02:00:00:00:00:02\n");
}

TEST_F(CtlTest, SendPrintsTheCodeAndFieldsTabSeparated) {
  StartSim();
  const Result result = Ctl({"send", "1"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "1\tPONG\n");
  EXPECT_EQ(result.err, "");
}

TEST_F(CtlTest, SendPassesFieldsThatBeginWithADash) {
  StartFake();
  fake->Script(2, Answer::Reply("1\tok\tdone"));
  const Result result = Ctl({"send", "2", "-x", "--json", ""});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "1\tok\tdone\n");
  ASSERT_EQ(fake->Requests().size(), 1u);
  EXPECT_EQ(fake->Requests()[0].text, "2\t-x\t--json\t");
}

TEST_F(CtlTest, SendPrintsAReplyOfAnotherCodeAndExitsWithOne) {
  StartFake();
  fake->Script(3, Answer::Reply("3\tbusy"));
  const Result result = Ctl({"send", "3"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.out, "3\tbusy\n");
  EXPECT_EQ(result.err, ErrorLine("send", "the service answered with code 3"));
}

TEST_F(CtlTest, PingAnsweredWithAnotherCodePrintsNothingAndExitsWithOne) {
  StartFake();
  fake->Script(1, Answer::Reply("2\tPONG"));
  const Result result = Ctl({"ping"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, ErrorLine("ping", "the service answered with code 2"));
}

TEST_F(CtlTest, PingAnsweredWithoutAnArgumentExitsWithOne) {
  StartFake();
  fake->Script(1, Answer::Reply("1"));
  const Result result = Ctl({"send_ping"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, ErrorLine("send_ping", "the service's reply holds no answer"));
}

TEST_F(CtlTest, MacAnsweredWithoutAnArgumentExitsWithOne) {
  StartFake();
  fake->Script(3, Answer::Reply("1"));
  const Result result = Ctl({"mac"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, ErrorLine("mac", "the service's reply holds no MAC address"));
}

TEST_F(CtlTest, StationsAnsweredWithAnotherCodeExitsWithOne) {
  StartFake();
  fake->Script(2, Answer::Reply("5\tx"));
  const Result result = Ctl({"stations"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, ErrorLine("stations", "the service answered with code 5"));
}

TEST_F(CtlTest, ReplyOfTheCodeFiveAloneIsTheServicesAnswer) {
  StartFake();
  fake->Script(1, Answer::Reply("5"));
  const Result result = Ctl({"ping"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, ErrorLine("ping", "the service answered with code 5"));
}

TEST_F(CtlTest, ReplyWhoseCodeFieldReadsAsFiveIsTheServicesAnswer) {
  StartFake();
  fake->Script(2, Answer::Reply("5x"));
  const Result result = Ctl({"--json", "send", "2"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.out, "{\"command\":\"send\",\"code\":5,\"args\":[]}\n");
  EXPECT_EQ(result.err, ErrorLine("send", "the service answered with code 5"));
}

TEST_F(CtlTest, EmptyReplyIsAnAnswerThatSaysNothing) {
  StartFake();
  fake->Script(3, Answer::Reply(""));
  const Result result = Ctl({"mac"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, ErrorLine("mac", "the service's reply is empty"));
}

TEST_F(CtlTest, ReplyThatFillsTheWholeBufferIsReportedAsTooLong) {
  StartFake();
  fake->Script(1, Answer::Reply("1\t" + std::string(9000, 'x')));
  const Result result = Ctl({"ping"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, ErrorLine("ping", "the service's reply is too long (8192 bytes or more)"));
}

TEST_F(CtlTest, OneShotSendsOnlyItsOwnRequest) {
  StartFake();
  fake->Script(1, Answer::Reply("1\tPONG"));
  ASSERT_EQ(Ctl({"ping"}).exitCode, 0);
  const std::vector<FakeService::Request> requests = fake->Requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].text, "1");
}

TEST_F(CtlTest, OneShotLeavesNoSocketFile) {
  StartSim();
  ASSERT_EQ(Ctl({"ping"}).exitCode, 0);
  EXPECT_EQ(LeftOver(), std::vector<std::string>());
}

TEST_F(CtlTest, UnansweredRequestExitsWithThreeAfterTheTimeout) {
  StartFake();
  const Result result = Ctl({"--timeout", "200", "ping"});
  EXPECT_EQ(result.exitCode, 3);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, ErrorLine("ping", "no reply within 200 ms"));
  EXPECT_EQ(LeftOver(), std::vector<std::string>());
}

TEST_F(CtlTest, TimeoutTakesItsValueAfterAnEqualsSign) {
  StartSim({"--drop"});
  const Result result = Ctl({"--timeout=150", "mac"});
  EXPECT_EQ(result.exitCode, 3);
  EXPECT_EQ(result.err, ErrorLine("mac", "no reply within 150 ms"));
}

TEST_F(CtlTest, ShortTimeoutOptionBoundsTheWait) {
  StartSim({"--delay", "3000"});
  const Result result = Ctl({"-t", "100", "stations"});
  EXPECT_EQ(result.exitCode, 3);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, ErrorLine("stations", "no reply within 100 ms"));
}

TEST_F(CtlTest, ReplyJustInsideTheTimeoutIsTaken) {
  StartFake();
  fake->Script(1, Answer::Reply("1\tPONG", std::chrono::milliseconds(100)));
  const Result result = Ctl({"--timeout", "5000", "ping"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "PONG\n");
}

TEST_F(CtlTest, ServiceThatGoesAwayDuringTheWaitIsReportedAsUnreachable) {
  StartFake();
  auto ctl = StartCtl({"--timeout", "3000", "ping"}, Options());
  ASSERT_TRUE(fake->WaitForRequests(1));
  fake.reset();
  const Result result = ctl->Finish();
  EXPECT_EQ(result.exitCode, 3);
  EXPECT_EQ(result.err, ErrorLine(ServicePath(), "No such file or directory"));
  EXPECT_EQ(LeftOver(), std::vector<std::string>());
}

TEST_F(CtlTest, StopSignalDuringTheWaitRemovesTheSocketFile) {
  StartFake();
  auto ctl = StartCtl({"--timeout", "20000", "ping"}, Options());
  ASSERT_TRUE(fake->WaitForRequests(1));
  ctl->Signal(SIGTERM);
  const Result result = ctl->Finish();
  EXPECT_EQ(result.signal, SIGTERM);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(LeftOver(), std::vector<std::string>());
}

}  // namespace
}  // namespace zel::ctl::test
