// The checks made before any socket file is made: that a service socket is at
// the path and takes datagrams, and that the directory for this client's
// sockets exists, is writable and gives paths that fit a socket address.
// Stateless; safe from any thread.
#pragma once

#include <string>

#include "tools/ctl/failure.h"

namespace zel::ctl {

class Preflight {
 public:
  // The longest path a Unix socket address holds with its zero byte.
  static const size_t kMaxSocketPath;

  // Status 3 when no socket is there or it refuses datagrams, status 4 when
  // its path is too long.
  static bool CheckService(const std::string& path, Failure& failure);
  // Status 4 when the directory is missing, not writable, or too deep for
  // the client's socket paths (with "-event" when `withEvents`).
  static bool CheckDirectory(const std::string& dir, bool withEvents, Failure& failure);
  // Why the client library could not set a client up, after the fact: the
  // service or the directory failed a check, or else all ten of this
  // process's slot paths in the directory are taken (status 4).
  static Failure WhyNoClient(const std::string& service, const std::string& dir, bool withEvents);
  // The path the client library would give this process's last slot in
  // `dir`: the longest of its socket paths.
  static std::string LongestClientPath(const std::string& dir, bool withEvents);
};

}  // namespace zel::ctl
