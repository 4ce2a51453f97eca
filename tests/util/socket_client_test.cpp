// The socket client: its connection rule, sending only while connected, and
// receiving with a time-out.
#include "util/socket_client.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/temp_dir.h"
#include "tests/util/net_probe.h"
#include "util/socket.h"
#include "util/tls_wrapper.h"

namespace zel::util {
namespace {

using test::LogRecord;
using test::SyslogCapture;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::HasSubstr;
using ::testing::Not;

const LogRecord kNoConnection{
    LOG_ERR, "ssize_t zel::util::SocketClient::Send(const void*, size_t) 49: Cannot Send without connection\n"};

std::string ReceiveFrom(int fd, std::string* sender = nullptr) {
  char buffer[256];
  sockaddr_un from;
  socklen_t length = sizeof(from);
  std::memset(&from, 0, sizeof(from));
  const ssize_t n = recvfrom(fd, buffer, sizeof(buffer), MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&from), &length);
  if (sender != nullptr) *sender = from.sun_path;
  return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : std::string();
}

class SocketClientTest : public ::testing::Test {
 protected:
  SocketClientTest() : mServer(mDir.File("srv"), SocketType::Datagram, SocketDomain::Unix) {}

  test::TempDir mDir;
  Socket mServer;
};

TEST_F(SocketClientTest, UnixClientConnectsToItsDestination) {
  SocketClient client(mDir.File("cli"), SocketType::Datagram, SocketDomain::Unix, mDir.File("srv"));
  EXPECT_TRUE(client.IsConnected());
  EXPECT_GE(client.GetFd(), 0);
}

TEST_F(SocketClientTest, SendReachesTheServerFromTheClientPath) {
  SocketClient client(mDir.File("cli"), SocketType::Datagram, SocketDomain::Unix, mDir.File("srv"));
  EXPECT_EQ(client.Send("ping", 4), 4);
  std::string sender;
  EXPECT_EQ(ReceiveFrom(mServer.GetFd(), &sender), "ping");
  EXPECT_EQ(sender, mDir.File("cli"));
}

TEST_F(SocketClientTest, SendOverloadsForwardTheirBytes) {
  SocketClient client("", SocketType::Datagram, SocketDomain::Unix, mDir.File("srv"));
  EXPECT_EQ(client.Send(std::string("one")), 3);
  EXPECT_EQ(client.Send(static_cast<const char*>("two!"), 3), 3);
  EXPECT_EQ(ReceiveFrom(mServer.GetFd()), "one");
  EXPECT_EQ(ReceiveFrom(mServer.GetFd()), "two");
}

TEST_F(SocketClientTest, SendWithoutAConnectionIsRefused) {
  SocketClient client(mDir.File("cli"), SocketType::Datagram, SocketDomain::Unix, mDir.File("none"));
  ASSERT_FALSE(client.IsConnected());
  SyslogCapture::Clear();
  EXPECT_EQ(client.Send("ping", 4), -1);
  EXPECT_THAT(SyslogCapture::Records(), ElementsAre(kNoConnection));
}

TEST_F(SocketClientTest, EmptyDestinationLeavesTheClientUnconnected) {
  SocketClient client(mDir.File("cli"), SocketType::Datagram, SocketDomain::Unix, "");
  EXPECT_FALSE(client.IsConnected());
  EXPECT_THAT(SyslogCapture::Records(), Not(Contains(Field(&LogRecord::text, HasSubstr("dest [")))));
  EXPECT_EQ(client.Send("x", 1), -1);
}

TEST_F(SocketClientTest, IpDatagramClientIsNeverConnected) {
  const std::string address = "127.0.0.1:" + std::to_string(testkit::FreePort(SOCK_DGRAM));
  Socket server(address, SocketType::Datagram, SocketDomain::IPv4);
  SyslogCapture::Clear();
  SocketClient client("", SocketType::Datagram, SocketDomain::IPv4, address);
  EXPECT_FALSE(client.IsConnected());
  EXPECT_THAT(SyslogCapture::Records(), Not(Contains(Field(&LogRecord::text, HasSubstr("dest [")))));
  EXPECT_EQ(client.Send("x", 1), -1);
  EXPECT_EQ(client.SendTo(address, "x", 1), 1);
}

TEST_F(SocketClientTest, IpStreamClientConnects) {
  const std::string address = "127.0.0.1:" + std::to_string(testkit::FreePort(SOCK_STREAM));
  Socket server(address, SocketType::Stream, SocketDomain::IPv4);
  ASSERT_EQ(server.Listen(5), zel::Result::Ok);
  SocketClient client("", SocketType::Stream, SocketDomain::IPv4, address);
  EXPECT_TRUE(client.IsConnected());
  EXPECT_EQ(client.Send("abc", 3), 3);
  std::string peer;
  const int fd = server.Accept(peer);
  ASSERT_GT(fd, 0);
  char buffer[4] = {};
  EXPECT_EQ(recv(fd, buffer, 3, MSG_WAITALL), 3);
  EXPECT_STREQ(buffer, "abc");
  close(fd);
}

TEST_F(SocketClientTest, RecvTimedWaitReturnsTheReply) {
  SocketClient client(mDir.File("cli"), SocketType::Datagram, SocketDomain::Unix, mDir.File("srv"));
  ASSERT_EQ(mServer.SendTo(mDir.File("cli"), "reply", 5), 5);
  char buffer[8] = {};
  EXPECT_EQ(client.RecvTimedWait(buffer, sizeof(buffer), 5000000), 5);
  EXPECT_STREQ(buffer, "reply");
}

TEST_F(SocketClientTest, RecvReturnsTheReply) {
  SocketClient client(mDir.File("cli"), SocketType::Datagram, SocketDomain::Unix, mDir.File("srv"));
  ASSERT_EQ(mServer.SendTo(mDir.File("cli"), "r", 1), 1);
  char buffer[4] = {};
  EXPECT_EQ(client.Recv(buffer, sizeof(buffer)), 1);
}

TEST_F(SocketClientTest, DestructionRemovesTheClientSocketFile) {
  { SocketClient client(mDir.File("cli"), SocketType::Datagram, SocketDomain::Unix, mDir.File("srv")); }
  EXPECT_NE(access(mDir.File("cli").c_str(), F_OK), 0);
}

TEST_F(SocketClientTest, WithATransportWrapperEveryTransferFails) {
  SocketClient client(mDir.File("cli"), SocketType::Datagram, SocketDomain::Unix, mDir.File("srv"));
  client.SetTls(std::make_unique<TlsWrapper>());
  ASSERT_EQ(mServer.SendTo(mDir.File("cli"), "r", 1), 1);
  SyslogCapture::Clear();
  char buffer[4] = {};
  EXPECT_EQ(client.Send("x", 1), -1);
  EXPECT_EQ(client.Recv(buffer, sizeof(buffer)), -1);
  EXPECT_EQ(client.RecvTimedWait(buffer, sizeof(buffer), 5000000), -1);
  EXPECT_EQ(ReceiveFrom(mServer.GetFd()), "");
  EXPECT_TRUE(SyslogCapture::Records().empty());
}

TEST(TlsWrapperTest, EveryOperationFails) {
  TlsWrapper tls;
  char buffer[4] = {};
  EXPECT_EQ(tls.Send(3, buffer, sizeof(buffer)), -1);
  EXPECT_EQ(tls.Recv(3, buffer, sizeof(buffer)), -1);
  EXPECT_EQ(tls.Accept(3), 6);
  EXPECT_EQ(tls.Forget(3), 0);
}

}  // namespace
}  // namespace zel::util
