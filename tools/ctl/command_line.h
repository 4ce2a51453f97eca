// Reads kendrivex-ctl's command line: the options (from the option table,
// with the environment's defaults), then the command and its arguments, or
// "-" for commands from standard input. Options come before the command;
// everything after it is its arguments. Used once, from main (getopt_long
// keeps global state).
#pragma once

#include <string>
#include <vector>

#include "tools/ctl/command_request.h"
#include "tools/ctl/failure.h"
#include "tools/ctl/settings.h"

namespace zel::ctl {

struct Invocation {
  enum class Mode { OneShot, Batch, Watch, Help, Version };

  Mode mode = Mode::OneShot;
  Settings settings;
  CommandRequest request;  // the command of OneShot and Watch
};

class CommandLine {
 public:
  CommandLine(int argc, char** argv) : mArgc(argc), mArgv(argv) {}

  // False with a usage failure when the command line is wrong.
  bool Parse(Invocation& invocation, Failure& failure);

 private:
  bool ReadOptions();
  bool TakeOption(int letter, const char* value, const std::string& typed);
  bool ReadCommand();
  bool CheckWatchOptions();
  bool CheckService();
  bool Usage(const std::string& what, const std::string& why);

  int mArgc;
  char** mArgv;
  Invocation* mInvocation = nullptr;
  Failure* mFailure = nullptr;
  int mFirstWord = 1;
  // How --exec and --count were typed, when they were.
  std::string mSawExec;
  std::string mSawCount;
};

}  // namespace zel::ctl
