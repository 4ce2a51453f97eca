// kendrivex-ctl's command line: the options (with their defaults from the
// environment), then the command and its arguments, or "-" for commands from
// standard input; and the --help and --version texts, made from the option
// table here and the client core's command table. The table is data for the
// client core's option reader (tools/service_client/options.h). The bash completion reads
// the command and option names from the help text, so its layout stays
// simple: one command or option a line, indented by two blanks, under
// "Commands:" and "Options:". Main thread only, before any other thread
// starts (getopt_long keeps global state).
#pragma once

#include <cstdint>
#include <string>

#include "tools/service_client/commands.h"
#include "tools/service_client/failure.h"
#include "tools/service_client/runner.h"

namespace zel::ctl {

using service_client::Failure;

// What the command line asks for.
struct Invocation {
  enum class Mode { OneShot, Batch, Watch, Help, Version };

  Mode mode = Mode::OneShot;
  service_client::Settings settings;
  service_client::Request request;  // the command of OneShot and Watch
  bool json = false;                // one JSON object a line
  std::string execProgram;          // watch: run for each event; empty for none
  uint32_t count = 0;               // watch: stop after so many events; 0 for no limit
  unsigned verbosity = 0;           // how often -v was given
};

// False with a usage failure (status 2) when the command line is wrong.
bool ParseArguments(int argc, char** argv, Invocation& invocation, Failure& failure);

// A failure of the client core as kendrivex-ctl says it: a missing or
// unknown command points to the help text, which lists the commands.
void PointToHelp(Failure& failure);

std::string HelpText();
std::string VersionText();

}  // namespace zel::ctl
