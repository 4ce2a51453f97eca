// A socket watched by its own fd monitor thread: each datagram, or for stream
// servers each accepted connection and the data on it, is handed to the data
// callback on that thread. Owns the monitor, the descriptor and the socket
// file; the accepted descriptors it tracks are closed when their peer ends.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "util/fd_monitor.h"
#include "util/socket.h"
#include "util/tls_wrapper.h"

namespace zel::util {

// Receives data on the monitor thread. `clientFd` is 0 for datagrams; `data`
// is freed when the callback returns. The result is not used.
using DataCallback = std::function<bool(int serverFd, int clientFd, std::string peer, void* data, size_t length)>;
// Told of each accepted connection on the monitor thread.
using ConnectCallback = std::function<void(int serverFd, int clientFd, std::string peer)>;

class SocketServer : public Socket {
 public:
  // cppcheck-suppress duplInheritedMember ; each module has a tag of its own, hiding the socket's on purpose
  static constexpr char kTag[] = "util::SocketServer";

  // Binds `path`, listens (stream) and, only when `cb` is set, starts the
  // monitor thread that reads the socket.
  SocketServer(std::string path, SocketType type, SocketDomain domain, DataCallback cb);
  ~SocketServer();

  // Called by the monitor for each ready descriptor.
  void FdCallback(int fd, FdType type);
  // Tracks an accepted descriptor and its peer text and has the monitor watch
  // it; a known one is ignored. A descriptor the monitor cannot watch is not
  // tracked (GetClient tells).
  void AddFd(int fd, std::string peer);
  // Forgets an accepted descriptor (it is not closed); unknown ones are ignored.
  void RemoveFd(int fd);

  ssize_t Send(int fd, const void* buf, size_t len);
  ssize_t Send(int fd, const std::string& data);
  ssize_t SendTo(std::string dest, std::string data);

  // Stream servers only; told of each accepted connection on the monitor thread.
  void SetConnectCallback(ConnectCallback cb);
  // Puts an encrypted transport under accepted connections (null: plain);
  // set it before any client connects, the old one is destroyed at once.
  void SetTls(std::unique_ptr<TlsWrapper> tls);

  // The peer text of a tracked descriptor; false when it is not tracked.
  bool GetClient(int fd, std::string& peer);

 private:
  void ReceiveFromClient(int fd);
  void AcceptClient();
  void ReceiveDatagram();
  TlsWrapper* Tls();

  uint32_t mBufferSize;
  std::unique_ptr<FdMonitor> mMonitor;
  pthread_mutex_t mMutex;  // guards mClients, mConnectCb and the mTls pointer
  std::map<int, std::string> mClients;
  DataCallback mDataCb;
  ConnectCallback mConnectCb;
  std::unique_ptr<TlsWrapper> mTls;
};

}  // namespace zel::util
