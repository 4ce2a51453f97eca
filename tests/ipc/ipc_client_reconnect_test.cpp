// A service that goes away and comes back on the same path: the client makes
// its socket again on the next request, registers its event path with the
// new instance first, and sends the request once more.
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "ipc/ipc_client.h"
#include "tests/ipc/client_test_env.h"

namespace zel::test {
namespace {

using ::testing::ElementsAre;
using zel::ipc::IPCClient;
using zel::ipc::IPCResult;
using Clock = std::chrono::steady_clock;
using Fields = std::vector<std::string>;

constexpr char kReconnectText[] = "bool zel::ipc::IPCClient::Reconnect(const std::string&, ssize_t)";

// Leaves a socket file at `path` that nothing receives on, as a service that
// died without removing it does.
void LeaveDeadSocketFile(const std::string& path) {
  const int fd = ::socket(AF_UNIX, SOCK_DGRAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
  ::unlink(path.c_str());
  ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  ::close(fd);
}

class ReconnectTest : public ::testing::Test {
 protected:
  std::string ServicePath() const { return mDir.File("service"); }
  std::string EventPath() const { return ClientTest::SlotPath(mDir.path(), 0) + "-event"; }
  std::string Registration() const { return "4\t" + EventPath(); }

  // A service that answers ping, registration and unregistration at once.
  void StartService() {
    mService = std::make_unique<FakeService>(ServicePath());
    mService->Script(zel::ipc::Ping, Answer::Reply("1\tPONG"));
    mService->Script(zel::ipc::RegisterEventPath, Answer::Reply("1"));
    mService->Script(zel::ipc::UnregisterEventPath, Answer::Reply("1"));
  }
  // The service ends and its socket file goes with it.
  void StopService() { mService.reset(); }
  void RestartService() {
    StopService();
    StartService();
  }

  std::vector<std::string> RequestTexts() const {
    std::vector<std::string> texts;
    for (const FakeService::Request& request : mService->Requests()) texts.push_back(request.text);
    return texts;
  }

  LogRecord Reconnected(ssize_t sent) const {
    return {LOG_WARNING, std::string(kReconnectText) + " 293: service at [" + ServicePath() + "] gone (send [" +
                             std::to_string(sent) + "]), reconnected\n"};
  }
  LogRecord NotReconnected(ssize_t sent) const {
    return {LOG_WARNING, std::string(kReconnectText) + " 288: service at [" + ServicePath() + "] gone (send [" +
                             std::to_string(sent) + "]), cannot reconnect\n"};
  }

  TempDir mDir;
  std::unique_ptr<FakeService> mService;
};

TEST_F(ReconnectTest, RestartedServiceAnswersTheNextRequest) {
  StartService();
  IPCClient client;
  ASSERT_TRUE(client.SetLocalPath(ServicePath(), mDir.path(), nullptr));
  EXPECT_EQ(client.Send(zel::ipc::Ping).args, Fields{"PONG"});
  RestartService();
  const IPCResult result = client.Send(zel::ipc::Ping);
  EXPECT_EQ(result.code, zel::ipc::ResultSuccess);
  EXPECT_EQ(result.args, Fields{"PONG"});
  EXPECT_THAT(RequestTexts(), ElementsAre("1"));
  EXPECT_TRUE(HasRecord(Reconnected(-ECONNREFUSED)));
}

TEST_F(ReconnectTest, NewInstanceSeesTheRegistrationBeforeTheRequest) {
  StartService();
  IPCClient client;
  ASSERT_TRUE(client.SetLocalPath(ServicePath(), mDir.path(), IgnoreEvents()));
  RestartService();
  EXPECT_EQ(client.Send(zel::ipc::Ping).args, Fields{"PONG"});
  ASSERT_THAT(RequestTexts(), ElementsAre(Registration(), "1"));
  EXPECT_EQ(mService->Requests().front().sender, ClientTest::SlotPath(mDir.path(), 0));
}

TEST_F(ReconnectTest, EventsFromTheNewInstanceReachTheCallback) {
  StartService();
  EventSink events;
  IPCClient client;
  ASSERT_TRUE(client.SetLocalPath(ServicePath(), mDir.path(), events.Callback()));
  RestartService();
  ASSERT_EQ(client.Send(zel::ipc::Ping).code, zel::ipc::ResultSuccess);
  ASSERT_TRUE(mService->SendTo(EventPath(), "9\tback"));
  ASSERT_TRUE(events.WaitForCount(1));
  EXPECT_EQ(events.Events().front().id, 9);
}

TEST_F(ReconnectTest, AbsentServiceFailsAtOnceAndTheFirstRequestAfterItsReturnSucceeds) {
  StartService();
  IPCClient client;
  ASSERT_TRUE(client.SetLocalPath(ServicePath(), mDir.path(), IgnoreEvents()));
  StopService();
  const auto start = Clock::now();
  EXPECT_EQ(client.Send(zel::ipc::Ping).code, zel::ipc::ResultIoFailure);
  EXPECT_EQ(client.Send(zel::ipc::Ping).code, zel::ipc::ResultIoFailure);
  // No reply time-out is waited out.
  EXPECT_LT(SecondsBetween(start, Clock::now()), 2.0);
  EXPECT_TRUE(HasRecord(NotReconnected(-ECONNREFUSED)));
  // The socket made at the failed attempt was never connected.
  EXPECT_TRUE(HasRecord(NotReconnected(-1)));
  EXPECT_TRUE(RecordsStartingWith(std::string(kSendFormatStringText) + " 112").empty());

  StartService();
  EXPECT_EQ(client.Send(zel::ipc::Ping).args, Fields{"PONG"});
  EXPECT_THAT(RequestTexts(), ElementsAre(Registration(), "1"));
}

TEST_F(ReconnectTest, UnregistrationAtTheEndGoesToTheLiveInstance) {
  StartService();
  {
    IPCClient client;
    ASSERT_TRUE(client.SetLocalPath(ServicePath(), mDir.path(), IgnoreEvents()));
    RestartService();
  }
  // Registering only to unregister would be of no use.
  EXPECT_THAT(RequestTexts(), ElementsAre("5\t" + EventPath()));
}

TEST_F(ReconnectTest, SocketFilesStayInPlaceAcrossAReconnect) {
  StartService();
  IPCClient client;
  ASSERT_TRUE(client.SetLocalPath(ServicePath(), mDir.path(), IgnoreEvents()));
  RestartService();
  ASSERT_EQ(client.Send(zel::ipc::Ping).code, zel::ipc::ResultSuccess);
  EXPECT_TRUE(FileExists(ClientTest::SlotPath(mDir.path(), 0)));
  EXPECT_TRUE(FileExists(EventPath()));
}

TEST_F(ReconnectTest, RegistrationSentAfterARestartIsNotSentTwice) {
  StartService();
  IPCClient client;
  ASSERT_TRUE(client.SetLocalPath(ServicePath(), mDir.path(), IgnoreEvents()));
  RestartService();
  const std::string eventPath = EventPath();
  EXPECT_EQ(client.Send(zel::ipc::RegisterEventPath, eventPath).code, zel::ipc::ResultSuccess);
  EXPECT_THAT(RequestTexts(), ElementsAre(Registration()));
}

TEST_F(ReconnectTest, RefusedRegistrationAfterARestartIsCarriedOnByTheRetryThread) {
  StartService();
  IPCClient client;
  ASSERT_TRUE(client.SetLocalPath(ServicePath(), mDir.path(), IgnoreEvents()));
  RestartService();
  mService->Script(zel::ipc::RegisterEventPath, {Answer::Reply("0"), Answer::Reply("1")});
  EXPECT_EQ(client.Send(zel::ipc::Ping).args, Fields{"PONG"});
  // The retry thread, which had never run, tries again at once.
  ASSERT_TRUE(mService->WaitForRequestsFor(zel::ipc::RegisterEventPath, 2));
  EXPECT_THAT(RequestTexts(), ElementsAre(Registration(), "1", Registration()));
}

TEST_F(ReconnectTest, RetryThreadThatHadEndedRunsAgainWhenARestartLosesTheRegistration) {
  StartService();
  mService->Script(zel::ipc::RegisterEventPath, {Answer::Reply("0"), Answer::Reply("1")});
  IPCClient client;
  ASSERT_TRUE(client.SetLocalPath(ServicePath(), mDir.path(), IgnoreEvents()));
  // Refused at set-up, accepted by the retry thread's first attempt.
  ASSERT_TRUE(mService->WaitForRepliesSent(2));
  RestartService();
  mService->Script(zel::ipc::RegisterEventPath, {Answer::Reply("0"), Answer::Reply("1")});
  EXPECT_EQ(client.Send(zel::ipc::Ping).args, Fields{"PONG"});
  ASSERT_TRUE(mService->WaitForRequestsFor(zel::ipc::RegisterEventPath, 2));
  ASSERT_TRUE(mService->WaitForRepliesSent(3));
  EXPECT_THAT(RequestTexts(), ElementsAre(Registration(), "1", Registration()));
}

TEST_F(ReconnectTest, ServiceAbsentAtSetUpIsReachedOnceItServes) {
  LeaveDeadSocketFile(ServicePath());
  IPCClient client;
  const auto start = Clock::now();
  ASSERT_TRUE(client.SetLocalPath(ServicePath(), mDir.path(), nullptr));
  EXPECT_EQ(client.Send(zel::ipc::Ping).code, zel::ipc::ResultIoFailure);
  EXPECT_LT(SecondsBetween(start, Clock::now()), 2.0);
  EXPECT_TRUE(HasRecord(NotReconnected(-1)));
  StartService();
  EXPECT_EQ(client.Send(zel::ipc::Ping).args, Fields{"PONG"});
  EXPECT_TRUE(HasRecord(Reconnected(-1)));
}

}  // namespace
}  // namespace zel::test
