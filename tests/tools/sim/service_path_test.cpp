// What the simulator checks about its socket path before it binds it.
#include "tools/sim/service_path.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <string>

#include "gtest/gtest.h"
#include "tests/support/temp_dir.h"
#include "tests/tools/sim/test_peer.h"

namespace zel::sim {
namespace {

using ::zel::sim::test::TestPeer;
using ::zel::test::TempDir;

// A path of exactly `length` bytes in `dir`.
std::string PathOfLength(const TempDir& dir, size_t length) {
  const std::string start = dir.path() + "/";
  return start + std::string(length - start.size(), 'p');
}

TEST(ServicePathTest, NewPathInAnExistingDirectoryIsFine) {
  TempDir dir;
  EXPECT_EQ(ServicePath::Problem(dir.File("svc")), "");
}

TEST(ServicePathTest, LongestPathThatFitsIsFine) {
  TempDir dir;
  EXPECT_EQ(ServicePath::kMaxLength, 107u);
  EXPECT_EQ(ServicePath::Problem(PathOfLength(dir, 107)), "");
}

TEST(ServicePathTest, PathTooLongForASocketAddressIsRefused) {
  TempDir dir;
  const std::string path = PathOfLength(dir, 108);
  EXPECT_EQ(ServicePath::Problem(path),
            "the socket path [" + path + "] is 108 bytes long, but a Unix socket address holds at most 107");
}

TEST(ServicePathTest, MissingDirectoryIsRefused) {
  TempDir dir;
  EXPECT_EQ(ServicePath::Problem(dir.File("no/svc")),
            "there is no directory [" + dir.File("no") + "] for the socket path [" + dir.File("no/svc") + "]");
}

TEST(ServicePathTest, RelativePathUsesTheWorkingDirectory) {
  EXPECT_EQ(ServicePath::Problem("svc-that-is-not-there"), "");
}

TEST(ServicePathTest, ExistingFileThatIsNoSocketIsRefused) {
  TempDir dir;
  std::ofstream(dir.File("plain")) << "x";
  EXPECT_EQ(ServicePath::Problem(dir.File("plain")), "[" + dir.File("plain") + "] exists and is not a socket");
}

TEST(ServicePathTest, StaleSocketFileIsFine) {
  TempDir dir;
  // What a crashed service leaves behind: the file of a closed socket.
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "%s", dir.File("svc").c_str());
  const int fd = ::socket(AF_UNIX, SOCK_DGRAM, 0);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ::close(fd);
  EXPECT_EQ(ServicePath::Problem(dir.File("svc")), "");
}

TEST(ServicePathTest, SocketSomebodyAnswersOnIsRefused) {
  TempDir dir;
  TestPeer service(dir.File("svc"), "");
  EXPECT_EQ(ServicePath::Problem(dir.File("svc")), "another service already answers at [" + dir.File("svc") + "]");
}

}  // namespace
}  // namespace zel::sim
