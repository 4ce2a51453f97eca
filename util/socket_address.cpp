#include "util/socket_address.h"

#include <arpa/inet.h>

#include <cstddef>
#include <cstring>

#include "util/decimal_text.h"

namespace zel::util {

const char* DisplayPath(const std::string& path) {
  if (path.length() > 1 && path[0] == '\0') return path.c_str() + 1;
  return path.c_str();
}

std::string UnixPeerText(const sockaddr_un& address, socklen_t length) {
  const size_t header = offsetof(sockaddr_un, sun_path);
  if (length <= header) return std::string();
  size_t limit = length - header;
  if (limit > sizeof(address.sun_path)) limit = sizeof(address.sun_path);
  return std::string(address.sun_path, strnlen(address.sun_path, limit));
}

std::string Ipv4PeerText(const sockaddr_in& address) {
  // Into a buffer of our own: inet_ntoa's one static buffer is shared by
  // every thread, and each socket server takes datagrams on a thread of its own.
  char text[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
  return std::string(text) + ":" + DecimalText(ntohs(address.sin_port));
}

}  // namespace zel::util
