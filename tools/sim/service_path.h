// Checks, before the simulator binds it, that the service's socket path is one
// a client can reach and that no other service answers there. Stateless.
#pragma once

#include <string>

namespace zel::sim {

class ServicePath {
 public:
  // The longest path a client can connect to: a Unix socket address holds it
  // with its terminating zero byte.
  static const size_t kMaxLength;

  // Empty when `path` can be served; otherwise what is wrong with it. A stale
  // socket file that nothing answers on is fine: binding replaces it.
  static std::string Problem(const std::string& path);
};

}  // namespace zel::sim
