// A client of the simulated service for in-process tests: a Unix datagram
// socket (bound at a path, or unbound) aimed at the service, that sends
// request lines and takes datagrams with a time-out. Owns its socket and
// socket file; one thread at a time.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "util/socket_client.h"

namespace zel::sim::test {

class TestPeer {
 public:
  // `ownPath` empty: an unbound sender. `servicePath` empty: a receiver only.
  TestPeer(const std::string& ownPath, const std::string& servicePath);

  bool Send(const std::string& line);
  // The next datagram, or nullopt when none comes within `timeout`.
  std::optional<std::string> Receive(std::chrono::milliseconds timeout = std::chrono::seconds(10));
  // A datagram already waiting, without waiting for one.
  std::optional<std::string> Waiting() { return Receive(std::chrono::milliseconds(0)); }

  zel::util::SocketClient& Socket() { return *mSocket; }

 private:
  std::unique_ptr<zel::util::SocketClient> mSocket;
};

}  // namespace zel::sim::test
