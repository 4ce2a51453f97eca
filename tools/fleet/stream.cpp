#include "tools/fleet/stream.h"

#include <sys/eventfd.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <nlohmann/json.hpp>
#include <utility>

#include "tools/fleet/messages.h"
#include "tools/service_client/commands.h"
#include "tools/service_client/output.h"

// The stream's messages are Server-Sent Events: "event: NAME", one "data:"
// line of JSON (which holds no line end: every control character in it is
// escaped), and a blank line. Each message is made once and shared by every
// stream's queue; a stream's queue counts the bytes it holds, and one that
// would hold more than the limit is dropped at once rather than grown: its
// reader has fallen behind (a browser that stopped reading, a network that
// stalls), and the page opens a new stream, with a fresh snapshot, by
// itself.
namespace zel::fleet {
namespace {

namespace core = zel::service_client;
using Json = nlohmann::ordered_json;

std::shared_ptr<const std::string> Message(const char* name, const std::string& data) {
  return std::make_shared<const std::string>(std::string("event: ") + name + "\ndata: " + data + "\n\n");
}

std::string Dump(const Json& value) { return JsonShown(value.dump(-1, ' ', false, Json::error_handler_t::replace)); }

// "[A,B,...]" of JSON texts.
template <typename Texts, typename Text>
std::string Array(const Texts& texts, Text text) {
  std::string array = "[";
  for (const auto& item : texts) {
    const std::string& json = text(item);
    if (json.empty()) continue;
    if (array.size() > 1) array.append(1, ',');
    array.append(json);
  }
  return array.append(1, ']');
}

// The words of a command line as kendrivex-ctl - splits it: at blanks.
std::vector<std::string> Words(const std::string& line) {
  std::vector<std::string> words;
  size_t start = 0;
  while (start < line.size()) {
    const size_t blank = line.find(' ', start);
    const size_t end = blank == std::string::npos ? line.size() : blank;
    if (end > start) words.push_back(line.substr(start, end - start));
    start = end + 1;
  }
  return words;
}

bool ReadTarget(const Json& value, Target& target, std::string& why) {
  core::Failure failure;
  if (value.is_string()) {
    if (ParseTarget(value.get_ref<const std::string&>(), target, failure)) return true;
    why = "target: " + failure.what + ": " + failure.why;
    return false;
  }
  if (!value.is_array() || value.empty()) {
    why = "target: not \"all\", a box's ID or a list of them";
    return false;
  }
  target = Target();
  for (const Json& item : value) {
    std::string itemWhy;
    if (!item.is_string() || !ValidBoxId(item.get_ref<const std::string&>(), itemWhy)) {
      why = "target: " + (itemWhy.empty() ? std::string("not a box's ID") : itemWhy);
      return false;
    }
    const std::string& box = item.get_ref<const std::string&>();
    if (std::find(target.boxes.begin(), target.boxes.end(), box) == target.boxes.end()) target.boxes.push_back(box);
  }
  return true;
}

}  // namespace

bool ParseRunRequest(const std::string& body, RunRequest& request, std::string& why) {
  request = RunRequest();
  // The body's size is bounded by the server; its depth here, before it is
  // kept.
  bool tooDeep = false;
  const Json object = Json::parse(
      body.begin(), body.end(),
      [&tooDeep](int depth, Json::parse_event_t /*event*/, Json& /*parsed*/) {
        if (depth > 2) tooDeep = true;
        return true;
      },
      false);
  if (tooDeep || !object.is_object()) {
    why = "the body is not a JSON object of a run";
    return false;
  }
  const auto target = object.find("target");
  const auto command = object.find("command");
  if (target == object.end() || command == object.end()) {
    why = "the body needs a target and a command";
    return false;
  }
  if (!ReadTarget(*target, request.target, why)) return false;
  if (!command->is_string()) {
    why = "command: not text";
    return false;
  }
  const std::vector<std::string> words = Words(command->get_ref<const std::string&>());
  core::Failure failure;
  if (!ParseRunCommand(words, request.command, failure)) {
    why = "command: " + (failure.what.empty() ? failure.why : failure.what + ": " + failure.why);
    return false;
  }
  const auto timeout = object.find("timeout");
  if (timeout != object.end()) {
    if (!timeout->is_number_unsigned() || timeout->get<uint64_t>() < 1 ||
        timeout->get<uint64_t>() > RunRequest::kMaxTimeoutMs) {
      why = "timeout: not a whole number of milliseconds from 1 to 600000";
      return false;
    }
    request.timeoutMs = static_cast<uint32_t>(timeout->get<uint64_t>());
  }
  return true;
}

std::string CommandsJson() {
  Json commands = Json::array();
  for (const core::Command& command : core::AllCommands()) {
    if (!command.inBatch) continue;
    Json entry;
    entry["name"] = command.name;
    entry["arguments"] = command.argumentsHelp;
    commands.push_back(std::move(entry));
  }
  return Dump(commands);
}

std::string ErrorJson(const std::string& why) {
  Json object;
  object["error"] = why;
  return Dump(object);
}

void RunTicket::Answer(int status, std::string body) {
  {
    const std::lock_guard<std::mutex> lock(mMutex);
    if (mDone) return;
    mDone = true;
    mStatus = status;
    mBody = std::move(body);
  }
  mAnswered.notify_all();
}

void RunTicket::Wait(int& status, std::string& body) {
  std::unique_lock<std::mutex> lock(mMutex);
  mAnswered.wait(lock, [this] { return mDone; });
  status = mStatus;
  body = mBody;
}

Hub::Hub(const Limits& limits) : mLimits(limits), mWakeFd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

Hub::~Hub() {
  if (mWakeFd >= 0) ::close(mWakeFd);
}

void Hub::Wake() const {
  const uint64_t one = 1;
  ssize_t written = -1;
  do {
    written = ::write(mWakeFd, &one, sizeof one);
  } while (written < 0 && errno == EINTR);
}

std::string Hub::BrokerJson() const { return mBrokerUp ? "{\"broker\":\"up\"}" : "{\"broker\":\"down\"}"; }

void Hub::SetBroker(bool up) {
  const std::lock_guard<std::mutex> lock(mMutex);
  if (up == mBrokerUp) return;
  mBrokerUp = up;
  mSnapshot.reset();
  Broadcast(Message("link", BrokerJson()));
}

void Hub::Publish(const std::vector<Row>& rows, const std::vector<std::string>& events) {
  std::shared_ptr<const std::string> rowsMessage;
  std::shared_ptr<const std::string> eventsMessage;
  const std::string rowArray = Array(rows, [](const Row& row) -> const std::string& { return row.row; });
  if (rowArray.size() > 2) rowsMessage = Message("boxes", rowArray);
  if (!events.empty())
    eventsMessage =
        Message("events", Array(events, [](const std::string& event) -> const std::string& { return event; }));
  const std::lock_guard<std::mutex> lock(mMutex);
  for (const Row& row : rows) {
    if (row.row.empty()) {
      mRows.erase(row.box);
    } else {
      mRows[row.box] = row;
    }
  }
  for (const std::string& event : events) mEvents.push_back(event);
  while (mEvents.size() > kMaxEvents) mEvents.pop_front();
  mSnapshot.reset();
  if (rowsMessage) Broadcast(rowsMessage);
  if (eventsMessage) Broadcast(eventsMessage);
}

void Hub::Tick() {
  const std::lock_guard<std::mutex> lock(mMutex);
  Broadcast(Message("tick", BrokerJson()));
}

void Hub::Broadcast(const std::shared_ptr<const std::string>& message) {
  if (mStreams.empty()) return;
  for (const std::shared_ptr<Stream>& stream : mStreams) {
    if (stream->mDropped) continue;
    if (stream->mQueued + message->size() > mLimits.queueBytes) {
      stream->mDropped = true;
      stream->mQueue.clear();
      ++mDropped;
      core::Log(LOG_NOTICE, "dropped an event stream whose reader fell behind by more than %zu bytes",
                mLimits.queueBytes);
      continue;
    }
    stream->mQueue.push_back(message);
    stream->mQueued += message->size();
  }
  mChanged.notify_all();
}

std::shared_ptr<const std::string> Hub::Snapshot() {
  if (mSnapshot) return mSnapshot;
  std::string data = "{\"broker\":";
  data.append(mBrokerUp ? "\"up\"" : "\"down\"").append(",\"boxes\":");
  data.append(Array(
      mRows, [](const std::pair<const std::string, Row>& entry) -> const std::string& { return entry.second.row; }));
  data.append(",\"events\":").append(Array(mEvents, [](const std::string& event) -> const std::string& {
    return event;
  }));
  data.append(1, '}');
  mSnapshot = Message("snapshot", data);
  return mSnapshot;
}

std::vector<std::shared_ptr<RunTicket>> Hub::TakeRuns() {
  uint64_t count = 0;
  while (::read(mWakeFd, &count, sizeof count) < 0 && errno == EINTR) {
  }
  const std::lock_guard<std::mutex> lock(mMutex);
  return std::exchange(mWaitingRuns, {});
}

void Hub::RunEnded() {
  const std::lock_guard<std::mutex> lock(mMutex);
  if (mRuns > 0) --mRuns;
}

void Hub::Stop() {
  std::vector<std::shared_ptr<RunTicket>> waiting;
  {
    const std::lock_guard<std::mutex> lock(mMutex);
    mStopped = true;
    waiting = std::exchange(mWaitingRuns, {});
  }
  mChanged.notify_all();
  for (const std::shared_ptr<RunTicket>& ticket : waiting) {
    ticket->Answer(503, ErrorJson("kendrivex-fleet is stopping"));
  }
}

std::string Hub::Boxes() const {
  const std::lock_guard<std::mutex> lock(mMutex);
  return Array(
      mRows, [](const std::pair<const std::string, Row>& entry) -> const std::string& { return entry.second.listed; });
}

std::shared_ptr<Hub::Stream> Hub::Open() {
  const std::lock_guard<std::mutex> lock(mMutex);
  if (mStopped || mStreams.size() >= mLimits.streams) return nullptr;
  auto stream = std::make_shared<Stream>();
  // The snapshot is shared with every stream opened before the next change,
  // and is not counted against the queue's limit: it is the stream's start.
  stream->mQueue.push_back(Snapshot());
  mStreams.push_back(stream);
  return stream;
}

Hub::Next Hub::Wait(Stream& stream, std::string& out, milliseconds timeout) {
  std::unique_lock<std::mutex> lock(mMutex);
  mChanged.wait_for(lock, timeout, [this, &stream] { return mStopped || stream.mDropped || !stream.mQueue.empty(); });
  if (mStopped || stream.mDropped) return Next::End;
  if (stream.mQueue.empty()) return Next::Idle;
  out.clear();
  for (const std::shared_ptr<const std::string>& message : stream.mQueue) out.append(*message);
  stream.mQueue.clear();
  stream.mQueued = 0;
  return Next::Data;
}

void Hub::Close(const Stream& stream) {
  const std::lock_guard<std::mutex> lock(mMutex);
  mStreams.remove_if([&stream](const std::shared_ptr<Stream>& open) { return open.get() == &stream; });
}

Hub::Admitted Hub::SubmitRun(const std::shared_ptr<RunTicket>& ticket) {
  {
    const std::lock_guard<std::mutex> lock(mMutex);
    if (mStopped) return Admitted::Stopped;
    if (mRuns >= mLimits.runs) return Admitted::Busy;
    ++mRuns;
    mWaitingRuns.push_back(ticket);
  }
  Wake();
  return Admitted::Yes;
}

size_t Hub::Streams() const {
  const std::lock_guard<std::mutex> lock(mMutex);
  return mStreams.size();
}

uint64_t Hub::Dropped() const {
  const std::lock_guard<std::mutex> lock(mMutex);
  return mDropped;
}

}  // namespace zel::fleet
