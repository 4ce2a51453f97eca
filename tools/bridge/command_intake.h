// Takes each command that arrives from the broker, on the link's thread:
// picks where its reply goes (the MQTT 5 response topic with the correlation
// data, or P/reply), answers bad input at once with an error reply and sends
// nothing to the service for it (an empty payload, invalid UTF-8, more than
// 8 KB, more than one line, an unknown word, a command not allowed, bad
// arguments), and queues the rest for the worker; beyond 64 waiting, a
// command is answered "busy". One thread (the link's).
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "tools/bridge/command_queue.h"
#include "tools/bridge/mqtt_session.h"
#include "tools/bridge/reply_outbox.h"
#include "tools/bridge/settings.h"
#include "tools/bridge/topics.h"

namespace zel::bridge {

class CommandIntake {
 public:
  // The longest payload taken.
  static constexpr size_t kMaxPayload = 8192;

  CommandIntake(const Settings& settings, const Topics& topics, CommandQueue& queue, ReplyOutbox& replies)
      : mSettings(settings), mTopics(topics), mQueue(queue), mReplies(replies) {}

  void Take(const IncomingMessage& message);

  // Whether `bytes` are well-formed UTF-8.
  static bool ValidUtf8(const std::string& bytes);

 private:
  // Where the reply to `message` goes; false when the topic it names is not
  // one a reply can be published on.
  bool Route(const IncomingMessage& message, ReplyRoute& route) const;
  // The command's line: the payload without one line end at its end; false
  // with the error when it is no line of text.
  static bool Line(const std::string& payload, std::string& line, std::string& why);
  void Refuse(const ReplyRoute& route, const std::optional<std::string>& command, int status, const std::string& why);

  const Settings& mSettings;
  const Topics& mTopics;
  CommandQueue& mQueue;
  ReplyOutbox& mReplies;
};

}  // namespace zel::bridge
