#include "app/device_commands.h"

#include <cstdio>
#include <iterator>
#include <string>

#include "app/globals.h"
#include "ipc/ipc_types.h"

using zel::cli::CmdLineInterface;
using zel::ipc::IPCResult;

namespace {

// Only a reply the service marked as carried out counts.
bool Succeeded(const IPCResult& result) { return result.code == zel::ipc::ResultSuccess; }

}  // namespace

zel::cli::Result sendPing(int /*argc*/, char** /*argv*/) {
  std::string text = "FAIL";
  const IPCResult result = gIpcClient.Send(zel::ipc::Ping);
  if (Succeeded(result) && !result.args.empty()) text = result.args.front();
  std::printf("PING response : %s\n", text.c_str());
  return zel::cli::Result::Ok;
}

zel::cli::Result wlanApClist(int /*argc*/, char** /*argv*/) {
  const IPCResult result = gIpcClient.Send(zel::ipc::WlanApClientList);
  std::string text = "FAILED\n";
  if (Succeeded(result)) {
    if (result.args.empty()) {
      text = "NO CONNECTED STATION\n";
    } else {
      text.clear();
      for (const std::string& station : result.args) {
        text += station;
        text += '\n';
      }
    }
  }
  std::printf("%s", text.c_str());
  return zel::cli::Result::Ok;
}

zel::cli::Result wlanMac(int /*argc*/, char** /*argv*/) {
  const IPCResult result = gIpcClient.Send(zel::ipc::WlanMac);
  if (Succeeded(result) && !result.args.empty()) {
    std::printf("WIFI MAC: %s\n", result.args.front().c_str());
  } else {
    std::puts("FAILED");
  }
  return zel::cli::Result::Ok;
}

std::vector<CmdLineInterface::Command> MakeDeviceCommands() {
  // The device commands as data: name, help line, usage and handler. One loop
  // builds the interface's table from them.
  struct DeviceCommand {
    const char* name;
    const char* explain;
    zel::cli::Result (*handler)(int, char**);
  };
  static constexpr DeviceCommand kDeviceCommands[] = {
      {"send_ping",         "send ping message to get 'PONG' response", sendPing   },
      {"atcmd_wlanapclist", "get all connected station for wifi AP",    wlanApClist},
      {"atcmd_wlanmac",     "get wif AP's mac address",                 wlanMac    },
  };
  std::vector<CmdLineInterface::Command> commands;
  commands.reserve(std::size(kDeviceCommands));
  // The usage of a device command is its name: none takes arguments.
  for (const DeviceCommand& command : kDeviceCommands) {
    commands.push_back({command.name, command.explain, command.name, command.handler});
  }
  return commands;
}
