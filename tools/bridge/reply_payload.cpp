#include "tools/bridge/reply_payload.h"

#include <nlohmann/json.hpp>

namespace zel::bridge {
namespace {

// Keys stay in the order they are written.
using Json = nlohmann::ordered_json;

std::string Dump(const Json& value) { return value.dump(-1, ' ', false, Json::error_handler_t::replace); }

}  // namespace

std::string ReplyPayload::Answered(const std::string& json, const std::string& box) {
  // The object as printed, its closing brace (and newline) replaced by one
  // more member.
  const size_t close = json.rfind('}');
  return json.substr(0, close) + ",\"box\":" + Dump(Json(box)) + "}";
}

std::string ReplyPayload::Error(const std::string& box, const std::optional<std::string>& command, int status,
                                const std::string& error) {
  Json object;
  object["box"] = box;
  object["command"] = command ? Json(*command) : Json(nullptr);
  object["status"] = status;
  object["error"] = error;
  return Dump(object);
}

}  // namespace zel::bridge
