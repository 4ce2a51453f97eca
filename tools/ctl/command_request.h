// One command as typed (on the command line or on a line of standard input),
// checked against the command table and turned into the request it sends.
// A plain value; no threading concerns.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/ctl/command_table.h"
#include "tools/ctl/failure.h"

namespace zel::ctl {

struct CommandRequest {
  const CommandSpec* entry = nullptr;
  std::string typed;                // the command word as typed, for error lines
  uint32_t number = 0;              // the command number sent (0 for watch)
  std::vector<std::string> fields;  // the request's fields after the number

  // Checks the command word and its arguments; a usage failure otherwise.
  static bool Parse(const std::vector<std::string>& words, CommandRequest& request, Failure& failure);
};

}  // namespace zel::ctl
