#include "tests/util/net_probe.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>

namespace zel::util::testkit {

int FreePort(int kind, int family) {
  const int fd = socket(family, kind, 0);
  if (fd < 0) return -1;
  sockaddr_storage address;
  std::memset(&address, 0, sizeof(address));
  socklen_t length = 0;
  if (family == AF_INET) {
    auto* in = reinterpret_cast<sockaddr_in*>(&address);
    in->sin_family = AF_INET;
    in->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    length = sizeof(sockaddr_in);
  } else {
    auto* in6 = reinterpret_cast<sockaddr_in6*>(&address);
    in6->sin6_family = AF_INET6;
    in6->sin6_addr = in6addr_loopback;
    length = sizeof(sockaddr_in6);
  }
  int port = -1;
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), length) == 0) port = LocalPort(fd);
  close(fd);
  return port;
}

int LocalPort(int fd) {
  sockaddr_storage address;
  socklen_t length = sizeof(address);
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) return -1;
  if (address.ss_family == AF_INET) return ntohs(reinterpret_cast<sockaddr_in*>(&address)->sin_port);
  if (address.ss_family == AF_INET6) return ntohs(reinterpret_cast<sockaddr_in6*>(&address)->sin6_port);
  return -1;
}

std::string LocalIp(int fd) {
  sockaddr_storage address;
  socklen_t length = sizeof(address);
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) return "";
  char text[INET6_ADDRSTRLEN] = {};
  if (address.ss_family == AF_INET) {
    inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(&address)->sin_addr, text, sizeof(text));
  } else if (address.ss_family == AF_INET6) {
    inet_ntop(AF_INET6, &reinterpret_cast<sockaddr_in6*>(&address)->sin6_addr, text, sizeof(text));
  }
  return text;
}

std::string LocalUnixPath(int fd) {
  sockaddr_un address;
  std::memset(&address, 0, sizeof(address));
  socklen_t length = sizeof(address);
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) return "";
  const size_t header = offsetof(sockaddr_un, sun_path);
  if (length <= header) return "";
  std::string path(address.sun_path, length - header);
  // Path names carry their terminating NUL in the length; abstract names do not.
  if (!path.empty() && path[0] != '\0') path.resize(std::strlen(path.c_str()));
  return path;
}

}  // namespace zel::util::testkit
