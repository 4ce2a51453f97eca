#include "tests/cli/test_commands.h"

#include <cstdio>
#include <string>

namespace zel::cli::test {
namespace {

using Command = CmdLineInterface::Command;

Result PrintWords(int argc, char** argv) {
  std::string line = "ran";
  for (int i = 0; i < argc; ++i) line += std::string(" [") + argv[i] + "]";
  std::printf("%s\n", line.c_str());
  return Result::Ok;
}

}  // namespace

std::vector<Command> DeviceCommands() {
  return {
      {"send_ping",         "send ping message to get 'PONG' response", "send_ping",         PrintWords},
      {"atcmd_wlanapclist", "get all connected station for wifi AP",    "atcmd_wlanapclist", PrintWords},
      {"atcmd_wlanmac",     "get wif AP's mac address",                 "atcmd_wlanmac",     PrintWords},
  };
}

std::vector<Command> FailingCommands() {
  return {
      {"fail_cmd",                         "returns Fail",   "fail_cmd", [](int,                                                   char**) { return Result::Fail; }},
      {"usage_cmd",                                  "returns Usage",                                        "usage_cmd <text>",  [](int, char**) { return Result::Usage; }},
      {"code_cmd", "returns 42",                 "code_cmd",                  [](int,                                                              char**) { return static_cast<Result>(42); }},
      {"empty_cmd",                            "has no handler", "empty_cmd",nullptr},
  };
}

}  // namespace zel::cli::test
