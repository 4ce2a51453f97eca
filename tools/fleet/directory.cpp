#include "tools/fleet/directory.h"

#include <nlohmann/json.hpp>
#include <utility>

namespace zel::fleet {
namespace {

const char kEventLeaf[] = "event/";

const char* ServiceWord(BoxDirectory::Service service) {
  switch (service) {
    case BoxDirectory::Service::Up:
      return "up";
    case BoxDirectory::Service::Down:
      return "down";
    case BoxDirectory::Service::Unknown:
      break;
  }
  return nullptr;
}

}  // namespace

BoxDirectory::Taken BoxDirectory::Take(const zel::mqtt::Message& message, const timespec& now, SkipCount& skipped,
                                       std::string& box) {
  std::string_view leaf;
  if (!mTopics.Split(message.topic, box, leaf)) return Taken::NotOurs;
  const bool status = leaf == "status";
  const bool service = leaf == "service";
  const bool event = leaf.compare(0, sizeof kEventLeaf - 1, kEventLeaf) == 0;
  if (!status && !service && !event) return Taken::NotOurs;
  const auto skip = [&skipped](Skip reason) {
    skipped.Add(reason);
    return Taken::Skipped;
  };
  std::string why;
  if (!ValidBoxId(box, why)) return skip(Skip::Malformed);
  Skip reason = Skip::Malformed;
  Word word = Word::Cleared;
  Event parsed;
  if (status && !ParseStatus(message.payload, word, reason)) return skip(reason);
  if (service && !ParseService(message.payload, word, reason)) return skip(reason);
  if (event && !ParseEvent(box, message.payload, parsed, reason)) return skip(reason);
  if (word == Word::Cleared && !event && mBoxes.count(box) == 0) return Taken::Box;
  Box* entry = Entry(box);
  if (entry == nullptr) {
    ++mRefused;
    return Taken::Skipped;
  }
  if (event) {
    entry->lastEvent = std::move(parsed);
    return Taken::Event;
  }
  const bool wasOnline = entry->online;
  const bool hadStatus = entry->hasStatus;
  const Service wasService = entry->service;
  if (status) {
    entry->hasStatus = word != Word::Cleared;
    entry->online = word == Word::Online;
  } else {
    entry->service = word == Word::Up ? Service::Up : word == Word::Down ? Service::Down : Service::Unknown;
  }
  const bool changed = entry->online != wasOnline || entry->hasStatus != hadStatus || entry->service != wasService;
  // A retained message says nothing of when it was published.
  if (changed && !message.retain) entry->changed = now;
  DropIfEmpty(box);
  return Taken::Box;
}

void BoxDirectory::OnMessage(const zel::mqtt::Message& message) {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  std::string box;
  const Taken taken = Take(message, now, mSkipped, box);
  if (mOnChange && (taken == Taken::Box || taken == Taken::Event)) mOnChange(taken, box);
}

const BoxDirectory::Box* BoxDirectory::Find(const std::string& id) const {
  const auto found = mBoxes.find(id);
  return found == mBoxes.end() ? nullptr : &found->second;
}

BoxDirectory::Box* BoxDirectory::Entry(const std::string& id) {
  const auto found = mBoxes.find(id);
  if (found != mBoxes.end()) return &found->second;
  if (mBoxes.size() >= kMaxBoxes) return nullptr;
  return &mBoxes[id];
}

void BoxDirectory::DropIfEmpty(const std::string& id) {
  const auto found = mBoxes.find(id);
  if (found == mBoxes.end()) return;
  const Box& box = found->second;
  if (!box.hasStatus && box.service == Service::Unknown && !box.lastEvent) mBoxes.erase(found);
}

std::string BoxDirectory::Line(const std::string& id, const Box& box) {
  const char* service = ServiceWord(box.Shown());
  return Escaped(id) + (box.online ? "\tonline\t" : "\toffline\t") + (service != nullptr ? service : "-") + "\n";
}

std::string BoxDirectory::Json(const std::string& id, const Box& box) {
  nlohmann::ordered_json object;
  object["box"] = id;
  object["status"] = box.online ? "online" : "offline";
  const char* service = ServiceWord(box.Shown());
  object["service"] = service != nullptr ? nlohmann::ordered_json(service) : nlohmann::ordered_json(nullptr);
  return JsonShown(object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
}

}  // namespace zel::fleet
