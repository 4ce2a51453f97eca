// kendrivex-fleet on a secured broker: the README's access control (each box
// confined to its own topics, the operator with a password file), where run
// works because each reply's topic lies inside its box's own; a refused
// login, a sync marker the access rules refuse, a password file others may
// read; and TLS with the broker's certificate verified and a client's.
#include <signal.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/mqtt_credentials.h"
#include "tests/support/wait_until.h"
#include "tests/tools/fleet/fleet_program_test.h"
#include "tests/tools/fleet/web_client.h"

namespace zel::fleet::test {
namespace {

using ::zel::test::AddDynamicSecurityUser;
using ::zel::test::MakePasswordFile;
using ::zel::test::MayPublish;
using ::zel::test::MaySubscribe;
using ::zel::test::TestCertificates;
using ::zel::test::UseDynamicSecurity;

// The README's access control, under the test's prefix.
const char kReadmeAcl[] =
    "pattern readwrite kdx/%u/#\n"
    "pattern read kdx/all/cmd\n"
    "user operator\n"
    "topic readwrite kdx/#\n"
    "user reader\n"
    "topic read kdx/#\n"
    "user clerk\n"
    "topic read kdx/#\n"
    "topic readwrite kdx/all/#\n";

class FleetSecurityTest : public FleetTest {
 protected:
  // The broker of the README's access control, with boxes box1 and box2
  // logged in as themselves.
  void StartFleetOfUsers() {
    ASSERT_TRUE(MakePasswordFile(
        dir.File("passwords"),
        {
            {"box1",     "pw1"  },
            {"box2",     "pw2"  },
            {"operator", "op-pw"},
            {"reader",   "rd-pw"},
            {"clerk",    "cl-pw"}
    }));
    broker.AddConfig({"allow_anonymous false", "password_file " + dir.File("passwords"),
                      "acl_file " + WriteFile("acl", kReadmeAcl)});
    StartBroker();
    login.username = "operator";
    login.password = "op-pw";
    for (const std::string box : {"box1", "box2"}) {
      const std::string password = WriteFile(box + ".password", box == "box1" ? "pw1\n" : "pw2\n");
      StartBox(box, {}, {"--username", box, "--password-file", password});
    }
  }

  std::unique_ptr<TestCertificates> certificates;
};

TEST_F(FleetSecurityTest, RunAndLsWorkUnderTheReadmesAccessControl) {
  StartFleetOfUsers();
  const std::string password = WriteFile("operator.password", "op-pw\n");
  Result result = Fleet({"--username", "operator", "--password-file", password, "run", "all", "ping"});
  EXPECT_EQ(SortedLines(result.out), (std::vector<std::string>{"box1\tPONG", "box2\tPONG"}));
  EXPECT_EQ(result.exitCode, 0) << result.err;
  result = Fleet({"--username", "operator", "--password-file", password, "ls"});
  EXPECT_EQ(result.out, "box1\tonline\tup\nbox2\tonline\tup\n");
  EXPECT_EQ(result.exitCode, 0) << result.err;
}

TEST_F(FleetSecurityTest, WrongPasswordIsARefusedConnection) {
  StartFleetOfUsers();
  const Result result =
      Fleet({"--username", "operator", "--password-file", WriteFile("wrong.password", "guess\n"), "ls"});
  EXPECT_EQ(result.err, ErrorLine(broker.Url(), "the broker refused the connection: not authorized (0x87)"));
  EXPECT_EQ(result.exitCode, 3);
}

TEST_F(FleetSecurityTest, SyncMarkerTheAccessRulesRefuseIsSaid) {
  StartFleetOfUsers();
  const Result result =
      Fleet({"--username", "reader", "--password-file", WriteFile("reader.password", "rd-pw\n"), "ls"});
  const std::string head = "kendrivex-fleet: " + broker.Url() + ": the sync marker on kdx/all/sync/";
  const std::string tail = ": the broker refused it: not authorized (0x87)\n";
  EXPECT_EQ(result.err.rfind(head, 0), 0u) << result.err;
  ASSERT_GE(result.err.size(), head.size() + tail.size());
  EXPECT_EQ(result.err.substr(result.err.size() - tail.size()), tail) << result.err;
  EXPECT_EQ(result.exitCode, 3);
}

TEST_F(FleetSecurityTest, ForgetThatTheAccessRulesRefuseSaysSoAndExits3) {
  StartFleetOfUsers();
  StopBridge("box2");
  const Result result =
      Fleet({"--username", "clerk", "--password-file", WriteFile("clerk.password", "cl-pw\n"), "forget", "box2"});
  EXPECT_EQ(result.err, ErrorLine("box2", "cannot clear it: the broker refused it: not authorized (0x87)"));
  EXPECT_EQ(result.exitCode, 3);
}

// The dynamic-security plugin, unlike an ACL file, refuses subscriptions
// (SUBACK 0x87): here the operator may send commands and read the statuses,
// but neither the replies nor the events.
class FleetRefusedSubscriptionTest : public FleetTest {
 protected:
  void SetUp() override {
    ASSERT_TRUE(UseDynamicSecurity(dir, broker));
    StartBroker();
    ASSERT_TRUE(AddDynamicSecurityUser(
        broker, "box1", "pw1", {MayPublish("kdx/box1/#"), MaySubscribe("kdx/box1/#"), MaySubscribe("kdx/all/cmd")}));
    ASSERT_TRUE(AddDynamicSecurityUser(broker, "operator", "op-pw",
                                       {MayPublish("kdx/#"), MaySubscribe("kdx/+/status"),
                                        MaySubscribe("kdx/+/service"), MaySubscribe("kdx/all/sync/#")}));
    // May read the sync marker, and nothing of the boxes.
    ASSERT_TRUE(AddDynamicSecurityUser(broker, "blind", "bl-pw",
                                       {MayPublish("kdx/all/sync/#"), MaySubscribe("kdx/all/sync/#")}));
    // May read the statuses and send the sync marker, but not read it back.
    ASSERT_TRUE(AddDynamicSecurityUser(
        broker, "deaf", "df-pw",
        {MayPublish("kdx/all/sync/#"), MaySubscribe("kdx/+/status"), MaySubscribe("kdx/+/service")}));
    // May read the statuses and the sync marker, but send nothing.
    ASSERT_TRUE(AddDynamicSecurityUser(
        broker, "mute", "mt-pw",
        {MaySubscribe("kdx/+/status"), MaySubscribe("kdx/+/service"), MaySubscribe("kdx/all/sync/#")}));
    login.username = "operator";
    login.password = "op-pw";
    StartBox("box1", {}, {"--username", "box1", "--password-file", WriteFile("box1.password", "pw1\n")});
    operatorLogin = {"--username", "operator", "--password-file", WriteFile("operator.password", "op-pw\n")};
  }

  // kendrivex-fleet as the operator, then `args`.
  Result AsOperator(std::vector<std::string> args) const { return As("operator", "op-pw", std::move(args)); }

  // kendrivex-fleet as `user`, then `args`.
  Result As(const std::string& user, const std::string& password, std::vector<std::string> args) const {
    const std::vector<std::string> login = {"--username", user, "--password-file",
                                            WriteFile(user + ".password", password + "\n")};
    args.insert(args.begin(), login.begin(), login.end());
    return Fleet(args);
  }

  std::vector<std::string> operatorLogin;
};

TEST_F(FleetRefusedSubscriptionTest, LsReadsTheStatusesItMaySubscribeTo) {
  const Result result = AsOperator({"ls"});
  EXPECT_EQ(result.out, "box1\tonline\tup\n");
  EXPECT_EQ(result.exitCode, 0) << result.err;
}

TEST_F(FleetRefusedSubscriptionTest, LsWhoseStatusesAreRefusedSaysSoAndExits3) {
  const Result result = Fleet({"--username", "blind", "--password-file", WriteFile("blind.password", "bl-pw\n"), "ls"});
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err,
            ErrorLine(broker.Url(), "the broker refused the subscription to kdx/+/status: not authorized (0x87)"));
  EXPECT_EQ(result.exitCode, 3);
}

TEST_F(FleetRefusedSubscriptionTest, ForgetWhoseStatusesAreRefusedSaysSoAndExits3) {
  const Result result =
      Fleet({"--username", "blind", "--password-file", WriteFile("blind.password", "bl-pw\n"), "forget", "gone"});
  EXPECT_EQ(result.err,
            ErrorLine(broker.Url(), "the broker refused the subscription to kdx/gone/status: not authorized (0x87)"));
  EXPECT_EQ(result.exitCode, 3);
}

// `text` with the identifiers (16 hexadecimal digits) after `before` put
// as RUN, so that it can be compared.
std::string WithoutIdsAfter(std::string text, const std::string& before) {
  for (size_t at = text.find(before); at != std::string::npos; at = text.find(before, at + 1)) {
    text.replace(at + before.size(), 16, "RUN");
  }
  return text;
}

// `text` with the run's identifier in the replies' topic put as RUN.
std::string WithoutRunId(const std::string& text) { return WithoutIdsAfter(text, "kdx/+/reply/"); }

TEST_F(FleetRefusedSubscriptionTest, LsWhoseSyncMarkerIsNotSentBackSaysSoAtOnceAndExits3) {
  const Result result = As("deaf", "df-pw", {"ls"});
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(WithoutIdsAfter(result.err, "kdx/all/sync/"),
            ErrorLine(broker.Url(), "the broker refused the subscription to kdx/all/sync/RUN: not authorized (0x87)"));
  EXPECT_EQ(result.exitCode, 3);
}

TEST_F(FleetRefusedSubscriptionTest, RunWhoseSyncMarkerMayNotBeSentSaysSoAndExits3) {
  const Result result = As("mute", "mt-pw", {"run", "all", "ping"});
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(
      WithoutIdsAfter(result.err, "kdx/all/sync/"),
      ErrorLine(broker.Url(), "the sync marker on kdx/all/sync/RUN: the broker refused it: not authorized (0x87)"));
  EXPECT_EQ(result.exitCode, 3);
}

TEST_F(FleetRefusedSubscriptionTest, RunWhoseRepliesAreRefusedReportsEveryBoxAndExits3) {
  const Result result = AsOperator({"run", "all", "ping"});
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(WithoutRunId(result.err),
            "kendrivex-fleet: box1: cannot take replies: the broker refused the subscription to kdx/+/reply/RUN: not "
            "authorized (0x87)\n"
            "kendrivex-fleet: 1 box expected: 0 answered with success, 0 answered otherwise, 1 did not answer\n");
  EXPECT_EQ(result.exitCode, 3);
}

TEST_F(FleetRefusedSubscriptionTest, RunOfOneBoxWhoseRepliesAreRefusedPrintsItsErrorObject) {
  const Result result = AsOperator({"-j", "run", "box1", "ping"});
  EXPECT_EQ(WithoutRunId(result.out),
            "{\"box\":\"box1\",\"status\":3,\"error\":\"cannot take replies: the broker refused the subscription to "
            "kdx/+/reply/RUN: not authorized (0x87)\"}\n");
  EXPECT_EQ(result.exitCode, 3) << result.err;
}

TEST_F(FleetRefusedSubscriptionTest, WatchWhoseEventsAreRefusedSaysSoAndExits3) {
  const Result result = AsOperator({"watch"});
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err,
            ErrorLine(broker.Url(), "the broker refused the subscription to kdx/+/event/#: not authorized (0x87)"));
  EXPECT_EQ(result.exitCode, 3);
}

TEST_F(FleetRefusedSubscriptionTest, WatchOfOneBoxWhoseEventsAreRefusedSaysSoAndExits3) {
  const Result result = AsOperator({"watch", "--box", "box1"});
  EXPECT_EQ(result.err,
            ErrorLine(broker.Url(), "the broker refused the subscription to kdx/box1/event/#: not authorized (0x87)"));
  EXPECT_EQ(result.exitCode, 3);
}

// The page's runs meet the same refusal: each box is answered with status 3
// and the reason, and the program goes on serving.
TEST_F(FleetRefusedSubscriptionTest, WebRunWhoseRepliesAreRefusedAnswersEachBoxWithItsReason) {
  std::vector<std::string> args = operatorLogin;
  for (const char* arg : {"web", "--listen", "127.0.0.1:0"}) args.emplace_back(arg);
  const std::unique_ptr<PipeProcess> web = StartFleet(args);
  ASSERT_TRUE(web->WaitForOutLines(1)) << web->Err();
  const std::string out = web->Out();
  const WebClient client("127.0.0.1", std::stoi(out.substr(out.rfind(':') + 1)));
  const std::string listed = R"([{"box":"box1","status":"online","service":"up"}])";
  ASSERT_TRUE(::zel::test::WaitUntil([&] { return client.Get("/api/boxes").body == listed; }, std::chrono::seconds(10),
                                     std::chrono::milliseconds(20)));
  const WebAnswer answer =
      client.Post("/api/run", R"({"target":"all","command":"ping","timeout":2000})", "application/json");
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(WithoutRunId(answer.body),
            "[{\"box\":\"box1\",\"status\":3,\"error\":\"cannot take replies: the broker refused the subscription to "
            "kdx/+/reply/RUN: not authorized (0x87)\"}]");
  EXPECT_EQ(client.Get("/api/boxes").body, listed);
  web->Signal(SIGTERM);
  EXPECT_EQ(web->Finish().exitCode, 0);
}

TEST_F(FleetSecurityTest, PasswordFileOthersMayReadGetsAWarning) {
  StartFleetOfUsers();
  const std::string password = WriteFile("open.password", "op-pw\n", 0644);
  const Result result = Fleet({"--username", "operator", "--password-file", password, "ls"});
  EXPECT_EQ(result.err, "kendrivex-fleet: warning: permissions 0644 for the password file " + password +
                            " are too open: it should be readable by its owner alone (chmod 600 " + password + ")\n");
  EXPECT_EQ(result.exitCode, 0);
}

class FleetTlsTest : public FleetSecurityTest {
 protected:
  void StartTlsBroker(bool requireClientCertificate) {
    certificates = std::make_unique<TestCertificates>(dir);
    tlsUrl = certificates->AddListener(broker, requireClientCertificate);
    StartBroker();
    StartBox("box1");
  }

  std::string tlsUrl;
};

TEST_F(FleetTlsTest, BrokerVouchedForByTheGivenAuthorityIsUsed) {
  StartTlsBroker(false);
  const Result result = Fleet({"--cafile", certificates->Ca(), "run", "all", "ping"}, tlsUrl);
  EXPECT_EQ(result.out, "box1\tPONG\n");
  EXPECT_EQ(result.exitCode, 0) << result.err;
}

TEST_F(FleetTlsTest, BrokerThatTheSystemDoesNotVouchForIsRefused) {
  StartTlsBroker(false);
  const Result result = Fleet({"ls"}, tlsUrl);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err.rfind("kendrivex-fleet: " + tlsUrl + ": ", 0), 0u) << result.err;
  EXPECT_NE(result.err.find("certificate verify failed"), std::string::npos) << result.err;
  EXPECT_EQ(result.exitCode, 3);
}

TEST_F(FleetTlsTest, ClientCertificateIsGivenWhenTheBrokerAsks) {
  StartTlsBroker(true);
  const Result result = Fleet({"--cafile", certificates->Ca(), "--cert", certificates->Cert("client"), "--key",
                               certificates->Key("client"), "ls"},
                              tlsUrl);
  EXPECT_EQ(result.out, "box1\tonline\tup\n");
  EXPECT_EQ(result.exitCode, 0) << result.err;
}

}  // namespace
}  // namespace zel::fleet::test
