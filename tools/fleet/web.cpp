#include "tools/fleet/web.h"

#include <poll.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <utility>
#include <vector>

#include "tools/fleet/http.h"
#include "tools/fleet/link.h"
#include "tools/fleet/options.h"
#include "tools/fleet/run.h"
#include "tools/fleet/stream.h"
#include "tools/service_client/signals.h"
#include "util/decimal_text.h"
#include "util/stop_signals.h"

namespace zel::fleet {
namespace {

namespace core = zel::service_client;
using Clock = Link::Clock;
using std::chrono::milliseconds;
using Json = nlohmann::ordered_json;

// How often what changed goes out to the streams, at most; how often a tick
// does.
constexpr milliseconds kBatchTime(100);
constexpr milliseconds kTickTime(1000);
// How long the DISCONNECT may take to leave at the end.
constexpr milliseconds kCloseTime(1000);
const char kEventLeaf[] = "event/";
const char kCut[] = "\xE2\x80\xA6";  // "…"

std::string Dump(const Json& value) { return JsonShown(value.dump(-1, ' ', false, Json::error_handler_t::replace)); }

// At most `max` bytes of UTF-8 `text`, never cutting a character.
std::string Cut(const std::string& text, size_t max) {
  if (text.size() <= max) return text;
  size_t end = max;
  // A continuation byte (10xxxxxx) belongs to the character before it.
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U) --end;
  return text.substr(0, end);
}

// Answers a run and frees its place in the hub.
void Answer(Hub& hub, RunTicket& ticket, int status, std::string body) {
  ticket.Answer(status, std::move(body));
  hub.RunEnded();
}

// A run that POST /api/run asked for: its engine, and the results as they
// come.
struct WebRun final : public Run::Observer {
  void OnResult(const BoxResult& result) override { results.push_back(result.json); }

  std::shared_ptr<RunTicket> ticket;
  std::unique_ptr<Run> run;
  std::vector<std::string> results;
  bool launched = false;
  std::string failed;        // why it could not be launched
  Clock::time_point giveUp;  // when it ends whatever the broker did
  std::shared_ptr<bool> alive = std::make_shared<bool>(true);
};

// The fleet's side of the web command: the link's messages into the box
// directory and the events kept, what changed out to the hub, the runs.
class WebFleet final : public Link::Receiver, public Link::Watcher {
 public:
  WebFleet(const Invocation& invocation, const Topics& topics, Link& link, Hub& hub)
      : mInvocation(invocation), mTopics(topics), mLink(link), mHub(hub), mDirectory(topics), mUrl(link.Url()) {}

  void OnMessage(const zel::mqtt::Message& message) override {
    std::string box;
    std::string_view leaf;
    if (!mTopics.Split(message.topic, box, leaf)) return;
    if (box.size() > kMaxWebBoxId) {
      ++mLongIds;
      return;
    }
    if (leaf.compare(0, sizeof kEventLeaf - 1, kEventLeaf) == 0) {
      TakeEvent(box, message);
      return;
    }
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    if (mDirectory.Take(message, now, mSkipped, box) == BoxDirectory::Taken::Box) mDirty.insert(box);
  }

  void OnUp() override {
    if (mDown) core::Log(LOG_NOTICE, "connected to the broker at %s again", mUrl.c_str());
    mDown = false;
    mWasUp = true;
    mHub.SetBroker(true);
    if (mSubscribed) return;
    // Kept by the link from now on, and made again after every reconnection.
    // The statuses at QoS 0, as the link's sync marker needs them (link.cpp).
    std::string why;
    const auto refused = [](const Link::Answer& answer) {
      if (!answer.ok) core::Log(LOG_ERR, "%s", answer.why.c_str());
    };
    mSubscribed = mLink.Subscribe({mTopics.OfEveryBox("status"), mTopics.OfEveryBox("service")}, 0, refused, why) &&
                  mLink.Subscribe({mTopics.OfEveryBox("event/#")}, 1, refused, why);
    if (!mSubscribed) core::Log(LOG_ERR, "cannot subscribe to the boxes' topics: %s", why.c_str());
  }

  void OnDown(const std::string& why, milliseconds retryIn) override {
    mDown = true;
    mHub.SetBroker(false);
    const std::string seconds = zel::util::DecimalText(static_cast<uint32_t>((retryIn.count() + 500) / 1000)) + " s";
    core::Log(LOG_WARNING, "%s the broker at %s: %s; trying again in %s", mWasUp ? "lost" : "cannot reach",
              mUrl.c_str(), why.c_str(), seconds.c_str());
  }

  // Publishes the rows that changed and the new events, if any.
  void Flush() {
    if (mDirty.empty() && mNewEvents.empty()) return;
    std::vector<Hub::Row> rows;
    rows.reserve(mDirty.size());
    for (const std::string& id : mDirty) {
      const BoxDirectory::Box* box = mDirectory.Find(id);
      if (box == nullptr || !box->hasStatus) {
        rows.push_back({id, std::string(), std::string()});
        continue;
      }
      const auto last = mLastEvents.find(id);
      rows.push_back({id, RowJson(id, *box, last == mLastEvents.end() ? std::string() : last->second),
                      BoxDirectory::Json(id, *box)});
    }
    mHub.Publish(rows, std::vector<std::string>(mNewEvents.begin(), mNewEvents.end()));
    mDirty.clear();
    mNewEvents.clear();
  }

  // Starts the runs handed over by the HTTP threads.
  void StartRuns() {
    for (const std::shared_ptr<RunTicket>& ticket : mHub.TakeRuns()) {
      const RunRequest& request = ticket->Request();
      if (!mLink.Up()) {
        Answer(mHub, *ticket, 503, ErrorJson("no connection to the broker at " + mUrl));
        continue;
      }
      auto web = std::make_unique<WebRun>();
      WebRun* started = web.get();
      started->ticket = ticket;
      started->run = std::make_unique<Run>(mLink, mTopics, request.target, request.command, *started);
      started->giveUp = Clock::now() + milliseconds(request.timeoutMs) + milliseconds(mInvocation.timeoutMs);
      const std::weak_ptr<bool> alive = started->alive;
      const milliseconds timeout(request.timeoutMs);
      std::string why;
      // As kendrivex-fleet run does: the reply subscription, then the sync
      // marker, after which every box's status is in, then the command.
      const bool sent = started->run->Prepare(why) && mLink.Sync(
                                                          [this, started, alive, timeout](const Link::Answer& answer) {
                                                            if (alive.expired()) return;
                                                            if (!answer.ok) {
                                                              started->failed = answer.why;
                                                              return;
                                                            }
                                                            started->run->Launch(mDirectory, timeout);
                                                            started->launched = true;
                                                          },
                                                          why);
      if (!sent) {
        Answer(mHub, *ticket, 503, ErrorJson("cannot run it: " + why));
        continue;
      }
      mRuns.push_back(std::move(web));
    }
  }

  // Answers the runs that have ended (or give up those that waited too
  // long).
  void CheckRuns(Clock::time_point now) {
    for (auto run = mRuns.begin(); run != mRuns.end();) {
      WebRun& web = **run;
      if (web.launched && !web.run->Finished() && (now >= web.run->Deadline() || now >= web.giveUp)) {
        web.run->Expire();
      }
      if (!web.failed.empty() || (!web.launched && now >= web.giveUp)) {
        const std::string why = web.failed.empty() ? "the broker did not answer in time" : web.failed;
        Answer(mHub, *web.ticket, 503, ErrorJson("cannot run it: " + why));
      } else if (web.launched && web.run->Finished()) {
        std::string array = "[";
        for (const std::string& result : web.results) array.append(array.size() > 1 ? "," : "").append(result);
        Answer(mHub, *web.ticket, 200, array.append("]"));
      } else {
        ++run;
        continue;
      }
      run = mRuns.erase(run);
    }
  }

  // When CheckRuns has something to do next.
  Clock::time_point NextDeadline() const {
    Clock::time_point next = Clock::time_point::max();
    for (const std::unique_ptr<WebRun>& web : mRuns) {
      next = std::min(next, web->giveUp);
      if (web->launched) next = std::min(next, web->run->Deadline());
    }
    return next;
  }

  // Answers every run left: the program is stopping.
  void StopRuns() {
    for (const std::unique_ptr<WebRun>& web : mRuns) {
      Answer(mHub, *web->ticket, 503, ErrorJson("kendrivex-fleet is stopping"));
    }
    mRuns.clear();
  }

  // Says, once, what was skipped of what the boxes sent.
  void ReportSkipped() const {
    if (mSkipped.Total() != 0) core::Warn(mSkipped.Text());
    const uint64_t left = mDirectory.Refused() + mLongIds;
    if (left != 0) {
      core::Warn("boxes left out, beyond the " +
                 zel::util::DecimalText(static_cast<uint32_t>(BoxDirectory::kMaxBoxes)) +
                 " kept or with an ID longer than " + zel::util::DecimalText(static_cast<uint32_t>(kMaxWebBoxId)) +
                 " bytes: " + zel::util::DecimalText(static_cast<uint32_t>(std::min<uint64_t>(left, UINT32_MAX))));
    }
  }

 private:
  void TakeEvent(const std::string& box, const zel::mqtt::Message& message) {
    Event event;
    if (!ReadBoxEvent(box, message.payload, event, mSkipped)) return;
    if (event.time.size() > kMaxEventTime) {
      mSkipped.Add(Skip::Malformed);
      return;
    }
    std::string json = EventJson(event);
    // The last event of each box, as many boxes as the directory keeps.
    const auto last = mLastEvents.find(box);
    if (last != mLastEvents.end()) {
      last->second = json;
    } else if (mLastEvents.size() < BoxDirectory::kMaxBoxes) {
      mLastEvents.emplace(box, json);
    }
    if (mDirectory.Find(box) != nullptr) mDirty.insert(box);
    mNewEvents.push_back(std::move(json));
    if (mNewEvents.size() > Hub::kMaxEvents) mNewEvents.pop_front();
  }

  const Invocation& mInvocation;
  const Topics& mTopics;
  Link& mLink;
  Hub& mHub;
  BoxDirectory mDirectory;
  const std::string mUrl;
  bool mSubscribed = false;
  bool mWasUp = false;
  bool mDown = false;
  std::map<std::string, std::string> mLastEvents;  // each box's last EVENT
  std::set<std::string> mDirty;                    // boxes whose row changed since the last batch
  std::deque<std::string> mNewEvents;              // events since the last batch, oldest first
  std::list<std::unique_ptr<WebRun>> mRuns;
  SkipCount mSkipped;
  uint64_t mLongIds = 0;
};

int MsUntil(Clock::time_point when, Clock::time_point now) {
  if (when <= now) return 0;
  const auto left = std::chrono::ceil<milliseconds>(when - now).count();
  return static_cast<int>(std::min<int64_t>(left, kTickTime.count()));
}

}  // namespace

std::string IsoTime(const timespec& when) {
  tm parts{};
  ::gmtime_r(&when.tv_sec, &parts);
  char text[40] = {};
  const size_t length = ::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  const auto millis = static_cast<uint32_t>(when.tv_nsec / 1000000);
  const std::string digits = zel::util::DecimalText(millis);
  return std::string(text, length) + "." + std::string(3 - std::min<size_t>(digits.size(), 3), '0') + digits + "Z";
}

std::string EventJson(const Event& event) {
  Json object;
  object["box"] = event.box;
  object["time"] = event.time;
  object["id"] = event.id;
  Json args = Json::array();
  size_t room = kMaxEventText;
  for (size_t i = 0; i < event.args.size(); ++i) {
    const std::string& arg = event.args[i];
    const bool last = i + 1 == kMaxEventArgs && i + 1 < event.args.size();
    if (arg.size() <= room && !last) {
      args.push_back(arg);
      room -= arg.size();
      continue;
    }
    args.push_back(Cut(arg, room) + kCut);
    break;
  }
  object["args"] = std::move(args);
  return Dump(object);
}

std::string RowJson(const std::string& id, const BoxDirectory::Box& box, const std::string& event) {
  Json object;
  object["box"] = id;
  object["status"] = box.online ? "online" : "offline";
  const BoxDirectory::Service service = box.Shown();
  object["service"] = service == BoxDirectory::Service::Up     ? Json("up")
                      : service == BoxDirectory::Service::Down ? Json("down")
                                                               : Json(nullptr);
  std::string row = Dump(object);
  // The event as it was made (and escaped) once, in place of the closing
  // brace.
  row.pop_back();
  row.append(",\"event\":").append(event.empty() ? "null" : event);
  row.append(",\"changed\":").append(box.changed ? "\"" + IsoTime(*box.changed) + "\"" : "null");
  return row.append(1, '}');
}

int ServeWeb(const Invocation& invocation, core::Output& output) {
  // Before any thread starts: the server's threads inherit the signals'
  // block, and so leave them to this one.
  const core::SignalChannel signals(zel::util::StopSignals());
  if (!signals.Ok()) {
    core::Report(core::Fail(core::kStatusLocal, "stop signals", core::ErrorText(errno)));
    return core::kStatusLocal;
  }
  Hub hub{Hub::Limits()};
  if (!hub.Ok()) {
    core::Report(core::Fail(core::kStatusLocal, "eventfd", core::ErrorText(errno)));
    return core::kStatusLocal;
  }
  HttpServer http(hub, invocation.webPassword);
  std::string why;
  const int port = http.Listen(invocation.listen, why);
  if (port < 0) {
    core::Report(core::Fail(core::kStatusLocal, invocation.listen.Url(invocation.listen.port), why));
    return core::kStatusLocal;
  }
  http.Start();
  output.Write(invocation.listen.Url(port) + "\n");

  const Topics topics(invocation.prefix);
  Link link(invocation.connection, topics, milliseconds(invocation.timeoutMs));
  WebFleet fleet(invocation, topics, link, hub);
  link.AddReceiver(fleet);
  link.Keep(fleet);
  // A connection that fails, now or later, is tried again after the MQTT
  // layer's back-off: the page says meanwhile that the broker is away.
  link.Start(why);
  std::vector<pollfd> watched = {
      pollfd{signals.Fd(), POLLIN, 0},
      pollfd{hub.WakeFd(), POLLIN, 0}
  };
  Clock::time_point nextBatch = Clock::now() + kBatchTime;
  Clock::time_point nextTick = Clock::now() + kTickTime;
  while (true) {
    const Clock::time_point now = Clock::now();
    const int wait = MsUntil(std::min({nextBatch, nextTick, fleet.NextDeadline()}), now);
    link.Poll(wait, watched, why);
    if ((watched[0].revents & POLLIN) != 0) break;
    if ((watched[1].revents & POLLIN) != 0) fleet.StartRuns();
    const Clock::time_point after = Clock::now();
    if (after >= nextBatch) {
      fleet.Flush();
      nextBatch = after + kBatchTime;
    }
    if (after >= nextTick) {
      hub.Tick();
      nextTick = after + kTickTime;
    }
    fleet.CheckRuns(after);
  }
  // The streams and the runs end first, so that the server's threads can.
  hub.Stop();
  fleet.StopRuns();
  http.Stop();
  link.Close(kCloseTime);
  fleet.ReportSkipped();
  return core::kStatusOk;
}

}  // namespace zel::fleet
