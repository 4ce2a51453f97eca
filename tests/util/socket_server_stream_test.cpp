// Stream socket servers: accepting connections, the registry of peers, data
// from each peer, and forgetting peers that close.
#include <fcntl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "tests/support/descriptor_filler.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/wait_until.h"
#include "tests/util/inbox.h"
#include "tests/util/net_probe.h"
#include "tests/util/proc_probe.h"
#include "tests/util/socket_records.h"
#include "tests/util/test_pipe.h"
#include "util/socket_client.h"
#include "util/socket_server.h"
#include "util/tls_wrapper.h"

namespace zel::util {
namespace {

using test::LogRecord;
using test::SyslogCapture;
using test::WaitUntil;
using ::testing::ElementsAre;
using testkit::Connection;
using testkit::Delivery;
using testkit::Inbox;
using testkit::kFdCallback;
using testkit::LocalPort;

class StreamServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    mAddress = "127.0.0.1:" + std::to_string(testkit::FreePort(SOCK_STREAM));
    mServer = std::make_unique<SocketServer>(mAddress, SocketType::Stream, SocketDomain::IPv4, mInbox.Callback());
    ASSERT_GE(mServer->GetFd(), 0);
    mServer->SetConnectCallback(mInbox.ConnectCb());
  }

  std::unique_ptr<SocketClient> Connect() {
    return std::make_unique<SocketClient>("", SocketType::Stream, SocketDomain::IPv4, mAddress);
  }

  std::string PeerOf(const SocketClient& client) const {
    return "127.0.0.1:" + std::to_string(LocalPort(client.GetFd()));
  }

  LogRecord AddRecord(int fd, const std::string& peer) const {
    return {LOG_DEBUG, std::string(kFdCallback) + " 68: add fd [" + std::to_string(fd) + "] path [" + peer +
                           "] server path [" + mAddress + "] proto [tcp]\n"};
  }

  Inbox mInbox;
  std::string mAddress;
  std::unique_ptr<SocketServer> mServer;
};

TEST_F(StreamServerTest, AcceptsTwoClientsAndReceivesFromEachWithItsPeerText) {
  auto first = Connect();
  ASSERT_TRUE(mInbox.WaitForConnections(1));
  auto second = Connect();
  ASSERT_TRUE(mInbox.WaitForConnections(2));
  const std::vector<Connection> connections = mInbox.Connections();
  EXPECT_EQ(connections[0].serverFd, mServer->GetFd());
  EXPECT_EQ(connections[0].peer, PeerOf(*first));
  EXPECT_EQ(connections[1].peer, PeerOf(*second));
  EXPECT_TRUE(SyslogCapture::WaitForRecord(AddRecord(connections[0].clientFd, connections[0].peer)));
  EXPECT_TRUE(SyslogCapture::WaitForRecord(AddRecord(connections[1].clientFd, connections[1].peer)));

  ASSERT_EQ(first->Send("one"), 3);
  ASSERT_TRUE(mInbox.WaitForDeliveries(1));
  ASSERT_EQ(second->Send("two"), 3);
  ASSERT_TRUE(mInbox.WaitForDeliveries(2));
  const std::vector<Delivery> deliveries = mInbox.Deliveries();
  EXPECT_EQ(deliveries[0].serverFd, mServer->GetFd());
  EXPECT_EQ(deliveries[0].clientFd, connections[0].clientFd);
  EXPECT_EQ(deliveries[0].peer, connections[0].peer);
  EXPECT_EQ(deliveries[0].data, "one");
  EXPECT_EQ(deliveries[0].after, '\0');
  EXPECT_EQ(deliveries[1].clientFd, connections[1].clientFd);
  EXPECT_EQ(deliveries[1].peer, connections[1].peer);
  EXPECT_EQ(deliveries[1].data, "two");
}

TEST_F(StreamServerTest, AClientThatClosesIsForgottenAndItsDescriptorClosed) {
  auto first = Connect();
  auto second = Connect();
  ASSERT_TRUE(mInbox.WaitForConnections(2));
  const Connection gone =
      mInbox.Connections()[0].peer == PeerOf(*first) ? mInbox.Connections()[0] : mInbox.Connections()[1];
  first.reset();
  const LogRecord removed{LOG_DEBUG, "void zel::util::SocketServer::RemoveFd(int) 196: remove fd [" +
                                         std::to_string(gone.clientFd) + "] path [" + gone.peer + "]\n"};
  ASSERT_TRUE(SyslogCapture::WaitForRecord(removed));
  std::string peer;
  EXPECT_FALSE(mServer->GetClient(gone.clientFd, peer));
  EXPECT_EQ(mServer->Send(gone.clientFd, "x", 1), -1);
  ASSERT_EQ(second->Send("still"), 5);
  ASSERT_TRUE(mInbox.WaitForDeliveries(1));
  EXPECT_EQ(mInbox.Deliveries()[0].data, "still");
}

TEST_F(StreamServerTest, SendReachesATrackedClient) {
  auto client = Connect();
  ASSERT_TRUE(mInbox.WaitForConnections(1));
  const int fd = mInbox.Connections()[0].clientFd;
  EXPECT_EQ(mServer->Send(fd, std::string("hello")), 5);
  char buffer[8] = {};
  EXPECT_EQ(client->RecvTimedWait(buffer, sizeof(buffer), 5000000), 5);
  EXPECT_STREQ(buffer, "hello");
}

TEST_F(StreamServerTest, AConnectionSelectCannotWatchIsClosedWithoutACallback) {
  // The client's socket takes the last number below the limit, the accepted
  // connection the first beyond it.
  test::DescriptorFiller filler(FD_SETSIZE - 1);
  auto client = Connect();
  ASSERT_EQ(client->GetFd(), FD_SETSIZE - 1);
  // The server's close shows as the end of the stream; the time limit only
  // keeps a broken server from hanging the test.
  const timeval limit{10, 0};
  ASSERT_EQ(setsockopt(client->GetFd(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)), 0);
  char byte = 0;
  EXPECT_EQ(recv(client->GetFd(), &byte, 1, 0), 0);
  EXPECT_TRUE(mInbox.Connections().empty());
  EXPECT_TRUE(SyslogCapture::WaitForRecord(
      {LOG_ERR,
       "int zel::util::FdMonitor::AddFd(int, zel::util::FdType, zel::util::FdCallbackFn): fd [1024] cannot "
       "be watched by select (FD_SETSIZE [1024])\n"}));
}

TEST_F(StreamServerTest, SendToAnUntrackedDescriptorFails) {
  testkit::TestPipe pipe;
  EXPECT_EQ(mServer->Send(pipe.WriteFd(), "x", 1), -1);
  EXPECT_EQ(pipe.Pending(), 0);
}

TEST_F(StreamServerTest, AddFdAndRemoveFdKeepTheRegistry) {
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  mServer->AddFd(pair[0], "pair peer");
  mServer->AddFd(pair[0], "other");
  std::string peer;
  ASSERT_TRUE(mServer->GetClient(pair[0], peer));
  EXPECT_EQ(peer, "pair peer");
  ASSERT_EQ(write(pair[1], "data", 4), 4);
  ASSERT_TRUE(mInbox.WaitForDeliveries(1));
  EXPECT_EQ(mInbox.Deliveries()[0].clientFd, pair[0]);
  EXPECT_EQ(mInbox.Deliveries()[0].peer, "pair peer");
  mServer->RemoveFd(pair[0]);
  EXPECT_FALSE(mServer->GetClient(pair[0], peer));
  EXPECT_GE(fcntl(pair[0], F_GETFD), 0);
  EXPECT_THAT(SyslogCapture::Records(),
              ::testing::Contains(LogRecord{LOG_DEBUG, "void zel::util::SocketServer::RemoveFd(int) 196: remove fd [" +
                                                           std::to_string(pair[0]) + "] path [pair peer]\n"}));
  close(pair[0]);
  close(pair[1]);
}

TEST_F(StreamServerTest, AReceiveErrorIsLoggedAndTheDescriptorClosed) {
  testkit::TestPipe pipe;
  const int fd = pipe.ReadFd();
  mServer->AddFd(fd, "pipe");
  // A pipe is not a socket: the receive fails.
  ASSERT_TRUE(pipe.Write("x"));
  const LogRecord failed{LOG_ERR, std::string(kFdCallback) + " 154: errno [" + std::to_string(ENOTSOCK) + "]\n"};
  ASSERT_TRUE(SyslogCapture::WaitForRecord(failed));
  ASSERT_TRUE(
      SyslogCapture::WaitForRecord(LogRecord{LOG_DEBUG, "void zel::util::SocketServer::RemoveFd(int) 196: remove fd [" +
                                                            std::to_string(fd) + "] path [pipe]\n"}));
  EXPECT_TRUE(WaitUntil([fd] { return fcntl(fd, F_GETFD) < 0; }));
  pipe.Release();
}

TEST_F(StreamServerTest, AnUnknownClientDescriptorIsDrainedOnce) {
  testkit::TestPipe pipe;
  ASSERT_TRUE(pipe.Write(std::string(9000, 'u')));
  mServer->FdCallback(pipe.ReadFd(), FdType::Read);
  EXPECT_EQ(pipe.Pending(), 9000 - 8192);
  EXPECT_THAT(SyslogCapture::Records(),
              ::testing::Contains(LogRecord{LOG_ERR, std::string(kFdCallback) + " 171: Unknown client fd [" +
                                                         std::to_string(pipe.ReadFd()) + "]\n"}));
  EXPECT_TRUE(mInbox.Deliveries().empty());
}

TEST_F(StreamServerTest, ATransportWrapperRefusesEveryConnection) {
  mServer->SetTls(std::make_unique<TlsWrapper>());
  auto client = Connect();
  ASSERT_TRUE(client->IsConnected());
  EXPECT_TRUE(SyslogCapture::WaitForRecord(LogRecord{LOG_ERR, std::string(kFdCallback) + " 81: \n"}));
  char buffer[4];
  // The refused connection was closed by the server.
  EXPECT_EQ(client->RecvTimedWait(buffer, sizeof(buffer), 5000000), 0);
  EXPECT_TRUE(mInbox.Connections().empty());
}

TEST(StreamServerIpv6Test, AcceptedPeerTextHasAddressAndPort) {
  Inbox inbox;
  const int port = testkit::FreePort(SOCK_STREAM, AF_INET6);
  const std::string address = "::1;" + std::to_string(port);
  SocketServer server(address, SocketType::Stream, SocketDomain::IPv6, inbox.Callback());
  server.SetConnectCallback(inbox.ConnectCb());
  SocketClient client("", SocketType::Stream, SocketDomain::IPv6, address);
  ASSERT_TRUE(inbox.WaitForConnections(1));
  EXPECT_EQ(inbox.Connections()[0].peer, "::1;" + std::to_string(LocalPort(client.GetFd())));
  ASSERT_EQ(client.Send("v6"), 2);
  ASSERT_TRUE(inbox.WaitForDeliveries(1));
  EXPECT_EQ(inbox.Deliveries()[0].data, "v6");
}

TEST(StreamServerNoCallbackTest, SetConnectCallbackOnAStreamServerKeepsIt) {
  const std::string address = "127.0.0.1:" + std::to_string(testkit::FreePort(SOCK_STREAM));
  SocketServer server(address, SocketType::Stream, SocketDomain::IPv4, nullptr);
  auto token = std::make_shared<int>(0);
  server.SetConnectCallback([token](int, int, std::string) {});
  EXPECT_EQ(token.use_count(), 2);
}

}  // namespace
}  // namespace zel::util
