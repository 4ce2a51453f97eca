// Fuzz target: what kendrivex-fleet reads from boxes, which may be broken or
// hostile: a status, a service, an event or a reply on a box's topic, with
// any box ID and payload. Whatever comes, a payload over 64 KB is skipped as
// too large and no other is; what passes names the box of its topic; and
// nothing that would be shown (the ls line and object, the event's line and
// JSON, the reply's JSON and its fields as plain lines) holds a raw control
// character: only the tabs and the line end that the line's form puts there.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

#include "fuzz/require.h"
#include "tools/fleet/directory.h"
#include "tools/fleet/messages.h"
#include "tools/service_client/format.h"

namespace {

using zel::fuzz::Require;
namespace fleet = zel::fleet;

// What the input's first byte asks for.
enum Kind : uint8_t { kStatus, kService, kEvent, kReply, kKinds };

// No control character but those `allowed`, no DEL, no C1 control.
bool Clean(const std::string& text, const std::string& allowed) {
  for (size_t at = 0; at < text.size(); ++at) {
    const auto byte = static_cast<unsigned char>(text[at]);
    if ((byte < 0x20 && allowed.find(static_cast<char>(byte)) == std::string::npos) || byte == 0x7F) return false;
    if (byte == 0xC2 && at + 1 < text.size() && static_cast<unsigned char>(text[at + 1]) <= 0x9F) return false;
  }
  return true;
}

// A JSON text the fleet prints: clean, an object, naming `box`.
void CheckJson(const std::string& json, const std::string& box) {
  Require(Clean(json, ""), "JSON output holds no raw control character");
  const nlohmann::json object = nlohmann::json::parse(json, nullptr, false);
  Require(object.is_object(), "JSON output is an object");
  Require(object.contains("box") && object["box"].is_string() && object["box"].get<std::string>() == box,
          "JSON output names the box of its topic");
}

void CheckSize(bool passed, fleet::Skip reason, size_t size) {
  Require(!passed || size <= fleet::kMaxPayload, "nothing over 64 KB passes");
  Require(passed || (reason == fleet::Skip::TooLarge) == (size > fleet::kMaxPayload),
          "too large is said of a payload over 64 KB only");
}

void CheckWord(Kind kind, const std::string& box, const std::string& payload) {
  const fleet::Topics topics("kdx");
  fleet::BoxDirectory directory(topics);
  zel::mqtt::Message message;
  const std::string topic = topics.Prefix() + "/" + box + (kind == kStatus ? "/status" : "/service");
  message.topic = topic;
  message.payload = payload;
  fleet::SkipCount skipped;
  std::string named;
  const timespec now{};
  const fleet::BoxDirectory::Taken taken = directory.Take(message, now, skipped, named);
  std::string why;
  const bool valid = fleet::ValidBoxId(box, why);
  Require(valid || box.find('/') != std::string::npos || taken == fleet::BoxDirectory::Taken::Skipped,
          "a box ID that is no valid one is skipped");
  for (const auto& [id, entry] : directory.Boxes()) {
    Require(id == box && valid, "only the topic's box is taken in, with a valid ID");
    const std::string line = fleet::BoxDirectory::Line(id, entry);
    Require(Clean(line, "\t\n"), "an ls line holds no raw control character");
    Require(std::count(line.begin(), line.end(), '\t') == 2 && line.find('\n') == line.size() - 1,
            "an ls line has three fields and one line end");
    CheckJson(fleet::BoxDirectory::Json(id, entry), box);
  }
}

void CheckEvent(const std::string& box, const std::string& payload) {
  fleet::Event event;
  fleet::Skip reason = fleet::Skip::Unasked;
  const bool passed = fleet::ParseEvent(box, payload, event, reason);
  CheckSize(passed, reason, payload.size());
  if (!passed) return;
  CheckJson(event.json, box);
  zel::ipc::IPCEvent fields;
  fields.id = event.id;
  for (const std::string& arg : event.args) fields.args.push_back(fleet::Escaped(arg));
  const std::string line = zel::service_client::PlainEvent(fleet::Escaped(event.time), fields);
  Require(Clean(line, "\t\n") && line.find('\n') == line.size() - 1, "an event's line is one clean line");
}

void CheckReply(const std::string& box, const std::string& payload) {
  fleet::Reply reply;
  fleet::Skip reason = fleet::Skip::Unasked;
  const bool passed = fleet::ParseReply(box, payload, reply, reason);
  CheckSize(passed, reason, payload.size());
  if (!passed) return;
  CheckJson(reply.json, box);
  Require(reply.fromService || Clean(fleet::Escaped(reply.error), ""), "an error's text is shown escaped");
  for (const std::string& arg : reply.args) {
    Require(Clean(fleet::Escaped(arg), ""), "each field of a reply is shown without tab or line end");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider input(data, size);
  const auto kind = static_cast<Kind>(input.ConsumeIntegral<uint8_t>() % kKinds);
  const std::string box = input.ConsumeRandomLengthString(64);
  const std::string payload = input.ConsumeRemainingBytesAsString();
  switch (kind) {
    case kStatus:
    case kService:
      CheckWord(kind, box, payload);
      break;
    case kEvent:
      CheckEvent(box, payload);
      break;
    case kReply:
    case kKinds:
      CheckReply(box, payload);
      break;
  }
  return 0;
}
