// How replies and events are written: one JSON object a line, plain
// tab-separated lines, a reply read in its command's style, and the UTC time
// stamp of an event. JSON comes from
// nlohmann-json with its keys in the order shown here and every byte that is
// not valid UTF-8 replaced by U+FFFD; plain lines carry the fields' bytes as
// they came. Pure functions; any thread.
#pragma once

#include <time.h>

#include <string>

#include "ipc/ipc_types.h"
#include "tools/service_client/commands.h"

namespace zel::service_client {

// One more string member of a JSON object, after the others (the bridge's
// "box"); none while `key` is null.
struct JsonExtra {
  const char* key = nullptr;
  std::string value;
};

// {"command":"ping","code":1,"args":["PONG"]} and a newline.
std::string JsonReply(const std::string& command, const zel::ipc::IPCResult& reply,
                      const JsonExtra& extra = JsonExtra());
// {"time":"2026-11-23T09:00:00.123Z","id":7,"args":["link up"]} and a newline.
std::string JsonEvent(const std::string& time, const zel::ipc::IPCEvent& event, const JsonExtra& extra = JsonExtra());
// The decimal code, then each field, tab-separated, and a newline.
std::string PlainReply(const zel::ipc::IPCResult& reply);
// The time, then the event's number and each argument, tab-separated, and a
// newline.
std::string PlainEvent(const std::string& time, const zel::ipc::IPCEvent& event);
// Reads the reply to `command` as kendrivex-ctl prints it: `plain` gets its
// plain output (the first field, each field a line, or the whole reply, as
// the command's style says; nothing for a reply that is not a success in
// the first two), and for a reply that is not a success, `why` says what it
// was (false then). The fields are taken as they are: a program that shows
// replies from elsewhere escapes them first.
bool ReadReply(const Command& command, const zel::ipc::IPCResult& reply, std::string& plain, std::string& why);
// The moment in UTC, to the millisecond: "2026-11-23T09:00:00.123Z".
std::string UtcTime(const timespec& moment);

}  // namespace zel::service_client
