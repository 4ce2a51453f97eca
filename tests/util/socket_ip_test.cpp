// IPv4, IPv6 and netlink sockets: address texts, binding, connecting,
// accepting and the multicast join.
#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/temp_dir.h"
#include "tests/util/net_probe.h"
#include "tests/util/socket_records.h"
#include "util/socket.h"

namespace zel::util {
namespace {

using test::LogRecord;
using test::SyslogCapture;
using ::testing::Contains;
using ::testing::ElementsAre;
using testkit::FreePort;
using testkit::kConnect;
using testkit::kInit;
using testkit::LocalIp;
using testkit::LocalPort;
using testkit::Made;

LogRecord Ipv4Bind(const std::string& ip, int port) {
  return {LOG_DEBUG,
          std::string(kInit) + " 263: multicast_ip [] ip [" + ip + "] port [" + std::to_string(port) + "]\n"};
}

TEST(SocketIpTest, Ipv4AddressBindsThatAddressAndPort) {
  const int port = FreePort(SOCK_DGRAM);
  const std::string text = "127.0.0.1:" + std::to_string(port);
  Socket socket(text, SocketType::Datagram, SocketDomain::IPv4);
  ASSERT_GE(socket.GetFd(), 0);
  EXPECT_EQ(LocalIp(socket.GetFd()), "127.0.0.1");
  EXPECT_EQ(LocalPort(socket.GetFd()), port);
  EXPECT_THAT(SyslogCapture::Records(), ElementsAre(Ipv4Bind("127.0.0.1", port), Made(socket.GetFd(), text)));
}

TEST(SocketIpTest, Ipv4ZeroAddressBindsTheWildcard) {
  const int port = FreePort(SOCK_DGRAM);
  Socket socket("0.0.0.0:" + std::to_string(port), SocketType::Datagram, SocketDomain::IPv4);
  ASSERT_GE(socket.GetFd(), 0);
  EXPECT_EQ(LocalIp(socket.GetFd()), "0.0.0.0");
  EXPECT_EQ(LocalPort(socket.GetFd()), port);
}

TEST(SocketIpTest, Ipv4PortZeroFails) {
  Socket socket("0.0.0.0:0", SocketType::Datagram, SocketDomain::IPv4);
  EXPECT_EQ(socket.GetFd(), -1);
  EXPECT_THAT(SyslogCapture::Records(),
              ElementsAre(LogRecord{LOG_ERR, std::string(kInit) + " 248: ip [0.0.0.0] port [0]\n"}));
}

TEST(SocketIpTest, Ipv4PortAboveRangeFails) {
  Socket socket(":70000", SocketType::Datagram, SocketDomain::IPv4);
  EXPECT_EQ(socket.GetFd(), -1);
  EXPECT_THAT(SyslogCapture::Records(),
              ElementsAre(LogRecord{LOG_ERR, std::string(kInit) + " 248: ip [] port [70000]\n"}));
}

TEST(SocketIpTest, Ipv4TextWithoutSeparatorIsAPortOnTheWildcard) {
  Socket socket("127.0.0.1", SocketType::Datagram, SocketDomain::IPv4);
  EXPECT_EQ(SyslogCapture::Records().front(), Ipv4Bind("", 127));
  // Port 127 needs privileges; where it could be bound, check the binding.
  if (socket.GetFd() >= 0) {
    EXPECT_EQ(LocalIp(socket.GetFd()), "0.0.0.0");
    EXPECT_EQ(LocalPort(socket.GetFd()), 127);
  }
}

TEST(SocketIpTest, Ipv4HostNameFailsTheConversion) {
  Socket socket("host:port", SocketType::Datagram, SocketDomain::IPv4);
  EXPECT_EQ(socket.GetFd(), -1);
  EXPECT_THAT(SyslogCapture::Records(), ElementsAre(LogRecord{LOG_ERR, std::string(kInit) + " 242: \n"}));
}

TEST(SocketIpTest, Ipv6TextBindsTheUnspecifiedAddressOnItsPort) {
  const int port = FreePort(SOCK_DGRAM, AF_INET6);
  const std::string text = "fe80::1;" + std::to_string(port);
  Socket socket(text, SocketType::Datagram, SocketDomain::IPv6);
  ASSERT_GE(socket.GetFd(), 0);
  EXPECT_EQ(LocalIp(socket.GetFd()), "::");
  EXPECT_EQ(LocalPort(socket.GetFd()), port);
  EXPECT_THAT(SyslogCapture::Records(), ElementsAre(Made(socket.GetFd(), text)));
}

TEST(SocketIpTest, Ipv6PortZeroFails) {
  Socket socket("::1;0", SocketType::Datagram, SocketDomain::IPv6);
  EXPECT_EQ(socket.GetFd(), -1);
  EXPECT_THAT(SyslogCapture::Records(),
              ElementsAre(LogRecord{LOG_ERR, std::string(kInit) + " 248: ip [::1] port [0]\n"}));
}

TEST(SocketIpTest, NetlinkSocketBindsWithACountedPortIdAndTheRouteGroups) {
  auto first =
      testkit::MakeNetlink([] { return std::make_unique<Socket>("", SocketType::Datagram, SocketDomain::Netlink); });
  auto second =
      testkit::MakeNetlink([] { return std::make_unique<Socket>("", SocketType::Raw, SocketDomain::Netlink); });
  ASSERT_GE(first->GetFd(), 0);
  ASSERT_GE(second->GetFd(), 0);
  sockaddr_nl a;
  sockaddr_nl b;
  socklen_t length = sizeof(a);
  ASSERT_EQ(getsockname(first->GetFd(), reinterpret_cast<sockaddr*>(&a), &length), 0);
  length = sizeof(b);
  ASSERT_EQ(getsockname(second->GetFd(), reinterpret_cast<sockaddr*>(&b), &length), 0);
  const uint32_t base = static_cast<uint32_t>(getpid()) + 0xF0000000u;
  EXPECT_LT(a.nl_pid - base, 1000u);
  // Consecutive unless another process held the next id.
  EXPECT_GE(b.nl_pid - a.nl_pid, 1u);
  EXPECT_LE(b.nl_pid - a.nl_pid, 21u);
  EXPECT_EQ(a.nl_groups, 0x00000FFBu);
  EXPECT_THAT(SyslogCapture::Records(), Contains(Made(first->GetFd(), "")));
  EXPECT_THAT(SyslogCapture::Records(), Contains(Made(second->GetFd(), "")));
}

TEST(SocketIpTest, NetlinkStreamSocketCannotBeCreated) {
  Socket socket("", SocketType::Stream, SocketDomain::Netlink);
  EXPECT_EQ(socket.GetFd(), -1);
  ASSERT_EQ(SyslogCapture::Records().size(), 1u);
  EXPECT_EQ(SyslogCapture::Records()[0].text.rfind("Init 150 : socket failed, errno[", 0), 0u);
}

TEST(SocketIpTest, SplitAddressFailsForUnix) {
  Socket socket("", SocketType::Datagram, SocketDomain::Unix);
  std::string ip = "keep";
  int port = 7;
  EXPECT_EQ(socket.SplitAddress("1.2.3.4:5", ip, port), zel::Result::Fail);
  EXPECT_EQ(ip, "keep");
  EXPECT_EQ(port, 7);
}

TEST(SocketIpTest, SplitAddressOfAnEmptyTextLeavesBothUntouched) {
  Socket socket("", SocketType::Datagram, SocketDomain::IPv4);
  std::string ip = "keep";
  int port = 7;
  EXPECT_EQ(socket.SplitAddress("", ip, port), zel::Result::Ok);
  EXPECT_EQ(ip, "keep");
  EXPECT_EQ(port, 7);
}

TEST(SocketIpTest, SplitAddressSplitsAtTheFirstColonForIpv4) {
  Socket socket("", SocketType::Datagram, SocketDomain::IPv4);
  std::string ip;
  int port = 0;
  EXPECT_EQ(socket.SplitAddress("10.0.0.1:8080", ip, port), zel::Result::Ok);
  EXPECT_EQ(ip, "10.0.0.1");
  EXPECT_EQ(port, 8080);
}

TEST(SocketIpTest, SplitAddressSplitsAtTheSemicolonForIpv6) {
  Socket socket("", SocketType::Datagram, SocketDomain::IPv6);
  std::string ip;
  int port = 0;
  EXPECT_EQ(socket.SplitAddress("fe80::1;443", ip, port), zel::Result::Ok);
  EXPECT_EQ(ip, "fe80::1");
  EXPECT_EQ(port, 443);
}

TEST(SocketIpTest, SplitAddressReadsThePortLikeStoi) {
  Socket socket("", SocketType::Datagram, SocketDomain::IPv4);
  std::string ip;
  int port = 0;
  EXPECT_EQ(socket.SplitAddress("a: 80x", ip, port), zel::Result::Ok);
  EXPECT_EQ(ip, "a");
  EXPECT_EQ(port, 80);
}

TEST(SocketIpTest, SplitAddressWithoutSeparatorKeepsTheIp) {
  Socket socket("", SocketType::Datagram, SocketDomain::IPv4);
  std::string ip = "keep";
  int port = 0;
  EXPECT_EQ(socket.SplitAddress("42", ip, port), zel::Result::Ok);
  EXPECT_EQ(ip, "keep");
  EXPECT_EQ(port, 42);
}

TEST(SocketIpTest, SplitAddressFailsWithPortZeroWithoutDigits) {
  Socket socket("", SocketType::Datagram, SocketDomain::IPv4);
  std::string ip;
  int port = 9;
  EXPECT_EQ(socket.SplitAddress("host:port", ip, port), zel::Result::Fail);
  EXPECT_EQ(ip, "host");
  EXPECT_EQ(port, 0);
}

TEST(SocketIpTest, SplitAddressFailsForAPortOutOfIntRange) {
  Socket socket("", SocketType::Datagram, SocketDomain::IPv4);
  std::string ip;
  int port = 9;
  EXPECT_EQ(socket.SplitAddress("h:99999999999", ip, port), zel::Result::Fail);
  EXPECT_EQ(port, 0);
}

TEST(SocketIpTest, SplitAddressFailsForNetlinkUnlessEmpty) {
  Socket socket("", SocketType::Datagram, SocketDomain::Netlink);
  std::string ip;
  int port = 0;
  EXPECT_EQ(socket.SplitAddress("", ip, port), zel::Result::Ok);
  EXPECT_EQ(socket.SplitAddress("1:2", ip, port), zel::Result::Fail);
}

TEST(SocketIpTest, ConnectToAMulticastGroupJoinsItWithoutConnecting) {
  Socket socket("", SocketType::Datagram, SocketDomain::IPv4);
  SyslogCapture::Clear();
  EXPECT_EQ(socket.Connect("239.1.2.3:5000"), zel::Result::Ok);
  EXPECT_FALSE(socket.IsConnected());
  // Whether the host can join depends on its routes; either way one record.
  const std::vector<LogRecord> records = SyslogCapture::Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_TRUE(records[0] == (LogRecord{LOG_INFO, "success to join multicast on [239.1.2.3]\n"}) ||
              records[0] ==
                  (LogRecord{LOG_ERR, std::string(kConnect) + " 497: Cannot join multicast on [239.1.2.3]\n"}))
      << records[0].text;
}

TEST(SocketIpTest, ConnectWithABadPortFailsSilently) {
  Socket socket("", SocketType::Datagram, SocketDomain::IPv4);
  SyslogCapture::Clear();
  EXPECT_EQ(socket.Connect("127.0.0.1:x"), zel::Result::Fail);
  EXPECT_TRUE(SyslogCapture::Records().empty());
}

TEST(SocketIpTest, Ipv4DatagramConnectSetsTheDefaultPeer) {
  const int port = FreePort(SOCK_DGRAM);
  const std::string address = "127.0.0.1:" + std::to_string(port);
  Socket server(address, SocketType::Datagram, SocketDomain::IPv4);
  Socket client("", SocketType::Datagram, SocketDomain::IPv4);
  SyslogCapture::Clear();
  ASSERT_EQ(client.Connect(address), zel::Result::Ok);
  EXPECT_TRUE(client.IsConnected());
  EXPECT_EQ(client.Send("ping"), 4);
  char buffer[8] = {};
  EXPECT_EQ(server.RecvTimedWait(buffer, sizeof(buffer), 5000000), 4);
  EXPECT_STREQ(buffer, "ping");
  EXPECT_THAT(
      SyslogCapture::Records(),
      ElementsAre(LogRecord{LOG_INFO, "dest [" + address + "]\n"},
                  LogRecord{LOG_DEBUG, std::string(kConnect) + " 551: [] success to connect [" + address + "]\n"}));
}

TEST(SocketIpTest, AcceptGivesTheIpv4PeerText) {
  const std::string address = "127.0.0.1:" + std::to_string(FreePort(SOCK_STREAM));
  Socket server(address, SocketType::Stream, SocketDomain::IPv4);
  ASSERT_EQ(server.Listen(5), zel::Result::Ok);
  Socket client("", SocketType::Stream, SocketDomain::IPv4);
  ASSERT_EQ(client.Connect(address), zel::Result::Ok);
  std::string peer = "old";
  const int fd = server.Accept(peer);
  ASSERT_GT(fd, 0);
  EXPECT_EQ(peer, "127.0.0.1:" + std::to_string(LocalPort(client.GetFd())));
  EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
  close(fd);
}

TEST(SocketIpTest, AcceptGivesTheIpv6PeerText) {
  const int port = FreePort(SOCK_STREAM, AF_INET6);
  Socket server("::1;" + std::to_string(port), SocketType::Stream, SocketDomain::IPv6);
  ASSERT_EQ(server.Listen(5), zel::Result::Ok);
  Socket client("", SocketType::Stream, SocketDomain::IPv6);
  ASSERT_EQ(client.Connect("::1;" + std::to_string(port)), zel::Result::Ok);
  std::string peer;
  const int fd = server.Accept(peer);
  ASSERT_GT(fd, 0);
  EXPECT_EQ(peer, "::1;" + std::to_string(LocalPort(client.GetFd())));
  close(fd);
}

TEST(SocketIpTest, AcceptFailureLeavesThePeerEmpty) {
  Socket socket("", SocketType::Stream, SocketDomain::IPv4);
  std::string peer = "old";
  EXPECT_LT(socket.Accept(peer), 0);
  EXPECT_EQ(peer, "");
}

TEST(SocketIpTest, UnconnectedStreamSocketLogsTheFailedShutdown) {
  int fd = -1;
  {
    Socket socket("", SocketType::Stream, SocketDomain::IPv4);
    fd = socket.GetFd();
    SyslogCapture::Clear();
  }
  EXPECT_THAT(SyslogCapture::Records(),
              ElementsAre(LogRecord{LOG_WARNING, "shutdown fd [" + std::to_string(fd) + "] errno [" +
                                                     std::to_string(ENOTCONN) + "]\n"},
                          LogRecord{LOG_INFO, "success to close socket []\n"}));
}

// Changes the working directory for one test and back.
class WorkingDirectory {
 public:
  explicit WorkingDirectory(const std::string& dir) {
    char* old = getcwd(nullptr, 0);
    mOld = old != nullptr ? old : "/";
    free(old);
    mOk = chdir(dir.c_str()) == 0;
  }
  ~WorkingDirectory() {
    if (chdir(mOld.c_str()) != 0) std::abort();
  }
  bool ok() const { return mOk; }

 private:
  std::string mOld;
  bool mOk;
};

TEST(SocketIpTest, DestructionRemovesAFileNamedLikeTheAddressText) {
  test::TempDir dir;
  const std::string address = "127.0.0.1:" + std::to_string(FreePort(SOCK_DGRAM));
  WorkingDirectory cwd(dir.path());
  ASSERT_TRUE(cwd.ok());
  std::ofstream(dir.File(address)) << "x";
  { Socket socket(address, SocketType::Datagram, SocketDomain::IPv4); }
  struct stat info;
  EXPECT_NE(lstat(dir.File(address).c_str(), &info), 0);
}

}  // namespace
}  // namespace zel::util
