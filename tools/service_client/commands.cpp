#include "tools/service_client/commands.h"

#include <algorithm>

#include "ipc/ipc_message.h"
#include "ipc/ipc_types.h"

namespace zel::service_client {
namespace {

// The command numbers a client may send.
constexpr uint32_t kFirstNumber = zel::ipc::Ping;
constexpr uint32_t kLastNumber = zel::ipc::UnregisterEventPath;

const char kBlanks[] = " \t";

// clang-format off
const Command kCommands[] = {
    {"ping",     "send_ping",         zel::ipc::Ping,             Arguments::None,            ReplyStyle::FirstField, true,
     "",             "print the service's answer to a ping",     "the service's reply holds no answer"},
    {"stations", "atcmd_wlanapclist", zel::ipc::WlanApClientList, Arguments::None,            ReplyStyle::EachField,  true,
     "",             "print the connected stations",             nullptr},
    {"mac",      "atcmd_wlanmac",     zel::ipc::WlanMac,          Arguments::None,            ReplyStyle::FirstField, true,
     "",             "print the access point's MAC address",     "the service's reply holds no MAC address"},
    {"send",     nullptr,             0,                          Arguments::NumberAndFields, ReplyStyle::Whole,      true,
     "N [FIELD...]", "send command N (1 to 5), print its reply", nullptr},
    {"watch",    nullptr,             0,                          Arguments::None,            ReplyStyle::Events,     false,
     "",             "print one line per event until stopped",   nullptr},
};
// clang-format on

Failure Usage(const Request& request, std::string why) {
  return Fail(kStatusUsage, Shown(request.typed), std::move(why));
}

// One decimal digit naming a command the client may send.
bool ParseNumber(const std::string& text, uint32_t& number) {
  if (text.size() != 1 || text[0] < '0' || text[0] > '9') return false;
  number = static_cast<uint32_t>(text[0] - '0');
  return number >= kFirstNumber && number <= kLastNumber;
}

bool ParseNumberAndFields(const std::vector<std::string>& words, Request& request, Failure& failure) {
  if (words.size() < 2) {
    failure = Usage(request, "missing command number N (1 to 5)");
    return false;
  }
  if (!ParseNumber(words[1], request.number)) {
    failure = Usage(request, "command number must be 1 to 5, not \"" + Shown(words[1]) + "\"");
    return false;
  }
  request.fields.assign(words.begin() + 2, words.end());
  for (const std::string& field : request.fields) {
    // A tab would split the field in two on its way to the service.
    if (field.find(zel::ipc::kFieldSeparator) != std::string::npos) {
      failure = Usage(request, "a field cannot hold a tab");
      return false;
    }
  }
  return true;
}

}  // namespace

CommandList AllCommands() { return CommandList{kCommands, sizeof kCommands / sizeof kCommands[0]}; }

const Command* FindCommand(const std::string& word) {
  for (const Command& command : AllCommands()) {
    if (word == command.name || (command.alias != nullptr && word == command.alias)) return &command;
  }
  return nullptr;
}

bool ParseRequest(const std::vector<std::string>& words, Request& request, Failure& failure) {
  request = Request();
  if (words.empty()) {
    failure = Fail(kStatusUsage, "command", "missing");
    failure.commandUnknown = true;
    return false;
  }
  request.typed = words[0];
  request.command = FindCommand(words[0]);
  if (request.command == nullptr) {
    failure = Usage(request, "unknown command");
    failure.commandUnknown = true;
    return false;
  }
  if (request.command->arguments == Arguments::NumberAndFields) return ParseNumberAndFields(words, request, failure);
  if (words.size() > 1) {
    failure = Usage(request, "takes no arguments, not \"" + Shown(words[1]) + "\"");
    return false;
  }
  request.number = request.command->number;
  return true;
}

bool SplitLine(const std::string& line, std::vector<std::string>& words, Failure& failure) {
  words.clear();
  if (line.find('\0') != std::string::npos) {
    failure = Fail(kStatusUsage, Shown(line), "holds a NUL byte");
    return false;
  }
  size_t start = line.find_first_not_of(kBlanks);
  while (start != std::string::npos) {
    const size_t end = line.find_first_of(kBlanks, start);
    words.push_back(line.substr(start, end - start));
    start = end == std::string::npos ? end : line.find_first_not_of(kBlanks, end);
  }
  return true;
}

bool IsBlankOrComment(const std::vector<std::string>& words) { return words.empty() || words[0][0] == '#'; }

std::string HelpColumns(const std::vector<HelpRow>& rows) {
  size_t width = 0;
  for (const HelpRow& row : rows) width = std::max(width, row.left.size());
  std::string text;
  for (const HelpRow& row : rows) {
    text.append(2, ' ').append(row.left).append(width - row.left.size() + 2, ' ').append(row.summary).append(1, '\n');
  }
  return text;
}

std::vector<HelpRow> CommandRows(bool batchOnly) {
  std::vector<HelpRow> rows;
  for (const Command& command : AllCommands()) {
    if (batchOnly && !command.inBatch) continue;
    std::string left = command.name;
    if (command.alias != nullptr) left.append(" (").append(command.alias).append(1, ')');
    if (*command.argumentsHelp != '\0') left.append(1, ' ').append(command.argumentsHelp);
    rows.push_back({left, command.summary});
  }
  return rows;
}

}  // namespace zel::service_client
