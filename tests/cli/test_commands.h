// The command tables, prompt and banner shared by the in-process tests, the
// end-to-end driver and the benchmarks: the system's three device commands
// (their handlers only print the words they received) and commands that make
// the dispatcher report failures. Stateless.
#pragma once

#include <string>
#include <vector>

#include "cli/cmd_line_interface.h"

namespace zel::cli::test {

inline constexpr char kPrompt[] = "hi>";
inline constexpr char kBanner[] =
    "*******************************\n"
    " kendrivex cli\n"
    "*******************************\n";

// send_ping, atcmd_wlanapclist, atcmd_wlanmac; each prints "ran" and its
// words in brackets, e.g. "ran [send_ping] [1]\n", and returns Ok.
std::vector<CmdLineInterface::Command> DeviceCommands();

// fail_cmd (returns Fail), usage_cmd (returns Usage; usage text
// "usage_cmd <text>"), code_cmd (returns 42) and empty_cmd (no handler).
std::vector<CmdLineInterface::Command> FailingCommands();

}  // namespace zel::cli::test
