// Runs the command-line interface the way the client does, for the
// end-to-end tests: prompt "hi>", the client's banner, the built-ins and the
// three device commands, whose handlers only print the words they received.
// With "--failing", the commands that make the dispatcher report failures are
// registered as well.
#include <cstring>

#include "cli/cmd_line_interface.h"
#include "tests/cli/test_commands.h"

int main(int argc, char** argv) {
  using namespace zel::cli;
  CmdLineInterface cli;
  cli.setPrompt(test::kPrompt);
  cli.setBanner(test::kBanner);
  cli.registerCommands(test::DeviceCommands());
  if (argc > 1 && std::strcmp(argv[1], "--failing") == 0) {
    cli.registerCommands(test::FailingCommands());
  }
  cli.run();
  return 0;
}
