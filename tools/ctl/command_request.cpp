#include "tools/ctl/command_request.h"

#include "ipc/ipc_message.h"
#include "ipc/ipc_types.h"

namespace zel::ctl {
namespace {

// The command numbers a client may send.
constexpr uint32_t kFirstCommand = zel::ipc::Ping;
constexpr uint32_t kLastCommand = zel::ipc::UnregisterEventPath;

uint32_t FixedNumber(CommandKind kind) {
  switch (kind) {
    case CommandKind::Ping:
      return zel::ipc::Ping;
    case CommandKind::Stations:
      return zel::ipc::WlanApClientList;
    case CommandKind::Mac:
      return zel::ipc::WlanMac;
    case CommandKind::Send:
    case CommandKind::Watch:
      break;
  }
  return 0;
}

// One decimal digit string naming a command the client may send.
bool ParseCommandNumber(const std::string& text, uint32_t& number) {
  if (text.size() != 1 || text[0] < '0' || text[0] > '9') return false;
  number = static_cast<uint32_t>(text[0] - '0');
  return number >= kFirstCommand && number <= kLastCommand;
}

bool ParseSend(const std::vector<std::string>& words, CommandRequest& request, Failure& failure) {
  if (words.size() < 2) {
    failure = Fail(kStatusUsage, request.typed, "missing command number N (1 to 5)");
    return false;
  }
  if (!ParseCommandNumber(words[1], request.number)) {
    failure = Fail(kStatusUsage, request.typed, "command number must be 1 to 5, not \"" + words[1] + "\"");
    return false;
  }
  request.fields.assign(words.begin() + 2, words.end());
  for (const std::string& field : request.fields) {
    // A tab would split the field in two on its way to the service.
    if (field.find(zel::ipc::kFieldSeparator) != std::string::npos) {
      failure = Fail(kStatusUsage, request.typed, "a field cannot hold a tab");
      return false;
    }
  }
  return true;
}

}  // namespace

bool CommandRequest::Parse(const std::vector<std::string>& words, CommandRequest& request, Failure& failure) {
  request = CommandRequest();
  if (words.empty()) {
    failure = Fail(kStatusUsage, "command", "missing (try --help)");
    return false;
  }
  request.typed = words[0];
  request.entry = CommandTable::Find(words[0]);
  if (request.entry == nullptr) {
    failure = Fail(kStatusUsage, request.typed, "unknown command (try --help)");
    return false;
  }
  if (request.entry->kind == CommandKind::Send) return ParseSend(words, request, failure);
  if (words.size() > 1) {
    failure = Fail(kStatusUsage, request.typed, "takes no arguments, not \"" + words[1] + "\"");
    return false;
  }
  request.number = FixedNumber(request.entry->kind);
  return true;
}

}  // namespace zel::ctl
