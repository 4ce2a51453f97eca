// The --help and --version texts of kendrivex-ctl, made from the command and
// option tables. The bash completion reads the command and option names from
// the help text, so its layout is kept simple: one command or option a line,
// indented by two blanks, under "Commands:" and "Options:". Stateless.
#pragma once

#include <string>

namespace zel::ctl {

class HelpText {
 public:
  static std::string Help();
  static std::string Version();
};

}  // namespace zel::ctl
