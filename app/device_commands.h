// The device commands: each asks the device service one question through the
// process-wide IPC client and prints the answer. Handlers run on the command
// line's thread; the table is built once, during static initialisation.
#pragma once

#include <vector>

#include "cli/cmd_line_interface.h"

// "send_ping": prints "PING response : <answer>", or FAIL.
zel::cli::Result sendPing(int argc, char** argv);
// "atcmd_wlanapclist": prints one connected station a line.
zel::cli::Result wlanApClist(int argc, char** argv);
// "atcmd_wlanmac": prints the access point's MAC address.
zel::cli::Result wlanMac(int argc, char** argv);

// The three device commands, in the order they are registered and listed.
std::vector<zel::cli::CmdLineInterface::Command> MakeDeviceCommands();
