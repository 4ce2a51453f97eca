#include "tools/ctl/command_table.h"

#include <cstring>

namespace zel::ctl {

const std::vector<CommandSpec>& CommandTable::All() {
  static const std::vector<CommandSpec> kCommands = {
      {CommandKind::Ping,     "ping",     "send_ping",         "",             "print the service's answer to a ping",     false, true },
      {CommandKind::Stations, "stations", "atcmd_wlanapclist", "",             "print the connected stations",             false, true },
      {CommandKind::Mac,      "mac",      "atcmd_wlanmac",     "",             "print the access point's MAC address",     false, true },
      {CommandKind::Send,     "send",     nullptr,             "N [FIELD...]", "send command N (1 to 5), print its reply", true,  true },
      {CommandKind::Watch,    "watch",    nullptr,             "",             "print one line per event until stopped",   false, false},
  };
  return kCommands;
}

const CommandSpec* CommandTable::Find(const std::string& word) {
  for (const CommandSpec& entry : All()) {
    if (word == entry.name || (entry.alias != nullptr && word == entry.alias)) return &entry;
  }
  return nullptr;
}

}  // namespace zel::ctl
