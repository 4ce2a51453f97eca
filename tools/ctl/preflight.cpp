#include "tools/ctl/preflight.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace zel::ctl {
namespace {

// The library numbers a process's client sockets 0 to 9 and names the event
// socket after the client socket.
const char kLastSlotSuffix[] = "-9";
const char kEventSuffix[] = "-event";

bool Fits(const std::string& path) { return path.size() <= Preflight::kMaxSocketPath; }

// Whether a datagram socket bound at `path` takes datagrams, without sending
// any: connecting an unbound socket makes no file and tells the service
// nothing.
bool Reachable(const std::string& path, int& error) {
  const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    error = errno;
    return false;
  }
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  const bool connected = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  error = errno;
  ::close(fd);
  return connected;
}

}  // namespace

const size_t Preflight::kMaxSocketPath = sizeof(sockaddr_un::sun_path) - 1;

bool Preflight::CheckService(const std::string& path, Failure& failure) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) {
    failure = Fail(kStatusUnreachable, path, ErrorText(errno));
    return false;
  }
  if (!S_ISSOCK(info.st_mode)) {
    failure = Fail(kStatusUnreachable, path, "not a socket");
    return false;
  }
  if (!Fits(path)) {
    failure = Fail(kStatusLocal, path, "too long for a socket address (at most 107 bytes)");
    return false;
  }
  int error = 0;
  if (!Reachable(path, error)) {
    failure = Fail(kStatusUnreachable, path, ErrorText(error));
    return false;
  }
  return true;
}

bool Preflight::CheckDirectory(const std::string& dir, bool withEvents, Failure& failure) {
  struct stat info {};
  if (::stat(dir.c_str(), &info) != 0) {
    failure = Fail(kStatusLocal, dir, ErrorText(errno));
    return false;
  }
  if (!S_ISDIR(info.st_mode)) {
    failure = Fail(kStatusLocal, dir, "not a directory");
    return false;
  }
  if (::access(dir.c_str(), W_OK | X_OK) != 0) {
    failure = Fail(kStatusLocal, dir, "not writable: " + ErrorText(errno));
    return false;
  }
  if (!Fits(LongestClientPath(dir, withEvents))) {
    failure = Fail(kStatusLocal, dir, "too long for the client's socket paths (at most 107 bytes)");
    return false;
  }
  return true;
}

Failure Preflight::WhyNoClient(const std::string& service, const std::string& dir, bool withEvents) {
  Failure failure;
  if (!CheckService(service, failure)) return failure;
  if (!CheckDirectory(dir, withEvents, failure)) return failure;
  return Fail(kStatusLocal, dir, "no free client socket path (all ten of this process are taken)");
}

std::string Preflight::LongestClientPath(const std::string& dir, bool withEvents) {
  // The library drops one trailing slash of the directory.
  std::string path = dir;
  if (!path.empty() && path.back() == '/') path.pop_back();
  path += "/ipc_client-" + std::to_string(::getpid()) + kLastSlotSuffix;
  if (withEvents) path += kEventSuffix;
  return path;
}

}  // namespace zel::ctl
