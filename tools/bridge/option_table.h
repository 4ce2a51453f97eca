// The options kendrivex-bridge knows: short and long names, the value each
// takes, whether a configuration file may set it, and a one-line
// description. The command line, the configuration file and the help text
// read this one table. Constant data; safe from any thread.
#pragma once

#include <string>
#include <vector>

namespace zel::bridge {

enum class OptionId {
  Service,
  Dir,
  Broker,
  Id,
  Prefix,
  Allow,
  Queue,
  Health,
  CaFile,
  CaPath,
  Cert,
  Key,
  Username,
  PasswordFile,
  Config,
  Verbose,
  Help,
  Version,
};

struct OptionSpec {
  OptionId id;
  char shortName;         // 0 when it has none
  const char* longName;   // without the leading "--"; the name in a configuration file
  const char* valueName;  // the value as the help text shows it; nullptr for a flag
  const char* summary;
  bool inConfigFile;  // a configuration file may set it
};

class OptionTable {
 public:
  static const std::vector<OptionSpec>& All();
  // The option of this long name; nullptr when there is none.
  static const OptionSpec* FindLong(const std::string& name);
};

}  // namespace zel::bridge
