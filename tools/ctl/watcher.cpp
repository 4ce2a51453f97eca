#include "tools/ctl/watcher.h"

#include <poll.h>
#include <syslog.h>

#include <cerrno>

#include "tools/ctl/line_format.h"
#include "tools/ctl/preflight.h"

// Events arrive on the client library's event thread and reach the main loop
// through the event queue; stop signals and the end of a per-event program
// arrive through a signal descriptor. A restarted service is noticed by its
// socket file (looked at every second, without sending it anything: a new
// service binds a new socket) and registered with again on a fresh client.
namespace zel::ctl {
namespace {

constexpr char kCheckServiceText[] = "void zel::ctl::Watcher::CheckService()";
constexpr char kReconnectText[] = "void zel::ctl::Watcher::Reconnect()";

// Events waiting to be printed while a per-event program runs; beyond this
// the event thread waits and the socket's own queue holds the rest.
constexpr size_t kQueueCapacity = 1024;
// How often the service's socket file is looked at.
constexpr long kCheckIntervalMs = 1000;
constexpr long kNanosecondsPerMillisecond = 1000000;
constexpr long kMillisecondsPerSecond = 1000;

timespec Now(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return now;
}

timespec Later(const timespec& from, long milliseconds) {
  timespec later = from;
  later.tv_sec += milliseconds / kMillisecondsPerSecond;
  later.tv_nsec += (milliseconds % kMillisecondsPerSecond) * kNanosecondsPerMillisecond;
  if (later.tv_nsec >= kMillisecondsPerSecond * kNanosecondsPerMillisecond) {
    later.tv_sec += 1;
    later.tv_nsec -= kMillisecondsPerSecond * kNanosecondsPerMillisecond;
  }
  return later;
}

long MillisecondsUntil(const timespec& then, const timespec& now) {
  const long long ms = (static_cast<long long>(then.tv_sec) - now.tv_sec) * kMillisecondsPerSecond +
                       (then.tv_nsec - now.tv_nsec) / kNanosecondsPerMillisecond;
  return ms < 0 ? 0 : static_cast<long>(ms);
}

sigset_t WatchedSignals() {
  sigset_t signals = SignalChannel::StopSignals();
  sigaddset(&signals, SIGCHLD);
  return signals;
}

}  // namespace

Watcher::Watcher(const Settings& settings, Output& output)
    : mSettings(settings), mOutput(output), mQueue(kQueueCapacity) {
  if (!settings.execProgram.empty()) mProgram = std::make_unique<EventProgram>(settings.execProgram);
}

Watcher::~Watcher() { Disconnect(true); }

int Watcher::Run() {
  // Made before the client, so that the library's threads inherit the mask.
  SignalChannel signals(WatchedSignals());
  if (!signals.Ok() || !mQueue.Ok()) {
    Output::Report(Fail(kStatusLocal, "watch", "cannot make its descriptors"));
    return kStatusLocal;
  }
  Failure failure;
  if (!Connect(failure)) {
    Output::Report(failure);
    return failure.status;
  }
  mNextCheck = Later(Now(CLOCK_MONOTONIC), kCheckIntervalMs);
  while (PrintWaiting()) {
    pollfd fds[2] = {
        {signals.Fd(), POLLIN, 0},
        {mQueue.Fd(),  POLLIN, 0}
    };
    // While a program runs, new events wait in the queue unlooked-at.
    const nfds_t count = mProgram && mProgram->Running() ? 1 : 2;
    const int ready = ::poll(fds, count, static_cast<int>(PollTimeoutMs()));
    if (ready < 0 && errno != EINTR) break;
    if ((fds[0].revents & POLLIN) != 0 && !TakeSignals(signals)) break;
    if (MillisecondsUntil(mNextCheck, Now(CLOCK_MONOTONIC)) == 0) CheckService();
  }
  Disconnect(true);
  return kStatusOk;
}

bool Watcher::Connect(Failure& failure) {
  const ServiceIdentity service = ServiceIdentity::Of(mSettings.servicePath);
  auto client = std::make_unique<zel::ipc::IPCClient>();
  client->SetReplyTimeout(mSettings.TimeoutUs());
  if (!client->SetLocalPath(mSettings.servicePath, mSettings.dir,
                            [this](zel::ipc::IPCEvent& event) { OnEvent(event); })) {
    failure = Preflight::WhyNoClient(mSettings.servicePath, mSettings.dir, true);
    return false;
  }
  mClient = std::move(client);
  mService = service;
  return true;
}

void Watcher::OnEvent(zel::ipc::IPCEvent& event) { mQueue.Push(EventQueue::Entry{event, Now(CLOCK_REALTIME)}); }

bool Watcher::PrintWaiting() {
  if (mOutput.Broken()) return false;
  EventQueue::Entry entry;
  while (!Done() && !(mProgram && mProgram->Running()) && mQueue.Pop(entry)) {
    if (!Print(entry)) return false;
  }
  return !Done();
}

bool Watcher::Print(const EventQueue::Entry& entry) {
  const std::string time = LineFormat::UtcTime(entry.arrived);
  const std::string line =
      mSettings.json ? LineFormat::JsonEvent(time, entry.event) : LineFormat::PlainEvent(time, entry.event);
  if (!mOutput.Write(line)) return false;
  ++mPrinted;
  Failure failure;
  if (mProgram && !mProgram->Start(entry.event, failure)) Output::Report(failure);
  return true;
}

bool Watcher::TakeSignals(SignalChannel& signals) {
  for (int signo = signals.Take(); signo != 0; signo = signals.Take()) {
    if (signo != SIGCHLD) return false;
    Failure failure;
    if (mProgram && mProgram->Reap(failure) && failure.status != kStatusOk) Output::Report(failure);
  }
  return true;
}

void Watcher::CheckService() {
  mNextCheck = Later(Now(CLOCK_MONOTONIC), kCheckIntervalMs);
  const ServiceIdentity now = ServiceIdentity::Of(mSettings.servicePath);
  if (now.SameAs(mService)) return;
  if (!now.present) {
    syslog(LOG_INFO, "%s %d: service socket [%s] is gone; waiting for it\n", kCheckServiceText, 1,
           mSettings.servicePath.c_str());
    mService = now;
    return;
  }
  Reconnect();
}

void Watcher::Reconnect() {
  syslog(LOG_INFO, "%s %d: service at [%s] started anew; registering again\n", kReconnectText, 1,
         mSettings.servicePath.c_str());
  // The new service never heard of the old registration, and an
  // unregistration it might not answer would hold the watch up.
  Disconnect(false);
  Failure failure;
  if (Connect(failure)) return;
  syslog(LOG_ERR, "%s %d: %s: %s\n", kReconnectText, 2, failure.what.c_str(), failure.why.c_str());
  // Tried again at the next check.
  mService = ServiceIdentity();
}

void Watcher::Disconnect(bool unregister) {
  if (!mClient) return;
  if (!unregister) mClient->SetUnregisterAtExit(false);
  // The event thread must not wait for room while the client is destroyed
  // (its destructor joins that thread); events from now on are dropped.
  mQueue.Close();
  mClient.reset();
  mQueue.Reopen();
}

bool Watcher::Done() const {
  const bool counted = mSettings.count != 0 && mPrinted >= mSettings.count;
  return mOutput.Broken() || (counted && !(mProgram && mProgram->Running()));
}

int Watcher::PollTimeoutMs() const { return static_cast<int>(MillisecondsUntil(mNextCheck, Now(CLOCK_MONOTONIC))); }

}  // namespace zel::ctl
