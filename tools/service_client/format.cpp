#include "tools/service_client/format.h"

#include <cstdio>
#include <nlohmann/json.hpp>
#include <vector>

#include "util/decimal_text.h"

namespace zel::service_client {
namespace {

// Keys stay in the order they are written, as the documented examples show.
using Json = nlohmann::ordered_json;

constexpr long kNanosecondsPerMillisecond = 1000000;

// The object with `extra` added last, and a newline.
std::string Dump(Json& object, const JsonExtra& extra) {
  if (extra.key != nullptr) object[extra.key] = extra.value;
  return object.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string TabSeparated(std::string line, const std::vector<std::string>& rest) {
  for (const std::string& field : rest) line.append(1, '\t').append(field);
  return line + "\n";
}

}  // namespace

std::string JsonReply(const std::string& command, const zel::ipc::IPCResult& reply, const JsonExtra& extra) {
  Json object;
  object["command"] = command;
  object["code"] = reply.code;
  object["args"] = reply.args;
  return Dump(object, extra);
}

std::string JsonEvent(const std::string& time, const zel::ipc::IPCEvent& event, const JsonExtra& extra) {
  Json object;
  object["time"] = time;
  object["id"] = event.id;
  object["args"] = event.args;
  return Dump(object, extra);
}

std::string PlainReply(const zel::ipc::IPCResult& reply) {
  return TabSeparated(zel::util::SignedDecimalText(reply.code), reply.args);
}

std::string PlainEvent(const std::string& time, const zel::ipc::IPCEvent& event) {
  return TabSeparated(time + "\t" + zel::util::SignedDecimalText(event.id), event.args);
}

bool ReadReply(const Command& command, const zel::ipc::IPCResult& reply, std::string& plain, std::string& why) {
  const bool success = reply.code == zel::ipc::ResultSuccess;
  if (!success) why = "the service answered with code " + zel::util::SignedDecimalText(reply.code);
  switch (command.reply) {
    case ReplyStyle::FirstField:
      if (!success) return false;
      if (reply.args.empty()) {
        why = command.noFirstField;
        return false;
      }
      plain = reply.args[0] + "\n";
      return true;
    case ReplyStyle::EachField:
      if (!success) return false;
      for (const std::string& field : reply.args) plain.append(field).append(1, '\n');
      return true;
    case ReplyStyle::Whole:
    case ReplyStyle::Events:
      // The reply is printed whatever its code.
      plain = PlainReply(reply);
      return success;
  }
  return success;
}

std::string UtcTime(const timespec& moment) {
  tm parts{};
  const time_t seconds = moment.tv_sec;
  gmtime_r(&seconds, &parts);
  char text[64];
  // NOLINTNEXTLINE(cert-err33-c): 64 bytes hold every time of this form, so nothing is cut off
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03ldZ", parts.tm_year + 1900, parts.tm_mon + 1,
                parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec, moment.tv_nsec / kNanosecondsPerMillisecond);
  return text;
}

}  // namespace zel::service_client
