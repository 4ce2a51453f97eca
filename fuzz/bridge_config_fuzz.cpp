// Fuzz target: kendrivex-bridge's configuration file, read by the client
// core's reader and judged by the bridge's settings, as the bridge reads it
// at start (kendrivex-bridge -s /svc -c FILE). Whatever the file holds, the
// reading either gives settings the bridge can run with (a usable box name
// and prefix, its client id and will set, values in their ranges) or fails
// with a usage failure whose line is one line without control characters,
// of bounded length.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzz/require.h"
#include "tools/bridge/settings.h"

namespace {

using zel::fuzz::Require;

// The file the input is written to, made once and removed at the end.
const std::string& ConfigPath() {
  static const std::string path = [] {
    char name[] = "/tmp/kdx-fuzz-bridge-config-XXXXXX";
    const int fd = ::mkstemp(name);
    Require(fd >= 0, "a scratch file can be made");
    ::close(fd);
    return std::string(name);
  }();
  static const bool removedAtExit = std::atexit([] { ::unlink(ConfigPath().c_str()); }) == 0;
  static_cast<void>(removedAtExit);
  return path;
}

void WriteConfig(const uint8_t* data, size_t size) {
  const int fd = ::open(ConfigPath().c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
  Require(fd >= 0, "the scratch file opens");
  size_t done = 0;
  while (done < size) {
    const ssize_t written = ::write(fd, data + done, size - done);
    Require(written > 0, "the scratch file takes the input");
    done += static_cast<size_t>(written);
  }
  ::close(fd);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  WriteConfig(data, size);
  std::string program = "kendrivex-bridge";
  std::string service = "-s";
  std::string servicePath = "/svc";
  std::string config = "-c";
  std::string path = ConfigPath();
  char* argv[] = {program.data(), service.data(), servicePath.data(), config.data(), path.data(), nullptr};
  zel::bridge::Invocation invocation;
  zel::service_client::Failure failure;
  if (zel::bridge::ParseArguments(5, argv, invocation, failure)) {
    const zel::bridge::Settings& settings = invocation.settings;
    Require(invocation.mode == zel::bridge::Invocation::Mode::Run, "a file never asks for help or the version");
    Require(!settings.id.empty() && settings.id.find_first_of("/+#") == std::string::npos, "the box's name is usable");
    Require(!settings.prefix.empty() && settings.prefix.find_first_of("+#") == std::string::npos,
            "the prefix is usable");
    Require(settings.queue <= zel::bridge::Settings::kMaxQueue, "the queue is within its range");
    Require(settings.healthSeconds <= zel::bridge::Settings::kMaxHealthSeconds, "the health interval is in range");
    Require(settings.connection.clientId == "kendrivex-bridge-" + settings.prefix + "/" + settings.id,
            "the client id is the box's");
    Require(settings.connection.will.has_value(), "the will is set");
    Require(settings.connection.certFile.empty() == settings.connection.keyFile.empty(), "cert and key go together");
    return 0;
  }
  Require(failure.status == zel::service_client::kStatusUsage, "a wrong file is a usage failure");
  const std::string line = failure.Line("kendrivex-bridge");
  Require(!line.empty() && line.back() == '\n', "the failure is a line");
  for (size_t i = 0; i + 1 < line.size(); ++i) {
    const auto byte = static_cast<unsigned char>(line[i]);
    Require(byte >= 0x20 && byte != 0x7F, "the failure line holds no control characters");
  }
  Require(line.size() < 1024, "the failure line is short");
  return 0;
}
