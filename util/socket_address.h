// One socket address record large enough for every domain the socket layer
// speaks, plus the helpers that fill it from address texts. Plain values; no
// shared state.
#pragma once

#include <linux/netlink.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <string>

namespace zel::util {

union SocketAddress {
  sockaddr base;
  sockaddr_un un;
  sockaddr_in in;
  sockaddr_in6 in6;
  sockaddr_nl nl;
};

// The text of a path for messages: an abstract name (first byte NUL, longer
// than one byte) is shown from its second byte.
const char* DisplayPath(const std::string& path);

// The sun_path text of a received Unix address, never reading past `length`
// or the record.
std::string UnixPeerText(const sockaddr_un& address, socklen_t length);

// "a.b.c.d:port" for an IPv4 address.
std::string Ipv4PeerText(const sockaddr_in& address);

}  // namespace zel::util
