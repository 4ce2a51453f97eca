// Reads kendrivex-ctl's command line: options (with the environment's
// defaults), then the command and its arguments, or "-" for standard input.
// Used from main only (getopt_long keeps global state).
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
  // Reads the options at the start of `args` (whose first word is the
  // program's name); `first` is then the index of the first other word.
  bool ReadOptions(std::vector<char*>& args, size_t& first);
  bool TakeOption(int letter, const char* value, const std::string& typed);
  static bool TakesNoArguments(const std::string& word);
  bool ReadCommand(const std::vector<std::string>& words);
  bool CheckWatchOptions();
  bool CheckService();
  bool Usage(const std::string& what, const std::string& why);

  int mArgc;
  char** mArgv;
  Invocation* mInvocation = nullptr;
  Failure* mFailure = nullptr;
  // How --exec and --count were typed, when they were.
  std::string mSawExec;
  std::string mSawCount;
};

}  // namespace zel::ctl
