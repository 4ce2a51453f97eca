// The box directory: every box the broker holds a status of, as the
// retained statuses and services and the events say, fed the messages of
// those subscriptions as they arrive. For each box its status, its service
// (shown as unknown while the box is offline: what the broker still holds
// of it then is stale), its last event and when the fleet saw its status or
// service change (unknown for what arrived as retained: a retained message
// says nothing of when it was published). Sorted by ID, bounded in boxes;
// what a box sends is checked (messages.h) and what fails is counted. It
// takes the messages of a link as one of its receivers, or from its user.
// Also the lines `ls` prints for a box. One thread; owns its boxes.
#pragma once

#include <time.h>

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "tools/fleet/link.h"
#include "tools/fleet/messages.h"
#include "tools/mqtt/session.h"

namespace zel::fleet {

class BoxDirectory final : public Link::Receiver {
 public:
  // Boxes beyond this many are not taken in (and counted).
  static constexpr size_t kMaxBoxes = 100000;

  enum class Service : uint8_t { Unknown, Up, Down };

  struct Box {
    bool hasStatus = false;  // a box known by its service or events alone is not listed
    bool online = false;
    Service service = Service::Unknown;  // as the broker holds it
    std::optional<Event> lastEvent;
    std::optional<timespec> changed;  // when the fleet saw the status or the service change

    // The service as it is shown: unknown while the box is offline.
    Service Shown() const { return online ? service : Service::Unknown; }
  };

  // What a message was to the directory.
  enum class Taken : uint8_t {
    NotOurs,  // not a status, service or event of a box
    Box,      // a box's status or service changed (or came in)
    Event,    // a box's event
    Skipped,  // a box's message that failed its checks (counted), or a box beyond the limit
  };

  // Told of each box that changed or sent an event.
  using OnChange = std::function<void(Taken taken, const std::string& box)>;

  explicit BoxDirectory(const Topics& topics) : mTopics(topics) {}

  // Takes `message`, which arrived at `now` (wall-clock time); `box` is the
  // box it concerns. Skipped messages are added to `skipped`.
  Taken Take(const zel::mqtt::Message& message, const timespec& now, SkipCount& skipped, std::string& box);
  // As the link's receiver: takes each message at the wall-clock time it
  // arrives, counting what is skipped in Skipped(), and tells `onChange`
  // (when set) what changed.
  void OnMessage(const zel::mqtt::Message& message) override;
  void SetOnChange(OnChange onChange) { mOnChange = std::move(onChange); }
  const SkipCount& Skipped() const { return mSkipped; }

  // The box of this ID; nullptr when the directory has none.
  const Box* Find(const std::string& id) const;
  // Every box, sorted by ID (byte order), listed or not (see Box::hasStatus).
  const std::map<std::string, Box>& Boxes() const { return mBoxes; }
  // Boxes that were not taken in because the directory was full.
  uint64_t Refused() const { return mRefused; }

  // The line `ls` prints for a box: "ID<TAB>online<TAB>up" and a newline,
  // the ID escaped; SERVICE is "-" when unknown.
  static std::string Line(const std::string& id, const Box& box);
  // The object `ls -j` prints (without a newline):
  // {"box":ID,"status":"online","service":"up"}, the service null when
  // unknown.
  static std::string Json(const std::string& id, const Box& box);

 private:
  // The box of `id`, made when it is new and there is room; nullptr when
  // there is none.
  Box* Entry(const std::string& id);
  // Drops a box that nothing is known of any more.
  void DropIfEmpty(const std::string& id);

  const Topics& mTopics;
  std::map<std::string, Box> mBoxes;
  uint64_t mRefused = 0;
  SkipCount mSkipped;  // of the messages taken as a receiver
  OnChange mOnChange;
};

}  // namespace zel::fleet
