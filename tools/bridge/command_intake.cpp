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

// The length of the UTF-8 sequence that `lead` starts, 0 for a byte that
// cannot start one.
size_t SequenceLength(unsigned char lead) {
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead <= 0xDF) return 2;
  if (lead >= 0xE0 && lead <= 0xEF) return 3;
  if (lead >= 0xF0 && lead <= 0xF4) return 4;
  return 0;
}

// The allowed range of the second byte after `lead`: what rules out overlong
// forms, surrogates and code points beyond U+10FFFF.
bool SecondByteFits(unsigned char lead, unsigned char second) {
  if (lead == 0xE0) return second >= 0xA0 && second <= 0xBF;
  if (lead == 0xED) return second >= 0x80 && second <= 0x9F;
  if (lead == 0xF0) return second >= 0x90 && second <= 0xBF;
  if (lead == 0xF4) return second >= 0x80 && second <= 0x8F;
  return second >= 0x80 && second <= 0xBF;
}

bool IsControl(unsigned char byte) { return (byte < 0x20 && byte != '\t') || byte == 0x7F; }

}  // namespace

bool CommandIntake::ValidUtf8(const std::string& bytes) {
  size_t i = 0;
  while (i < bytes.size()) {
    const auto lead = static_cast<unsigned char>(bytes[i]);
    const size_t length = SequenceLength(lead);
    if (length == 0 || i + length > bytes.size()) return false;
    for (size_t k = 1; k < length; ++k) {
      const auto next = static_cast<unsigned char>(bytes[i + k]);
      const bool fits = k == 1 ? SecondByteFits(lead, next) : next >= 0x80 && next <= 0xBF;
      if (!fits) return false;
    }
    i += length;
  }
  return true;
}

void CommandIntake::Take(const IncomingMessage& message) {
  ReplyRoute route;
  if (!Route(message, route)) return;
  std::string line;
  std::string why;
  if (!Line(message.payload, line, why)) {
    Refuse(route, std::nullopt, core::kStatusUsage, why);
    return;
  }
  std::vector<std::string> words;
  core::Failure failure;
  if (!core::SplitLine(line, words, failure)) {
    Refuse(route, std::nullopt, failure.status, failure.what + ": " + failure.why);
    return;
  }
  if (words.empty()) {
    Refuse(route, std::nullopt, core::kStatusUsage, "no command in the message");
    return;
  }
  const core::Command* command = core::FindCommand(words[0]);
  PendingCommand pending;
  if (command != nullptr && !mSettings.Allows(command->name)) {
    Refuse(route, std::string(command->name), core::kStatusUsage,
           std::string(command->name) + ": not allowed from the broker");
    return;
  }
  if (!core::ParseRequest(words, pending.request, failure)) {
    const std::string word = command != nullptr ? std::string(command->name) : words[0];
    Refuse(route, word, failure.status, failure.what + ": " + failure.why);
    return;
  }
  pending.route = route;
  const std::string name = pending.request.command->name;
  if (!mQueue.Push(std::move(pending))) Refuse(route, name, core::kStatusUnreachable, "busy");
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

void CommandIntake::Refuse(const ReplyRoute& route, const std::optional<std::string>& command, int status,
                           const std::string& why) {
  mReplies.Push(Publication{route, ReplyPayload::Error(mSettings.id, command, status, why)});
}

}  // namespace zel::bridge
