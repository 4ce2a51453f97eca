// One message for the broker that is not an event: a reply, to the topic its
// request named (with the request's correlation data) or to P/reply. A plain
// value.
#pragma once

#include <optional>
#include <string>

namespace zel::bridge {

// Where the reply to a command goes.
struct ReplyRoute {
  std::string topic;
  std::optional<std::string> correlation;  // copied from an MQTT 5 request
};

struct Publication {
  ReplyRoute route;
  std::string payload;
};

}  // namespace zel::bridge
