#include "tools/bridge/bridge.h"

#include <syslog.h>

#include <chrono>
#include <string>

namespace zel::bridge {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr char kRunText[] = "bool zel::bridge::Bridge::Run(const sigset_t&)";
constexpr char kStopText[] = "bool zel::bridge::Bridge::Stop()";

// How long the broker may take to acknowledge "offline".
constexpr milliseconds kOfflineTime(1000);
// How long after the stop signal a command still waiting for the service may
// keep the stop waiting: a service that answers at all answers well within
// it, and the stop still ends within 2 s.
constexpr milliseconds kCommandTime(500);

}  // namespace

Bridge::Bridge(const Settings& settings)
    : mSettings(settings),
      mTopics(settings.prefix, settings.id),
      mEvents(settings.queue, mWakeup),
      mReplies(mWakeup),
      mService(settings.servicePath, mWakeup),
      mIntake(settings, mTopics, mCommands, mReplies),
      mWorker(settings, mCommands, mReplies, mService, &mFiles),
      mWatch(settings, mTopics, mEvents, mService),
      mLink(settings, mTopics, mEvents, mReplies, mService, mWakeup,
            [this](const IncomingMessage& message) { mIntake.Take(message); }) {}

bool Bridge::Run(const sigset_t& signals) {
  syslog(LOG_INFO, "%s %d: box [%s] on the broker at %s for the service at [%s]\n", kRunText, 1, mSettings.id.c_str(),
         mSettings.broker.Url().c_str(), mSettings.servicePath.c_str());
  mWatch.Start();
  mWorker.Start();
  mLink.Start();
  int signo = 0;
  while (sigwait(&signals, &signo) != 0) {
  }
  syslog(LOG_INFO, "%s %d: stopping on signal %d\n", kRunText, 2, signo);
  return Stop();
}

bool Bridge::Stop() {
  const Clock::time_point start = Clock::now();
  mLink.GoOffline(kOfflineTime);
  // No more commands are taken; the watch unregisters.
  mCommands.Close();
  mWatch.Stop();
  const auto spent = std::chrono::duration_cast<milliseconds>(Clock::now() - start);
  const bool finished = mWorker.Stop(spent < kCommandTime ? kCommandTime - spent : milliseconds(0));
  if (!finished) {
    syslog(LOG_WARNING, "%s %d: a command still waits for the service; its socket files are removed\n", kStopText, 1);
    mFiles.RemoveAll();
  }
  mLink.Stop();
  syslog(LOG_INFO, "%s %d: stopped\n", kStopText, 2);
  return finished;
}

}  // namespace zel::bridge
