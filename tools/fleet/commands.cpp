#include "tools/fleet/commands.h"

#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tools/fleet/directory.h"
#include "tools/fleet/link.h"
#include "tools/fleet/run.h"
#include "tools/fleet/web.h"
#include "tools/service_client/format.h"
#include "tools/service_client/signals.h"
#include "util/decimal_text.h"
#include "util/stop_signals.h"

namespace zel::fleet {
namespace {

namespace core = zel::service_client;
using std::chrono::milliseconds;

// How long the DISCONNECT may take to leave at the end.
constexpr milliseconds kCloseTime(1000);
const char kEventLeaf[] = "event/";

std::string Count(size_t count) { return zel::util::DecimalText(static_cast<uint32_t>(count)); }

std::string Boxes(size_t count) { return Count(count) + (count == 1 ? " box" : " boxes"); }

milliseconds Timeout(const Invocation& invocation) { return milliseconds(invocation.timeoutMs); }

Link::Clock::time_point Deadline(const Invocation& invocation) { return Link::Clock::now() + Timeout(invocation); }

// A line on standard error that is neither a failure nor a warning: the
// program's name, then the text.
void Say(const std::string& text) {
  core::WriteAll(STDERR_FILENO, std::string(core::ProgramName()) + ": " + text + "\n");
}

// Says, once, what was skipped of what the boxes sent.
void ReportSkipped(const SkipCount& skipped, uint64_t refused) {
  if (skipped.Total() != 0) core::Warn(skipped.Text());
  if (refused != 0) {
    core::Warn("more boxes than the " + Count(BoxDirectory::kMaxBoxes) + " that the fleet keeps: " + Count(refused) +
               " left out");
  }
}

// Reports why the broker failed the command: "<program>: URL: why".
int Unreachable(const Link& link, const std::string& why) {
  core::Report(core::Fail(core::kStatusUnreachable, link.Url(), why));
  return core::kStatusUnreachable;
}

// Starts the link and waits until it is up; false when it is not within the
// time-out (reported, unless the stop descriptor ended the wait).
bool Connect(Link& link, const Invocation& invocation, int stopFd, Waited& waited) {
  std::string why;
  waited = Waited::Gone;
  if (link.Start(why))
    waited = Await(
        link, stopFd, [&link] { return link.Up(); }, Deadline(invocation), why);
  if (waited == Waited::Done) return true;
  if (waited == Waited::TimedOut) why = "no answer within " + Count(invocation.timeoutMs) + " ms";
  if (waited != Waited::Stopped) Unreachable(link, why);
  return false;
}

// Subscribes to `filters` at QoS 0 and waits for the sync marker: every
// retained message there has then arrived. False when it fails (reported).
bool ReadRetained(Link& link, const std::vector<std::string>& filters, const Invocation& invocation) {
  std::optional<Link::Answer> subscribed;
  std::optional<Link::Answer> synced;
  std::string why;
  if (link.Subscribe(
          filters, 0, [&subscribed](const Link::Answer& answer) { subscribed = answer; }, why) &&
      link.Sync([&synced](const Link::Answer& answer) { synced = answer; }, why)) {
    const Waited waited = Await(
        link, -1, [&synced] { return synced.has_value(); }, Deadline(invocation), why);
    if (waited == Waited::TimedOut) {
      why = "the retained statuses did not all come within " + Count(invocation.timeoutMs) + " ms";
    } else if (waited == Waited::Done && subscribed && !subscribed->ok) {
      why = subscribed->why;
    } else if (waited == Waited::Done && !synced->ok) {
      why = synced->why;
    } else if (waited == Waited::Done) {
      return true;
    }
  }
  Unreachable(link, why);
  return false;
}

// What ls, run and forget share: the topics, the link and the box directory
// it feeds.
struct Connection {
  explicit Connection(const Invocation& invocation)
      : topics(invocation.prefix), link(invocation.connection, topics, Timeout(invocation)), directory(topics) {
    link.AddReceiver(directory);
  }

  Topics topics;
  Link link;
  BoxDirectory directory;
};

int ListBoxes(const Invocation& invocation, core::Output& output) {
  Connection connection(invocation);
  Waited waited = Waited::Gone;
  if (!Connect(connection.link, invocation, -1, waited)) return core::kStatusUnreachable;
  const Topics& topics = connection.topics;
  if (!ReadRetained(connection.link, {topics.OfEveryBox("status"), topics.OfEveryBox("service")}, invocation)) {
    return core::kStatusUnreachable;
  }
  connection.link.Close(kCloseTime);
  std::string lines;
  for (const auto& [id, box] : connection.directory.Boxes()) {
    if (!box.hasStatus) continue;
    lines += invocation.json ? BoxDirectory::Json(id, box) + "\n" : BoxDirectory::Line(id, box);
  }
  output.Write(lines);
  ReportSkipped(connection.directory.Skipped(), connection.directory.Refused());
  return core::kStatusOk;
}

// Prints each box's result of a run as it comes, with the progress line in
// place while standard error is a terminal.
class RunPrinter final : public Run::Observer {
 public:
  RunPrinter(const Invocation& invocation, core::Output& output)
      : mJson(invocation.json), mOutput(output), mTerminal(::isatty(STDERR_FILENO) == 1) {}

  void OnLaunched(size_t expected) override {
    mExpected = expected;
    Draw();
  }

  void OnResult(const BoxResult& result) override {
    Erase();
    if (mJson) {
      mOutput.Write(result.json + "\n");
    } else {
      if (!result.plain.empty()) mOutput.Write(result.plain);
      if (result.status != BoxResult::kSuccess)
        core::Report(core::Fail(result.status, Escaped(result.box), result.why));
    }
    ++mAnswered;
    Draw();
  }

  // Takes the progress line away for good.
  void Finish() {
    Erase();
    mTerminal = false;
  }

 private:
  void Draw() {
    if (!mTerminal || mExpected == 0) return;
    core::WriteAll(STDERR_FILENO,
                   "\r" + std::string(core::ProgramName()) + ": " + ProgressText(mAnswered, mExpected) + "\x1b[K");
    mDrawn = true;
  }

  void Erase() {
    if (!mDrawn) return;
    core::WriteAll(STDERR_FILENO, "\r\x1b[K");
    mDrawn = false;
  }

  const bool mJson;
  core::Output& mOutput;
  bool mTerminal;
  bool mDrawn = false;
  size_t mExpected = 0;
  size_t mAnswered = 0;
};

int RunOnBoxes(const Invocation& invocation, core::Output& output) {
  Connection connection(invocation);
  Link& link = connection.link;
  Waited waited = Waited::Gone;
  if (!Connect(link, invocation, -1, waited)) return core::kStatusUnreachable;
  RunPrinter printer(invocation, output);
  Run run(link, connection.topics, invocation.target, invocation.command, printer);
  std::string why;
  waited = Execute(link, connection.directory, run, Timeout(invocation), -1, why);
  printer.Finish();
  if (waited == Waited::TimedOut) {
    why = "the retained statuses did not all come within " + Count(invocation.timeoutMs) + " ms";
  }
  // A run that ended with the connection has its boxes' results; one that
  // did not get that far has none.
  if (waited != Waited::Done && run.Expected() == 0) return Unreachable(link, why);
  if (waited == Waited::Gone) Unreachable(link, why);
  link.Close(kCloseTime);
  ReportSkipped(run.Skipped(), 0);
  const size_t none = run.Counted(BoxResult::kNoAnswer);
  const size_t otherwise = run.Counted(BoxResult::kOtherwise);
  if (run.Expected() == 0) core::Report(core::Fail(core::kStatusUnreachable, "all", "no box is online"));
  Say(SummaryText(run.Expected(), run.Counted(BoxResult::kSuccess), otherwise, none));
  if (run.Expected() == 0 || none != 0) return core::kStatusUnreachable;
  return otherwise != 0 ? core::kStatusRefused : core::kStatusOk;
}

// Prints the boxes' events as they come, and tells the operator of the
// broker's comings and goings.
class EventPrinter final : public Link::Receiver, public Link::Watcher {
 public:
  EventPrinter(const Invocation& invocation, const Topics& topics, core::Output& output, const std::string& url)
      : mJson(invocation.json), mCount(invocation.count), mTopics(topics), mOutput(output), mUrl(url) {}

  // Whether --count events have been printed: the rest of what one read
  // of the connection brought is left out.
  bool Done() const { return mCount != 0 && mPrinted >= mCount; }

  void OnMessage(const zel::mqtt::Message& message) override {
    if (Done()) return;
    std::string box;
    std::string_view leaf;
    if (!mTopics.Split(message.topic, box, leaf) || leaf.compare(0, sizeof kEventLeaf - 1, kEventLeaf) != 0) return;
    Event event;
    if (!ReadBoxEvent(box, message.payload, event, mSkipped)) return;
    mOutput.Write(mJson ? event.json + "\n" : EventLine(event));
    ++mPrinted;
  }

  void OnUp() override {
    if (mDown) core::Log(LOG_NOTICE, "connected to the broker at %s again", mUrl.c_str());
    mDown = false;
    mWasUp = true;
  }

  void OnDown(const std::string& why, milliseconds retryIn) override {
    mDown = true;
    mLastWhy = why;
    const std::string seconds = Count(static_cast<size_t>((retryIn.count() + 500) / 1000)) + " s";
    core::Log(LOG_WARNING, "%s the broker at %s: %s; trying again in %s", mWasUp ? "lost" : "cannot reach",
              mUrl.c_str(), why.c_str(), seconds.c_str());
  }

  const SkipCount& Skipped() const { return mSkipped; }
  const std::string& LastWhy() const { return mLastWhy; }

 private:
  const bool mJson;
  const uint32_t mCount;  // 0: no end
  const Topics& mTopics;
  core::Output& mOutput;
  const std::string mUrl;
  bool mWasUp = false;
  bool mDown = false;
  std::string mLastWhy;
  uint64_t mPrinted = 0;
  SkipCount mSkipped;
};

int WatchEvents(const Invocation& invocation, core::Output& output) {
  const core::SignalChannel signals(zel::util::StopSignals());
  if (!signals.Ok()) {
    core::Report(core::Fail(core::kStatusLocal, "stop signals", core::ErrorText(errno)));
    return core::kStatusLocal;
  }
  const Topics topics(invocation.prefix);
  Link link(invocation.connection, topics, Timeout(invocation));
  EventPrinter printer(invocation, topics, output, link.Url());
  link.AddReceiver(printer);
  link.Keep(printer);
  std::string why;
  // The first connection within the time-out; once up, the link rides out a
  // broker that goes away.
  link.Start(why);
  Waited waited = Await(
      link, signals.Fd(), [&link] { return link.Up(); }, Deadline(invocation), why);
  if (waited == Waited::Stopped) return core::kStatusOk;
  if (waited != Waited::Done) {
    return Unreachable(link, printer.LastWhy().empty() ? "no answer within " + Count(invocation.timeoutMs) + " ms"
                                                       : printer.LastWhy());
  }
  std::vector<std::string> filters;
  for (const std::string& box : invocation.boxes) filters.push_back(topics.Events(box));
  if (filters.empty()) filters.push_back(topics.OfEveryBox("event/#"));
  std::optional<Link::Answer> subscribed;
  if (!link.Subscribe(
          filters, 1, [&subscribed](const Link::Answer& answer) { subscribed = answer; }, why)) {
    return Unreachable(link, why);
  }
  const auto done = [&] { return (subscribed && !subscribed->ok) || output.Broken() || printer.Done(); };
  while (!done()) {
    waited = Await(link, signals.Fd(), done, Link::Clock::time_point::max(), why);
    if (waited == Waited::Stopped) break;
  }
  if (subscribed && !subscribed->ok) return Unreachable(link, subscribed->why);
  link.Close(kCloseTime);
  ReportSkipped(printer.Skipped(), 0);
  return core::kStatusOk;
}

int ForgetBoxes(const Invocation& invocation) {
  Connection connection(invocation);
  const Topics& topics = connection.topics;
  Link& link = connection.link;
  const BoxDirectory& directory = connection.directory;
  Waited waited = Waited::Gone;
  if (!Connect(link, invocation, -1, waited)) return core::kStatusUnreachable;
  std::vector<std::string> filters;
  for (const std::string& id : invocation.forget) {
    filters.push_back(topics.Status(id));
    filters.push_back(topics.Service(id));
  }
  if (!ReadRetained(link, filters, invocation)) return core::kStatusUnreachable;
  int status = core::kStatusOk;
  size_t waiting = 0;
  // A box whose status and service the broker both refuses to clear is said
  // once.
  std::set<std::string> refused;
  const auto cleared = [&status, &waiting, &refused](const std::string& id) {
    return [&status, &waiting, &refused, id](const Link::Answer& answer) {
      --waiting;
      if (answer.ok || !refused.insert(id).second) return;
      core::Report(core::Fail(core::kStatusUnreachable, Escaped(id), "cannot clear it: " + answer.why));
      status = core::kStatusUnreachable;
    };
  };
  for (const std::string& id : invocation.forget) {
    const BoxDirectory::Box* box = directory.Find(id);
    if (box != nullptr && box->hasStatus && box->online) {
      core::Report(core::Fail(core::kStatusRefused, Escaped(id), "online: only a box that is gone can be forgotten"));
      if (status == core::kStatusOk) status = core::kStatusRefused;
      continue;
    }
    std::string why;
    for (const std::string& topic : {topics.Status(id), topics.Service(id)}) {
      if (link.Publish(zel::mqtt::Publication(topic, std::string(), true), cleared(id), why)) {
        ++waiting;
      } else {
        core::Report(core::Fail(core::kStatusUnreachable, Escaped(id), "cannot clear it: " + why));
        status = core::kStatusUnreachable;
      }
    }
  }
  std::string why;
  waited = Await(
      link, -1, [&waiting] { return waiting == 0; }, Deadline(invocation), why);
  if (waited == Waited::TimedOut) why = "no acknowledgement within " + Count(invocation.timeoutMs) + " ms";
  if (waited != Waited::Done) return Unreachable(link, why);
  link.Close(kCloseTime);
  ReportSkipped(directory.Skipped(), directory.Refused());
  return status;
}

}  // namespace

int Perform(const Invocation& invocation, core::Output& output) {
  switch (invocation.mode) {
    case Invocation::Mode::Ls:
      return ListBoxes(invocation, output);
    case Invocation::Mode::Run:
      return RunOnBoxes(invocation, output);
    case Invocation::Mode::Watch:
      return WatchEvents(invocation, output);
    case Invocation::Mode::Forget:
      return ForgetBoxes(invocation);
    case Invocation::Mode::Web:
      return ServeWeb(invocation, output);
    case Invocation::Mode::Help:
    case Invocation::Mode::Version:
      break;
  }
  return core::kStatusOk;
}

std::string SummaryText(size_t expected, size_t success, size_t otherwise, size_t none) {
  return Boxes(expected) + " expected: " + Count(success) + " answered with success, " + Count(otherwise) +
         " answered otherwise, " + Count(none) + " did not answer";
}

std::string ProgressText(size_t answered, size_t expected) {
  return Count(answered) + " of " + Boxes(expected) + " answered";
}

std::string EventLine(const Event& event) {
  zel::ipc::IPCEvent fields;
  fields.id = event.id;
  for (const std::string& arg : event.args) fields.args.push_back(Escaped(arg));
  return core::PlainEvent(Escaped(event.time) + "\t" + Escaped(event.box), fields);
}

}  // namespace zel::fleet
