// Tells one instance of the service from the next by its socket file: a
// service that starts binds a new socket, so a restart shows as a new file
// (device, inode and change time) at the same path, or as a missing one while
// it is down. Used by the watch to register again with a restarted service
// without sending it anything in between. A plain value.
#pragma once

#include <sys/types.h>
#include <time.h>

#include <string>

namespace zel::ctl {

struct ServiceIdentity {
  bool present = false;
  dev_t device = 0;
  ino_t inode = 0;
  timespec changed{};

  // The socket file at `path` now; not present when there is none.
  static ServiceIdentity Of(const std::string& path);
  bool SameAs(const ServiceIdentity& other) const;
};

}  // namespace zel::ctl
