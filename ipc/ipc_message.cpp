#include "ipc/ipc_message.h"

#include <cstdlib>
#include <iterator>
#include <limits>
#include <vector>

#include "ipc/field_split.h"
#include "util/decimal_text.h"

namespace zel::ipc {
namespace {

// strtol's value kept as a signed 32-bit number. Where long is wider than 32
// bits the value saturates as it does on the 32-bit target, so that a huge
// number means the same on every build.
int32_t ParseNumber(const std::string& field) {
  long value = std::strtol(field.c_str(), nullptr, 10);
  if (value > std::numeric_limits<int32_t>::max()) value = std::numeric_limits<int32_t>::max();
  if (value < std::numeric_limits<int32_t>::min()) value = std::numeric_limits<int32_t>::min();
  return static_cast<int32_t>(value);
}

// Splits a reply or event line into its number and its argument fields.
void ParseLine(const std::string& text, int32_t& number, std::vector<std::string>& args) {
  std::vector<std::string> fields = SplitFields(text, kFieldSeparator);
  number = 0;
  args.clear();
  if (fields.empty()) return;
  number = ParseNumber(fields.front());
  if (fields.size() >= 2) {
    args.assign(std::make_move_iterator(fields.begin() + 1), std::make_move_iterator(fields.end()));
  }
}

}  // namespace

std::string FormatCommand(uint32_t command) { return zel::util::DecimalText(command); }

std::string FormatRequest(const IPCRequest& request) {
  std::string line = FormatCommand(request.command);
  for (const std::string& arg : request.args) {
    line += kFieldSeparator;
    line += arg;
  }
  return line;
}

// cppcheck-suppress passedByValue ; by value, as the interface defines it
// NOLINTNEXTLINE(performance-unnecessary-value-param): by value, as the interface defines it
IPCResult ParseReply(std::string text) {
  IPCResult result;
  ParseLine(text, result.code, result.args);
  return result;
}

// cppcheck-suppress passedByValue ; by value, as the interface defines it
// NOLINTNEXTLINE(performance-unnecessary-value-param): by value, as the interface defines it
IPCEvent ParseEvent(std::string text) {
  IPCEvent event;
  ParseLine(text, event.id, event.args);
  return event;
}

}  // namespace zel::ipc
