#include "util/socket_client.h"

#include <syslog.h>

#include <utility>

namespace zel::util {
namespace {

constexpr char kSendText[] = "ssize_t zel::util::SocketClient::Send(const void*, size_t)";

}  // namespace

SocketClient::SocketClient(std::string path, SocketType type, SocketDomain domain, std::string dest)
    : Socket(std::move(path), type, domain) {
  // Datagram clients of the IP domains stay unconnected: they cannot use Send.
  if (!dest.empty() && (mSocketType == SocketType::Stream || mSocketDomain == SocketDomain::Unix)) {
    Connect(std::move(dest));
  }
}

SocketClient::~SocketClient() = default;

ssize_t SocketClient::Send(const void* buf, size_t len) {
  if (!mConnected) {
    syslog(LOG_ERR, "%s %d: Cannot Send without connection\n", kSendText, 49);
    return -1;
  }
  if (mTls) return mTls->Send(mFd, buf, len);
  return Socket::Send(buf, len);
}

ssize_t SocketClient::Send(const std::string& data) { return Send(data.data(), data.length()); }

ssize_t SocketClient::Send(const char* buf, size_t len) { return Send(static_cast<const void*>(buf), len); }

ssize_t SocketClient::Recv(void* buf, size_t len) {
  if (mTls) return mTls->Recv(mFd, buf, len);
  return Socket::Recv(buf, len);
}

ssize_t SocketClient::RecvTimedWait(void* buf, size_t len, uint64_t timeout) {
  if (mTls) return -1;
  return Socket::RecvTimedWait(buf, len, timeout);
}

void SocketClient::SetTls(std::unique_ptr<TlsWrapper> tls) { mTls = std::move(tls); }

}  // namespace zel::util
