// Security: TLS with the broker's certificate verified (by the authorities
// given, or the system's), a client certificate, the password from a file,
// and the README's access control list confining each box to its own topics.
#include <signal.h>

#include <fstream>
#include <string>
#include <vector>

#include "kdx_test_paths.h"
#include "tests/support/mqtt_credentials.h"
#include "tests/tools/bridge/bridge_test.h"

namespace zel::bridge::test {
namespace {

using ::zel::test::AddDynamicSecurityUser;
using ::zel::test::MakePasswordFile;
using ::zel::test::MayPublish;
using ::zel::test::MaySubscribe;
using ::zel::test::TestCertificates;
using ::zel::test::UseDynamicSecurity;

class BridgeSecurityTest : public BridgeTest {
 protected:
  // A broker with a TLS listener on a port of its own besides the plain one.
  void StartTlsBroker(bool requireClientCertificate) {
    certificates = std::make_unique<TestCertificates>(dir);
    tlsUrl = certificates->AddListener(broker, requireClientCertificate);
    StartBroker();
  }

  std::string TlsUrl() const { return tlsUrl; }

  std::string WriteFile(const std::string& name, const std::string& text) {
    std::string path = dir.File(name);
    std::ofstream(path) << text;
    return path;
  }

  // A broker that takes only the users of its password file (made with
  // mosquitto_passwd), under `acl` when it is given.
  void StartBrokerWithUsers(const std::vector<std::pair<std::string, std::string>>& users, const std::string& acl) {
    const std::string passwords = dir.File("passwords");
    ASSERT_TRUE(MakePasswordFile(passwords, users));
    std::vector<std::string> config = {"allow_anonymous false", "password_file " + passwords};
    if (!acl.empty()) config.push_back("acl_file " + WriteFile("acl", acl));
    broker.AddConfig(config);
    StartBroker();
  }

  static MqttTestClient::Options User(const std::string& name, const std::string& password) {
    MqttTestClient::Options options;
    options.username = name;
    options.password = password;
    return options;
  }

  std::unique_ptr<TestCertificates> certificates;
  std::string tlsUrl;
};

TEST_F(BridgeSecurityTest, TlsBrokerVouchedForByTheGivenAuthorityIsUsed) {
  StartTlsBroker(false);
  StartFake();
  StartOnline({"-b", TlsUrl(), "--cafile", certificates->Ca()});
  EXPECT_EQ(Ask("ping"), AnsweredPayload("ping", 1, {"PONG"}));
}

TEST_F(BridgeSecurityTest, TlsBrokerThatTheSystemDoesNotVouchForIsRefused) {
  StartTlsBroker(false);
  StartFake();
  auto status = Client({Topic("status")});
  StartBridge({"-b", TlsUrl()});
  const std::string start = "cannot reach the broker at " + TlsUrl() + ": ";
  ASSERT_TRUE(WaitForLogMatching([&](const std::string& text) {
    return text.rfind(start, 0) == 0 && text.find("certificate verify failed") != std::string::npos &&
           text.find("; trying again in 1 s") != std::string::npos;
  }));
  EXPECT_TRUE(status->Messages().empty());
}

TEST_F(BridgeSecurityTest, ClientCertificateIsPresentedToABrokerThatRequiresOne) {
  StartTlsBroker(true);
  StartFake();
  StartOnline({"-b", TlsUrl(), "--cafile", certificates->Ca(), "--cert", certificates->Cert("client"), "--key",
               certificates->Key("client")});
  EXPECT_EQ(Ask("ping"), AnsweredPayload("ping", 1, {"PONG"}));
}

TEST_F(BridgeSecurityTest, PasswordComesFromTheFirstLineOfItsFile) {
  StartBrokerWithUsers(
      {
          {"box1",   "s3cret word"},
          {"tester", "t"          }
  },
      "");
  StartFake();
  // A file written on Windows has its line end too.
  const std::string password = WriteFile("password", "s3cret word\r\nnot this line\n");
  auto status = Client({Topic("status")}, User("tester", "t"));
  StartBridge({"--username", "box1", "--password-file", password});
  ASSERT_TRUE(WaitForStatus(*status, "online")) << bridge->Err();
}

TEST_F(BridgeSecurityTest, WrongPasswordIsRefusedAndTriedAgain) {
  StartBrokerWithUsers(
      {
          {"box1", "right"}
  },
      "");
  StartFake();
  StartBridge({"--username", "box1", "--password-file", WriteFile("password", "wrong\n")});
  const std::string refused =
      "the broker at " + broker.Url() + " refused the connection: not authorized (0x87); trying again in ";
  EXPECT_TRUE(WaitForLog(refused + "1 s"));
  EXPECT_TRUE(WaitForLog(refused + "2 s"));
}

// The README's access control list, for the prefix kendrivex.
const char kReadmeAcl[] =
    "pattern readwrite kendrivex/%u/#\n"
    "pattern read kendrivex/all/cmd\n"
    "user operator\n"
    "topic readwrite kendrivex/#\n";

TEST_F(BridgeSecurityTest, ReadmeAccessListLetsEachBoxWorkOnItsOwnTopics) {
  StartBrokerWithUsers(
      {
          {"box1",     "pw1"},
          {"operator", "op" }
  },
      kReadmeAcl);
  StartFake();
  const std::string password = WriteFile("password", "pw1\n");
  auto op = Client({"kendrivex/#"}, User("operator", "op"));
  bridge = std::make_unique<PipeProcess>(
      std::vector<std::string>{KDX_BRIDGE_PATH, "-s", ServicePath(), "-d", dir.path(), "-b", broker.Url(), "-i", "box1",
                               "--username", "box1", "--password-file", password},
      Options());
  ASSERT_TRUE(op->WaitFor([](const std::vector<Message>& m) {
    for (const Message& message : m) {
      if (message.topic == "kendrivex/box1/status" && message.payload == "online") return true;
    }
    return false;
  })) << bridge->Err();
  ASSERT_TRUE(op->Request("kendrivex/box1/cmd", "ping", "kendrivex/box1/reply/op", std::string("1")));
  ASSERT_TRUE(op->WaitForCount("kendrivex/box1/reply/op", 1));
  EXPECT_EQ(op->PayloadsOn("kendrivex/box1/reply/op"), std::vector<std::string>{AnsweredPayload("ping", 1, {"PONG"})});
  ASSERT_TRUE(op->Publish("kendrivex/all/cmd", "ping"));
  ASSERT_TRUE(op->WaitForCount("kendrivex/box1/reply", 1));
  EXPECT_EQ(op->PayloadsOn("kendrivex/box1/reply"), std::vector<std::string>{AnsweredPayload("ping", 1, {"PONG"})});
}

TEST_F(BridgeSecurityTest, ReadmeAccessListKeepsABoxOutOfAnotherBoxsTopics) {
  StartBrokerWithUsers(
      {
          {"box1",     "pw1"},
          {"operator", "op" }
  },
      kReadmeAcl);
  StartFake();
  auto op = Client({"kendrivex/#"}, User("operator", "op"));
  bridge = std::make_unique<PipeProcess>(
      std::vector<std::string>{KDX_BRIDGE_PATH, "-s", ServicePath(), "-d", dir.path(), "-b", broker.Url(), "-i", "box2",
                               "--username", "box1", "--password-file", WriteFile("password", "pw1\n")},
      Options());
  // The broker takes the subscriptions (it passes on nothing it refuses to
  // read) and refuses the publications.
  EXPECT_TRUE(WaitForLog("the broker refused the publication on kendrivex/box2/status: not authorized (0x87)"));
  // Its commands are not its own to read; those to every box are, but its
  // replies cannot go out.
  ASSERT_TRUE(op->Request("kendrivex/box2/cmd", "mac", "kendrivex/box2/reply", std::nullopt));
  ASSERT_TRUE(op->Publish("kendrivex/all/cmd", "ping"));
  ASSERT_TRUE(fake->WaitForRequestsFor(1, 1));
  ExpectCleanStop(SIGTERM, std::chrono::seconds(2));
  EXPECT_EQ(fake->RequestsFor(3).size(), 0u);
  for (const Message& message : op->Messages()) {
    if (message.topic.rfind("kendrivex/box2/", 0) == 0) {
      EXPECT_EQ(message.topic, "kendrivex/box2/cmd");
    }
  }
}

// The dynamic-security plugin refuses the subscription to P/cmd with reason
// 0x87; the bridge says so and waits longer each time, since the connection
// never stayed up with its subscriptions granted.
TEST_F(BridgeSecurityTest, RefusedSubscriptionIsLoggedAsARefusalAndTheWaitsGrow) {
  ASSERT_TRUE(UseDynamicSecurity(dir, broker));
  StartBroker();
  ASSERT_TRUE(AddDynamicSecurityUser(broker, "box1", "pw1", {MayPublish("kdx/box1/#"), MaySubscribe("kdx/all/cmd")}));
  StartFake();
  StartBridge({"--username", "box1", "--password-file", WriteFile("password", "pw1\n")});
  const std::string refused = "the broker at " + broker.Url() +
                              " refused the subscription to kdx/box1/cmd: not authorized (0x87); trying again in ";
  EXPECT_TRUE(WaitForLog(refused + "1 s"));
  EXPECT_TRUE(WaitForLog(refused + "2 s"));
  EXPECT_FALSE(WaitForLogMatching(
      [](const std::string& text) { return text.rfind("cannot reach", 0) == 0 || text.rfind("online", 0) == 0; },
      std::chrono::milliseconds(0)));
}

}  // namespace
}  // namespace zel::bridge::test
