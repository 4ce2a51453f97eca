// Creation, binding, connecting and destruction of Unix-domain sockets, and the
// checks every domain shares.
#include "util/socket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <memory>
#include <string>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/temp_dir.h"
#include "tests/util/net_probe.h"
#include "tests/util/socket_records.h"
#include "tests/util/test_pipe.h"

namespace zel::util {
namespace {

using test::LogRecord;
using test::PathExists;
using test::SyslogCapture;
using ::testing::ElementsAre;
using testkit::kConnect;
using testkit::kInit;
using testkit::LocalUnixPath;
using testkit::Made;
using testkit::TestPipe;

constexpr char kListen[] = "zel::Result zel::util::Socket::Listen(int)";
constexpr char kSetReuse[] = "zel::Result zel::util::Socket::SetReuseAddress()";

bool IsSocketFile(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0 && S_ISSOCK(info.st_mode);
}

TEST(SocketTest, BindReplacesAFileAtItsPathAndDestructionRemovesIt) {
  test::TempDir dir;
  const std::string path = dir.File("s");
  std::ofstream(path) << "stale";
  ASSERT_TRUE(PathExists(path));
  int fd = -1;
  {
    Socket socket(path, SocketType::Datagram, SocketDomain::Unix);
    fd = socket.GetFd();
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(IsSocketFile(path));
    EXPECT_EQ(LocalUnixPath(fd), path);
  }
  EXPECT_FALSE(PathExists(path));
  EXPECT_THAT(SyslogCapture::Records(),
              ElementsAre(Made(fd, path), LogRecord{LOG_INFO, "success to close socket [" + path + "]\n"}));
}

TEST(SocketTest, ConstructorSetsItsFields) {
  test::TempDir dir;
  Socket socket(dir.File("s"), SocketType::Datagram, SocketDomain::Unix);
  EXPECT_FALSE(socket.IsConnected());
  EXPECT_EQ(socket.GetPath(), dir.File("s"));
  EXPECT_EQ(socket.GetSocketType(), SocketType::Datagram);
  EXPECT_EQ(socket.GetSocketDomain(), SocketDomain::Unix);
  EXPECT_TRUE(socket.OwnsFd());
}

TEST(SocketTest, EmptyPathGivesAnUnboundValidDescriptor) {
  Socket socket("", SocketType::Datagram, SocketDomain::Unix);
  ASSERT_GE(socket.GetFd(), 0);
  EXPECT_GE(fcntl(socket.GetFd(), F_GETFD), 0);
  EXPECT_EQ(LocalUnixPath(socket.GetFd()), "");
  EXPECT_THAT(SyslogCapture::Records(),
              ElementsAre(LogRecord{LOG_DEBUG, std::string(kInit) + " 157: no path specified\n"}));
}

TEST(SocketTest, InitOfAnEmptyPathReturnsOk) {
  Socket socket("", SocketType::Datagram, SocketDomain::Unix);
  const int first = socket.GetFd();
  EXPECT_EQ(socket.Init(), zel::Result::Ok);
  EXPECT_GE(socket.GetFd(), 0);
  close(first);
}

TEST(SocketTest, UnboundSocketDestructionLogsAnEmptyPath) {
  { Socket socket("", SocketType::Datagram, SocketDomain::Unix); }
  EXPECT_EQ(SyslogCapture::Records().back(), (LogRecord{LOG_INFO, "success to close socket []\n"}));
}

TEST(SocketTest, UnknownDomainIsRejected) {
  Socket socket("", SocketType::Datagram, static_cast<SocketDomain>(4));
  EXPECT_EQ(socket.GetFd(), -1);
  EXPECT_THAT(SyslogCapture::Records(), ElementsAre(LogRecord{LOG_ERR, "Init 119 : unknown mSocketDomain [4]\n"}));
}

TEST(SocketTest, TypeZeroIsRejected) {
  Socket socket("", static_cast<SocketType>(0), SocketDomain::Unix);
  EXPECT_EQ(socket.GetFd(), -1);
  EXPECT_THAT(SyslogCapture::Records(), ElementsAre(LogRecord{LOG_ERR, "Init 141 : unknown mSocketType [0]\n"}));
}

TEST(SocketTest, TypeAboveThreeIsRejected) {
  Socket socket("", static_cast<SocketType>(4), SocketDomain::Unix);
  EXPECT_EQ(socket.GetFd(), -1);
  EXPECT_THAT(SyslogCapture::Records(), ElementsAre(LogRecord{LOG_ERR, "Init 141 : unknown mSocketType [4]\n"}));
}

TEST(SocketTest, UnixStreamSocketCannotBeCreated) {
  const int probe = socket(AF_UNIX, SOCK_STREAM, 6);
  const int expectedErrno = errno;
  ASSERT_LT(probe, 0);
  test::TempDir dir;
  Socket socket(dir.File("s"), SocketType::Stream, SocketDomain::Unix);
  EXPECT_EQ(socket.GetFd(), -1);
  EXPECT_FALSE(PathExists(dir.File("s")));
  EXPECT_THAT(SyslogCapture::Records(), ElementsAre(LogRecord{LOG_ERR, "Init 150 : socket failed, errno[" +
                                                                           std::to_string(expectedErrno) + "]\n"}));
}

TEST(SocketTest, FailedSocketFailsEveryLaterOperation) {
  Socket socket("", static_cast<SocketType>(0), SocketDomain::Unix);
  SyslogCapture::Clear();
  char buffer[4];
  std::string peer;
  EXPECT_EQ(socket.Listen(5), zel::Result::Fail);
  EXPECT_EQ(socket.SetNonBlock(true), zel::Result::Fail);
  EXPECT_EQ(socket.SetReuseAddress(), zel::Result::Fail);
  EXPECT_EQ(socket.Send("x", 1), -1);
  EXPECT_EQ(socket.SendTo(std::string("/nowhere"), "x", 1), -1);
  EXPECT_EQ(socket.Recv(buffer, sizeof(buffer)), -1);
  EXPECT_EQ(socket.RecvTimedWait(buffer, sizeof(buffer), 0), -1);
  EXPECT_TRUE(SyslogCapture::Records().empty());
}

TEST(SocketTest, AbstractNameBindsAndIsLoggedFromItsSecondByte) {
  const std::string name = "kdx-abstract-" + std::to_string(getpid());
  const std::string path = std::string(1, '\0') + name;
  int fd = -1;
  {
    Socket socket(path, SocketType::Datagram, SocketDomain::Unix);
    fd = socket.GetFd();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(LocalUnixPath(fd).substr(0, path.size()), path);
  }
  EXPECT_THAT(SyslogCapture::Records(),
              ElementsAre(Made(fd, name), LogRecord{LOG_INFO, "success to close socket [" + name + "]\n"}));
}

TEST(SocketTest, PathFillingAllOfTheAddressBinds) {
  test::TempDir dir;
  const std::string path = dir.File(std::string(108 - dir.path().size() - 1, 'p'));
  ASSERT_EQ(path.size(), 108u);
  Socket socket(path, SocketType::Datagram, SocketDomain::Unix);
  EXPECT_GE(socket.GetFd(), 0);
  EXPECT_TRUE(IsSocketFile(path));
}

TEST(SocketTest, PathLongerThanTheAddressFailsWithoutBinding) {
  test::TempDir dir;
  const std::string path = dir.File(std::string(109 - dir.path().size() - 1, 'p'));
  ASSERT_EQ(path.size(), 109u);
  Socket socket(path, SocketType::Datagram, SocketDomain::Unix);
  EXPECT_EQ(socket.GetFd(), -1);
  EXPECT_FALSE(PathExists(path));
  EXPECT_THAT(SyslogCapture::Records(),
              ElementsAre(LogRecord{LOG_ERR, std::string(kInit) + ": path [" + path +
                                                 "] of length [109] does not fit a unix address of [108] bytes\n"}));
}

TEST(SocketTest, BindFailureLogsErrnoAndPathAndClosesTheSocket) {
  test::TempDir dir;
  const std::string path = dir.File("missing/s");
  Socket socket(path, SocketType::Datagram, SocketDomain::Unix);
  EXPECT_EQ(socket.GetFd(), -1);
  EXPECT_THAT(SyslogCapture::Records(),
              ElementsAre(LogRecord{LOG_ERR, std::string(kInit) + " 311: bind errno [" + std::to_string(ENOENT) +
                                                 "] path [" + path + "]\n"}));
}

TEST(SocketTest, WrappedDescriptorIsNeitherBoundNorClosed) {
  TestPipe pipe;
  {
    Socket socket(pipe.ReadFd(), SocketType::Datagram, SocketDomain::Unix);
    EXPECT_EQ(socket.GetFd(), pipe.ReadFd());
    EXPECT_FALSE(socket.OwnsFd());
    EXPECT_FALSE(socket.IsConnected());
    EXPECT_EQ(socket.GetPath(), "");
  }
  EXPECT_GE(fcntl(pipe.ReadFd(), F_GETFD), 0);
  EXPECT_TRUE(SyslogCapture::Records().empty());
}

TEST(SocketTest, SetReuseAddressFailureIsLogged) {
  TestPipe pipe;
  Socket socket(pipe.ReadFd(), SocketType::Datagram, SocketDomain::Unix);
  EXPECT_EQ(socket.SetReuseAddress(), zel::Result::Fail);
  EXPECT_THAT(SyslogCapture::Records(), ElementsAre(LogRecord{LOG_ERR, std::string(kSetReuse) + " 459: errno [" +
                                                                           std::to_string(ENOTSOCK) + "]\n"}));
}

TEST(SocketTest, SetReuseAddressSetsTheOption) {
  Socket socket("", SocketType::Datagram, SocketDomain::Unix);
  EXPECT_EQ(socket.SetReuseAddress(), zel::Result::Ok);
  int on = 0;
  socklen_t length = sizeof(on);
  ASSERT_EQ(getsockopt(socket.GetFd(), SOL_SOCKET, SO_REUSEADDR, &on, &length), 0);
  EXPECT_EQ(on, 1);
}

TEST(SocketTest, SetNonBlockSetsAndClearsTheFlag) {
  Socket socket("", SocketType::Datagram, SocketDomain::Unix);
  EXPECT_EQ(socket.SetNonBlock(true), zel::Result::Ok);
  EXPECT_TRUE(fcntl(socket.GetFd(), F_GETFL) & O_NONBLOCK);
  EXPECT_EQ(socket.SetNonBlock(false), zel::Result::Ok);
  EXPECT_FALSE(fcntl(socket.GetFd(), F_GETFL) & O_NONBLOCK);
}

TEST(SocketTest, ListenOnADatagramSocketDoesNothing) {
  Socket socket("", SocketType::Datagram, SocketDomain::Unix);
  EXPECT_EQ(socket.Listen(5), zel::Result::Ok);
  EXPECT_GE(socket.GetFd(), 0);
  EXPECT_EQ(SyslogCapture::Records().size(), 1u);
}

TEST(SocketTest, ConnectToABoundPathConnects) {
  test::TempDir dir;
  Socket server(dir.File("srv"), SocketType::Datagram, SocketDomain::Unix);
  Socket client(dir.File("cli"), SocketType::Datagram, SocketDomain::Unix);
  SyslogCapture::Clear();
  EXPECT_EQ(client.Connect(dir.File("srv")), zel::Result::Ok);
  EXPECT_TRUE(client.IsConnected());
  EXPECT_THAT(SyslogCapture::Records(),
              ElementsAre(LogRecord{LOG_INFO, "dest [" + dir.File("srv") + "]\n"},
                          LogRecord{LOG_DEBUG, std::string(kConnect) + " 551: [" + dir.File("cli") +
                                                   "] success to connect [" + dir.File("srv") + "]\n"}));
}

TEST(SocketTest, ConnectToAMissingPathFails) {
  test::TempDir dir;
  Socket client("", SocketType::Datagram, SocketDomain::Unix);
  SyslogCapture::Clear();
  EXPECT_EQ(client.Connect(dir.File("srv")), zel::Result::Fail);
  EXPECT_FALSE(client.IsConnected());
  EXPECT_THAT(SyslogCapture::Records(),
              ElementsAre(LogRecord{LOG_INFO, "dest [" + dir.File("srv") + "]\n"},
                          LogRecord{LOG_ERR, std::string(kConnect) + " 543: cannot connect errno [" +
                                                 std::to_string(ENOENT) + "]\n"}));
}

TEST(SocketTest, ConnectToAPathThatDoesNotFitFails) {
  Socket client("", SocketType::Datagram, SocketDomain::Unix);
  SyslogCapture::Clear();
  const std::string dest = "/tmp/" + std::string(103, 'd');
  ASSERT_EQ(dest.size(), 108u);
  EXPECT_EQ(client.Connect(dest), zel::Result::Fail);
  EXPECT_THAT(SyslogCapture::Records(),
              ElementsAre(LogRecord{LOG_ERR, std::string(kConnect) + ": dest [" + dest +
                                                 "] of length [108] does not fit a unix address of [108] bytes\n"}));
}

TEST(SocketTest, ListenFailureClosesTheSocket) {
  Socket server("127.0.0.1:" + std::to_string(testkit::FreePort(SOCK_STREAM)), SocketType::Stream, SocketDomain::IPv4);
  ASSERT_EQ(server.Listen(5), zel::Result::Ok);
  const std::string address = "127.0.0.1:" + std::to_string(testkit::LocalPort(server.GetFd()));
  Socket client("", SocketType::Stream, SocketDomain::IPv4);
  ASSERT_EQ(client.Connect(address), zel::Result::Ok);
  const int fd = client.GetFd();
  SyslogCapture::Clear();
  EXPECT_EQ(client.Listen(5), zel::Result::Fail);
  EXPECT_EQ(client.GetFd(), -1);
  EXPECT_LT(fcntl(fd, F_GETFD), 0);
  EXPECT_THAT(SyslogCapture::Records(),
              ElementsAre(LogRecord{LOG_DEBUG, std::string(kListen) + " 357: close socket fd [" + std::to_string(fd) +
                                                   "] errno [" + std::to_string(EINVAL) + "]\n"}));
}

TEST(SocketTest, NetlinkConnectLogsTheDestinationAndFails) {
  Socket socket("", SocketType::Datagram, SocketDomain::Netlink);
  SyslogCapture::Clear();
  EXPECT_EQ(socket.Connect("anything"), zel::Result::Fail);
  EXPECT_FALSE(socket.IsConnected());
  EXPECT_THAT(SyslogCapture::Records(), ElementsAre(LogRecord{LOG_INFO, "dest [anything]\n"}));
}

TEST(SocketTest, AcceptOnANetlinkSocketIsAnUnknownDomain) {
  Socket socket("", SocketType::Datagram, SocketDomain::Netlink);
  SyslogCapture::Clear();
  std::string peer = "old";
  EXPECT_EQ(socket.Accept(peer), 0);
  EXPECT_EQ(peer, "");
  EXPECT_THAT(
      SyslogCapture::Records(),
      ElementsAre(LogRecord{LOG_ERR, "int zel::util::Socket::Accept(std::string&) 412: unknown socket domain [3]\n"}));
}

}  // namespace
}  // namespace zel::util
