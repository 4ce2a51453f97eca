// Datagrams that never wait for their receiver: sent, lost for want of room,
// or failed.
#include "tools/sim/datagram_out.h"

#include <string>

#include "gtest/gtest.h"
#include "tests/support/temp_dir.h"
#include "tests/tools/sim/test_peer.h"

namespace zel::sim {
namespace {

using ::zel::sim::test::TestPeer;
using ::zel::test::TempDir;
using Outcome = DatagramOut::Outcome;

// Sends to `dest` from `from` until there is no room, at most `limit` times;
// how many went out.
size_t SendUntilNoRoom(TestPeer& from, const std::string& dest, size_t limit = 100000) {
  size_t sent = 0;
  while (sent < limit && DatagramOut::SendTo(from.Socket().GetFd(), dest, "1\tPONG") == Outcome::Sent) ++sent;
  return sent;
}

class DatagramOutTest : public ::testing::Test {
 protected:
  TempDir dir;
};

TEST_F(DatagramOutTest, DatagramToAReaderIsSent) {
  TestPeer receiver(dir.File("r"), "");
  TestPeer sender("", "");
  EXPECT_EQ(DatagramOut::SendTo(sender.Socket().GetFd(), dir.File("r"), "1\tPONG"), Outcome::Sent);
  EXPECT_EQ(receiver.Receive(), "1\tPONG");
}

TEST_F(DatagramOutTest, DatagramToAPathWhereNothingReceivesFails) {
  TestPeer sender("", "");
  EXPECT_EQ(DatagramOut::SendTo(sender.Socket().GetFd(), dir.File("nobody"), "1"), Outcome::Failed);
}

TEST_F(DatagramOutTest, FullQueueOfAReceiverThatDoesNotReadLeavesNoRoom) {
  TestPeer receiver(dir.File("r"), "");
  TestPeer sender("", "");
  const size_t sent = SendUntilNoRoom(sender, dir.File("r"));
  EXPECT_GT(sent, 0u);
  EXPECT_EQ(DatagramOut::SendTo(sender.Socket().GetFd(), dir.File("r"), "1"), Outcome::NoRoom);
  // Once the receiver reads, there is room again.
  EXPECT_TRUE(receiver.Receive().has_value());
  EXPECT_EQ(DatagramOut::SendTo(sender.Socket().GetFd(), dir.File("r"), "1"), Outcome::Sent);
}

TEST_F(DatagramOutTest, UnreadDatagramsToAConnectedClientFillTheSendersBuffer) {
  TestPeer service(dir.File("svc"), "");
  // Connected to the service, as the program's client socket is.
  TestPeer client(dir.File("c"), dir.File("svc"));
  const size_t sent = SendUntilNoRoom(service, dir.File("c"));
  EXPECT_GT(sent, 10u);
  EXPECT_LT(sent, 100000u);
  EXPECT_GT(DatagramOut::Unread(service.Socket().GetFd()), 0);
  while (client.Waiting().has_value()) {
  }
  EXPECT_EQ(DatagramOut::Unread(service.Socket().GetFd()), 0);
}

TEST_F(DatagramOutTest, FullQueueOfAConnectedSocketLeavesNoRoom) {
  TestPeer receiver(dir.File("r"), "");
  TestPeer sender("", dir.File("r"));
  size_t sent = 0;
  while (sent < 100000 && DatagramOut::Send(sender.Socket().GetFd(), "e") == Outcome::Sent) ++sent;
  EXPECT_GT(sent, 0u);
  EXPECT_EQ(DatagramOut::Send(sender.Socket().GetFd(), "e"), Outcome::NoRoom);
}

TEST_F(DatagramOutTest, ConnectedSocketWhoseReceiverClosedFails) {
  auto receiver = std::make_unique<TestPeer>(dir.File("r"), "");
  TestPeer sender("", dir.File("r"));
  receiver.reset();
  EXPECT_EQ(DatagramOut::Send(sender.Socket().GetFd(), "e"), Outcome::Failed);
}

}  // namespace
}  // namespace zel::sim
