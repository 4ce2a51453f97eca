#include "util/socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/select.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "util/decimal_text.h"
#include "util/socket_address.h"

namespace zel::util {
namespace {

// Function texts that prefix the log messages; the short ones go with the
// "%s %d : " form.
constexpr char kInitText[] = "zel::Result zel::util::Socket::Init()";
constexpr char kInitShortText[] = "Init";
constexpr char kConnectText[] = "zel::Result zel::util::Socket::Connect(std::string)";
constexpr char kListenText[] = "zel::Result zel::util::Socket::Listen(int)";
constexpr char kAcceptText[] = "int zel::util::Socket::Accept(std::string&)";
constexpr char kAcceptShortText[] = "Accept";
constexpr char kSetNonBlockShortText[] = "SetNonBlock";
constexpr char kSetReuseAddressText[] = "zel::Result zel::util::Socket::SetReuseAddress()";
constexpr char kSendToFdText[] = "ssize_t zel::util::Socket::SendTo(int, const void*, size_t)";
constexpr char kSendToDestText[] = "ssize_t zel::util::Socket::SendTo(std::string, const void*, size_t)";
constexpr char kRecvTimedWaitText[] = "ssize_t zel::util::Socket::RecvTimedWait(void*, size_t, uint64_t)";

// Both SendTo forms share one send loop, and each hands it the number of its
// own retry message. The numbers identify the messages; they are not line
// numbers.
constexpr int kMsgSendToFdRetry = 597;
constexpr int kMsgSendToDestRetry = 716;

// The TCP protocol number.
constexpr int kStreamProtocol = 6;
// Every rtnetlink group of bits 0 to 11 except bit 2.
constexpr uint32_t kNetlinkGroups = 0x00000FFB;
constexpr uint32_t kNetlinkPidBase = 0xF0000000;

// Makes netlink port ids unique within the process; read, then incremented.
std::atomic<uint32_t> sNetlinkCounter{0};

bool FamilyOf(SocketDomain domain, int& family) {
  switch (domain) {
    case SocketDomain::Unix:
      family = AF_UNIX;
      return true;
    case SocketDomain::IPv4:
      family = AF_INET;
      return true;
    case SocketDomain::IPv6:
      family = AF_INET6;
      return true;
    case SocketDomain::Netlink:
      family = AF_NETLINK;
      return true;
  }
  return false;
}

// The stream protocol number is passed whatever the domain.
bool KindOf(SocketType type, int& kind, int& protocol) {
  protocol = 0;
  switch (type) {
    case SocketType::Stream:
      kind = SOCK_STREAM;
      protocol = kStreamProtocol;
      return true;
    case SocketType::Datagram:
      kind = SOCK_DGRAM;
      return true;
    case SocketType::Raw:
      kind = SOCK_RAW;
      return true;
  }
  return false;
}

bool IsIpDomain(SocketDomain domain) { return domain == SocketDomain::IPv4 || domain == SocketDomain::IPv6; }

// Converts like std::stoi in base 10 (leading blanks, stops at the first
// non-digit) but reports failure instead of throwing.
bool ParsePort(const std::string& text, int& port) {
  const char* begin = text.c_str();
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(begin, &end, 10);
  if (end == begin || errno == ERANGE || value < INT_MIN || value > INT_MAX) return false;
  port = static_cast<int>(value);
  return true;
}

// A group address is 224.x.x.x to 239.x.x.x; only the first number counts.
bool IsMulticast(const std::string& ip) {
  const long first = std::strtol(ip.c_str(), nullptr, 10);
  return first >= 224 && first < 240;
}

// Unix address with all bytes of a path that fits, so that abstract names
// with their leading NUL survive.
void FillUnixAddress(const std::string& path, SocketAddress& address) {
  address.un.sun_family = AF_UNIX;
  std::memcpy(address.un.sun_path, path.data(), path.length());
}

void FillIpv4Address(const std::string& ip, int port, SocketAddress& address) {
  address.in.sin_family = AF_INET;
  address.in.sin_port = htons(static_cast<uint16_t>(port));
  address.in.sin_addr.s_addr = inet_addr(ip.c_str());
}

// IPv6 sockets always use the unspecified address: only the port of the
// address text takes effect.
void FillIpv6Address(int port, SocketAddress& address) {
  address.in6.sin6_family = AF_INET6;
  address.in6.sin6_port = htons(static_cast<uint16_t>(port));
  address.in6.sin6_addr = in6addr_any;
}

// Logs an address text, the socket's own path or a destination, that a Unix
// address record cannot hold; `what` names which of the two it is.
void LogTooLongForUnixAddress(const char* function, const char* what, const std::string& text, size_t length) {
  syslog(LOG_ERR, "%s: %s [%s] of length [%zu] does not fit a unix address of [%zu] bytes\n", function, what,
         text.c_str(), length, sizeof(sockaddr_un::sun_path));
}

// Loops until every byte is out or an error other than EAGAIN / EPIPE comes.
// Those two are retried at once, for as long as they persist.
template <typename SendOnce>
ssize_t SendAll(const void* buf, size_t len, const char* function, int retryMessage, SendOnce sendOnce, int& failure) {
  const char* bytes = static_cast<const char*>(buf);
  size_t sent = 0;
  size_t left = len;
  failure = 0;
  while (left != 0) {
    const ssize_t n = sendOnce(bytes + sent, left);
    if (n > 0) {
      const size_t count = static_cast<size_t>(n);
      left = count > left ? 0 : left - count;
      sent += count;
      continue;
    }
    const int err = errno;
    if (err != EAGAIN && err != EPIPE) {
      failure = err;
      break;
    }
    syslog(LOG_ERR, "%s %d: errno [%d] send ret [%zd] try one more time\n", function, retryMessage, err, n);
  }
  return static_cast<ssize_t>(sent);
}

}  // namespace

Socket::Socket(std::string path, SocketType type, SocketDomain domain)
    : mConnected(false), mPath(std::move(path)), mSocketDomain(domain), mFd(-1), mSocketType(type), mOwnsFd(true) {
  Init();
}

Socket::Socket(int fd, SocketType type, SocketDomain domain)
    : mConnected(false), mSocketDomain(domain), mFd(fd), mSocketType(type), mOwnsFd(false) {}

Socket::~Socket() {
  if (!mPath.empty()) unlink(mPath.c_str());
  if (mFd < 0 || !mOwnsFd) return;
  if (mSocketType == SocketType::Stream && shutdown(mFd, SHUT_RDWR) < 0) {
    syslog(LOG_WARNING, "shutdown fd [%d] errno [%d]\n", mFd, errno);
  }
  if (close(mFd) < 0) {
    syslog(LOG_ERR, "Cannot close socket errno [%d]", errno);
  } else {
    syslog(LOG_INFO, "success to close socket [%s]\n", DisplayPath(mPath));
  }
}

zel::Result Socket::Init() {
  int family = 0;
  if (!FamilyOf(mSocketDomain, family)) {
    syslog(LOG_ERR, "%s %d : unknown mSocketDomain [%d]\n", kInitShortText, 119, static_cast<int>(mSocketDomain));
    return zel::Result::Fail;
  }
  int kind = 0;
  int protocol = 0;
  if (!KindOf(mSocketType, kind, protocol)) {
    syslog(LOG_ERR, "%s %d : unknown mSocketType [%d]\n", kInitShortText, 141, static_cast<int>(mSocketType));
    return zel::Result::Fail;
  }
  const int fd = socket(family, kind, protocol);
  if (fd < 0) {
    syslog(LOG_ERR, "%s %d : socket failed, errno[%d]\n", kInitShortText, 150, errno);
    return zel::Result::Fail;
  }
  mFd = fd;
  if (mSocketDomain != SocketDomain::Netlink && mPath.empty()) {
    syslog(LOG_DEBUG, "%s %d: no path specified\n", kInitText, 157);
    return zel::Result::Ok;
  }
  if (Bind() == zel::Result::Ok) return zel::Result::Ok;
  close(mFd);
  mFd = -1;
  return zel::Result::Fail;
}

zel::Result Socket::Bind() {
  SocketAddress address;
  std::memset(&address, 0, sizeof(address));
  socklen_t length = 0;
  if (BuildOwnAddress(address, length) != zel::Result::Ok) return zel::Result::Fail;
  if (length == 0) {
    syslog(LOG_ERR, "%s %d: \n", kInitText, 295);
    return zel::Result::Fail;
  }
  SetReuseAddress();
  if (bind(mFd, &address.base, length) < 0) {
    syslog(LOG_ERR, "%s %d: bind errno [%d] path [%s]\n", kInitText, 311, errno, mPath.c_str());
    return zel::Result::Fail;
  }
  syslog(LOG_INFO, "success to make socket fd [%d] path [%s]\n", mFd, DisplayPath(mPath));
  return zel::Result::Ok;
}

zel::Result Socket::BuildOwnAddress(SocketAddress& address, socklen_t& length) {
  switch (mSocketDomain) {
    case SocketDomain::Unix:
      return BuildOwnUnixAddress(address, length);
    case SocketDomain::IPv4:
    case SocketDomain::IPv6:
      return BuildOwnIpAddress(address, length);
    case SocketDomain::Netlink:
      address.nl.nl_family = AF_NETLINK;
      address.nl.nl_pid = static_cast<uint32_t>(getpid()) + sNetlinkCounter.fetch_add(1) + kNetlinkPidBase;
      address.nl.nl_groups = kNetlinkGroups;
      length = sizeof(sockaddr_nl);
      return zel::Result::Ok;
  }
  length = 0;
  return zel::Result::Ok;
}

zel::Result Socket::BuildOwnUnixAddress(SocketAddress& address, socklen_t& length) {
  if (mPath.length() > sizeof(address.un.sun_path)) {
    LogTooLongForUnixAddress(kInitText, "path", mPath, mPath.length());
    return zel::Result::Fail;
  }
  // A stale socket file from an earlier run would make the bind fail.
  if (mPath[0] != '\0') unlink(mPath.c_str());
  FillUnixAddress(mPath, address);
  length = sizeof(sockaddr_un);
  return zel::Result::Ok;
}

zel::Result Socket::BuildOwnIpAddress(SocketAddress& address, socklen_t& length) {
  std::string ip;
  int port = 0;
  if (SplitAddress(mPath, ip, port) != zel::Result::Ok) {
    syslog(LOG_ERR, "%s %d: \n", kInitText, 242);
    return zel::Result::Fail;
  }
  if (port < 1 || port > 65535) {
    syslog(LOG_ERR, "%s %d: ip [%s] port [%d]\n", kInitText, 248, ip.c_str(), port);
    return zel::Result::Fail;
  }
  if (mSocketDomain == SocketDomain::IPv4) {
    FillIpv4Address(ip, port, address);
    if (ip.empty() || ip == "0.0.0.0") address.in.sin_addr.s_addr = htonl(INADDR_ANY);
    syslog(LOG_DEBUG, "%s %d: multicast_ip [%s] ip [%s] port [%d]\n", kInitText, 263, "", ip.c_str(), port);
    length = sizeof(sockaddr_in);
  } else {
    FillIpv6Address(port, address);
    length = sizeof(sockaddr_in6);
  }
  return zel::Result::Ok;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): by value, as the interface defines it
zel::Result Socket::SplitAddress(std::string text, std::string& ip, int& port) {
  if (mSocketDomain == SocketDomain::Unix) return zel::Result::Fail;
  if (text.empty()) return zel::Result::Ok;
  char separator = 0;
  if (mSocketDomain == SocketDomain::IPv4) {
    separator = ':';
  } else if (mSocketDomain == SocketDomain::IPv6) {
    separator = ';';
  } else {
    return zel::Result::Fail;
  }
  const size_t p = text.find(separator);
  std::string portText = text;
  if (p != std::string::npos) {
    ip = text.substr(0, p);
    portText = text.substr(p + 1);
  }
  if (!ParsePort(portText, port)) {
    port = 0;
    return zel::Result::Fail;
  }
  return zel::Result::Ok;
}

// cppcheck-suppress passedByValue ; by value, as the interface defines it
// NOLINTNEXTLINE(performance-unnecessary-value-param): by value, as the interface defines it
zel::Result Socket::Connect(std::string dest) {
  std::string ip;
  int port = 0;
  if (IsIpDomain(mSocketDomain) && SplitAddress(dest, ip, port) != zel::Result::Ok) {
    return zel::Result::Fail;
  }
  if (IsMulticast(ip)) {
    JoinMulticast(ip);
    return zel::Result::Ok;
  }
  SocketAddress address;
  socklen_t length = 0;
  // The destination is taken as a C text: an abstract name cannot be reached.
  if (BuildPeerAddress(dest, ip, port, false, kConnectText, address, length) != zel::Result::Ok) {
    return zel::Result::Fail;
  }
  syslog(LOG_INFO, "dest [%s]\n", dest.c_str());
  if (length == 0) return zel::Result::Fail;
  if (connect(mFd, &address.base, length) < 0) {
    syslog(LOG_ERR, "%s %d: cannot connect errno [%d]\n", kConnectText, 543, errno);
    return zel::Result::Fail;
  }
  syslog(LOG_DEBUG, "%s %d: [%s] success to connect [%s]\n", kConnectText, 551, mPath.c_str(), dest.c_str());
  mConnected = true;
  return zel::Result::Ok;
}

void Socket::JoinMulticast(const std::string& ip) {
  ip_mreq request;
  std::memset(&request, 0, sizeof(request));
  request.imr_multiaddr.s_addr = inet_addr(ip.c_str());
  request.imr_interface.s_addr = htonl(INADDR_ANY);
  if (setsockopt(mFd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof(request)) < 0) {
    syslog(LOG_ERR, "%s %d: Cannot join multicast on [%s]\n", kConnectText, 497, ip.c_str());
  } else {
    syslog(LOG_INFO, "success to join multicast on [%s]\n", ip.c_str());
  }
}

zel::Result Socket::BuildPeerAddress(const std::string& dest, const std::string& ip, int port, bool wholeText,
                                     const char* function, SocketAddress& address, socklen_t& length) {
  std::memset(&address, 0, sizeof(address));
  length = 0;
  switch (mSocketDomain) {
    case SocketDomain::Unix: {
      // The record is zero-filled, so a C text stays terminated.
      const size_t used = wholeText ? dest.length() : std::strlen(dest.c_str());
      const size_t room = wholeText ? sizeof(address.un.sun_path) : sizeof(address.un.sun_path) - 1;
      if (used > room) {
        LogTooLongForUnixAddress(function, "dest", dest, used);
        return zel::Result::Fail;
      }
      address.un.sun_family = AF_UNIX;
      std::memcpy(address.un.sun_path, dest.data(), used);
      length = sizeof(sockaddr_un);
      break;
    }
    case SocketDomain::IPv4:
      FillIpv4Address(ip, port, address);
      length = sizeof(sockaddr_in);
      break;
    case SocketDomain::IPv6:
      FillIpv6Address(port, address);
      length = sizeof(sockaddr_in6);
      break;
    default:
      break;
  }
  return zel::Result::Ok;
}

zel::Result Socket::Listen(int backlog) {
  if (mFd < 0) return zel::Result::Fail;
  if (mSocketType != SocketType::Stream) return zel::Result::Ok;
  if (listen(mFd, backlog) < 0) {
    syslog(LOG_DEBUG, "%s %d: close socket fd [%d] errno [%d]\n", kListenText, 357, mFd, errno);
    close(mFd);
    mFd = -1;
    return zel::Result::Fail;
  }
  return zel::Result::Ok;
}

int Socket::Accept(std::string& peer) {
  peer.clear();
  SocketAddress address;
  std::memset(&address, 0, sizeof(address));
  socklen_t length = 0;
  switch (mSocketDomain) {
    case SocketDomain::Unix:
      length = sizeof(sockaddr_un);
      break;
    case SocketDomain::IPv4:
      length = sizeof(sockaddr_in);
      break;
    case SocketDomain::IPv6:
      length = sizeof(sockaddr_in6);
      break;
    default:
      syslog(LOG_ERR, "%s %d: unknown socket domain [%d]\n", kAcceptText, 412, static_cast<int>(mSocketDomain));
      return 0;
  }
  const int fd = accept4(mFd, &address.base, &length, SOCK_CLOEXEC);
  if (fd > 0) peer = PeerText(address, length);
  return fd;
}

std::string Socket::PeerText(const SocketAddress& address, socklen_t length) const {
  if (mSocketDomain == SocketDomain::Unix) return UnixPeerText(address.un, length);
  if (mSocketDomain == SocketDomain::IPv4) return Ipv4PeerText(address.in);
  char text[INET6_ADDRSTRLEN];
  if (inet_ntop(AF_INET6, &address.in6.sin6_addr, text, sizeof(text)) == nullptr) {
    syslog(LOG_ERR, "%s() : inet_ntop() failed, check errno[%d]\n", kAcceptShortText, errno);
    return std::string();
  }
  return std::string(text) + ";" + DecimalText(ntohs(address.in6.sin6_port));
}

zel::Result Socket::SetNonBlock(bool on) {
  if (mFd < 0) return zel::Result::Fail;
  int flags = fcntl(mFd, F_GETFL);
  if (flags < 0) return zel::Result::Fail;
  flags = on ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK);
  if (fcntl(mFd, F_SETFL, flags) < 0) {
    syslog(LOG_WARNING, "%s %d : fcntl [%d] F_SETFL flags [%d] cannot be executed\n", kSetNonBlockShortText, 432, mFd,
           flags);
    return zel::Result::Fail;
  }
  return zel::Result::Ok;
}

zel::Result Socket::SetReuseAddress() {
  if (mFd < 0) return zel::Result::Fail;
  const int on = 1;
  if (setsockopt(mFd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) < 0) {
    syslog(LOG_ERR, "%s %d: errno [%d]\n", kSetReuseAddressText, 459, errno);
    return zel::Result::Fail;
  }
  return zel::Result::Ok;
}

ssize_t Socket::SendTo(int fd, const void* buf, size_t len) {
  if (fd < 0 || buf == nullptr || len == 0) return -1;
  int failure = 0;
  const ssize_t sent = SendAll(
      buf, len, kSendToFdText, kMsgSendToFdRetry,
      [fd](const char* bytes, size_t left) { return send(fd, bytes, left, MSG_EOR); }, failure);
  if (failure == 0) return sent;
  syslog(LOG_ERR, "%s %d: errno [%d]\n", kSendToFdText, 602, failure);
  return -failure;
}

ssize_t Socket::SendTo(int fd, const std::string& data) { return SendTo(fd, data.data(), data.length()); }

// cppcheck-suppress passedByValue ; by value, as the interface defines it
// NOLINTNEXTLINE(performance-unnecessary-value-param): by value, as the interface defines it
ssize_t Socket::SendTo(std::string dest, const void* buf, size_t len) {
  if (mFd < 0 || buf == nullptr || len == 0) return -1;
  std::string ip;
  int port = 0;
  if (IsIpDomain(mSocketDomain) && SplitAddress(dest, ip, port) != zel::Result::Ok) return -1;
  SocketAddress address;
  socklen_t length = 0;
  if (BuildPeerAddress(dest, ip, port, true, kSendToDestText, address, length) != zel::Result::Ok) return -1;
  const sockaddr* target = nullptr;
  if (length != 0) target = &address.base;
  const int fd = mFd;
  int failure = 0;
  const ssize_t sent = SendAll(
      buf, len, kSendToDestText, kMsgSendToDestRetry,
      [fd, target, length](const char* bytes, size_t left) { return sendto(fd, bytes, left, 0, target, length); },
      failure);
  if (failure != 0) {
    syslog(LOG_ERR, "%s %d: errno [%d] cannot send data to [%s]\n", kSendToDestText, 721, failure, dest.c_str());
  }
  return sent;
}

ssize_t Socket::SendTo(std::string dest, const std::string& data) {
  return SendTo(std::move(dest), data.data(), data.length());
}

ssize_t Socket::Send(const void* buf, size_t len) { return SendTo(mFd, buf, len); }

ssize_t Socket::Send(const std::string& data) { return Send(data.data(), data.length()); }

ssize_t Socket::Recv(void* buf, size_t len) {
  if (mFd < 0) return -1;
  return recv(mFd, buf, len, 0);
}

ssize_t Socket::RecvTimedWait(void* buf, size_t len, uint64_t timeout) {
  if (mFd < 0) return -1;
  if (mFd >= FD_SETSIZE) {
    syslog(LOG_ERR, "%s: fd [%d] cannot be waited for by select (FD_SETSIZE [%d])\n", kRecvTimedWaitText, mFd,
           FD_SETSIZE);
    return -1;
  }
  timeval wait;
  wait.tv_sec = static_cast<time_t>(timeout / 1000000);
  wait.tv_usec = static_cast<suseconds_t>(timeout % 1000000);
  fd_set readSet;
  FD_ZERO(&readSet);
  FD_SET(mFd, &readSet);
  const int res = select(mFd + 1, &readSet, nullptr, nullptr, &wait);
  if (res > 0 && FD_ISSET(mFd, &readSet)) return Recv(buf, len);
  syslog(LOG_ERR, "%s %d: res [%d] errno [%d]\n", kRecvTimedWaitText, 639, res, errno);
  return -1;
}

}  // namespace zel::util
