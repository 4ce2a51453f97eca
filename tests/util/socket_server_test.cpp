// Datagram socket servers: delivery to the data callback on the monitor
// thread, peer texts, buffer limits, concurrent senders and destruction.
#include "util/socket_server.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait_until.h"
#include "tests/util/inbox.h"
#include "tests/util/net_probe.h"
#include "tests/util/proc_probe.h"
#include "tests/util/socket_records.h"
#include "tests/util/test_pipe.h"
#include "util/socket_client.h"

namespace zel::util {
namespace {

using test::LogRecord;
using test::PathExists;
using test::SyslogCapture;
using test::WaitUntil;
using ::testing::Contains;
using ::testing::ElementsAre;
using testkit::Delivery;
using testkit::Inbox;
using testkit::kFdCallback;

int Pending(int fd) {
  char buffer[16];
  const ssize_t n = recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT | MSG_PEEK);
  return static_cast<int>(n);
}

class SocketServerTest : public ::testing::Test {
 protected:
  std::string ServerPath() const { return mDir.File("srv"); }
  std::unique_ptr<SocketServer> MakeServer() {
    return std::make_unique<SocketServer>(ServerPath(), SocketType::Datagram, SocketDomain::Unix, mInbox.Callback());
  }

  test::TempDir mDir;
  Inbox mInbox;
};

TEST_F(SocketServerTest, DatagramIsDeliveredWithThePeerPathAndAZeroByteAfterIt) {
  auto server = MakeServer();
  SocketClient client(mDir.File("c"), SocketType::Datagram, SocketDomain::Unix, ServerPath());
  ASSERT_EQ(client.Send("0123456789", 10), 10);
  ASSERT_TRUE(mInbox.WaitForDeliveries(1));
  const Delivery d = mInbox.Deliveries()[0];
  EXPECT_EQ(d.serverFd, server->GetFd());
  EXPECT_EQ(d.clientFd, 0);
  EXPECT_EQ(d.peer, mDir.File("c"));
  EXPECT_EQ(d.data, "0123456789");
  EXPECT_EQ(d.after, '\0');
}

TEST_F(SocketServerTest, DatagramFromAnUnboundSenderHasAnEmptyPeer) {
  auto server = MakeServer();
  SocketClient client("", SocketType::Datagram, SocketDomain::Unix, ServerPath());
  ASSERT_EQ(client.Send("x", 1), 1);
  ASSERT_TRUE(mInbox.WaitForDeliveries(1));
  EXPECT_EQ(mInbox.Deliveries()[0].peer, "");
}

TEST_F(SocketServerTest, DatagramFromAnAbstractSenderHasAnEmptyPeer) {
  auto server = MakeServer();
  const std::string name = std::string(1, '\0') + "kdx-srv-" + std::to_string(getpid());
  SocketClient client(name, SocketType::Datagram, SocketDomain::Unix, ServerPath());
  ASSERT_EQ(client.Send("x", 1), 1);
  ASSERT_TRUE(mInbox.WaitForDeliveries(1));
  EXPECT_EQ(mInbox.Deliveries()[0].peer, "");
}

TEST_F(SocketServerTest, DatagramLongerThanTheBufferIsCutTo8192Bytes) {
  auto server = MakeServer();
  SocketClient client("", SocketType::Datagram, SocketDomain::Unix, ServerPath());
  const std::string big(9000, 'b');
  ASSERT_EQ(client.Send(big), 9000);
  ASSERT_TRUE(mInbox.WaitForDeliveries(1));
  EXPECT_EQ(mInbox.Deliveries()[0].data, big.substr(0, 8192));
}

TEST_F(SocketServerTest, DatagramsFromEightThreadsAreAllDelivered) {
  auto server = MakeServer();
  constexpr int kThreads = 8;
  constexpr int kEach = 200;
  std::vector<std::thread> senders;
  for (int t = 0; t < kThreads; ++t) {
    senders.emplace_back([this, t] {
      SocketClient client(mDir.File("c" + std::to_string(t)), SocketType::Datagram, SocketDomain::Unix, ServerPath());
      for (int i = 0; i < kEach; ++i) {
        const std::string text = std::to_string(t) + ":" + std::to_string(i);
        EXPECT_EQ(client.Send(text), static_cast<ssize_t>(text.size()));
      }
    });
  }
  for (std::thread& sender : senders) sender.join();
  ASSERT_TRUE(mInbox.WaitForDeliveries(kThreads * kEach));
  std::set<std::string> received;
  for (const Delivery& d : mInbox.Deliveries()) {
    const std::string thread = d.data.substr(0, d.data.find(':'));
    EXPECT_EQ(d.peer, mDir.File("c" + thread));
    received.insert(d.data);
  }
  EXPECT_EQ(received.size(), static_cast<size_t>(kThreads * kEach));
}

TEST_F(SocketServerTest, ServerWithoutACallbackHasNoThreadAndLeavesDatagramsQueued) {
  testkit::SettleRuntimeThreads();
  const size_t before = testkit::ThreadCount();
  SocketServer server(ServerPath(), SocketType::Datagram, SocketDomain::Unix, nullptr);
  EXPECT_EQ(testkit::ThreadCount(), before);
  SocketClient client("", SocketType::Datagram, SocketDomain::Unix, ServerPath());
  ASSERT_EQ(client.Send("a", 1), 1);
  ASSERT_EQ(client.Send("b", 1), 1);
  EXPECT_EQ(Pending(server.GetFd()), 1);
  char buffer[4];
  EXPECT_EQ(server.Recv(buffer, sizeof(buffer)), 1);
  EXPECT_EQ(server.Recv(buffer, sizeof(buffer)), 1);
}

TEST_F(SocketServerTest, DestructionJoinsTheMonitorAndRemovesTheSocketFile) {
  std::atomic<pid_t> loopTid{0};
  auto server = std::make_unique<SocketServer>(ServerPath(), SocketType::Datagram, SocketDomain::Unix,
                                               [&loopTid](int, int, std::string, void*, size_t) {
                                                 loopTid = testkit::CurrentTid();
                                                 return true;
                                               });
  const int fd = server->GetFd();
  {
    SocketClient client("", SocketType::Datagram, SocketDomain::Unix, ServerPath());
    ASSERT_EQ(client.Send("x", 1), 1);
  }
  ASSERT_TRUE(WaitUntil([&] { return loopTid.load() != 0; }));
  EXPECT_TRUE(PathExists(ServerPath()));
  SyslogCapture::Clear();
  server.reset();
  EXPECT_FALSE(PathExists(ServerPath()));
  EXPECT_LT(fcntl(fd, F_GETFD), 0);
  EXPECT_TRUE(WaitUntil([&] { return !testkit::TaskExists(loopTid.load()); }));
  EXPECT_THAT(SyslogCapture::Records(),
              ElementsAre(LogRecord{LOG_INFO, "success to close socket [" + ServerPath() + "]\n"}));
}

TEST_F(SocketServerTest, ServerWithACallbackOwnsOneThread) {
  testkit::SettleRuntimeThreads();
  const size_t before = testkit::ThreadCount();
  auto server = MakeServer();
  EXPECT_EQ(testkit::ThreadCount(), before + 1);
}

TEST_F(SocketServerTest, ServersCanBeMadeAndDestroyedInQuickSuccession) {
  for (int i = 0; i < 50; ++i) MakeServer().reset();
  auto server = MakeServer();
  SocketClient client("", SocketType::Datagram, SocketDomain::Unix, ServerPath());
  ASSERT_EQ(client.Send("x", 1), 1);
  EXPECT_TRUE(mInbox.WaitForDeliveries(1));
}

TEST_F(SocketServerTest, EmptyDatagramIsLoggedAsAFailedReceive) {
  auto server = MakeServer();
  SocketClient client("", SocketType::Datagram, SocketDomain::Unix, ServerPath());
  ASSERT_EQ(send(client.GetFd(), "", 0, 0), 0);
  const std::string prefix =
      std::string(kFdCallback) + " 113: fd [" + std::to_string(server->GetFd()) + "] recvfrom errno [";
  EXPECT_TRUE(SyslogCapture::WaitFor([&](const std::vector<LogRecord>& records) {
    for (const LogRecord& r : records) {
      if (r.priority == LOG_ERR && r.text.rfind(prefix, 0) == 0) return true;
    }
    return false;
  }));
  EXPECT_TRUE(mInbox.Deliveries().empty());
}

TEST_F(SocketServerTest, SetConnectCallbackOnADatagramServerKeepsNothing) {
  auto server = MakeServer();
  auto token = std::make_shared<int>(0);
  server->SetConnectCallback([token](int, int, std::string) {});
  EXPECT_EQ(token.use_count(), 1);
}

TEST_F(SocketServerTest, RemoveFdOfAnUnknownDescriptorLogsNothing) {
  auto server = MakeServer();
  SyslogCapture::Clear();
  server->RemoveFd(12345);
  server->RemoveFd(server->GetFd());
  EXPECT_TRUE(SyslogCapture::Records().empty());
}

TEST_F(SocketServerTest, SendAcceptsOnlyTheServerDescriptor) {
  auto server = MakeServer();
  SyslogCapture::Clear();
  EXPECT_EQ(server->Send(server->GetFd() + 1, "x", 1), -1);
  EXPECT_TRUE(SyslogCapture::Records().empty());
  // The server's own socket is not connected anywhere.
  EXPECT_EQ(server->Send(server->GetFd(), std::string("x")), -ENOTCONN);
}

TEST_F(SocketServerTest, SendToReachesAClientPath) {
  auto server = MakeServer();
  SocketClient client(mDir.File("c"), SocketType::Datagram, SocketDomain::Unix, ServerPath());
  EXPECT_EQ(server->SendTo(mDir.File("c"), "reply"), 5);
  char buffer[8] = {};
  EXPECT_EQ(client.RecvTimedWait(buffer, sizeof(buffer), 5000000), 5);
  EXPECT_STREQ(buffer, "reply");
}

TEST_F(SocketServerTest, AddFdOnAServerWithoutCallbackIsRefused) {
  SocketServer server(ServerPath(), SocketType::Datagram, SocketDomain::Unix, nullptr);
  testkit::TestPipe pipe;
  SyslogCapture::Clear();
  server.AddFd(pipe.ReadFd(), "peer");
  std::string peer;
  EXPECT_FALSE(server.GetClient(pipe.ReadFd(), peer));
  EXPECT_THAT(SyslogCapture::Records(),
              ElementsAre(LogRecord{LOG_ERR, "void zel::util::SocketServer::AddFd(int, std::string): fd [" +
                                                 std::to_string(pipe.ReadFd()) +
                                                 "] cannot be watched: the server has no data callback\n"}));
}

TEST_F(SocketServerTest, ServerWhoseSocketFailedRegistersNothing) {
  auto server = std::make_unique<SocketServer>(mDir.File("missing/srv"), SocketType::Datagram, SocketDomain::Unix,
                                               mInbox.Callback());
  EXPECT_EQ(server->GetFd(), -1);
  EXPECT_THAT(SyslogCapture::Records(),
              Contains(LogRecord{LOG_ERR,
                                 "int zel::util::FdMonitor::AddFd(int, zel::util::FdType, zel::util::FdCallbackFn): "
                                 "fd [-1] cannot be watched by select (FD_SETSIZE [1024])\n"}));
  server.reset();
  EXPECT_TRUE(mInbox.Deliveries().empty());
}

TEST_F(SocketServerTest, Ipv4DatagramPeerIsAddressAndPort) {
  const std::string address = "127.0.0.1:" + std::to_string(testkit::FreePort(SOCK_DGRAM));
  SocketServer server(address, SocketType::Datagram, SocketDomain::IPv4, mInbox.Callback());
  Socket client("", SocketType::Datagram, SocketDomain::IPv4);
  ASSERT_EQ(client.SendTo(address, "x", 1), 1);
  ASSERT_TRUE(mInbox.WaitForDeliveries(1));
  EXPECT_EQ(mInbox.Deliveries()[0].peer, "127.0.0.1:" + std::to_string(testkit::LocalPort(client.GetFd())));
}

TEST_F(SocketServerTest, Ipv6DatagramPeerIsEmpty) {
  const int port = testkit::FreePort(SOCK_DGRAM, AF_INET6);
  SocketServer server("::1;" + std::to_string(port), SocketType::Datagram, SocketDomain::IPv6, mInbox.Callback());
  Socket client("", SocketType::Datagram, SocketDomain::IPv6);
  ASSERT_EQ(client.SendTo("::1;" + std::to_string(port), "x", 1), 1);
  ASSERT_TRUE(mInbox.WaitForDeliveries(1));
  EXPECT_EQ(mInbox.Deliveries()[0].peer, "");
}

TEST_F(SocketServerTest, RawServerReadsNothing) {
  auto server = testkit::MakeNetlink(
      [this] { return std::make_unique<SocketServer>("", SocketType::Raw, SocketDomain::Netlink, mInbox.Callback()); });
  ASSERT_GE(server->GetFd(), 0);
  SyslogCapture::Clear();
  server->FdCallback(server->GetFd(), FdType::Read);
  EXPECT_TRUE(mInbox.Deliveries().empty());
  EXPECT_TRUE(SyslogCapture::Records().empty());
}

}  // namespace
}  // namespace zel::util
