#include "tools/sim/request_handler.h"

#include <limits>

#include "ipc/field_split.h"
#include "ipc/ipc_message.h"

namespace zel::sim {
namespace {

constexpr uint32_t kPing = 1;
constexpr uint32_t kStationList = 2;
constexpr uint32_t kMac = 3;
constexpr uint32_t kRegister = 4;
constexpr uint32_t kUnregister = 5;

// A first field that is not a plain decimal number names no command (0).
uint32_t CommandOf(const std::vector<std::string>& fields) {
  if (fields.empty() || fields[0].empty() || fields[0].size() > 10) return 0;
  uint64_t value = 0;
  for (char c : fields[0]) {
    if (c < '0' || c > '9') return 0;
    value = value * 10 + static_cast<uint64_t>(c - '0');
  }
  return value > std::numeric_limits<uint32_t>::max() ? 0 : static_cast<uint32_t>(value);
}

RequestHandler::Answer Reply(const std::vector<std::string>& fields, std::string note = std::string()) {
  RequestHandler::Answer answer;
  answer.reply = true;
  answer.text = zel::ipc::JoinFields(fields, zel::ipc::kFieldSeparator);
  answer.note = std::move(note);
  return answer;
}

RequestHandler::Answer Code(int code, std::string note) { return Reply({std::to_string(code)}, std::move(note)); }

// The path argument of a registration or an unregistration: exactly one
// non-empty field after the command.
bool PathArgument(const std::vector<std::string>& fields, std::string& path) {
  if (fields.size() != 2 || fields[1].empty()) return false;
  path = fields[1];
  return true;
}

// Not a reply: the first field holds no number, and control and non-ASCII
// bytes follow.
const char kGarbage[] = "#!garbage\x01\xff\tnot a reply";

}  // namespace

RequestHandler::RequestHandler(const SimOptions& options, EventPaths& paths)
    : mOptions(options), mPaths(paths), mRefusalsLeft(options.refuseRegistrations) {}

RequestHandler::Answer RequestHandler::Handle(const std::string& request) {
  const std::vector<std::string> fields = zel::ipc::SplitFields(request, zel::ipc::kFieldSeparator);
  const uint32_t command = CommandOf(fields);
  Answer answer = Respond(command, fields);
  Misbehave(command, answer);
  return answer;
}

RequestHandler::Answer RequestHandler::Respond(uint32_t command, const std::vector<std::string>& fields) {
  switch (command) {
    case kPing:
      return Reply({std::to_string(kSuccess), "PONG"});
    case kStationList: {
      std::vector<std::string> reply = {std::to_string(kSuccess)};
      reply.insert(reply.end(), mOptions.stations.begin(), mOptions.stations.end());
      return Reply(reply);
    }
    case kMac:
      return Reply({std::to_string(kSuccess), mOptions.mac});
    case kRegister:
      return Register(fields);
    case kUnregister:
      return Unregister(fields);
    default:
      return Code(kInvalidCommand, "unknown command");
  }
}

RequestHandler::Answer RequestHandler::Register(const std::vector<std::string>& fields) {
  std::string path;
  if (!PathArgument(fields, path)) return Code(kInvalidCommand, "registration without one path");
  if (mRefusalsLeft > 0) {
    --mRefusalsLeft;
    return Code(kRefused, "registration refused on purpose, " + std::to_string(mRefusalsLeft) + " more to refuse");
  }
  switch (mPaths.Register(path)) {
    case EventPaths::Registration::Added:
      return Code(kSuccess, "registered, " + PathCount());
    case EventPaths::Registration::AlreadyRegistered:
      return Code(kSuccess, "already registered, " + PathCount());
    case EventPaths::Registration::Unreachable:
      break;
  }
  return Code(kRefused, "nothing receives at that path");
}

RequestHandler::Answer RequestHandler::Unregister(const std::vector<std::string>& fields) {
  std::string path;
  if (!PathArgument(fields, path)) return Code(kInvalidCommand, "unregistration without one path");
  const bool was = mPaths.Unregister(path);
  return Code(kSuccess, (was ? "unregistered, " : "was not registered, ") + PathCount());
}

void RequestHandler::Misbehave(uint32_t command, Answer& answer) const {
  if (mOptions.faultyCommands.count(command) == 0) return;
  auto addNote = [&answer](const std::string& note) {
    answer.note = answer.note.empty() ? note : answer.note + "; " + note;
  };
  if (mOptions.dropReplies) {
    answer.reply = false;
    addNote("dropped on purpose");
    return;
  }
  if (mOptions.garbageReplies) {
    answer.text = kGarbage;
    addNote("garbage on purpose");
  } else if (mOptions.oversizeReplies) {
    answer.text = std::to_string(kSuccess) + "\t";
    answer.text.resize(kOversizeLength, 'x');
    addNote("oversize on purpose");
  }
  answer.delayMs = mOptions.delayMs;
}

std::string RequestHandler::PathCount() const {
  const size_t count = mPaths.Count();
  return std::to_string(count) + (count == 1 ? " event path" : " event paths");
}

}  // namespace zel::sim
