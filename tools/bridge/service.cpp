#include "tools/bridge/service.h"

#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "tools/service_client/failure.h"
#include "tools/service_client/format.h"
#include "tools/service_client/output.h"
#include "util/decimal_text.h"

namespace zel::bridge {
namespace {

namespace core = zel::service_client;

// How long the service may be away before the next attempt to register.
constexpr std::chrono::seconds kRetryInterval(1);

const char kClientPrefix[] = "ipc_client-";
const char kEventSuffix[] = "-event";

void Forget(std::vector<std::string>& paths, const std::string& path) {
  const auto entry = std::find(paths.begin(), paths.end(), path);
  if (entry != paths.end()) paths.erase(entry);
}

// The decimal number at `text[at]` on (moving `at` past it); false when
// there is none.
bool Number(const std::string& text, size_t& at, uint64_t& value) {
  const size_t end = text.find_first_not_of("0123456789", at);
  const std::string digits = text.substr(at, end == std::string::npos ? std::string::npos : end - at);
  if (!zel::util::ParseDecimal(digits, UINT32_MAX, value)) return false;
  at = end == std::string::npos ? text.size() : end;
  return true;
}

// The process id of a client socket's name "ipc_client-<pid>-<n>[-event]";
// 0 for any other name.
pid_t ClientPid(const std::string& name) {
  if (name.compare(0, sizeof kClientPrefix - 1, kClientPrefix) != 0) return 0;
  size_t at = sizeof kClientPrefix - 1;
  uint64_t pid = 0;
  uint64_t slot = 0;
  if (!Number(name, at, pid) || at == name.size() || name[at] != '-' || !Number(name, ++at, slot)) return 0;
  const std::string rest = name.substr(at);
  return rest.empty() || rest == kEventSuffix ? static_cast<pid_t>(pid) : 0;
}

// Removes one directory entry if it is a client's socket whose process has ended.
bool RemoveIfStale(const std::string& dir, const char* name) {
  const pid_t pid = ClientPid(name);
  // Signal 0 only asks whether the process is there.
  if (pid <= 0 || ::kill(pid, 0) == 0 || errno != ESRCH) return false;
  const std::string path = dir + "/" + name;
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0 && S_ISSOCK(info.st_mode) && ::unlink(path.c_str()) == 0;
}

}  // namespace

void ServiceState::Set(Value value) {
  {
    std::lock_guard<std::mutex> lock(mMutex);
    if (value == mValue) return;
    mValue = value;
    mChanges.push_back(value);
  }
  zel::service_client::Log(LOG_INFO, "the service at %s is %s", mServicePath.c_str(), Text(value));
  mWakeup.Notify();
}

std::vector<ServiceState::Value> ServiceState::TakeChanges() {
  std::lock_guard<std::mutex> lock(mMutex);
  std::vector<Value> changes;
  changes.swap(mChanges);
  return changes;
}

ServiceState::Value ServiceState::Current() const {
  std::lock_guard<std::mutex> lock(mMutex);
  return mValue;
}

ServiceState::Value ServiceState::TakeCurrent() {
  std::lock_guard<std::mutex> lock(mMutex);
  mChanges.clear();
  return mValue;
}

const char* ServiceState::Text(Value value) {
  switch (value) {
    case Value::Up:
      return "up";
    case Value::Down:
      return "down";
    case Value::Unknown:
      break;
  }
  return "unknown";
}

ServiceWatch::~ServiceWatch() { Stop(); }

void ServiceWatch::Start() {
  mThread = std::thread([this] { Run(); });
}

void ServiceWatch::Stop() {
  {
    std::lock_guard<std::mutex> lock(mMutex);
    mStopping = true;
    if (mWatch != nullptr) mWatch->Stop();
  }
  mStopChanged.notify_all();
  // The thread may wait for room in the outbox, which a broker that stopped
  // acknowledging would never make.
  mEvents.StopWaiting();
  if (mThread.joinable()) mThread.join();
}

void ServiceWatch::Run() {
  do {
    core::Watch watch(mSettings.Core());
    if (!SetUp(watch)) continue;
    {
      std::lock_guard<std::mutex> lock(mMutex);
      if (mStopping) return;
      mWatch = &watch;
    }
    watch.Run([this](const core::Notice& notice) { OnNotice(notice); });
    std::lock_guard<std::mutex> lock(mMutex);
    mWatch = nullptr;
    if (mStopping) return;
  } while (WaitBeforeRetry());
}

bool ServiceWatch::SetUp(core::Watch& watch) {
  core::Failure failure;
  if (watch.Start(failure)) {
    mLastFailure.clear();
    return true;
  }
  mService.Set(ServiceState::Value::Down);
  const std::string line = failure.what + ": " + failure.why;
  if (line != mLastFailure) {
    zel::service_client::Log(LOG_WARNING, "cannot watch the service's events: %s; trying again every second",
                             line.c_str());
    mLastFailure = line;
  }
  return false;
}

void ServiceWatch::OnNotice(const core::Notice& notice) {
  switch (notice.kind) {
    case core::Notice::Kind::Event: {
      zel::mqtt::Publication event;
      event.topic = mTopics.Event(notice.event.id);
      event.payload = core::JsonEvent(core::UtcTime(notice.time), notice.event, core::JsonExtra{"box", mSettings.id});
      event.payload.pop_back();  // its newline
      mEvents.Push(Outgoing{std::move(event)});
      break;
    }
    case core::Notice::Kind::ServiceUp:
      mService.Set(ServiceState::Value::Up);
      break;
    case core::Notice::Kind::ServiceDown:
      mService.Set(ServiceState::Value::Down);
      break;
  }
}

bool ServiceWatch::WaitBeforeRetry() {
  std::unique_lock<std::mutex> lock(mMutex);
  return !mStopChanged.wait_for(lock, kRetryInterval, [this] { return mStopping; });
}

void SocketFiles::Added(const std::string& path, bool directory) {
  std::lock_guard<std::mutex> lock(mMutex);
  (directory ? mDirectories : mFiles).push_back(path);
}

void SocketFiles::Removed(const std::string& path) {
  std::lock_guard<std::mutex> lock(mMutex);
  Forget(mFiles, path);
  Forget(mDirectories, path);
}

void SocketFiles::RemoveAll() {
  std::lock_guard<std::mutex> lock(mMutex);
  for (const std::string& path : mFiles) ::unlink(path.c_str());
  for (const std::string& path : mDirectories) ::rmdir(path.c_str());
  mFiles.clear();
  mDirectories.clear();
}

size_t RemoveStaleSocketFiles(const std::string& dir) {
  DIR* stream = ::opendir(dir.c_str());
  if (stream == nullptr) return 0;
  size_t removed = 0;
  int error = 0;
  for (;;) {
    // readdir() tells its end from an error only through errno.
    errno = 0;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): one stream, read on one thread
    const dirent* entry = ::readdir(stream);
    if (entry == nullptr) {
      error = errno;
      break;
    }
    if (RemoveIfStale(dir, entry->d_name)) ++removed;
  }
  if (error != 0) {
    zel::service_client::Log(LOG_WARNING, "cannot read the socket directory %s: %s", dir.c_str(),
                             zel::service_client::ErrorText(error).c_str());
  }
  ::closedir(stream);
  if (removed != 0) {
    zel::service_client::Log(LOG_INFO, "removed %zu socket files in %s that ended processes had left", removed,
                             dir.c_str());
  }
  return removed;
}

}  // namespace zel::bridge
