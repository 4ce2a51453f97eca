// Sending with retry and receiving with and without a time-out.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait_until.h"
#include "tests/util/net_probe.h"
#include "tests/util/proc_probe.h"
#include "tests/util/test_pipe.h"
#include "util/socket.h"

namespace zel::util {
namespace {

using test::LogRecord;
using test::SyslogCapture;
using test::WaitUntil;
using ::testing::ElementsAre;
using testkit::TestPipe;

constexpr char kSendToFd[] = "ssize_t zel::util::Socket::SendTo(int, const void*, size_t)";
constexpr char kSendToDest[] = "ssize_t zel::util::Socket::SendTo(std::string, const void*, size_t)";
constexpr char kRecvTimedWait[] = "ssize_t zel::util::Socket::RecvTimedWait(void*, size_t, uint64_t)";

std::string ReceiveNow(int fd) {
  char buffer[256];
  const ssize_t n = recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT);
  return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : std::string();
}

sockaddr_un UnixAddress(const std::string& path) {
  sockaddr_un address;
  std::memset(&address, 0, sizeof(address));
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

class SocketSendTest : public ::testing::Test {
 protected:
  SocketSendTest()
      : mServer(mDir.File("srv"), SocketType::Datagram, SocketDomain::Unix),
        mClient(mDir.File("cli"), SocketType::Datagram, SocketDomain::Unix) {}

  void SetUp() override {
    ASSERT_GE(mServer.GetFd(), 0);
    ASSERT_GE(mClient.GetFd(), 0);
    SyslogCapture::Clear();
  }

  // Runs `send` (of "last") on another thread while the server's queue holds
  // `queued` one-byte datagrams: it retries until the queue is read, then
  // delivers.
  void ExpectRetriesUntilDrained(const std::function<ssize_t()>& send, const char* function, int line, int queued) {
    SyslogCapture::Clear();
    std::atomic<ssize_t> result{0};
    std::thread sender([&] { result = send(); });
    const LogRecord retry{LOG_ERR, std::string(function) + " " + std::to_string(line) + ": errno [" +
                                       std::to_string(EAGAIN) + "] send ret [-1] try one more time\n"};
    EXPECT_TRUE(SyslogCapture::WaitForRecord(retry));
    for (int i = 0; i < queued; ++i) EXPECT_EQ(ReceiveNow(mServer.GetFd()), "f");
    sender.join();
    EXPECT_EQ(result.load(), 4);
    EXPECT_TRUE(WaitUntil([&] { return ReceiveNow(mServer.GetFd()) == "last"; }));
  }

  test::TempDir mDir;
  Socket mServer;
  Socket mClient;
};

TEST_F(SocketSendTest, SendToAnAddressDeliversOneDatagram) {
  EXPECT_EQ(mClient.SendTo(mDir.File("srv"), "hello", 5), 5);
  EXPECT_EQ(ReceiveNow(mServer.GetFd()), "hello");
  EXPECT_TRUE(SyslogCapture::Records().empty());
}

TEST_F(SocketSendTest, SendToAnAddressTakesAString) {
  EXPECT_EQ(mClient.SendTo(mDir.File("srv"), std::string("abc")), 3);
  EXPECT_EQ(ReceiveNow(mServer.GetFd()), "abc");
}

TEST_F(SocketSendTest, SendToAnAbstractNameDelivers) {
  const std::string name = std::string(1, '\0') + "kdx-send-" + std::to_string(getpid());
  Socket receiver(name, SocketType::Datagram, SocketDomain::Unix);
  ASSERT_GE(receiver.GetFd(), 0);
  EXPECT_EQ(mClient.SendTo(name, "abs", 3), 3);
  EXPECT_EQ(ReceiveNow(receiver.GetFd()), "abs");
}

TEST_F(SocketSendTest, SendToAMissingAddressReturnsZero) {
  const std::string dest = mDir.File("none");
  EXPECT_EQ(mClient.SendTo(dest, "hello", 5), 0);
  EXPECT_THAT(SyslogCapture::Records(),
              ElementsAre(LogRecord{LOG_ERR, std::string(kSendToDest) + " 721: errno [" + std::to_string(ENOENT) +
                                                 "] cannot send data to [" + dest + "]\n"}));
}

TEST_F(SocketSendTest, SendToAnAddressRejectsEmptyData) {
  EXPECT_EQ(mClient.SendTo(mDir.File("srv"), "x", 0), -1);
  EXPECT_EQ(mClient.SendTo(mDir.File("srv"), nullptr, 1), -1);
  EXPECT_EQ(ReceiveNow(mServer.GetFd()), "");
  EXPECT_TRUE(SyslogCapture::Records().empty());
}

TEST_F(SocketSendTest, SendToAnAddressThatDoesNotFitFails) {
  const std::string dest = "/tmp/" + std::string(104, 'd');
  ASSERT_EQ(dest.size(), 109u);
  EXPECT_EQ(mClient.SendTo(dest, "x", 1), -1);
  EXPECT_THAT(SyslogCapture::Records(),
              ElementsAre(LogRecord{LOG_ERR, std::string(kSendToDest) + ": dest [" + dest +
                                                 "] of length [109] does not fit a unix address of [108] bytes\n"}));
}

TEST_F(SocketSendTest, SendToADescriptorWithZeroLengthMakesNoSystemCall) {
  TestPipe pipe;
  // A send on a pipe would fail and log; nothing is logged, so nothing is sent.
  EXPECT_EQ(mClient.SendTo(pipe.WriteFd(), "x", 0), -1);
  EXPECT_EQ(mClient.SendTo(pipe.WriteFd(), nullptr, 1), -1);
  EXPECT_EQ(mClient.SendTo(-1, "x", 1), -1);
  EXPECT_TRUE(SyslogCapture::Records().empty());
}

TEST_F(SocketSendTest, SendToADescriptorReturnsTheNegatedErrno) {
  TestPipe pipe;
  EXPECT_EQ(mClient.SendTo(pipe.WriteFd(), std::string("x")), -ENOTSOCK);
  EXPECT_THAT(SyslogCapture::Records(), ElementsAre(LogRecord{LOG_ERR, std::string(kSendToFd) + " 602: errno [" +
                                                                           std::to_string(ENOTSOCK) + "]\n"}));
}

TEST_F(SocketSendTest, SendOnAnUnconnectedSocketFails) { EXPECT_EQ(mClient.Send("x", 1), -ENOTCONN); }

TEST_F(SocketSendTest, SendOnAConnectedSocketDelivers) {
  ASSERT_EQ(mClient.Connect(mDir.File("srv")), zel::Result::Ok);
  EXPECT_EQ(mClient.Send(std::string("data")), 4);
  EXPECT_EQ(ReceiveNow(mServer.GetFd()), "data");
}

TEST_F(SocketSendTest, SendToADescriptorRetriesWhileTheQueueIsFull) {
  ASSERT_EQ(mClient.Connect(mDir.File("srv")), zel::Result::Ok);
  ASSERT_EQ(mClient.SetNonBlock(true), zel::Result::Ok);
  int queued = 0;
  while (send(mClient.GetFd(), "f", 1, 0) == 1) ++queued;
  ASSERT_EQ(errno, EAGAIN);
  ExpectRetriesUntilDrained([this] { return mClient.SendTo(mClient.GetFd(), "last", 4); }, kSendToFd, 597, queued);
}

TEST_F(SocketSendTest, SendToAnAddressRetriesWhileTheQueueIsFull) {
  ASSERT_EQ(mClient.SetNonBlock(true), zel::Result::Ok);
  const std::string dest = mDir.File("srv");
  const sockaddr_un address = UnixAddress(dest);
  int queued = 0;
  while (sendto(mClient.GetFd(), "f", 1, 0, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 1) {
    ++queued;
  }
  ASSERT_EQ(errno, EAGAIN);
  ExpectRetriesUntilDrained([this, dest] { return mClient.SendTo(dest, "last", 4); }, kSendToDest, 716, queued);
}

TEST_F(SocketSendTest, RecvReturnsWhatArrived) {
  ASSERT_EQ(mClient.SendTo(mDir.File("srv"), "abc", 3), 3);
  char buffer[8] = {};
  EXPECT_EQ(mServer.Recv(buffer, sizeof(buffer)), 3);
  EXPECT_STREQ(buffer, "abc");
}

TEST_F(SocketSendTest, RecvTimedWaitReturnsADatagramThatIsThere) {
  ASSERT_EQ(mClient.SendTo(mDir.File("srv"), "abc", 3), 3);
  char buffer[8] = {};
  EXPECT_EQ(mServer.RecvTimedWait(buffer, sizeof(buffer), 0), 3);
  EXPECT_STREQ(buffer, "abc");
  EXPECT_TRUE(SyslogCapture::Records().empty());
}

TEST_F(SocketSendTest, RecvTimedWaitReturnsADatagramThatArrivesLater) {
  std::thread sender([this] {
    // Sent from another thread while the receiver waits.
    EXPECT_EQ(mClient.SendTo(mDir.File("srv"), "late", 4), 4);
  });
  char buffer[8] = {};
  EXPECT_EQ(mServer.RecvTimedWait(buffer, sizeof(buffer), 5000000), 4);
  sender.join();
  EXPECT_STREQ(buffer, "late");
}

TEST_F(SocketSendTest, RecvTimedWaitKeepsTimeOutsBeyondThirtyTwoBits) {
  // 2^32 microseconds: cut to 32 bits it would be no wait at all, and the
  // datagram, sent only once the receiver waits in select, would be missed.
  const pid_t receiver = testkit::CurrentTid();
  std::thread sender([this, receiver] {
    ASSERT_TRUE(WaitUntil([receiver] { return testkit::InSelect(receiver); }));
    EXPECT_EQ(mClient.SendTo(mDir.File("srv"), "long", 4), 4);
  });
  char buffer[8] = {};
  EXPECT_EQ(mServer.RecvTimedWait(buffer, sizeof(buffer), UINT64_C(4294967296)), 4);
  sender.join();
  EXPECT_STREQ(buffer, "long");
  EXPECT_TRUE(SyslogCapture::Records().empty());
}

TEST_F(SocketSendTest, RecvTimedWaitOfOneAndAHalfSecondsExpires) {
  char buffer[8];
  errno = 0;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(mServer.RecvTimedWait(buffer, sizeof(buffer), 1500000), -1);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1400));
  EXPECT_THAT(SyslogCapture::Records(),
              ElementsAre(LogRecord{LOG_ERR, std::string(kRecvTimedWait) + " 639: res [0] errno [0]\n"}));
}

TEST_F(SocketSendTest, RecvTimedWaitErrorIsLogged) {
  TestPipe pipe;
  const int fd = pipe.ReadFd();
  pipe.Close();
  Socket closed(fd, SocketType::Datagram, SocketDomain::Unix);
  char buffer[8];
  EXPECT_EQ(closed.RecvTimedWait(buffer, sizeof(buffer), 1000), -1);
  EXPECT_THAT(SyslogCapture::Records(),
              ElementsAre(LogRecord{
                  LOG_ERR, std::string(kRecvTimedWait) + " 639: res [-1] errno [" + std::to_string(EBADF) + "]\n"}));
}

TEST_F(SocketSendTest, RecvTimedWaitRefusesADescriptorSelectCannotWatch) {
  Socket high(FD_SETSIZE, SocketType::Datagram, SocketDomain::Unix);
  char buffer[8];
  EXPECT_EQ(high.RecvTimedWait(buffer, sizeof(buffer), 1000), -1);
  EXPECT_THAT(SyslogCapture::Records(),
              ElementsAre(LogRecord{LOG_ERR, std::string(kRecvTimedWait) +
                                                 ": fd [1024] cannot be waited for by select (FD_SETSIZE [1024])\n"}));
}

}  // namespace
}  // namespace zel::util
