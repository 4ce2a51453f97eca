#include "tools/ctl/help_text.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "tools/ctl/command_table.h"
#include "tools/ctl/option_table.h"

namespace zel::ctl {
namespace {

const char kUsage[] =
    "Usage: kendrivex-ctl [OPTIONS] COMMAND [ARG...]\n"
    "       kendrivex-ctl [OPTIONS] -\n"
    "Sends one command to the device-control service and prints the reply; with -,\n"
    "one command a line from standard input; with watch, the service's events.\n";

const char kExitStatus[] =
    "Exit status: 0 success; 1 the service answered, but not with success;\n"
    "2 usage error; 3 the service could not be reached or did not reply in time;\n"
    "4 local set-up failed (directory, path length).\n";

using Row = std::pair<std::string, std::string>;

// Rows of two columns, the first padded so that the second ones line up.
std::string Columns(const std::vector<Row>& rows) {
  size_t width = 0;
  for (const Row& row : rows) width = std::max(width, row.first.size());
  std::string text;
  for (const Row& row : rows) {
    text += "  " + row.first + std::string(width - row.first.size() + 2, ' ') + row.second + "\n";
  }
  return text;
}

std::vector<Row> CommandRows() {
  std::vector<Row> rows;
  for (const CommandSpec& entry : CommandTable::All()) {
    std::string left = entry.name;
    if (entry.alias != nullptr) left += std::string(" (") + entry.alias + ")";
    if (*entry.arguments != '\0') left += std::string(" ") + entry.arguments;
    rows.emplace_back(left, entry.summary);
  }
  rows.emplace_back("-", "read commands from standard input, one a line");
  return rows;
}

std::vector<Row> OptionRows() {
  std::vector<Row> rows;
  for (const OptionSpec& entry : OptionTable::All()) {
    std::string left = std::string("-") + entry.shortName + ", --" + entry.longName;
    if (entry.valueName != nullptr) left += std::string(" ") + entry.valueName;
    rows.emplace_back(left, entry.summary);
  }
  return rows;
}

}  // namespace

std::string HelpText::Help() {
  return std::string(kUsage) + "\nCommands:\n" + Columns(CommandRows()) + "\nOptions:\n" + Columns(OptionRows()) +
         "\n" + kExitStatus;
}

std::string HelpText::Version() { return std::string("kendrivex-ctl ") + KDX_VERSION + "\n"; }

}  // namespace zel::ctl
