#include "tools/bridge/command_intake.h"

#include <mosquitto.h>
#include <syslog.h>

#include <vector>

#include "tools/bridge/reply_payload.h"

namespace zel::bridge {
namespace {

namespace core = zel::service_client;

constexpr char kRouteText[] =
    "bool zel::bridge::CommandIntake::Route(const zel::bridge::IncomingMessage&, zel::bridge::ReplyRoute&) const";

bool IsControl(unsigned char byte) { return (byte < 0x20 && byte != '\t') || byte == 0x7F; }

}  // namespace

bool CommandIntake::ValidUtf8(const std::string& bytes) { return core::ValidUtf8(bytes); }

void CommandIntake::Take(const IncomingMessage& message) {
  ReplyRoute route;
  if (!Route(message, route)) return;
  PendingCommand pending;
  std::optional<std::string> word;
  int status = core::kStatusUsage;
  std::string error;
  if (Read(message.payload, pending.request, word, status, error)) {
    pending.route = route;
    if (mQueue.Push(std::move(pending))) return;
    status = core::kStatusUnreachable;
    error = "busy";
  }
  mReplies.Push(Publication{route, ReplyPayload::Error(mSettings.id, word, status, error)});
}

bool CommandIntake::Read(const std::string& payload, core::Request& request, std::optional<std::string>& word,
                         int& status, std::string& error) const {
  std::string line;
  if (!Line(payload, line, error)) return false;
  std::vector<std::string> words;
  core::Failure failure;
  if (core::SplitLine(line, words, failure)) {
    if (words.empty()) {
      error = "no command in the message";
      return false;
    }
    const core::Command* command = core::FindCommand(words[0]);
    word = command != nullptr ? command->name : words[0];
    if (command != nullptr && !mSettings.Allows(command->name)) {
      error = *word + ": not allowed from the broker";
      return false;
    }
    if (core::ParseRequest(words, request, failure)) return true;
  }
  status = failure.status;
  error = failure.what + ": " + failure.why;
  return false;
}

bool CommandIntake::Route(const IncomingMessage& message, ReplyRoute& route) const {
  if (!message.responseTopic) {
    route = ReplyRoute{mTopics.Reply(), std::nullopt};
    return true;
  }
  // A reply goes only where the request says, and only to one topic: a
  // filter with wildcards is refused, and so the request is not answered.
  if (mosquitto_pub_topic_check(message.responseTopic->c_str()) != MOSQ_ERR_SUCCESS) {
    syslog(LOG_WARNING, "%s %d: a command on [%s] names [%s] for its reply, where nothing can be published\n",
           kRouteText, 1, message.topic.c_str(), core::Shown(*message.responseTopic).c_str());
    return false;
  }
  route = ReplyRoute{*message.responseTopic, message.correlation};
  return true;
}

bool CommandIntake::Line(const std::string& payload, std::string& line, std::string& why) {
  if (payload.size() > kMaxPayload) {
    why = "longer than 8192 bytes";
    return false;
  }
  if (!ValidUtf8(payload)) {
    why = "not valid UTF-8";
    return false;
  }
  line = payload;
  if (!line.empty() && line.back() == '\n') line.pop_back();
  if (!line.empty() && line.back() == '\r') line.pop_back();
  for (const char byte : line) {
    if (!IsControl(static_cast<unsigned char>(byte))) continue;
    why = "not one line of text";
    return false;
  }
  return true;
}

}  // namespace zel::bridge
