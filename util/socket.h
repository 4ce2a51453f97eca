// A BSD socket descriptor made from a textual address (Unix path or abstract
// name, 'ip:port', 'ip;port', netlink), with connect, send with retry, receive
// with a time-out, listen and accept. No lock: one owner thread at a time; the
// descriptor is closed and the socket file removed on destruction.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "util/result.h"

namespace zel::util {

union SocketAddress;

enum class SocketDomain : uint8_t {
  Unix = 0,
  IPv4 = 1,
  IPv6 = 2,
  Netlink = 3,
};

enum class SocketType : uint8_t {
  Stream = 1,
  Datagram = 2,
  Raw = 3,
};

class Socket {
 public:
  static constexpr char kTag[] = "util::Socket";

  // Creates and binds the socket at once (Init); a failure leaves GetFd() at -1.
  Socket(std::string path, SocketType type, SocketDomain domain);
  // Wraps a descriptor made elsewhere; it is neither shut down nor closed here.
  Socket(int fd, SocketType type, SocketDomain domain);
  ~Socket();
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  zel::Result Init();
  zel::Result Listen(int backlog);
  // Returns the accepted descriptor (or accept's failure); fills `peer` only for
  // a descriptor greater than 0.
  int Accept(std::string& peer);
  zel::Result SetNonBlock(bool on);
  zel::Result SetReuseAddress();
  zel::Result Connect(std::string dest);

  // Splits 'ip:port' (IPv4) or 'ip;port' (IPv6). Fail for the other domains and
  // for a port that is not a number; an empty text leaves both untouched.
  zel::Result SplitAddress(std::string text, std::string& ip, int& port);

  // Sends all of `buf` on `fd`; the bytes sent, or the negated errno.
  ssize_t SendTo(int fd, const void* buf, size_t len);
  ssize_t SendTo(int fd, const std::string& data);
  // Sends one datagram to an address text; the bytes sent, 0 on failure, -1
  // for bad arguments.
  ssize_t SendTo(std::string dest, const void* buf, size_t len);
  ssize_t SendTo(std::string dest, const std::string& data);
  ssize_t Send(const void* buf, size_t len);
  ssize_t Send(const std::string& data);

  ssize_t Recv(void* buf, size_t len);
  // Waits at most `timeout` microseconds for data; -1 on time-out or error.
  ssize_t RecvTimedWait(void* buf, size_t len, uint64_t timeout);

  int GetFd() const { return mFd; }
  bool IsConnected() const { return mConnected; }
  const std::string& GetPath() const { return mPath; }
  SocketDomain GetSocketDomain() const { return mSocketDomain; }
  SocketType GetSocketType() const { return mSocketType; }
  bool OwnsFd() const { return mOwnsFd; }

 protected:
  bool mConnected;
  std::string mPath;
  SocketDomain mSocketDomain;
  int mFd;
  SocketType mSocketType;
  bool mOwnsFd;

 private:
  zel::Result Bind();
  zel::Result BuildOwnAddress(SocketAddress& address, socklen_t& length);
  zel::Result BuildOwnUnixAddress(SocketAddress& address, socklen_t& length);
  zel::Result BuildOwnIpAddress(SocketAddress& address, socklen_t& length);
  void JoinMulticast(const std::string& ip);
  // The peer record for a destination text (zero-filled, no record for
  // netlink). `wholeText` copies every byte of a Unix destination (abstract
  // names work); otherwise it is taken as a C text. Fail when it does not fit.
  zel::Result BuildPeerAddress(const std::string& dest, const std::string& ip, int port, bool wholeText,
                               const char* function, SocketAddress& address, socklen_t& length);
  std::string PeerText(const SocketAddress& address, socklen_t length) const;
};

}  // namespace zel::util
