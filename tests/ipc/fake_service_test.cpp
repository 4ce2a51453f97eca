// The fake service must itself be right for the client tests to mean
// anything: it is checked here against plain sockets.
#include "tests/support/fake_service.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

#include "gtest/gtest.h"
#include "tests/support/temp_dir.h"

namespace zel::test {
namespace {

using Answer = FakeService::Answer;
using std::chrono::milliseconds;

// A plain datagram socket bound in the temp dir, standing in for a client.
class Peer {
 public:
  explicit Peer(std::string path) : mPath(std::move(path)) {
    mFd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = Address(mPath);
    if (::bind(mFd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
      throw std::runtime_error("bind failed");
    }
  }
  ~Peer() { ::close(mFd); }

  void SendTo(const std::string& path, const std::string& bytes) const {
    const sockaddr_un address = Address(path);
    ASSERT_EQ(::sendto(mFd, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&address), sizeof address),
              static_cast<ssize_t>(bytes.size()));
  }

  // The next datagram, or "<none>" when none comes within `timeout`.
  std::string Receive(milliseconds timeout = milliseconds(5000)) const {
    pollfd fd{mFd, POLLIN, 0};
    if (::poll(&fd, 1, static_cast<int>(timeout.count())) != 1) return "<none>";
    char buffer[16384];
    const ssize_t n = ::recv(mFd, buffer, sizeof buffer, 0);
    return n < 0 ? "<error>" : std::string(buffer, static_cast<size_t>(n));
  }

  const std::string& path() const { return mPath; }

 private:
  static sockaddr_un Address(const std::string& path) {
    sockaddr_un address;
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    return address;
  }

  std::string mPath;
  int mFd = -1;
};

class FakeServiceTest : public ::testing::Test {
 protected:
  FakeServiceTest() : mService(mDir.File("svc")), mPeer(mDir.File("peer")) {}

  TempDir mDir;
  FakeService mService;
  Peer mPeer;
};

TEST_F(FakeServiceTest, RecordsTextSenderAndCommand) {
  mPeer.SendTo(mService.path(), "4\t/x-event");
  ASSERT_TRUE(mService.WaitForRequests(1));
  const auto request = mService.Requests().at(0);
  EXPECT_EQ(request.text, "4\t/x-event");
  EXPECT_EQ(request.sender, mPeer.path());
  EXPECT_EQ(request.command, 4u);
}

TEST_F(FakeServiceTest, UnscriptedCommandsAreNotAnswered) {
  mService.Script(1, Answer::Reply("1\tPONG"));
  mPeer.SendTo(mService.path(), "2");
  mPeer.SendTo(mService.path(), "1");
  // The first datagram back answers the second request.
  EXPECT_EQ(mPeer.Receive(), "1\tPONG");
  ASSERT_TRUE(mService.WaitForRepliesSent(1));
  EXPECT_EQ(mService.RepliesSent(), 1u);
}

TEST_F(FakeServiceTest, DefaultAnswerCoversUnscriptedCommands) {
  mService.SetDefault(Answer::Reply("0"));
  mPeer.SendTo(mService.path(), "8");
  EXPECT_EQ(mPeer.Receive(), "0");
}

TEST_F(FakeServiceTest, ScriptedAnswersAreUsedInOrderAndTheLastRepeats) {
  mService.Script(4, {Answer::Reply("0"), Answer::Never(), Answer::Reply("1")});
  for (int i = 0; i < 4; ++i) mPeer.SendTo(mService.path(), "4");
  EXPECT_EQ(mPeer.Receive(), "0");
  EXPECT_EQ(mPeer.Receive(), "1");
  EXPECT_EQ(mPeer.Receive(), "1");
  ASSERT_TRUE(mService.WaitForRequestsFor(4, 4));
  ASSERT_TRUE(mService.WaitForRepliesSent(3));
  EXPECT_EQ(mService.RepliesSent(), 3u);
}

TEST_F(FakeServiceTest, DelayedReplyLeavesAfterItsDelay) {
  mService.Script(1, Answer::Reply("1\tSLOW", milliseconds(200)));
  mPeer.SendTo(mService.path(), "1");
  ASSERT_TRUE(mService.WaitForRequests(1));
  EXPECT_EQ(mService.RepliesSent(), 0u);
  EXPECT_EQ(mPeer.Receive(), "1\tSLOW");
  const auto sentAfter = std::chrono::steady_clock::now() - mService.Requests()[0].received;
  EXPECT_GE(sentAfter, milliseconds(200));
}

TEST_F(FakeServiceTest, RequestWhileAReplyIsOwedIsMarked) {
  mService.Script(1, Answer::Reply("1", milliseconds(300)));
  mPeer.SendTo(mService.path(), "1");
  ASSERT_TRUE(mService.WaitForRequests(1));
  mPeer.SendTo(mService.path(), "1");
  ASSERT_TRUE(mService.WaitForRequests(2));
  EXPECT_EQ(mService.Requests()[0].repliesOwed, 0u);
  EXPECT_EQ(mService.Requests()[1].repliesOwed, 1u);
}

TEST_F(FakeServiceTest, OversizeAndBinaryRepliesArriveWhole) {
  const std::string big(9000, 'x');
  const std::string binary("\x00\x01\xff\t", 4);
  mService.Script(1, {Answer::Reply(big), Answer::Reply(binary)});
  mPeer.SendTo(mService.path(), "1");
  EXPECT_EQ(mPeer.Receive(), big);
  mPeer.SendTo(mService.path(), "1");
  EXPECT_EQ(mPeer.Receive(), binary);
}

TEST_F(FakeServiceTest, SendToReachesAnyPathFromTheServiceSocket) {
  EXPECT_TRUE(mService.SendTo(mPeer.path(), "7\tevent"));
  EXPECT_EQ(mPeer.Receive(), "7\tevent");
  EXPECT_FALSE(mService.SendTo(mDir.File("nobody"), "7"));
}

TEST(FakeServiceLifetimeTest, SocketFileExistsWhileTheServiceLives) {
  TempDir dir;
  const std::string path = dir.File("svc");
  {
    FakeService service(path);
    EXPECT_EQ(::access(path.c_str(), F_OK), 0);
  }
  EXPECT_NE(::access(path.c_str(), F_OK), 0);
}

}  // namespace
}  // namespace zel::test
