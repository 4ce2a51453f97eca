#include <syslog.h>

#include <atomic>
#include <memory>
#include <thread>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "ipc/ipc_client.h"
#include "tests/ipc/client_test_env.h"
#include "tests/support/syslog_capture.h"

namespace zel::test {
namespace {

using ::testing::ElementsAre;
using zel::ipc::IPCClient;
using zel::ipc::IPCCommand;
using zel::ipc::IPCResult;
using Fields = std::vector<std::string>;

// A client set up without events, so that only the test's own requests reach
// the service.
class SendTest : public ClientTest {
 protected:
  SendTest() { EXPECT_TRUE(mClient.SetLocalPath(mService.path(), mDir.path(), nullptr)); }

  // One ping that the service answers with `reply`.
  IPCResult PingWithReply(const std::string& reply) {
    mService.Script(zel::ipc::Ping, Answer::Reply(reply));
    return mClient.Send(zel::ipc::Ping);
  }

  IPCClient mClient;
};

TEST_F(ClientTest, SendBeforeSetUpIsNotConnectedAndSilent) {
  IPCClient client;
  SyslogCapture::Clear();
  const IPCResult result = client.Send(zel::ipc::Ping);
  EXPECT_EQ(result.code, zel::ipc::ResultNotConnected);
  EXPECT_TRUE(result.args.empty());
  EXPECT_TRUE(SyslogCapture::Records().empty());
}

TEST_F(ClientTest, SendFormatStringBeforeSetUpFailsWithError) {
  IPCClient client;
  EXPECT_EQ(client.SendFormatString("1").code, zel::ipc::ResultNotConnected);
  EXPECT_TRUE(
      HasRecord({LOG_ERR, std::string(kSendFormatStringText) + " 101: no client socket, set the local path first\n"}));
}

TEST_F(SendTest, PingIsTheSingleCharacterOne) {
  mClient.Send(zel::ipc::Ping);
  EXPECT_THAT(RequestTexts(), ElementsAre("1"));
}

TEST_F(SendTest, CommandsZeroAndSixAreInvalidAndSendNothing) {
  SyslogCapture::Clear();
  const IPCResult zero = mClient.Send(static_cast<IPCCommand>(0));
  const IPCResult six = mClient.Send(static_cast<IPCCommand>(6), "x");
  EXPECT_EQ(zero.code, zel::ipc::ResultInvalidCommand);
  EXPECT_TRUE(zero.args.empty());
  EXPECT_EQ(six.code, zel::ipc::ResultInvalidCommand);
  EXPECT_TRUE(SyslogCapture::Records().empty());
  // The next valid request is the first thing the service sees.
  mClient.Send(zel::ipc::Ping);
  EXPECT_THAT(RequestTexts(), ElementsAre("1"));
}

TEST_F(SendTest, EachExtraArgumentIsOneMoreField) {
  mService.Script(zel::ipc::WlanMac, Answer::Reply("1"));
  const std::string second = "b c";
  mClient.Send(zel::ipc::WlanMac, "a", second, std::string(""));
  EXPECT_THAT(RequestTexts(), ElementsAre("3\ta\tb c\t"));
}

TEST_F(SendTest, RegistrationRequestCarriesThePath) {
  mClient.Send(zel::ipc::RegisterEventPath, "/tmp/x-event");
  EXPECT_THAT(RequestTexts(), ElementsAre("4\t/tmp/x-event"));
}

TEST_F(SendTest, RequestComesFromTheClientSocket) {
  mClient.Send(zel::ipc::Ping);
  EXPECT_EQ(mService.Requests().at(0).sender, SlotPath(mDir.path(), 0));
}

TEST_F(SendTest, ReplyOneIsSuccessWithoutArguments) {
  const IPCResult result = PingWithReply("1");
  EXPECT_EQ(result.code, zel::ipc::ResultSuccess);
  EXPECT_TRUE(result.args.empty());
}

TEST_F(SendTest, ReplyOneTabPongIsSuccessWithPong) {
  const IPCResult result = PingWithReply("1\tPONG");
  EXPECT_EQ(result.code, zel::ipc::ResultSuccess);
  EXPECT_EQ(result.args, Fields{"PONG"});
}

TEST_F(SendTest, ReplyFieldsArriveAsTheyAre) { EXPECT_EQ(PingWithReply("1\t\tx\n").args, (Fields{"", "x\n"})); }

TEST_F(SendTest, UnknownResultCodePassesUnchanged) { EXPECT_EQ(PingWithReply("3").code, 3); }

TEST_F(SendTest, GarbageReplyGivesCodeNone) {
  const IPCResult result = PingWithReply("\x01\xfe garbage\tmore");
  EXPECT_EQ(result.code, zel::ipc::ResultNone);
  EXPECT_EQ(result.args, Fields{"more"});
}

TEST_F(SendTest, ReplyEndsAtItsFirstZeroByte) {
  EXPECT_EQ(PingWithReply(std::string("1\tPO\0NG", 7)).args, Fields{"PO"});
}

TEST_F(SendTest, ReplyStartingWithAZeroByteIsEmptyAndCodeNone) {
  const IPCResult result =
      PingWithReply(std::string("\0"
                                "1\tx",
                                4));
  EXPECT_EQ(result.code, zel::ipc::ResultNone);
  EXPECT_TRUE(result.args.empty());
}

TEST_F(SendTest, EmptyReplyDatagramCountsAsNoReply) {
  const IPCResult result = PingWithReply("");
  EXPECT_EQ(result.code, zel::ipc::ResultIoFailure);
  EXPECT_TRUE(HasRecord({LOG_ERR, std::string(kSendFormatStringText) + " 112: Recv time out\n"}));
}

TEST_F(SendTest, LongestReplyThatFitsIsTakenWhole) {
  const IPCResult result = PingWithReply("1\t" + std::string(8189, 'x'));
  EXPECT_EQ(result.code, zel::ipc::ResultSuccess);
  ASSERT_EQ(result.args.size(), 1u);
  EXPECT_EQ(result.args[0].size(), 8189u);
}

TEST_F(SendTest, OversizeReplyFailsWithErrorAndTheClientStaysUsable) {
  const IPCResult result = PingWithReply("1\t" + std::string(9000, 'x'));
  EXPECT_EQ(result.code, zel::ipc::ResultIoFailure);
  EXPECT_TRUE(result.args.empty());
  EXPECT_TRUE(HasRecord({LOG_ERR, std::string(kSendFormatStringText) + " 116: reply too long [8192]\n"}));
  EXPECT_EQ(PingWithReply("1\tPONG").args, Fields{"PONG"});
}

TEST_F(SendTest, DelayedReplyWithinTheTimeOutIsTaken) {
  mService.Script(zel::ipc::Ping, Answer::Reply("1\tSLOW", milliseconds(300)));
  EXPECT_EQ(mClient.Send(zel::ipc::Ping).args, Fields{"SLOW"});
}

TEST_F(SendTest, LogsTheSentAndReceivedTexts) {
  SyslogCapture::Clear();
  mClient.Send(zel::ipc::Ping);
  EXPECT_THAT(RecordsStartingWith("client "),
              ElementsAre(LogRecord{LOG_DEBUG, "client snd [1]\n"}, LogRecord{LOG_DEBUG, "client rcv [1\tPONG]\n"}));
}

TEST_F(SendTest, SendToAVanishedServiceIsIoFailure) {
  TempDir dir;
  auto service = std::make_unique<FakeService>(dir.File("gone"));
  service->Script(zel::ipc::UnregisterEventPath, Answer::Reply("1"));
  IPCClient client;
  ASSERT_TRUE(client.SetLocalPath(service->path(), dir.path(), nullptr));
  service.reset();
  EXPECT_EQ(client.Send(zel::ipc::Ping).code, zel::ipc::ResultIoFailure);
}

TEST_F(SendTest, SendRequestSendsAnyCommandNumber) {
  mService.Script(9, Answer::Reply("1\tnine"));
  const IPCResult result = mClient.SendRequest({
      9, {"a", "b"}
  });
  EXPECT_THAT(RequestTexts(), ElementsAre("9\ta\tb"));
  EXPECT_EQ(result.args, Fields{"nine"});
}

TEST_F(SendTest, SendFormatStringSendsTheLineAsItIs) {
  mService.Script(7, Answer::Reply("1"));
  EXPECT_EQ(mClient.SendFormatString("7\tx y\t").code, zel::ipc::ResultSuccess);
  EXPECT_THAT(RequestTexts(), ElementsAre("7\tx y\t"));
}

TEST_F(SendTest, ConcurrentSendsAreOneExchangeAtATime) {
  mService.Script(zel::ipc::Ping, Answer::Reply("1\tPONG", milliseconds(5)));
  mService.Script(zel::ipc::WlanMac, Answer::Reply("1\tMAC", milliseconds(5)));
  std::atomic<int> mismatches{0};
  auto sender = [&](IPCCommand cmd, const std::string& expected) {
    for (int i = 0; i < 20; ++i) {
      const IPCResult result = mClient.Send(cmd);
      if (result.args != Fields{expected}) ++mismatches;
    }
  };
  std::thread pings(sender, zel::ipc::Ping, "PONG");
  std::thread macs(sender, zel::ipc::WlanMac, "MAC");
  pings.join();
  macs.join();
  EXPECT_EQ(mismatches.load(), 0);
  const auto requests = mService.Requests();
  EXPECT_EQ(requests.size(), 40u);
  for (const auto& request : requests) EXPECT_EQ(request.repliesOwed, 0u) << request.text;
}

}  // namespace
}  // namespace zel::test
