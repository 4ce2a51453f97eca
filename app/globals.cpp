#include "app/globals.h"

#include "app/device_commands.h"

// Defined together in this one file: within a file, static objects are built
// in the order of their definitions, which fixes the order described above.
std::vector<zel::cli::CmdLineInterface::Command> gDeviceCommands = MakeDeviceCommands();
zel::cli::CmdLineInterface gCli;
zel::ipc::IPCClient gIpcClient;
