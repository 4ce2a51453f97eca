// The options kendrivex-ctl knows: short and long names, the value each
// takes and a one-line description. The parser and the help text (and so
// the bash completion) read this one table. Constant data.
#pragma once

#include <vector>

namespace zel::ctl {

struct OptionSpec {
  char shortName;         // also the value getopt_long returns for it
  const char* longName;   // without the leading "--"
  const char* valueName;  // the value as the help text shows it; nullptr for a flag
  const char* summary;
};

class OptionTable {
 public:
  static const std::vector<OptionSpec>& All();
};

}  // namespace zel::ctl
