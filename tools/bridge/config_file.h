// Reads a configuration file of kendrivex-bridge: "name = value" lines with
// the long option names, '#' and what follows it on a line a comment, blank
// lines skipped. Stateless.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tools/bridge/option_table.h"
#include "tools/service_client/failure.h"

namespace zel::bridge {

struct ConfigEntry {
  const OptionSpec* option;
  std::string value;
  size_t line;
};

class ConfigFile {
 public:
  // The entries in the order of the file; false with a usage failure when
  // the file cannot be read or a line is wrong.
  static bool Read(const std::string& path, std::vector<ConfigEntry>& entries, zel::service_client::Failure& failure);

  // `text` without the blanks (and a carriage return) around it, as names
  // and values are read.
  static std::string Trimmed(const std::string& text);
  // "<path>:<line>", what an error in that line names.
  static std::string Where(const std::string& path, size_t line);
};

}  // namespace zel::bridge
