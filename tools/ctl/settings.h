// What the options of kendrivex-ctl set: where the service and this client's
// sockets are, how long a reply may take, and how output and the watch
// behave. A plain value filled once by the command line; read-only after.
#pragma once

#include <cstdint>
#include <string>

namespace zel::ctl {

struct Settings {
  // The longest reply wait that --timeout accepts, in milliseconds.
  static constexpr uint32_t kMaxTimeoutMs = 60000;
  static constexpr uint32_t kDefaultTimeoutMs = 5000;

  std::string servicePath;  // the service's socket
  std::string dir;          // the directory for this client's sockets
  uint32_t timeoutMs = kDefaultTimeoutMs;
  bool json = false;
  std::string execProgram;  // watch: run for each event; empty for none
  uint32_t count = 0;       // watch: stop after so many events; 0 for no limit
  bool verbose = false;     // diagnostics also to standard error

  uint64_t TimeoutUs() const { return uint64_t{timeoutMs} * 1000; }
};

}  // namespace zel::ctl
