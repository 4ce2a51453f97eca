#include "app/globals.h"

#include "app/device_commands.h"

// Defined together in this one file: within a file, static objects are built
// in the order of their definitions, which fixes the order described above.
// NOLINTBEGIN(cert-err58-cpp): the process-wide objects are statics by design; a failure to build them can only end the
// process
std::vector<zel::cli::CmdLineInterface::Command> gDeviceCommands = MakeDeviceCommands();
zel::cli::CmdLineInterface gCli;
zel::ipc::IPCClient gIpcClient;
// NOLINTEND(cert-err58-cpp)
