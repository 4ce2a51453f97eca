// Faults that must not hang the client or cost it its reply: a signal during
// the reply wait, a service whose queue is full, and a client destroyed by the
// very thread that holds its send mutex. Cases that wait out a time-out are
// each a test of their own, for CTest to run side by side.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "ipc/ipc_client.h"
#include "tests/ipc/client_test_env.h"
#include "tests/support/syslog_capture.h"

namespace zel::test {
namespace {

using zel::ipc::IPCClient;
using zel::ipc::IPCResult;
using Clock = std::chrono::steady_clock;
using Fields = std::vector<std::string>;

const LogRecord kInterruptedWait{
    LOG_ERR, "ssize_t zel::util::Socket::RecvTimedWait(void*, size_t, uint64_t) 639: res [-1] errno [4]\n"};
const LogRecord kRecvTimeOut{LOG_ERR, std::string(kSendFormatStringText) + " 112: Recv time out\n"};

size_t Count(const LogRecord& record) {
  size_t count = 0;
  for (const LogRecord& r : SyslogCapture::Records()) count += r == record ? 1 : 0;
  return count;
}

LogRecord SendTimeOut(const std::string& servicePath, uint64_t timeoutUs) {
  return {
      LOG_ERR,
      "bool zel::ipc::IPCClient::SendWhenWritable(const std::string&, ssize_t&) 231: Send time out, the service at [" +
          servicePath + "] takes no datagram within [" + std::to_string(timeoutUs) + "] us\n"};
}

// An empty handler installed without SA_RESTART, so that the signal cuts a
// wait short as Ctrl-C does in the program.
void OnTestSignal(int) {}

class SignalDuringWait {
 public:
  SignalDuringWait() {
    struct sigaction action = {};
    action.sa_handler = OnTestSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGUSR1, &action, &mPrevious);
  }
  ~SignalDuringWait() {
    if (mSender.joinable()) mSender.join();
    sigaction(SIGUSR1, &mPrevious, nullptr);
  }

  // Signals the calling thread once `service` has its request and the thread
  // sleeps in the reply wait.
  void Arm(FakeService& service) {
    ArmAfter([&service] { return service.WaitForRequestsFor(zel::ipc::Ping, 1); });
  }
  // Signals the calling thread once it sleeps in a wait of any kind.
  void ArmWhenWaiting() {
    ArmAfter([] { return true; });
  }
  bool Sent() {
    if (mSender.joinable()) mSender.join();
    return mArrived;
  }

 private:
  void ArmAfter(std::function<bool()> ready) {
    const pid_t tid = CurrentTid();
    const pthread_t thread = pthread_self();
    mSender = std::thread([ready, tid, thread, this] {
      mArrived = ready() && WaitUntilWaitingInSelect(tid);
      if (mArrived) pthread_kill(thread, SIGUSR1);
    });
  }

  struct sigaction mPrevious = {};
  std::thread mSender;
  bool mArrived = false;
};

class InterruptedWaitTest : public ClientTest {
 protected:
  // A ping during whose reply wait the thread takes a signal; `waited` is how
  // long the request took in all.
  IPCResult PingWithASignal(double& waited) {
    IPCClient client;
    EXPECT_TRUE(client.SetLocalPath(mService.path(), mDir.path(), nullptr));
    SignalDuringWait signal;
    signal.Arm(mService);
    const auto start = Clock::now();
    const IPCResult result = client.Send(zel::ipc::Ping);
    waited = SecondsBetween(start, Clock::now());
    EXPECT_TRUE(signal.Sent());
    return result;
  }
};

TEST_F(InterruptedWaitTest, SignalDuringTheReplyWaitStillTakesTheReply) {
  mService.Script(zel::ipc::Ping, Answer::Reply("1\tLATE", milliseconds(1500)));
  double waited = 0;
  const IPCResult result = PingWithASignal(waited);
  EXPECT_EQ(result.code, zel::ipc::ResultSuccess);
  EXPECT_EQ(result.args, Fields{"LATE"});
  EXPECT_EQ(Count(kInterruptedWait), 1u);
  EXPECT_EQ(Count(kRecvTimeOut), 0u);
  EXPECT_LT(waited, 4.5);
}

TEST_F(InterruptedWaitTest, SignalDuringTheReplyWaitLeavesTheFullTimeOut) {
  mService.Script(zel::ipc::Ping, Answer::Never());
  double waited = 0;
  const IPCResult result = PingWithASignal(waited);
  EXPECT_EQ(result.code, zel::ipc::ResultIoFailure);
  EXPECT_EQ(Count(kInterruptedWait), 1u);
  EXPECT_EQ(Count(kRecvTimeOut), 1u);
  // Measured from the request, not from the signal: 5 s in all.
  EXPECT_GE(waited, 4.9);
  EXPECT_LT(waited, 6.5);
}

// A datagram socket bound at a path that never reads: the service stuck with
// a full queue.
class StuckPeer {
 public:
  explicit StuckPeer(const std::string& path) : mPath(path) {
    mFd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = Address();
    ::unlink(path.c_str());
    mBound = ::bind(mFd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  }
  ~StuckPeer() {
    ::close(mFd);
    ::unlink(mPath.c_str());
  }
  StuckPeer(const StuckPeer&) = delete;
  StuckPeer& operator=(const StuckPeer&) = delete;

  bool Bound() const { return mBound; }

  // Sends from a socket of its own until the queue takes no more; the count
  // of datagrams it took.
  size_t Fill() const {
    const int filler = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = Address();
    size_t count = 0;
    while (::sendto(filler, "x", 1, MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 1) {
      ++count;
    }
    ::close(filler);
    return count;
  }

  // Every datagram waiting, in order.
  std::vector<std::string> Drain() const {
    std::vector<std::string> datagrams;
    char buffer[256];
    ssize_t n;
    while ((n = ::recv(mFd, buffer, sizeof(buffer), MSG_DONTWAIT)) >= 0) datagrams.emplace_back(buffer, n);
    return datagrams;
  }

 private:
  sockaddr_un Address() const {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, mPath.c_str(), sizeof(address.sun_path) - 1);
    return address;
  }

  std::string mPath;
  int mFd = -1;
  bool mBound = false;
};

TEST_F(ClientTest, RequestToAFullQueueFailsAfterTheTimeOut) {
  StuckPeer peer(mDir.File("stuck"));
  ASSERT_TRUE(peer.Bound());
  IPCClient client;
  ASSERT_TRUE(client.SetLocalPath(mDir.File("stuck"), mDir.path(), nullptr));
  ASSERT_GT(peer.Fill(), 0u);
  const auto start = Clock::now();
  const IPCResult result = client.Send(zel::ipc::Ping);
  const double waited = SecondsBetween(start, Clock::now());
  EXPECT_EQ(result.code, zel::ipc::ResultIoFailure);
  EXPECT_TRUE(HasRecord(SendTimeOut(mDir.File("stuck"), 5000000)));
  EXPECT_EQ(Count(kRecvTimeOut), 0u);
  EXPECT_GE(waited, 4.9);
  EXPECT_LT(waited, 6.5);
}

TEST_F(ClientTest, RequestThatCouldNotLeaveIsNotSentLaterAndTheNextOneGoesOut) {
  StuckPeer peer(mDir.File("stuck"));
  ASSERT_TRUE(peer.Bound());
  IPCClient client;
  ASSERT_TRUE(client.SetLocalPath(mDir.File("stuck"), mDir.path(), nullptr));
  client.SetReplyTimeout(200000);
  const size_t filled = peer.Fill();
  EXPECT_EQ(client.Send(zel::ipc::WlanMac).code, zel::ipc::ResultIoFailure);
  EXPECT_TRUE(HasRecord(SendTimeOut(mDir.File("stuck"), 200000)));
  EXPECT_EQ(peer.Drain().size(), filled);
  // Room again: the next request leaves (and, unanswered, times out).
  EXPECT_EQ(client.Send(zel::ipc::Ping).code, zel::ipc::ResultIoFailure);
  EXPECT_EQ(peer.Drain(), Fields{"1"});
  EXPECT_EQ(Count(kRecvTimeOut), 1u);
}

TEST_F(ClientTest, SignalWhileWaitingForRoomInAFullQueueLeavesTheFullTimeOut) {
  StuckPeer peer(mDir.File("stuck"));
  ASSERT_TRUE(peer.Bound());
  IPCClient client;
  ASSERT_TRUE(client.SetLocalPath(mDir.File("stuck"), mDir.path(), nullptr));
  client.SetReplyTimeout(2000000);
  const size_t filled = peer.Fill();
  ASSERT_GT(filled, 0u);
  SignalDuringWait signal;
  signal.ArmWhenWaiting();
  const auto start = Clock::now();
  EXPECT_EQ(client.Send(zel::ipc::Ping).code, zel::ipc::ResultIoFailure);
  const double waited = SecondsBetween(start, Clock::now());
  EXPECT_TRUE(signal.Sent());
  EXPECT_TRUE(HasRecord(SendTimeOut(mDir.File("stuck"), 2000000)));
  // The request never left, and the wait went on after the signal.
  EXPECT_EQ(peer.Drain().size(), filled);
  EXPECT_GE(waited, 1.9);
}

// The client that the signal handler destroys, as exit() from the program's
// handler destroys its global client.
IPCClient* gDyingClient = nullptr;
std::string* gDyingPaths = nullptr;

void DestroyClientFromHandler(int) {
  delete gDyingClient;
  const bool gone = !FileExists(gDyingPaths[0]) && !FileExists(gDyingPaths[1]);
  _exit(gone ? 0 : 3);
}

// A test's own child process: the client, its service and a signal that
// comes while the thread waits for a reply holding the send mutex.
void DieDuringARequest() {
  SyslogCapture::EchoToStderr(true);
  TempDir dir;
  FakeService service(dir.File("service"));
  service.Script(zel::ipc::RegisterEventPath, Answer::Reply("1"));
  service.Script(zel::ipc::UnregisterEventPath, Answer::Reply("1"));
  gDyingClient = new IPCClient;
  if (!gDyingClient->SetLocalPath(service.path(), dir.path(), IgnoreEvents())) _exit(4);
  static std::string paths[2] = {ClientTest::SlotPath(dir.path(), 0), ClientTest::SlotPath(dir.path(), 0) + "-event"};
  gDyingPaths = paths;
  signal(SIGUSR2, DestroyClientFromHandler);
  const pid_t tid = CurrentTid();
  const pthread_t thread = pthread_self();
  std::thread([&service, tid, thread] {
    if (service.WaitForRequestsFor(zel::ipc::Ping, 1) && WaitUntilWaitingInSelect(tid)) pthread_kill(thread, SIGUSR2);
  }).detach();
  gDyingClient->Send(zel::ipc::Ping);
  _exit(5);
}

TEST(IPCClientDeathTest, DestroyedByTheThreadHoldingTheSendMutexEndsWithinTheTimeOut) {
  // The handler destroys the client, which the thread sanitizer would report
  // as a signal-unsafe call; the program does the same through exit().
  const char* tsan = std::getenv("TSAN_OPTIONS");
  const std::string options = std::string(tsan != nullptr ? tsan : "") + ":report_signal_unsafe=0";
  setenv("TSAN_OPTIONS", options.c_str(), 1);
  // The record names the bounded wait; the child's ending at all, with its
  // sockets gone, is the rest.
  EXPECT_EXIT(DieDuringARequest(), ::testing::ExitedWithCode(0),
              "~IPCClient\\(\\) 31: a request still holds the send mutex after \\[5000000\\] us, \\[.*-event\\] not "
              "unregistered");
}

}  // namespace
}  // namespace zel::test
