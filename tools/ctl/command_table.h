// The commands kendrivex-ctl knows: canonical names, the interactive names
// that are their aliases, their arguments and one-line descriptions. The
// parser, the help text and (through the help text) the bash completion all
// read this one table. Constant data; safe from any thread.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace zel::ctl {

enum class CommandKind { Ping, Stations, Mac, Send, Watch };

struct CommandSpec {
  CommandKind kind;
  const char* name;       // canonical name, used in JSON output
  const char* alias;      // the interactive program's name for it, or nullptr
  const char* arguments;  // the arguments as the help text shows them
  const char* summary;    // what it does, for the help text
  bool takesArguments;    // false: any argument is a usage error
  bool inBatch;           // may appear on a line of standard input
};

class CommandTable {
 public:
  static const std::vector<CommandSpec>& All();
  // The command named `word` by its canonical name or its alias; nullptr
  // when there is none.
  static const CommandSpec* Find(const std::string& word);
};

}  // namespace zel::ctl
