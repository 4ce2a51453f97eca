// What kendrivex-fleet is told to do: the command (ls, run, watch, forget)
// with its words, the broker and how to reach it, and the options, from the
// command line and the configuration files it names, read with the client
// core's option machinery; and the --help and --version texts. Plain values
// filled once at start, on the main thread before any other starts
// (getopt_long keeps global state); read-only after.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/fleet/http.h"
#include "tools/fleet/run.h"
#include "tools/mqtt/connection.h"
#include "tools/service_client/failure.h"

namespace zel::fleet {

struct Invocation {
  enum class Mode : uint8_t { Ls, Run, Watch, Forget, Web, Help, Version };

  static constexpr uint32_t kDefaultTimeoutMs = 5000;
  static constexpr uint32_t kMaxTimeoutMs = 600000;

  Mode mode = Mode::Ls;
  zel::mqtt::ConnectionSettings connection;  // the broker, TLS and credentials
  std::string prefix = "kendrivex";
  uint32_t timeoutMs = kDefaultTimeoutMs;
  bool json = false;
  unsigned verbosity = 0;  // how often -v was given
  // run: whom, and what.
  Target target;
  RunCommand command;
  // watch: how many events at most (0: no end), and whose (none: every
  // box's).
  uint32_t count = 0;
  std::vector<std::string> boxes;
  // forget: the boxes to forget.
  std::vector<std::string> forget;
  // web: where to listen, and the password that browsers give (none: every
  // request is served, which only loopback allows).
  ListenAddress listen;
  std::optional<std::string> webPassword;
  // What the settings allow but an operator should hear of (a password file
  // others may read, a password sent in the clear).
  std::vector<std::string> warnings;
};

// Fills `invocation` from the command line; false with a usage failure
// (status 2) when the command line, a configuration file or the password
// file is wrong.
bool ParseArguments(int argc, char** argv, Invocation& invocation, zel::service_client::Failure& failure);

std::string HelpText();
std::string VersionText();

}  // namespace zel::fleet
