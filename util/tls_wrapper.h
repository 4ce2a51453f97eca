// Hook for an encrypted transport under the socket client and server. This
// system has none, so every operation fails. Stateless; any thread.
#pragma once

#include <sys/types.h>

#include <cstddef>

namespace zel::util {

class TlsWrapper {
 public:
  // Always -1.
  ssize_t Send(int fd, const void* buf, size_t len);
  // Always -1.
  ssize_t Recv(int fd, void* buf, size_t len);
  // Nonzero (6): the connection is refused and its owner closes it.
  int Accept(int fd);
  // Always 0: there is no per-connection state to drop.
  int Forget(int fd);
};

}  // namespace zel::util
