#include "tools/bridge/bridge.h"

#include <syslog.h>

#include <chrono>
#include <string>

#include "tools/service_client/output.h"

namespace zel::bridge {
namespace {

using std::chrono::milliseconds;

// How long the broker may take to acknowledge "offline".
constexpr milliseconds kOfflineTime(1000);
// How long a command still waiting for the service may keep the stop
// waiting once the rest has stopped: a service that answers at all answers
// well within it, and the stop still ends within 2 s.
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
            [this](const zel::mqtt::Message& message) { mIntake.Take(message); }) {}

bool Bridge::Run(const sigset_t& signals) {
  zel::service_client::Log(LOG_INFO, "box %s on the broker at %s for the service at %s", mSettings.id.c_str(),
                           mSettings.connection.broker.Url().c_str(), mSettings.servicePath.c_str());
  RemoveStaleSocketFiles(mSettings.dir);
  mWatch.Start();
  mWorker.Start();
  mLink.Start();
  int signo = 0;
  while (sigwait(&signals, &signo) != 0) {
  }
  zel::service_client::Log(LOG_INFO, "stopping on signal %d", signo);
  return Stop();
}

bool Bridge::Stop() {
  mLink.GoOffline(kOfflineTime);
  // No more commands are taken; the watch unregisters.
  mCommands.Close();
  mWatch.Stop();
  // The command in hand has had all of the above to finish; it gets its own
  // time from here, so that an idle worker's end is never cut short by the
  // steps before.
  const bool finished = mWorker.Stop(kCommandTime);
  if (!finished) {
    zel::service_client::Log(LOG_WARNING, "a command still waits for the service; its socket files are removed");
    mFiles.RemoveAll();
  }
  mLink.Stop();
  zel::service_client::Log(LOG_INFO, "stopped");
  return finished;
}

}  // namespace zel::bridge
