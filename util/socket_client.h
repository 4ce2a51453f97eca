// A socket bound to its own address and aimed at one peer at construction;
// sends only while connected. No lock: its owner serialises all use. Owns its
// descriptor, its socket file and the (optional) transport wrapper.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "util/socket.h"
#include "util/tls_wrapper.h"

namespace zel::util {

class SocketClient : public Socket {
 public:
  // cppcheck-suppress duplInheritedMember ; each module has a tag of its own, hiding the socket's on purpose
  static constexpr char kTag[] = "util::SocketClient";

  // Binds `path` (empty: unbound) and, for Unix or Stream sockets with a
  // non-empty `dest`, connects to `dest`.
  SocketClient(std::string path, SocketType type, SocketDomain domain, std::string dest);
  ~SocketClient();

  // -1 without a system call unless connected.
  ssize_t Send(const void* buf, size_t len);
  ssize_t Send(const std::string& data);
  ssize_t Send(const char* buf, size_t len);
  ssize_t Recv(void* buf, size_t len);
  // `timeout` in microseconds; -1 on time-out.
  ssize_t RecvTimedWait(void* buf, size_t len, uint64_t timeout);

  // Puts an encrypted transport under the socket (null: plain).
  void SetTls(std::unique_ptr<TlsWrapper> tls);

 private:
  std::unique_ptr<TlsWrapper> mTls;
};

}  // namespace zel::util
