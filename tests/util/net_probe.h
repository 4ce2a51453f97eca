// Address helpers for the util tests: ports the kernel hands out on the
// loopback, and the local address a descriptor is bound to. Stateless.
#pragma once

#include <sys/socket.h>

#include <string>

namespace zel::util::testkit {

// A loopback port that is free at the moment of the call (`kind` is
// SOCK_STREAM or SOCK_DGRAM, `family` AF_INET or AF_INET6).
int FreePort(int kind, int family = AF_INET);
// The local port of a bound IPv4 or IPv6 socket, -1 when unknown.
int LocalPort(int fd);
// The local IPv4 or IPv6 address text of a bound socket.
std::string LocalIp(int fd);
// The bound Unix path (abstract names keep their leading NUL).
std::string LocalUnixPath(int fd);

// Makes a netlink socket (or server) with `make`, again while it fails:
// netlink port ids are the process id plus a per-process counter, so test
// processes with neighbouring ids can take each other's id.
template <typename Make>
auto MakeNetlink(Make make) {
  auto socket = make();
  for (int attempt = 0; attempt < 20 && socket->GetFd() < 0; ++attempt) socket = make();
  return socket;
}

}  // namespace zel::util::testkit
