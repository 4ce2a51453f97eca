#include "tools/bridge/help_text.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "tools/bridge/option_table.h"

namespace zel::bridge {
namespace {

const char kUsage[] =
    "Usage: kendrivex-bridge [OPTIONS]\n"
    "Puts this box on an MQTT broker: the service's events go out on PREFIX/ID/event/N,\n"
    "commands come in on PREFIX/ID/cmd and PREFIX/all/cmd, and PREFIX/ID/status and\n"
    "PREFIX/ID/service say whether the bridge and the service are there.\n";

const char kExitStatus[] =
    "Exit status: 0 stopped by SIGINT, SIGTERM or SIGHUP; 2 usage or configuration\n"
    "error; 4 local set-up failed (directory, path length). A broker or service that\n"
    "is away is waited for, never a reason to exit.\n";

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

std::vector<Row> OptionRows() {
  std::vector<Row> rows;
  for (const OptionSpec& entry : OptionTable::All()) {
    std::string left = entry.shortName != 0 ? std::string("-") + entry.shortName + ", " : std::string("    ");
    left += std::string("--") + entry.longName;
    if (entry.valueName != nullptr) left += std::string(" ") + entry.valueName;
    rows.emplace_back(left, entry.summary);
  }
  return rows;
}

}  // namespace

std::string HelpText::Help() {
  return std::string(kUsage) + "\nOptions:\n" + Columns(OptionRows()) + "\n" + kExitStatus;
}

std::string HelpText::Version() { return std::string("kendrivex-bridge ") + KDX_VERSION + "\n"; }

}  // namespace zel::bridge
