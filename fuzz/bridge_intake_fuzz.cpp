// Fuzz target: kendrivex-bridge's command intake, fed what the broker link
// hands over (a payload, and maybe a response topic and correlation data).
// Whatever comes, the intake either queues one command for the service (a
// known command that the settings allow, never event registration, its
// reply bound for a topic a reply may go to) or answers with one error reply
// (a JSON object naming the box, the status 2 or 3 and why, on a topic a
// reply may go to, with the request's correlation data when it named a
// response topic), or, for a response
// topic where nothing can be published, does nothing at all.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

#include "fuzz/require.h"
#include "tools/bridge/commands.h"

namespace {

using zel::fuzz::Require;
namespace bridge = zel::bridge;

// The flags of the input's last byte.
constexpr uint8_t kHasResponseTopic = 1;
constexpr uint8_t kHasCorrelation = 2;
constexpr uint8_t kAllowSend = 4;

void CheckReply(const zel::mqtt::Publication& reply, const bridge::Topics& topics,
                const std::optional<std::string>& correlation, bool routed) {
  Require(topics.ReplyMayGoTo(reply.topic), "a reply goes only where a reply may go");
  Require(zel::mqtt::PublishableTopic(reply.topic), "a reply's topic can be published on");
  Require(!routed || reply.correlation == correlation, "a reply carries the request's correlation data");
  const nlohmann::json object = nlohmann::json::parse(reply.payload, nullptr, false);
  Require(object.is_object(), "an error reply is a JSON object");
  Require(object.value("box", "") == "box1", "an error reply names the box");
  const int status = object.value("status", 0);
  Require(status == 2 || status == 3, "an error reply's status is 2 or 3");
  Require(object.contains("error") && object["error"].is_string(), "an error reply says why");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider input(data, size);
  const uint8_t flags = input.ConsumeIntegral<uint8_t>();
  const std::string responseTopic = input.ConsumeRandomLengthString();
  const std::string correlation = input.ConsumeRandomLengthString();
  const std::string payload = input.ConsumeRemainingBytesAsString();

  bridge::Settings settings;
  settings.id = "box1";
  settings.prefix = "kdx";
  if ((flags & kAllowSend) != 0) settings.allowed.emplace_back("send");
  const bridge::Topics topics(settings.prefix, settings.id);
  bridge::Wakeup wakeup;
  bridge::CommandQueue queue;
  bridge::ReplyOutbox replies(wakeup);
  bridge::CommandIntake intake(settings, topics, queue, replies);

  zel::mqtt::Message message;
  message.topic = topics.Command();
  message.payload = payload;
  if ((flags & kHasResponseTopic) != 0) message.responseTopic = responseTopic;
  if ((flags & kHasCorrelation) != 0) message.correlation = correlation;
  intake.Take(message);

  bridge::PendingCommand command;
  const bool queued = queue.Pop(command, std::chrono::milliseconds(0)) == bridge::CommandQueue::Next::Command;
  bridge::Outgoing reply;
  const bool answered = replies.Pop(reply);
  Require(!(queued && answered), "a command is queued or answered, not both");
  Require(!replies.Pop(reply) || !answered, "one reply at most");
  const bool publishable = !message.responseTopic || zel::mqtt::PublishableTopic(*message.responseTopic);
  Require(publishable == (queued || answered), "only a response topic that cannot be published gets nothing");
  if (queued) {
    Require(command.request.command != nullptr, "a queued command is a known one");
    Require(settings.Allows(command.request.command->name), "a queued command is allowed");
    Require(command.request.number != 4 && command.request.number != 5, "event registration is never queued");
    Require(payload.size() <= bridge::CommandIntake::kMaxPayload, "a queued command is at most 8 KB");
    CheckReply(zel::mqtt::Publication(command.reply.topic, "{\"box\":\"box1\",\"status\":2,\"error\":\"\"}"), topics,
               message.correlation, false);
  }
  if (answered) {
    const bool routed = message.responseTopic && topics.ReplyMayGoTo(*message.responseTopic);
    CheckReply(reply.message, topics, message.correlation, routed);
  }
  return 0;
}
