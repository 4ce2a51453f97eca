#include "tools/bridge/commands.h"

#include <syslog.h>

#include <nlohmann/json.hpp>
#include <vector>

#include "tools/service_client/format.h"
#include "tools/service_client/output.h"

namespace zel::bridge {
namespace {

namespace core = zel::service_client;

// Keys stay in the order they are written.
using Json = nlohmann::ordered_json;

// The service's event registration and unregistration: a requester on the
// broker could otherwise have the service send events to any socket of the
// box.
constexpr uint32_t kRegisterEvents = 4;
constexpr uint32_t kUnregisterEvents = 5;

bool IsControl(unsigned char byte) { return (byte < 0x20 && byte != '\t') || byte == 0x7F; }

std::chrono::milliseconds HealthInterval(const Settings& settings) {
  // No pings: a wait long enough never to end before a command or the stop.
  if (settings.healthSeconds == 0) return std::chrono::hours(24);
  return std::chrono::seconds(settings.healthSeconds);
}

// The reply {"box":ID,"command":WORD or null,"status":S,"error":"..."}.
std::string ErrorPayload(const std::string& box, const std::optional<std::string>& command, int status,
                         const std::string& error) {
  Json object;
  object["box"] = box;
  object["command"] = command ? Json(*command) : Json(nullptr);
  object["status"] = status;
  object["error"] = error;
  return object.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// The command's line: the payload without one line end at its end; false
// with the error when it is no line of text.
bool Line(std::string_view payload, std::string& line, std::string& why) {
  // Checked before a byte of it is copied.
  if (payload.size() > CommandIntake::kMaxPayload) {
    why = "longer than 8192 bytes";
    return false;
  }
  line.assign(payload.data(), payload.size());
  if (!core::ValidUtf8(line)) {
    why = "not valid UTF-8";
    return false;
  }
  if (!line.empty() && line.back() == '\n') line.pop_back();
  if (!line.empty() && line.back() == '\r') line.pop_back();
  for (const char byte : line) {
    if (!IsControl(static_cast<unsigned char>(byte))) continue;
    why = "not one line of text";
    return false;
  }
  return true;
}

}  // namespace

bool CommandQueue::Push(PendingCommand command) {
  {
    std::lock_guard<std::mutex> lock(mMutex);
    if (mClosed || mCommands.size() >= kMaxWaiting) return false;
    mCommands.push_back(std::move(command));
  }
  mChanged.notify_one();
  return true;
}

CommandQueue::Next CommandQueue::Pop(PendingCommand& command, std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(mMutex);
  if (!mChanged.wait_for(lock, timeout, [this] { return mClosed || !mCommands.empty(); })) return Next::TimedOut;
  if (mClosed) return Next::Closed;
  command = std::move(mCommands.front());
  mCommands.pop_front();
  return Next::Command;
}

void CommandQueue::Close() {
  {
    std::lock_guard<std::mutex> lock(mMutex);
    mClosed = true;
    mCommands.clear();
  }
  mChanged.notify_all();
}

size_t CommandQueue::Waiting() const {
  std::lock_guard<std::mutex> lock(mMutex);
  return mCommands.size();
}

void CommandIntake::Take(const zel::mqtt::Message& message) {
  PendingCommand pending;
  pending.reply.topic = mTopics.Reply();
  if (message.responseTopic) {
    const std::string& topic = *message.responseTopic;
    // A reply goes only where the request says, and only to one topic: a
    // filter with wildcards is refused, and so the request is not answered.
    if (!zel::mqtt::PublishableTopic(topic)) {
      zel::service_client::Log(
          LOG_WARNING, "a command on %.*s names %s for its reply, where nothing can be published; it is not answered",
          static_cast<int>(message.topic.size()), message.topic.data(), core::Shown(topic).c_str());
      return;
    }
    pending.reply.topic = topic;
    pending.reply.correlation = message.correlation;
  }
  // The error reply, should there be one.
  zel::mqtt::Publication reply = pending.reply;
  std::optional<std::string> word;
  int status = core::kStatusUsage;
  std::string error;
  if (!mTopics.ReplyMayGoTo(reply.topic)) {
    // Inside the prefix a reply would speak for this box on another box's
    // or its own topics: it goes to the box's own reply topic instead.
    Read(message.payload, pending.request, word, status, error);
    status = core::kStatusUsage;
    error = "response topic " + core::Shown(reply.topic) + ": not at or below " + mTopics.Reply();
    reply.topic = mTopics.Reply();
  } else if (Read(message.payload, pending.request, word, status, error)) {
    if (mQueue.Push(std::move(pending))) return;
    status = core::kStatusUnreachable;
    error = "busy";
  }
  reply.payload = ErrorPayload(mSettings.id, word, status, error);
  mReplies.Push(Outgoing{std::move(reply)});
}

bool CommandIntake::Read(std::string_view payload, core::Request& request, std::optional<std::string>& word,
                         int& status, std::string& error) const {
  std::string line;
  if (!Line(payload, line, error)) return false;
  std::vector<std::string> words;
  core::Failure failure;
  if (core::SplitLine(line, words, failure)) {
    if (words.empty()) {
      error = "no command in the message";
      return false;
    }
    const core::Command* command = core::FindCommand(words[0]);
    word = command != nullptr ? command->name : words[0];
    if (command != nullptr && !mSettings.Allows(command->name)) {
      error = *word + ": not allowed from the broker";
      return false;
    }
    if (core::ParseRequest(words, request, failure)) {
      if (request.number != kRegisterEvents && request.number != kUnregisterEvents) return true;
      error = *word + ": event registration (commands 4 and 5) is never taken from the broker";
      return false;
    }
  }
  status = failure.status;
  error = failure.what + ": " + failure.why;
  return false;
}

CommandWorker::CommandWorker(const Settings& settings, CommandQueue& queue, ReplyOutbox& replies, ServiceState& service,
                             core::FileObserver* observer)
    : mSettings(settings),
      mQueue(queue),
      mReplies(replies),
      mService(service),
      mRunner(std::make_unique<core::Runner>(settings.Core(), observer)) {}

CommandWorker::~CommandWorker() {
  if (mThread.joinable()) mThread.join();
}

void CommandWorker::Start() {
  mThread = std::thread([this] { Run(); });
}

bool CommandWorker::Stop(std::chrono::milliseconds timeout) {
  mQueue.Close();
  std::unique_lock<std::mutex> lock(mMutex);
  if (!mFinishedChanged.wait_for(lock, timeout, [this] { return mFinished; })) return false;
  lock.unlock();
  if (mThread.joinable()) mThread.join();
  return true;
}

void CommandWorker::Run() {
  const std::chrono::milliseconds interval = HealthInterval(mSettings);
  while (true) {
    PendingCommand command;
    const CommandQueue::Next next = mQueue.Pop(command, interval);
    if (next == CommandQueue::Next::Closed) break;
    if (next == CommandQueue::Next::TimedOut) {
      CheckHealth();
    } else {
      Carry(command);
    }
  }
  // Its socket files go before the stop goes on.
  mRunner.reset();
  std::lock_guard<std::mutex> lock(mMutex);
  mFinished = true;
  mFinishedChanged.notify_all();
}

void CommandWorker::Carry(PendingCommand& command) {
  const core::Outcome outcome = mRunner->Run(command.request);
  Learn(outcome);
  if (outcome.answered) {
    command.reply.payload = core::JsonReply(outcome.command->name, outcome.reply, core::JsonExtra{"box", mSettings.id});
    command.reply.payload.pop_back();  // its newline
  } else {
    command.reply.payload = ErrorPayload(mSettings.id, std::string(command.request.command->name), outcome.status,
                                         outcome.failure.what + ": " + outcome.failure.why);
  }
  mReplies.Push(Outgoing{std::move(command.reply)});
}

void CommandWorker::CheckHealth() {
  core::Request ping;
  core::Failure failure;
  if (!core::ParseRequest({"ping"}, ping, failure)) return;
  Learn(mRunner->Run(ping));
}

void CommandWorker::Learn(const core::Outcome& outcome) {
  if (outcome.answered) {
    mService.Set(ServiceState::Value::Up);
  } else if (outcome.status == core::kStatusUnreachable) {
    mService.Set(ServiceState::Value::Down);
  }
}

}  // namespace zel::bridge
