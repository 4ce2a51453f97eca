#include "tools/bridge/option_table.h"

namespace zel::bridge {

const std::vector<OptionSpec>& OptionTable::All() {
  static const std::vector<OptionSpec> kOptions = {
      {OptionId::Service,      's', "service",       "PATH",    "the service's socket (default $KENDRIVEX_SERVICE)",          true },
      {OptionId::Dir,          'd', "dir",           "DIR",     "where the sockets go ($KENDRIVEX_DIR, $TMPDIR or /tmp)",     true },
      {OptionId::Broker,       'b', "broker",        "URL",     "mqtt[s]://HOST[:PORT] (default mqtt://localhost:1883)",      true },
      {OptionId::Id,           'i', "id",            "NAME",    "the box's name in topics (default: the host name)",          true },
      {OptionId::Prefix,       'p', "prefix",        "TOPIC",   "the first part of every topic (default kendrivex)",          true },
      {OptionId::Allow,        0,   "allow",         "LIST",    "commands taken from the broker (default ping,stations,mac)", true },
      {OptionId::Queue,        0,   "queue",         "N",       "events kept while the broker is away (default 1000)",        true },
      {OptionId::Health,       0,   "health",        "SECONDS", "seconds between health pings, 0 for none (default 30)",      true },
      {OptionId::CaFile,       0,   "cafile",        "FILE",    "mqtts: the authorities that vouch for the broker",           true },
      {OptionId::CaPath,       0,   "capath",        "DIR",     "mqtts: a directory of them (default: the system's)",         true },
      {OptionId::Cert,         0,   "cert",          "FILE",    "mqtts: the bridge's own certificate",                        true },
      {OptionId::Key,          0,   "key",           "FILE",    "mqtts: its private key",                                     true },
      {OptionId::Username,     0,   "username",      "NAME",    "the user name given to the broker",                          true },
      {OptionId::PasswordFile, 0,   "password-file", "FILE",    "the password: the first line of FILE",                       true },
      {OptionId::Config,       'c', "config",        "FILE",    "read options from FILE: name = value lines",                 false},
      {OptionId::Verbose,      'v', "verbose",       nullptr,   "copy the diagnostics to standard error",                     true },
      {OptionId::Help,         'h', "help",          nullptr,   "print this help and exit",                                   false},
      {OptionId::Version,      'V', "version",       nullptr,   "print the version and exit",                                 false},
  };
  return kOptions;
}

const OptionSpec* OptionTable::FindLong(const std::string& name) {
  for (const OptionSpec& entry : All()) {
    if (name == entry.longName) return &entry;
  }
  return nullptr;
}

}  // namespace zel::bridge
