// The --help and --version texts of kendrivex-bridge, the options read from
// the option table. Stateless.
#pragma once

#include <string>

namespace zel::bridge {

class HelpText {
 public:
  static std::string Help();
  static std::string Version();
};

}  // namespace zel::bridge
