#include "tools/bridge/command_worker.h"

#include "tools/bridge/reply_payload.h"

namespace zel::bridge {
namespace {

namespace core = zel::service_client;

core::Settings RunnerSettings(const Settings& settings) {
  core::Settings runner;
  runner.servicePath = settings.servicePath;
  runner.dir = settings.dir;
  runner.timeoutMs = Settings::kReplyTimeoutMs;
  return runner;
}

std::chrono::milliseconds HealthInterval(const Settings& settings) {
  // No pings: a wait long enough never to end before a command or the stop.
  if (settings.healthSeconds == 0) return std::chrono::hours(24);
  return std::chrono::seconds(settings.healthSeconds);
}

}  // namespace

CommandWorker::CommandWorker(const Settings& settings, CommandQueue& queue, ReplyOutbox& replies, ServiceState& service,
                             core::FileObserver* observer)
    : mSettings(settings),
      mQueue(queue),
      mReplies(replies),
      mService(service),
      mRunner(std::make_unique<core::Runner>(RunnerSettings(settings), observer)) {}

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

void CommandWorker::Carry(const PendingCommand& command) {
  const core::Outcome outcome = mRunner->Run(command.request);
  Learn(outcome);
  std::string payload;
  if (outcome.answered) {
    payload = ReplyPayload::Answered(outcome.Json(), mSettings.id);
  } else {
    payload = ReplyPayload::Error(mSettings.id, std::string(command.request.command->name), outcome.status,
                                  outcome.failure.what + ": " + outcome.failure.why);
  }
  mReplies.Push(Publication{command.route, payload});
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
