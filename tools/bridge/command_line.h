// Reads kendrivex-bridge's command line and its configuration file into the
// settings: defaults, then the environment (KENDRIVEX_SERVICE, KENDRIVEX_DIR,
// TMPDIR) and the host name, then the file, then the options given, which
// win. Used from main only (getopt_long keeps global state).
#pragma once

#include <string>
#include <vector>

#include "tools/bridge/option_table.h"
#include "tools/bridge/settings.h"
#include "tools/service_client/failure.h"

namespace zel::bridge {

struct Invocation {
  enum class Mode { Run, Help, Version };

  Mode mode = Mode::Run;
  Settings settings;
};

class CommandLine {
 public:
  CommandLine(int argc, char** argv) : mArgc(argc), mArgv(argv) {}

  // False with a usage failure (status 2) when the command line or the
  // configuration file is wrong.
  bool Parse(Invocation& invocation, zel::service_client::Failure& failure);

 private:
  // One option as given: its table entry, its value and how it was typed.
  struct Given {
    const OptionSpec* option;
    std::string value;
    std::string typed;
  };

  bool ReadOptions(std::vector<Given>& given);
  bool ApplyConfigFile(const std::string& path, Settings& settings);
  bool ApplyGiven(const std::vector<Given>& given, Settings& settings);
  bool CheckWhole(Settings& settings);
  bool Usage(const std::string& what, const std::string& why);

  int mArgc;
  char** mArgv;
  Invocation* mInvocation = nullptr;
  zel::service_client::Failure* mFailure = nullptr;
};

}  // namespace zel::bridge
