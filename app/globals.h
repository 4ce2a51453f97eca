// The process-wide objects of the program, built before main in the order
// declared here and destroyed in reverse order at exit (the IPC client first,
// so that it unregisters its event socket while everything else still exists).
#pragma once

#include <vector>

#include "cli/cmd_line_interface.h"
#include "ipc/ipc_client.h"

// The device commands, registered after the built-ins.
extern std::vector<zel::cli::CmdLineInterface::Command> gDeviceCommands;
// The one command-line interface; its constructor registers the built-ins.
extern zel::cli::CmdLineInterface gCli;
// The one link to the device service; unset until main calls SetLocalPath.
extern zel::ipc::IPCClient gIpcClient;
