// What the socket modules log, as the util tests that several sources share
// expect it: the fixed function texts their records quote and the record of
// a socket made at a path. Constants and a stateless function.
#pragma once

#include <syslog.h>

#include <string>

#include "tests/support/log_record.h"

namespace zel::util::testkit {

inline constexpr char kInit[] = "zel::Result zel::util::Socket::Init()";
inline constexpr char kConnect[] = "zel::Result zel::util::Socket::Connect(std::string)";
inline constexpr char kFdCallback[] = "void zel::util::SocketServer::FdCallback(int, zel::util::FdType)";

inline test::LogRecord Made(int fd, const std::string& path) {
  return {LOG_INFO, "success to make socket fd [" + std::to_string(fd) + "] path [" + path + "]\n"};
}

}  // namespace zel::util::testkit
