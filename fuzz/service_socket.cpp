#include "fuzz/service_socket.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <vector>

namespace zel::fuzz {
namespace {

// Larger than any datagram the targets send, so that nothing is cut here.
constexpr size_t kReceiveSize = 65536;

[[noreturn]] void Fail(const char* what) {
  std::perror(what);
  std::abort();
}

sockaddr_un AddressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) Fail("socket path too long");
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return address;
}

}  // namespace

ServiceSocket::ServiceSocket() {
  char pattern[] = "/tmp/kdx-fuzz-XXXXXX";
  if (::mkdtemp(pattern) == nullptr) Fail("mkdtemp");
  mDir = pattern;
  mPath = mDir + "/svc";
  mFd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (mFd < 0) Fail("socket");
  const sockaddr_un address = AddressOf(mPath);
  if (::bind(mFd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) Fail("bind");
}

ServiceSocket::~ServiceSocket() {
  ::close(mFd);
  std::error_code ignored;
  std::filesystem::remove_all(mDir, ignored);
}

bool ServiceSocket::SendTo(const std::string& path, const std::string& bytes) {
  const sockaddr_un address = AddressOf(path);
  const ssize_t sent =
      ::sendto(mFd, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  return sent >= 0 && static_cast<size_t>(sent) == bytes.size();
}

bool ServiceSocket::Receive(std::string& bytes, std::string& sender, int timeoutMs) {
  pollfd ready{mFd, POLLIN, 0};
  if (::poll(&ready, 1, timeoutMs) != 1) return false;
  std::vector<char> buffer(kReceiveSize);
  sockaddr_un from{};
  socklen_t length = sizeof from;
  const ssize_t n = ::recvfrom(mFd, buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr*>(&from), &length);
  if (n < 0) return false;
  bytes.assign(buffer.data(), static_cast<size_t>(n));
  const size_t pathLength = length > offsetof(sockaddr_un, sun_path) ? length - offsetof(sockaddr_un, sun_path) : 0;
  sender.assign(from.sun_path, strnlen(from.sun_path, pathLength));
  return true;
}

}  // namespace zel::fuzz
