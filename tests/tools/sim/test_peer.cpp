#include "tests/tools/sim/test_peer.h"

#include <vector>

namespace zel::sim::test {

using zel::util::SocketClient;
using zel::util::SocketDomain;
using zel::util::SocketType;

TestPeer::TestPeer(const std::string& ownPath, const std::string& servicePath)
    : mSocket(std::make_unique<SocketClient>(ownPath, SocketType::Datagram, SocketDomain::Unix, servicePath)) {}

bool TestPeer::Send(const std::string& line) { return mSocket->Send(line) == static_cast<ssize_t>(line.size()); }

std::optional<std::string> TestPeer::Receive(std::chrono::milliseconds timeout) {
  // Larger than any reply, so that an oversize one arrives whole.
  std::vector<char> buffer(65536);
  const uint64_t timeoutUs = static_cast<uint64_t>(timeout.count()) * 1000;
  const ssize_t n = mSocket->RecvTimedWait(buffer.data(), buffer.size(), timeoutUs);
  if (n < 0) return std::nullopt;
  return std::string(buffer.data(), static_cast<size_t>(n));
}

}  // namespace zel::sim::test
