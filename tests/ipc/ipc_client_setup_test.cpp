#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <memory>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "ipc/ipc_client.h"
#include "tests/ipc/client_test_env.h"
#include "tests/support/syslog_capture.h"

namespace zel::test {
namespace {

using ::testing::ElementsAre;
using zel::ipc::IPCClient;

std::string Pid() { return std::to_string(getpid()); }

class SetLocalPathTest : public ClientTest {
 protected:
  // The path the client sent its first ping from.
  std::string PingSender(IPCClient& client) {
    EXPECT_EQ(client.Send(zel::ipc::Ping).code, zel::ipc::ResultSuccess);
    const auto pings = mService.RequestsFor(zel::ipc::Ping);
    return pings.empty() ? std::string() : pings.front().sender;
  }
};

TEST(IPCClientTest, ConstructorLogsItsFunctionAndLine) {
  IPCClient client;
  EXPECT_THAT(SyslogCapture::Records(), ElementsAre(LogRecord{LOG_INFO, "zel::ipc::IPCClient::IPCClient() 21: \n"}));
}

TEST_F(SetLocalPathTest, DestroyingAClientNeverSetUpSendsNothing) {
  { IPCClient client; }
  EXPECT_TRUE(mService.Requests().empty());
  EXPECT_TRUE(RecordsStartingWith("client snd").empty());
}

TEST_F(SetLocalPathTest, MissingServiceSocketFailsWithInfo) {
  IPCClient client;
  const std::string missing = mDir.File("nothing");
  EXPECT_FALSE(client.SetLocalPath(missing, mDir.path(), nullptr));
  EXPECT_TRUE(
      HasRecord({LOG_INFO, std::string(kSetLocalPathText) + " 47: no server activated on [" + missing + "]\n"}));
  EXPECT_EQ(client.Send(zel::ipc::Ping).code, zel::ipc::ResultNotConnected);
}

TEST_F(SetLocalPathTest, MissingDirectoryFailsWithError) {
  IPCClient client;
  const std::string missing = mDir.File("nodir");
  EXPECT_FALSE(client.SetLocalPath(mService.path(), missing, nullptr));
  EXPECT_TRUE(HasRecord(
      {LOG_ERR, std::string(kSetLocalPathText) + " 53: no such directory for client socket [" + missing + "]\n"}));
  EXPECT_EQ(client.Send(zel::ipc::Ping).code, zel::ipc::ResultNotConnected);
}

TEST_F(SetLocalPathTest, FirstClientTakesSlotZero) {
  IPCClient client;
  ASSERT_TRUE(client.SetLocalPath(mService.path(), mDir.path(), nullptr));
  EXPECT_TRUE(FileExists(SlotPath(mDir.path(), 0)));
  EXPECT_EQ(PingSender(client), mDir.path() + "/ipc_client-" + Pid() + "-0");
}

TEST_F(SetLocalPathTest, OneTrailingSlashOfThePrefixIsDropped) {
  IPCClient client;
  ASSERT_TRUE(client.SetLocalPath(mService.path(), mDir.path() + "/", nullptr));
  EXPECT_EQ(PingSender(client), SlotPath(mDir.path(), 0));
}

TEST_F(SetLocalPathTest, OnlyOneOfTwoTrailingSlashesIsDropped) {
  IPCClient client;
  ASSERT_TRUE(client.SetLocalPath(mService.path(), mDir.path() + "//", nullptr));
  EXPECT_EQ(PingSender(client), mDir.path() + "//ipc_client-" + Pid() + "-0");
}

TEST_F(SetLocalPathTest, TakenSlotsZeroToEightLeaveSlotNine) {
  for (int slot = 0; slot <= 8; ++slot) Touch(SlotPath(mDir.path(), slot));
  IPCClient client;
  ASSERT_TRUE(client.SetLocalPath(mService.path(), mDir.path(), nullptr));
  EXPECT_EQ(PingSender(client), SlotPath(mDir.path(), 9));
}

TEST_F(SetLocalPathTest, AllTenSlotsTakenFailsNamingThePrefixAsGiven) {
  for (int slot = 0; slot <= 9; ++slot) Touch(SlotPath(mDir.path(), slot));
  IPCClient client;
  const std::string prefix = mDir.path() + "/";
  EXPECT_FALSE(client.SetLocalPath(mService.path(), prefix, nullptr));
  EXPECT_TRUE(HasRecord({LOG_INFO, std::string(kSetLocalPathText) + " 71: Cannot make more socket on pid [" + Pid() +
                                       "] at [" + prefix + "]\n"}));
  EXPECT_EQ(client.Send(zel::ipc::Ping).code, zel::ipc::ResultNotConnected);
}

TEST_F(SetLocalPathTest, ClientsOfOneProcessTakeSuccessiveSlots) {
  IPCClient first;
  IPCClient second;
  ASSERT_TRUE(first.SetLocalPath(mService.path(), mDir.path(), nullptr));
  ASSERT_TRUE(second.SetLocalPath(mService.path(), mDir.path(), nullptr));
  EXPECT_TRUE(FileExists(SlotPath(mDir.path(), 0)));
  EXPECT_TRUE(FileExists(SlotPath(mDir.path(), 1)));
}

TEST_F(SetLocalPathTest, SecondCallKeepsTheFirstPathsAndCallback) {
  TempDir otherDir;
  FakeService otherService(otherDir.File("service"));
  EventSink firstEvents;
  EventSink secondEvents;
  IPCClient client;
  ASSERT_TRUE(client.SetLocalPath(mService.path(), mDir.path(), firstEvents.Callback()));
  EXPECT_TRUE(client.SetLocalPath(otherService.path(), otherDir.path(), secondEvents.Callback()));

  EXPECT_EQ(PingSender(client), SlotPath(mDir.path(), 0));
  EXPECT_EQ(mService.RequestsFor(zel::ipc::RegisterEventPath).size(), 1u);
  EXPECT_TRUE(otherService.Requests().empty());
  EXPECT_FALSE(FileExists(SlotPath(otherDir.path(), 0)));
  ASSERT_TRUE(mService.SendTo(SlotPath(mDir.path(), 0) + "-event", "7"));
  ASSERT_TRUE(firstEvents.WaitForCount(1));
  EXPECT_TRUE(secondEvents.Events().empty());
}

TEST_F(SetLocalPathTest, CallbackMakesAndRegistersTheEventSocket) {
  IPCClient client;
  const size_t threadsBefore = ThreadCount();
  ASSERT_TRUE(client.SetLocalPath(mService.path(), mDir.path(), IgnoreEvents()));
  const std::string eventPath = SlotPath(mDir.path(), 0) + "-event";
  EXPECT_TRUE(FileExists(eventPath));
  EXPECT_THAT(RequestTexts(), ElementsAre("4\t" + eventPath));
  EXPECT_EQ(mService.Requests().front().sender, SlotPath(mDir.path(), 0));
  // The event server's monitor thread only: an accepted registration needs no retry.
  EXPECT_EQ(ThreadCount(), threadsBefore + 1);
}

TEST_F(SetLocalPathTest, EmptyCallbackMakesNoEventSocketNoRegistrationAndNoThread) {
  IPCClient client;
  const size_t threadsBefore = ThreadCount();
  ASSERT_TRUE(client.SetLocalPath(mService.path(), mDir.path(), nullptr));
  EXPECT_EQ(ThreadCount(), threadsBefore);
  EXPECT_FALSE(FileExists(SlotPath(mDir.path(), 0) + "-event"));
  EXPECT_EQ(client.Send(zel::ipc::Ping).code, zel::ipc::ResultSuccess);
  EXPECT_THAT(RequestTexts(), ElementsAre("1"));
}

TEST_F(SetLocalPathTest, EmptyCallbackStillUnregistersAtDestruction) {
  {
    IPCClient client;
    ASSERT_TRUE(client.SetLocalPath(mService.path(), mDir.path(), nullptr));
  }
  EXPECT_THAT(RequestTexts(), ElementsAre("5\t" + SlotPath(mDir.path(), 0) + "-event"));
}

TEST_F(SetLocalPathTest, DestructionUnregistersAndRemovesTheSocketFiles) {
  const std::string clientPath = SlotPath(mDir.path(), 0);
  {
    IPCClient client;
    ASSERT_TRUE(client.SetLocalPath(mService.path(), mDir.path(), IgnoreEvents()));
  }
  EXPECT_THAT(RequestTexts(), ElementsAre("4\t" + clientPath + "-event", "5\t" + clientPath + "-event"));
  EXPECT_FALSE(FileExists(clientPath));
  EXPECT_FALSE(FileExists(clientPath + "-event"));
}

TEST_F(SetLocalPathTest, ServicePathTooLongForASocketAddressFails) {
  const std::string longPath = mDir.File(std::string(120, 's'));
  Touch(longPath);
  IPCClient client;
  EXPECT_FALSE(client.SetLocalPath(longPath, mDir.path(), nullptr));
  EXPECT_TRUE(HasRecord({LOG_ERR, std::string(kSetLocalPathText) + " 49: socket path too long [" + longPath + "]\n"}));
  EXPECT_FALSE(FileExists(SlotPath(mDir.path(), 0)));
  EXPECT_EQ(client.Send(zel::ipc::Ping).code, zel::ipc::ResultNotConnected);
}

// A directory inside the temp dir whose client path of slot 0 is `length`
// bytes long.
std::string DirForClientPathLength(const TempDir& base, size_t length) {
  const size_t dirLength = length - std::string("/ipc_client-" + Pid() + "-0").size();
  const std::string dir = base.File(std::string(dirLength - base.path().size() - 1, 'd'));
  ::mkdir(dir.c_str(), 0700);
  return dir;
}

TEST_F(SetLocalPathTest, ClientPathTooLongForASocketAddressFails) {
  const std::string dir = DirForClientPathLength(mDir, 108);
  IPCClient client;
  EXPECT_FALSE(client.SetLocalPath(mService.path(), dir, nullptr));
  EXPECT_TRUE(
      HasRecord({LOG_ERR, std::string(kSetLocalPathText) + " 75: socket path too long [" + SlotPath(dir, 0) + "]\n"}));
  EXPECT_FALSE(FileExists(SlotPath(dir, 0)));
  EXPECT_EQ(client.Send(zel::ipc::Ping).code, zel::ipc::ResultNotConnected);
}

TEST_F(SetLocalPathTest, LongestClientPathThatFitsWorks) {
  const std::string dir = DirForClientPathLength(mDir, 107);
  IPCClient client;
  ASSERT_TRUE(client.SetLocalPath(mService.path(), dir, nullptr));
  EXPECT_EQ(PingSender(client), SlotPath(dir, 0));
}

TEST_F(SetLocalPathTest, EventPathTooLongFailsOnlyWithACallback) {
  const std::string dir = DirForClientPathLength(mDir, 105);
  IPCClient withEvents;
  EXPECT_FALSE(withEvents.SetLocalPath(mService.path(), dir, IgnoreEvents()));
  EXPECT_TRUE(HasRecord(
      {LOG_ERR, std::string(kSetLocalPathText) + " 75: socket path too long [" + SlotPath(dir, 0) + "-event]\n"}));
  EXPECT_TRUE(mService.Requests().empty());

  IPCClient withoutEvents;
  EXPECT_TRUE(withoutEvents.SetLocalPath(mService.path(), dir, nullptr));
}

}  // namespace
}  // namespace zel::test
