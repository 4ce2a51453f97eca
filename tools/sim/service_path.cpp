#include "tools/sim/service_path.h"

#include <sys/stat.h>
#include <sys/un.h>

#include "util/socket_client.h"

namespace zel::sim {
namespace {

std::string DirectoryOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// Something answers when a datagram socket can connect to the path.
bool Answered(const std::string& path) {
  zel::util::SocketClient probe("", zel::util::SocketType::Datagram, zel::util::SocketDomain::Unix, path);
  return probe.IsConnected();
}

}  // namespace

const size_t ServicePath::kMaxLength = sizeof(sockaddr_un::sun_path) - 1;

std::string ServicePath::Problem(const std::string& path) {
  if (path.size() > kMaxLength) {
    return "the socket path [" + path + "] is " + std::to_string(path.size()) +
           " bytes long, but a Unix socket address holds at most " + std::to_string(kMaxLength);
  }
  struct stat info;
  const std::string dir = DirectoryOf(path);
  if (::stat(dir.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
    return "there is no directory [" + dir + "] for the socket path [" + path + "]";
  }
  if (::lstat(path.c_str(), &info) != 0) return std::string();
  if (!S_ISSOCK(info.st_mode)) return "[" + path + "] exists and is not a socket";
  if (Answered(path)) return "another service already answers at [" + path + "]";
  return std::string();
}

}  // namespace zel::sim
