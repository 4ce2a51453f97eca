// kendrivex-bridge's command line and configuration file: the option table,
// the defaults (the environment's KENDRIVEX_SERVICE, KENDRIVEX_DIR and
// TMPDIR, and the host name), the "name = value" file with the long option
// names, the check of each value and of the settings as a whole, and the
// --help and --version texts made from the table. The file's values come
// before those of the command line, which win. Main thread only, before any
// other thread starts (getopt_long keeps global state).
#pragma once

#include <string>

#include "tools/bridge/settings.h"
#include "tools/service_client/failure.h"

namespace zel::bridge {

// What the command line asks for.
struct Invocation {
  enum class Mode { Run, Help, Version };

  Mode mode = Mode::Run;
  Settings settings;
};

// Fills `invocation`, a default one, from the command line; false with a
// usage failure (status 2) when the command line or a configuration file is
// wrong.
bool ParseArguments(int argc, char** argv, Invocation& invocation, zel::service_client::Failure& failure);

std::string HelpText();
std::string VersionText();

}  // namespace zel::bridge
