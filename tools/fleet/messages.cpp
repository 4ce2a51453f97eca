#include "tools/fleet/messages.h"

#include <sys/random.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <nlohmann/json.hpp>
#include <utility>

#include "tools/service_client/failure.h"
#include "util/decimal_text.h"

namespace zel::fleet {
namespace {

// Keys stay in the order the box wrote them.
using Json = nlohmann::ordered_json;

const char kHexDigits[] = "0123456789abcdef";
// Nothing a box sends nests deeper below the object's own members (an
// event's args are at the first level). A payload that does is refused
// before anything is done with it: writing JSON out again recurses once a
// level.
constexpr int kMaxDepth = 8;
constexpr size_t kRunIdBytes = 8;

const char* const kSkipTexts[] = {
    "not of the form a box sends",
    "larger than 64 KB",
    "naming another box than their topic",
    "not asked for by this run",
};

std::string Number(uint64_t count) {
  return zel::util::DecimalText(static_cast<uint32_t>(std::min<uint64_t>(count, UINT32_MAX)));
}

// The payload as a JSON object, nested no deeper than kMaxDepth; false with
// the reason otherwise. The size is checked before a byte is parsed.
bool ParseObject(std::string_view payload, Json& object, Skip& reason) {
  if (payload.size() > kMaxPayload) {
    reason = Skip::TooLarge;
    return false;
  }
  bool tooDeep = false;
  object = Json::parse(
      payload.begin(), payload.end(),
      [&tooDeep](int depth, Json::parse_event_t /*event*/, Json& /*parsed*/) {
        if (depth > kMaxDepth) tooDeep = true;
        return true;
      },
      false);
  if (!tooDeep && object.is_object()) return true;
  reason = Skip::Malformed;
  return false;
}

// The member `key` of `object`, or nullptr.
const Json* Member(const Json& object, const char* key) {
  const auto found = object.find(key);
  return found == object.end() ? nullptr : &*found;
}

bool ReadString(const Json* value, std::string& text) {
  if (value == nullptr || !value->is_string()) return false;
  text = value->get_ref<const std::string&>();
  return true;
}

bool ReadInt32(const Json* value, int32_t& number) {
  if (value == nullptr) return false;
  if (value->is_number_unsigned()) {
    const auto read = value->get<uint64_t>();
    if (read > static_cast<uint64_t>(std::numeric_limits<int32_t>::max())) return false;
    number = static_cast<int32_t>(read);
    return true;
  }
  if (!value->is_number_integer()) return false;
  const auto read = value->get<int64_t>();
  if (read < std::numeric_limits<int32_t>::min() || read > std::numeric_limits<int32_t>::max()) return false;
  number = static_cast<int32_t>(read);
  return true;
}

bool ReadStrings(const Json* value, std::vector<std::string>& strings) {
  if (value == nullptr || !value->is_array()) return false;
  strings.clear();
  for (const Json& item : *value) {
    if (!item.is_string()) return false;
    strings.push_back(item.get_ref<const std::string&>());
  }
  return true;
}

// Whether the object's "box" is `box`: Malformed when it is not a string
// or `box` is no valid ID, OtherBox when it names another; an object without
// one passes when `required` is false.
bool SameBox(const Json& object, const std::string& box, bool required, Skip& reason) {
  std::string why;
  if (!ValidBoxId(box, why)) {
    reason = Skip::Malformed;
    return false;
  }
  const Json* named = Member(object, "box");
  if (named == nullptr && !required) return true;
  std::string text;
  if (!ReadString(named, text)) {
    reason = Skip::Malformed;
    return false;
  }
  if (text == box) return true;
  reason = Skip::OtherBox;
  return false;
}

std::string Dump(const Json& object) { return JsonShown(object.dump(-1, ' ', false, Json::error_handler_t::replace)); }

bool ParseWord(std::string_view payload, const char* yes, const char* no, Word yesWord, Word noWord, Word& word,
               Skip& reason) {
  if (payload.empty()) {
    word = Word::Cleared;
  } else if (payload == yes) {
    word = yesWord;
  } else if (payload == no) {
    word = noWord;
  } else {
    reason = payload.size() > kMaxPayload ? Skip::TooLarge : Skip::Malformed;
    return false;
  }
  return true;
}

}  // namespace

Topics::Topics(std::string prefix) : mPrefix(std::move(prefix)) {}

std::string Topics::Status(const std::string& box) const { return mPrefix + "/" + box + "/status"; }

std::string Topics::Service(const std::string& box) const { return mPrefix + "/" + box + "/service"; }

std::string Topics::Events(const std::string& box) const { return mPrefix + "/" + box + "/event/#"; }

std::string Topics::Command(const std::string& box) const { return mPrefix + "/" + box + "/cmd"; }

std::string Topics::Reply(const std::string& box, const std::string& run) const {
  return mPrefix + "/" + box + "/reply/" + run;
}

std::string Topics::OfEveryBox(const std::string& leaf) const { return mPrefix + "/+/" + leaf; }

std::string Topics::Marker(const std::string& run) const { return mPrefix + "/" + kAllBoxes + "/sync/" + run; }

bool Topics::Split(std::string_view topic, std::string& box, std::string_view& leaf) const {
  if (topic.size() <= mPrefix.size() || topic.compare(0, mPrefix.size(), mPrefix) != 0 ||
      topic[mPrefix.size()] != '/') {
    return false;
  }
  topic.remove_prefix(mPrefix.size() + 1);
  const size_t slash = topic.find('/');
  if (slash == std::string_view::npos) return false;
  box.assign(topic.substr(0, slash));
  leaf = topic.substr(slash + 1);
  return true;
}

bool ControlFree(const std::string& text) {
  if (!zel::service_client::ValidUtf8(text)) return false;
  for (size_t at = 0; at < text.size(); ++at) {
    const auto byte = static_cast<unsigned char>(text[at]);
    if (byte < 0x20 || byte == 0x7F) return false;
    // U+0080 to U+009F are C2 80 to C2 9F.
    if (byte == 0xC2 && at + 1 < text.size() && static_cast<unsigned char>(text[at + 1]) <= 0x9F) return false;
  }
  return true;
}

bool ValidBoxId(const std::string& id, std::string& why) {
  if (id.empty() || id.find_first_of("/+#") != std::string::npos) {
    why = "a box's ID may not be empty or hold '/', '+' or '#'";
    return false;
  }
  if (id == kAllBoxes) {
    why = "\"all\" stands for every box, and is no box's ID";
    return false;
  }
  if (!ControlFree(id)) {
    why = "a box's ID is UTF-8 text without control characters";
    return false;
  }
  return true;
}

std::string NewRunId() {
  unsigned char bytes[kRunIdBytes] = {};
  ssize_t got = -1;
  do {
    got = ::getrandom(bytes, sizeof bytes, 0);
  } while (got < 0 && errno == EINTR);
  if (got != static_cast<ssize_t>(sizeof bytes)) {
    // No random source: the time and the process, which still differ from
    // one run to the next on one machine.
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    const uint64_t mixed = (static_cast<uint64_t>(now.tv_sec) << 32U) ^ static_cast<uint64_t>(now.tv_nsec) ^
                           (static_cast<uint64_t>(::getpid()) << 20U);
    for (size_t i = 0; i < sizeof bytes; ++i) bytes[i] = static_cast<unsigned char>(mixed >> (8 * i));
  }
  std::string id;
  for (const unsigned char byte : bytes) id.append(1, kHexDigits[byte >> 4U]).append(1, kHexDigits[byte & 0xFU]);
  return id;
}

uint64_t SkipCount::Total() const {
  uint64_t total = 0;
  for (const uint64_t count : mCounts) total += count;
  return total;
}

std::string SkipCount::Text() const {
  const uint64_t total = Total();
  if (total == 0) return std::string();
  std::string text = "skipped " + Number(total) + (total == 1 ? " message" : " messages") + " from boxes:";
  const char* separator = " ";
  for (size_t i = 0; i < mCounts.size(); ++i) {
    if (mCounts[i] == 0) continue;
    text.append(separator).append(Number(mCounts[i])).append(" ").append(kSkipTexts[i]);
    separator = ", ";
  }
  return text;
}

bool ParseStatus(std::string_view payload, Word& word, Skip& reason) {
  return ParseWord(payload, "online", "offline", Word::Online, Word::Offline, word, reason);
}

bool ParseService(std::string_view payload, Word& word, Skip& reason) {
  return ParseWord(payload, "up", "down", Word::Up, Word::Down, word, reason);
}

bool ParseEvent(const std::string& box, std::string_view payload, Event& event, Skip& reason) {
  Json object;
  if (!ParseObject(payload, object, reason) || !SameBox(object, box, false, reason)) return false;
  if (!ReadString(Member(object, "time"), event.time) || !ReadInt32(Member(object, "id"), event.id) ||
      !ReadStrings(Member(object, "args"), event.args)) {
    reason = Skip::Malformed;
    return false;
  }
  if (Member(object, "box") == nullptr) object["box"] = box;
  event.box = box;
  event.json = Dump(object);
  return true;
}

bool ReadBoxEvent(const std::string& box, std::string_view payload, Event& event, SkipCount& skipped) {
  Skip reason = Skip::Malformed;
  std::string why;
  if (ValidBoxId(box, why) && ParseEvent(box, payload, event, reason)) return true;
  skipped.Add(reason);
  return false;
}

bool ParseReply(const std::string& box, std::string_view payload, Reply& reply, Skip& reason) {
  Json object;
  if (!ParseObject(payload, object, reason) || !SameBox(object, box, true, reason)) return false;
  const Json* command = Member(object, "command");
  reply.fromService = Member(object, "code") != nullptr;
  bool wellFormed = false;
  if (reply.fromService) {
    wellFormed = ReadString(command, reply.command) && ReadInt32(Member(object, "code"), reply.code) &&
                 ReadStrings(Member(object, "args"), reply.args);
  } else {
    reply.command.clear();
    wellFormed = (command != nullptr && command->is_null()) || ReadString(command, reply.command);
    wellFormed = wellFormed && ReadInt32(Member(object, "status"), reply.status) &&
                 ReadString(Member(object, "error"), reply.error);
  }
  if (!wellFormed) {
    reason = Skip::Malformed;
    return false;
  }
  reply.json = Dump(object);
  return true;
}

std::string JsonShown(const std::string& json) {
  std::string shown;
  shown.reserve(json.size());
  for (size_t at = 0; at < json.size(); ++at) {
    const auto byte = static_cast<unsigned char>(json[at]);
    // U+0080 to U+009F are C2 80 to C2 9F in UTF-8; C2 begins no other
    // character that is a control.
    const bool c1 = byte == 0xC2 && at + 1 < json.size() && static_cast<unsigned char>(json[at + 1]) >= 0x80 &&
                    static_cast<unsigned char>(json[at + 1]) <= 0x9F;
    if (byte == 0x7F) {
      shown.append("\\u007f");
    } else if (c1) {
      const auto code = static_cast<unsigned char>(json[++at]);
      shown.append("\\u00").append(1, kHexDigits[code >> 4U]).append(1, kHexDigits[code & 0xFU]);
    } else {
      shown.append(1, static_cast<char>(byte));
    }
  }
  return shown;
}

std::string Escaped(const std::string& text) { return zel::service_client::Shown(text, std::string::npos); }

}  // namespace zel::fleet
