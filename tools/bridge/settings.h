// What kendrivex-bridge's options and configuration file set: the service,
// the broker and how to reach it, the box's topics, what it accepts from the
// broker and how it behaves while the broker or the service is away. A plain
// value filled once at start; read-only after.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/bridge/broker_address.h"

namespace zel::bridge {

struct Settings {
  static constexpr uint32_t kDefaultQueue = 1000;
  static constexpr uint32_t kMaxQueue = 1000000;
  static constexpr uint32_t kDefaultHealthSeconds = 30;
  static constexpr uint32_t kMaxHealthSeconds = 86400;
  // The reply time-out of each request to the service, as kendrivex-ctl's
  // default.
  static constexpr uint32_t kReplyTimeoutMs = 5000;

  std::string servicePath;  // the service's socket
  std::string dir;          // the directory for the bridge's own sockets
  BrokerAddress broker;
  std::string id;  // the box's name in topics
  std::string prefix = "kendrivex";
  std::vector<std::string> allowed = {"ping", "stations", "mac"};  // canonical command names
  uint32_t queue = kDefaultQueue;                                  // events kept while the broker is away
  uint32_t healthSeconds = kDefaultHealthSeconds;                  // 0: no health pings
  std::string caFile;
  std::string caPath;
  std::string certFile;
  std::string keyFile;
  std::string username;
  std::optional<std::string> password;  // the first line of --password-file
  bool verbose = false;

  bool Allows(const std::string& command) const;
};

}  // namespace zel::bridge
