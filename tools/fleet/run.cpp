#include "tools/fleet/run.h"

#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

#include "tools/service_client/format.h"
#include "util/decimal_text.h"

namespace zel::fleet {
namespace {

namespace core = zel::service_client;

const char kReplyLeaf[] = "reply/";
// MQTT 5's reason for a publication that no subscription matched.
constexpr int kNoSubscribers = 0x10;

// A word that a kendrivex-ctl - line carries as it is: its words are split
// at blanks and tabs, and the line ends at a line end.
bool Carried(const std::string& word) {
  return !word.empty() && std::none_of(word.begin(), word.end(), [](char byte) {
    const auto value = static_cast<unsigned char>(byte);
    return value == ' ' || value < 0x20 || value == 0x7F;
  });
}

// Each line of `plain` begun by the box's ID and a tab.
std::string Prefixed(const std::string& box, const std::string& plain) {
  const std::string prefix = Escaped(box) + "\t";
  std::string lines;
  size_t start = 0;
  while (start < plain.size()) {
    size_t end = plain.find('\n', start);
    end = end == std::string::npos ? plain.size() : end + 1;
    lines.append(prefix).append(plain, start, end - start);
    start = end;
  }
  return lines;
}

std::string Milliseconds(std::chrono::milliseconds ms) {
  return zel::util::DecimalText(static_cast<uint32_t>(ms.count())) + " ms";
}

}  // namespace

bool ParseTarget(const std::string& text, Target& target, core::Failure& failure) {
  target = Target();
  if (text == kAllBoxes) {
    target.all = true;
    return true;
  }
  size_t start = 0;
  while (true) {
    const size_t comma = text.find(',', start);
    const std::string box = text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
    std::string why;
    if (!ValidBoxId(box, why)) {
      failure = core::Fail(core::kStatusUsage, "\"" + core::Shown(box) + "\"", why);
      return false;
    }
    if (std::find(target.boxes.begin(), target.boxes.end(), box) == target.boxes.end()) target.boxes.push_back(box);
    if (comma == std::string::npos) return true;
    start = comma + 1;
  }
}

bool ParseRunCommand(const std::vector<std::string>& words, RunCommand& command, core::Failure& failure) {
  command = RunCommand();
  for (const std::string& word : words) {
    if (Carried(word)) continue;
    failure = core::Fail(core::kStatusUsage, "\"" + core::Shown(word) + "\"",
                         "a word of the command cannot be empty or hold a blank, a tab or a control character");
    return false;
  }
  if (!core::ParseRequest(words, command.request, failure)) return false;
  if (!command.request.command->inBatch) {
    failure = core::Fail(core::kStatusUsage, core::Shown(command.request.typed), "not a command that a box runs");
    return false;
  }
  for (const std::string& word : words) command.line.append(command.line.empty() ? "" : " ").append(word);
  return true;
}

Run::Run(Link& link, const Topics& topics, Target target, RunCommand command, Observer& observer)
    : mLink(link),
      mTopics(topics),
      mTarget(std::move(target)),
      mCommand(std::move(command)),
      mObserver(observer),
      mId(NewRunId()),
      mReplyFilter(topics.OfEveryBox(kReplyLeaf + mId)),
      mAlive(std::make_shared<bool>(true)) {
  mLink.AddReceiver(*this);
}

Run::~Run() {
  mLink.RemoveReceiver(*this);
  if (mSubscribed) mLink.Unsubscribe({mReplyFilter});
}

std::vector<std::string> Run::StatusFilters() const {
  if (mTarget.all) return {mTopics.OfEveryBox("status")};
  std::vector<std::string> filters;
  for (const std::string& box : mTarget.boxes) filters.push_back(mTopics.Status(box));
  return filters;
}

bool Run::Prepare(std::string& why) {
  const std::weak_ptr<bool> alive = mAlive;
  mSubscribed = mLink.Subscribe(
      {mReplyFilter}, 1,
      [this, alive](const Link::Answer& answer) {
        if (alive.expired()) return;
        if (!answer.ok) {
          mRefusal = answer.why;
          if (mLaunched) Expire();
          return;
        }
        mGranted = true;
        if (mLaunched) SendCommands();
      },
      why);
  return mSubscribed;
}

void Run::Launch(const BoxDirectory& directory, milliseconds timeout) {
  mTimeout = timeout;
  std::vector<std::string> unreachable;
  if (mTarget.all) {
    for (const auto& [id, box] : directory.Boxes()) {
      if (box.hasStatus && box.online) mBoxes[id].correlation = mId + "/" + id;
    }
  } else {
    for (const std::string& id : mTarget.boxes) {
      mBoxes[id].correlation = mId + "/" + id;
      const BoxDirectory::Box* box = directory.Find(id);
      if (box == nullptr || !box->hasStatus || !box->online) unreachable.push_back(id);
    }
  }
  mOpen = mBoxes.size();
  mLaunched = true;
  mObserver.OnLaunched(mBoxes.size());
  for (const std::string& id : unreachable) {
    const BoxDirectory::Box* box = directory.Find(id);
    Unreachable(id, box != nullptr && box->hasStatus ? "the box is offline" : "the broker holds no status of this box");
  }
  if (!mRefusal.empty()) {
    Expire();
  } else if (mGranted) {
    SendCommands();
  }
}

void Run::SendCommands() {
  if (mSent) return;
  mSent = true;
  mDeadline = Clock::now() + mTimeout;
  const std::weak_ptr<bool> alive = mAlive;
  for (const auto& [id, expected] : mBoxes) {
    if (expected.done) continue;
    zel::mqtt::Publication command(mTopics.Command(id), mCommand.line);
    command.responseTopic = mTopics.Reply(id, mId);
    command.correlation = expected.correlation;
    const std::string box = id;
    std::string why;
    const bool sent = mLink.Publish(
        command,
        [this, alive, box](const Link::Answer& answer) {
          if (alive.expired()) return;
          if (!answer.ok) {
            Unreachable(box, "cannot send the command: " + answer.why);
          } else if (answer.reason == kNoSubscribers) {
            Unreachable(box, "nothing takes its commands: no one is subscribed to " + mTopics.Command(box));
          }
        },
        why);
    if (!sent) Unreachable(box, "cannot send the command: " + why);
  }
}

void Run::Expire(const std::string& reason) {
  std::string why = reason;
  if (why.empty())
    why = mRefusal.empty() ? "no reply within " + Milliseconds(mTimeout) : "cannot take replies: " + mRefusal;
  std::vector<std::string> open;
  for (const auto& [id, expected] : mBoxes) {
    if (!expected.done) open.push_back(id);
  }
  for (const std::string& id : open) Unreachable(id, why);
}

size_t Run::Counted(int status) const {
  return status >= 0 && status < static_cast<int>(std::size(mCounts)) ? mCounts[status] : 0;
}

void Run::Unreachable(const std::string& box, const std::string& why) {
  nlohmann::ordered_json object;
  object["box"] = box;
  object["status"] = BoxResult::kNoAnswer;
  object["error"] = why;
  BoxResult result;
  result.box = box;
  result.status = BoxResult::kNoAnswer;
  result.why = why;
  result.json = JsonShown(object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
  Conclude(result);
}

void Run::Conclude(const BoxResult& result) {
  const auto expected = mBoxes.find(result.box);
  if (expected == mBoxes.end() || expected->second.done) return;
  expected->second.done = true;
  --mOpen;
  ++mCounts[result.status];
  mObserver.OnResult(result);
}

void Run::OnMessage(const zel::mqtt::Message& message) {
  std::string box;
  std::string_view leaf;
  if (!mTopics.Split(message.topic, box, leaf) || leaf.size() != sizeof kReplyLeaf - 1 + mId.size() ||
      leaf.compare(0, sizeof kReplyLeaf - 1, kReplyLeaf) != 0 || leaf.substr(sizeof kReplyLeaf - 1) != mId) {
    return;
  }
  // On this run's reply topic: from here on, whatever fails is counted.
  const auto expected = mBoxes.find(box);
  if (!mSent || expected == mBoxes.end() || expected->second.done ||
      message.correlation != expected->second.correlation) {
    mSkipped.Add(Skip::Unasked);
    return;
  }
  Reply reply;
  Skip reason = Skip::Malformed;
  if (!ParseReply(box, message.payload, reply, reason)) {
    mSkipped.Add(reason);
    return;
  }
  if (!reply.command.empty() && reply.command != mCommand.request.command->name) {
    mSkipped.Add(Skip::Malformed);
    return;
  }
  Conclude(Read(box, reply));
}

BoxResult Run::Read(const std::string& box, const Reply& reply) const {
  BoxResult result;
  result.box = box;
  result.json = reply.json;
  if (!reply.fromService) {
    result.status = BoxResult::kOtherwise;
    result.why = Escaped(reply.error);
    return result;
  }
  zel::ipc::IPCResult fields;
  fields.code = reply.code;
  for (const std::string& arg : reply.args) fields.args.push_back(Escaped(arg));
  std::string plain;
  const bool success = core::ReadReply(*mCommand.request.command, fields, plain, result.why);
  result.plain = Prefixed(box, plain);
  result.status = success ? BoxResult::kSuccess : BoxResult::kOtherwise;
  return result;
}

Waited Execute(Link& link, BoxDirectory& directory, Run& run, std::chrono::milliseconds timeout, int stopFd,
               std::string& why) {
  std::optional<Link::Answer> synced;
  // The reply subscription goes first: its answer comes before the marker's
  // echo, so the command can go out as soon as the statuses are in.
  if (!run.Prepare(why) || !link.Subscribe(run.StatusFilters(), 0, nullptr, why) ||
      !link.Sync([&synced](const Link::Answer& answer) { synced = answer; }, why)) {
    return Waited::Gone;
  }
  Waited waited = Await(
      link, stopFd, [&synced] { return synced.has_value(); }, Link::Clock::now() + timeout, why);
  if (waited != Waited::Done) return waited;
  if (!synced->ok) {
    why = synced->why;
    return Waited::Gone;
  }
  run.Launch(directory, timeout);
  while (!run.Finished()) {
    // The deadline is known once the command has gone out, which waits for
    // the reply subscription only if the broker answers it after the sync.
    const bool sent = run.Deadline() != Link::Clock::time_point::max();
    const Link::Clock::time_point deadline = sent ? run.Deadline() : Link::Clock::now() + timeout;
    waited = Await(
        link, stopFd,
        [&run, sent] { return run.Finished() || (!sent && run.Deadline() != Link::Clock::time_point::max()); },
        deadline, why);
    if (waited == Waited::Stopped) return waited;
    if (waited == Waited::Gone) {
      run.Expire("the connection to the broker was lost: " + why);
      return waited;
    }
    if (waited == Waited::TimedOut) run.Expire();
  }
  return Waited::Done;
}

}  // namespace zel::fleet
