#include "tools/ctl/option_table.h"

namespace zel::ctl {

const std::vector<OptionSpec>& OptionTable::All() {
  static const std::vector<OptionSpec> kOptions = {
      {'s', "service", "PATH",  "the service's socket (default $KENDRIVEX_SERVICE)"     },
      {'d', "dir",     "DIR",   "where the sockets go ($KENDRIVEX_DIR, $TMPDIR or /tmp)"},
      {'t', "timeout", "MS",    "the wait for each reply, 1 to 60000 ms (default 5000)" },
      {'j', "json",    nullptr, "print one JSON object a line"                          },
      {'e', "exec",    "PROG",  "watch: run PROG with each event's number and arguments"},
      {'n', "count",   "N",     "watch: stop after N events"                            },
      {'v', "verbose", nullptr, "copy the diagnostics to standard error"                },
      {'h', "help",    nullptr, "print this help and exit"                              },
      {'V', "version", nullptr, "print the version and exit"                            },
  };
  return kOptions;
}

}  // namespace zel::ctl
