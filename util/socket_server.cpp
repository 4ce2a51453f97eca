#include "util/socket_server.h"

#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "util/mutex_guard.h"
#include "util/socket_address.h"

namespace zel::util {
namespace {

constexpr char kFdCallbackText[] = "void zel::util::SocketServer::FdCallback(int, zel::util::FdType)";
constexpr char kRemoveFdText[] = "void zel::util::SocketServer::RemoveFd(int)";
constexpr char kAddFdText[] = "void zel::util::SocketServer::AddFd(int, std::string)";
constexpr uint32_t kBufferSize = 8192;
constexpr int kBacklog = 5;

// Zero-filled, with one byte more than is ever received: short data is
// followed by a zero byte, and even a full buffer ends in one.
std::vector<char> MakeBuffer(uint32_t size) { return std::vector<char>(size + 1, 0); }

}  // namespace

SocketServer::SocketServer(std::string path, SocketType type, SocketDomain domain, DataCallback cb)
    : Socket(std::move(path), type, domain), mBufferSize(kBufferSize) {
  pthread_mutex_init(&mMutex, nullptr);
  mDataCb = std::move(cb);
  Listen(kBacklog);
  // Without a data callback nobody would use what arrives: no thread at all.
  if (!mDataCb) return;
  mMonitor = std::make_unique<FdMonitor>();
  mMonitor->AddFd(mFd, FdType::Read, [this](int fd, FdType t) { FdCallback(fd, t); });
}

SocketServer::~SocketServer() {
  // The loop is stopped first, so that no callback runs while the members it
  // uses are going away; the accepted descriptors are forgotten, not closed.
  if (mMonitor) mMonitor->Stop();
  {
    MutexGuard guard(mMutex);
    mClients.clear();
  }
  pthread_mutex_destroy(&mMutex);
}

void SocketServer::FdCallback(int fd, FdType /*type*/) {
  if (fd != mFd) {
    ReceiveFromClient(fd);
  } else if (mSocketType == SocketType::Stream) {
    AcceptClient();
  } else if (mSocketType == SocketType::Datagram) {
    ReceiveDatagram();
  }
}

void SocketServer::ReceiveFromClient(int fd) {
  std::vector<char> buffer = MakeBuffer(mBufferSize);
  std::string peer;
  if (!GetClient(fd, peer)) {
    syslog(LOG_ERR, "%s %d: Unknown client fd [%d]\n", kFdCallbackText, 171, fd);
    // One read, so that select does not report it again at once.
    const ssize_t drained = read(fd, buffer.data(), mBufferSize);
    (void)drained;
    return;
  }
  TlsWrapper* tls = Tls();
  const ssize_t n =
      tls != nullptr ? tls->Recv(fd, buffer.data(), mBufferSize) : recv(fd, buffer.data(), mBufferSize, 0);
  if (n > 0) {
    if (mDataCb) mDataCb(mFd, fd, peer, buffer.data(), static_cast<size_t>(n));
    return;
  }
  if (n < 0) syslog(LOG_ERR, "%s %d: errno [%d]\n", kFdCallbackText, 154, errno);
  // Unregistered before it is closed, so that the number cannot be reused by
  // a new descriptor while the monitor still watches it.
  RemoveFd(fd);
  close(fd);
  if (tls != nullptr) tls->Forget(fd);
}

void SocketServer::AcceptClient() {
  std::string peer;
  int newfd = Accept(peer);
  syslog(LOG_DEBUG, "%s %d: add fd [%d] path [%s] server path [%s] proto [%s]\n", kFdCallbackText, 68, newfd,
         peer.c_str(), mPath.c_str(), mSocketType == SocketType::Stream ? "tcp" : "udp");
  TlsWrapper* tls = Tls();
  if (tls != nullptr && newfd > 0 && tls->Accept(newfd) != 0) {
    close(newfd);
    newfd = -1;
  }
  if (newfd < 0) {
    syslog(LOG_ERR, "%s %d: \n", kFdCallbackText, 81);
    return;
  }
  AddFd(newfd, peer);
  std::string tracked;
  // A connection the monitor cannot watch would never be read: refuse it.
  if (!GetClient(newfd, tracked)) {
    close(newfd);
    return;
  }
  ConnectCallback connectCb;
  {
    MutexGuard guard(mMutex);
    connectCb = mConnectCb;
  }
  if (connectCb) connectCb(mFd, newfd, peer);
}

void SocketServer::ReceiveDatagram() {
  SocketAddress sender;
  std::memset(&sender, 0, sizeof(sender));
  sockaddr* record = nullptr;
  socklen_t length = 0;
  if (mSocketDomain == SocketDomain::Unix) {
    record = &sender.base;
    length = sizeof(sockaddr_un);
  } else if (mSocketDomain == SocketDomain::IPv4) {
    record = &sender.base;
    length = sizeof(sockaddr_in);
  }
  std::vector<char> buffer = MakeBuffer(mBufferSize);
  const ssize_t n = recvfrom(mFd, buffer.data(), mBufferSize, 0, record, record != nullptr ? &length : nullptr);
  if (n <= 0) {
    syslog(LOG_ERR, "%s %d: fd [%d] recvfrom errno [%d]\n", kFdCallbackText, 113, mFd, errno);
    return;
  }
  std::string peer;
  if (mSocketDomain == SocketDomain::Unix) {
    peer = UnixPeerText(sender.un, length);
  } else if (mSocketDomain == SocketDomain::IPv4) {
    peer = Ipv4PeerText(sender.in);
  }
  if (mDataCb) mDataCb(mFd, 0, peer, buffer.data(), static_cast<size_t>(n));
}

void SocketServer::AddFd(int fd, std::string peer) {
  MutexGuard guard(mMutex);
  if (mClients.find(fd) != mClients.end()) return;
  if (!mMonitor) {
    syslog(LOG_ERR, "%s: fd [%d] cannot be watched: the server has no data callback\n", kAddFdText, fd);
    return;
  }
  if (mMonitor->AddFd(fd, FdType::Read, [this](int f, FdType t) { FdCallback(f, t); }) != 0) return;
  mClients.emplace(fd, std::move(peer));
}

void SocketServer::RemoveFd(int fd) {
  MutexGuard guard(mMutex);
  auto it = mClients.find(fd);
  if (it == mClients.end()) return;
  syslog(LOG_DEBUG, "%s %d: remove fd [%d] path [%s]\n", kRemoveFdText, 196, fd, it->second.c_str());
  mClients.erase(it);
  if (mMonitor) mMonitor->RemoveFd(fd, FdType::Read);
}

bool SocketServer::GetClient(int fd, std::string& peer) {
  MutexGuard guard(mMutex);
  auto it = mClients.find(fd);
  if (it == mClients.end()) return false;
  peer = it->second;
  return true;
}

ssize_t SocketServer::Send(int fd, const void* buf, size_t len) {
  if (mSocketType == SocketType::Datagram) {
    if (fd != mFd) return -1;
    return Socket::Send(buf, len);
  }
  if (mSocketType != SocketType::Stream) return -1;
  std::string peer;
  if (!GetClient(fd, peer)) return -1;
  TlsWrapper* tls = Tls();
  if (tls != nullptr) return tls->Send(fd, buf, len);
  return Socket::SendTo(fd, buf, len);
}

ssize_t SocketServer::Send(int fd, const std::string& data) { return Send(fd, data.data(), data.length()); }

// cppcheck-suppress passedByValue ; by value, as the interface defines it
ssize_t SocketServer::SendTo(std::string dest, std::string data) {
  return Socket::SendTo(std::move(dest), data.data(), data.length());
}

void SocketServer::SetConnectCallback(ConnectCallback cb) {
  if (mSocketType != SocketType::Stream) return;
  MutexGuard guard(mMutex);
  mConnectCb = std::move(cb);
}

void SocketServer::SetTls(std::unique_ptr<TlsWrapper> tls) {
  MutexGuard guard(mMutex);
  mTls = std::move(tls);
}

TlsWrapper* SocketServer::Tls() {
  MutexGuard guard(mMutex);
  return mTls.get();
}

}  // namespace zel::util
