// How replies and events are written: the plain lines, one JSON object a
// line, and the UTC time stamp of an event. Field bytes go out as received in
// plain lines; in JSON, bytes that are not valid UTF-8 become U+FFFD.
// Stateless.
#pragma once

#include <ctime>
#include <string>

#include "ipc/ipc_types.h"

namespace zel::ctl {

class LineFormat {
 public:
  // {"command":"ping","code":1,"args":["PONG"]} and a newline.
  static std::string JsonReply(const std::string& command, const zel::ipc::IPCResult& result);
  // {"time":"2026-11-23T09:00:00.123Z","id":7,"args":["link up"]} and a newline.
  static std::string JsonEvent(const std::string& time, const zel::ipc::IPCEvent& event);
  // The decimal code, then each field, tab-separated, and a newline.
  static std::string PlainReply(const zel::ipc::IPCResult& result);
  // The time, then the event's number and each argument, tab-separated, and
  // a newline.
  static std::string PlainEvent(const std::string& time, const zel::ipc::IPCEvent& event);
  // The moment in UTC, to the millisecond: "2026-11-23T09:00:00.123Z".
  static std::string UtcTime(const timespec& moment);
};

}  // namespace zel::ctl
