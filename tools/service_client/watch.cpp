#include "tools/service_client/watch.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <mutex>
#include <string>
#include <utility>

#include "ipc/client_paths.h"
#include "ipc/ipc_client.h"
#include "ipc/wait_deadline.h"
#include "tools/service_client/output.h"

// Events arrive on the IPC client's event thread and reach the user's thread
// through a bounded queue with an eventfd that wakes it. A restarted service
// is noticed by its socket file, looked at every second without sending it
// anything: a new service binds a new socket, so a restart shows as a new
// file (device, inode and change time) at the same path, or as none while it
// is down. It is then registered with again on a new client.
namespace zel::service_client {
namespace {

// Events waiting while no one takes them; beyond this the event thread waits
// and the socket's own queue holds the rest.
constexpr size_t kQueueCapacity = 1024;
// How often the service's socket file is looked at.
constexpr uint64_t kCheckIntervalUs = 1000000;

timespec WallClock() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return now;
}

// One instance of the service, told apart from the next by its socket file.
struct Identity {
  bool present = false;
  dev_t device = 0;
  ino_t inode = 0;
  timespec changed{};

  static Identity Of(const std::string& path) {
    Identity identity;
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0 || !S_ISSOCK(info.st_mode)) return identity;
    identity.present = true;
    identity.device = info.st_dev;
    identity.inode = info.st_ino;
    // A file system may give a new file the inode number of one just
    // removed; the change time tells them apart.
    identity.changed = info.st_ctim;
    return identity;
  }

  bool SameAs(const Identity& other) const {
    if (present != other.present) return false;
    if (!present) return true;
    return device == other.device && inode == other.inode && changed.tv_sec == other.changed.tv_sec &&
           changed.tv_nsec == other.changed.tv_nsec;
  }
};

// Whether something other than a socket is at `path`.
bool InTheWay(const std::string& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0 && !S_ISSOCK(info.st_mode);
}

// Makes an eventfd readable; the count it adds does not matter.
void Wake(int fd) {
  const uint64_t one = 1;
  ssize_t ignored = ::write(fd, &one, sizeof one);
  (void)ignored;
}

void Drain(int fd) {
  uint64_t count = 0;
  ssize_t ignored = ::read(fd, &count, sizeof count);
  (void)ignored;
}

}  // namespace

class Watch::State {
 public:
  explicit State(Settings settings)
      : mSettings(std::move(settings)),
        mWakeFd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
        mStopFd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
        mNextCheck(0) {}

  ~State() {
    Disconnect(true);
    if (mWakeFd >= 0) ::close(mWakeFd);
    if (mStopFd >= 0) ::close(mStopFd);
  }
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  bool Start(Failure& failure) {
    if (mWakeFd < 0 || mStopFd < 0) {
      failure = Fail(kStatusLocal, "watch", "cannot make its descriptors: " + ErrorText(errno));
      return false;
    }
    // A watch waits for a long time: its service and directory are checked
    // before anything is made, so that it never waits for nothing.
    if (!CheckService(mSettings.servicePath, failure)) return false;
    if (!CheckDirectory(mSettings.dir, true, failure)) return false;
    if (!Connect(failure)) return false;
    mNextCheck = zel::ipc::WaitDeadline(kCheckIntervalUs);
    Note(Notice::Kind::ServiceUp);
    return true;
  }

  int Fd() const { return mWakeFd; }
  int NextCheckMs() const { return mNextCheck.LeftMs(); }

  void Check() {
    if (mNextCheck.LeftUs() != 0) return;
    mNextCheck = zel::ipc::WaitDeadline(kCheckIntervalUs);
    const Identity now = Identity::Of(mSettings.servicePath);
    if (now.SameAs(mService)) return;
    if (!now.present) {
      Log(LOG_INFO, "the service's socket %s is gone; waiting for it", mSettings.servicePath.c_str());
      mService = now;
      NoteDown();
      return;
    }
    Reconnect();
  }

  bool Take(Notice& notice) {
    bool event = false;
    {
      std::lock_guard<std::mutex> lock(mMutex);
      // Drained under the lock, and only once the queue is empty: a notice
      // added after this wakes the descriptor again.
      if (mNotices.empty()) {
        Drain(mWakeFd);
        return false;
      }
      notice = std::move(mNotices.front());
      mNotices.pop_front();
      if (mNotices.empty()) Drain(mWakeFd);
      event = notice.kind == Notice::Kind::Event;
      if (event) --mEvents;
    }
    if (event) mRoom.notify_one();
    return true;
  }

  void Run(const std::function<void(const Notice&)>& onNotice) {
    while (!mStopped) {
      pollfd fds[2] = {
          {mWakeFd, POLLIN, 0},
          {mStopFd, POLLIN, 0}
      };
      if (::poll(fds, 2, NextCheckMs()) < 0 && errno != EINTR) break;
      if (mStopped) break;
      Check();
      Notice notice;
      while (!mStopped && Take(notice)) onNotice(notice);
    }
  }

  void Stop() {
    mStopped = true;
    Wake(mStopFd);
  }

 private:
  bool Connect(Failure& failure) {
    const Identity service = Identity::Of(mSettings.servicePath);
    auto client = std::make_unique<zel::ipc::IPCClient>();
    client->SetReplyTimeout(mSettings.TimeoutUs());
    if (!client->SetLocalPath(mSettings.servicePath, mSettings.dir,
                              [this](zel::ipc::IPCEvent& event) { OnEvent(event); })) {
      failure = WhyNoClient(mSettings, mSettings.dir, true);
      return false;
    }
    // A socket that could not be bound has no descriptor; the event socket's
    // path is the one the IPC client does not look at first.
    if (!client->DescriptorsFitSelect()) {
      const std::string eventPath = client->GetClientPath() + zel::ipc::kEventPathSuffix;
      failure = WhyNotBound(mSettings, mSettings.dir, InTheWay(eventPath) ? eventPath : client->GetClientPath(), true);
      return false;
    }
    mClient = std::move(client);
    mService = service;
    mDown = false;
    return true;
  }

  // The descriptor is woken only for a notice that finds the queue empty:
  // it stays readable until Take has emptied the queue, and the taker takes
  // every notice each time it wakes.
  void OnEvent(zel::ipc::IPCEvent& event) {
    bool first = false;
    {
      std::unique_lock<std::mutex> lock(mMutex);
      mRoom.wait(lock, [this] { return mClosed || mEvents < kQueueCapacity; });
      if (mClosed) return;
      Notice notice;
      notice.event = std::move(event);
      notice.time = WallClock();
      first = mNotices.empty();
      mNotices.push_back(std::move(notice));
      ++mEvents;
    }
    if (first) Wake(mWakeFd);
  }

  // A change of the service: never waits for room, since it comes from the
  // thread that takes the notices.
  void Note(Notice::Kind kind) {
    Notice notice;
    notice.kind = kind;
    notice.time = WallClock();
    bool first = false;
    {
      std::lock_guard<std::mutex> lock(mMutex);
      first = mNotices.empty();
      mNotices.push_back(std::move(notice));
    }
    if (first) Wake(mWakeFd);
  }

  void NoteDown() {
    if (mDown) return;
    mDown = true;
    Note(Notice::Kind::ServiceDown);
  }

  void Reconnect() {
    Log(LOG_INFO, "the service at %s started anew; registering again", mSettings.servicePath.c_str());
    NoteDown();
    // The new service never heard of the old registration, and an
    // unregistration it might not answer would hold the watch up.
    Disconnect(false);
    Failure failure;
    if (Connect(failure)) {
      Note(Notice::Kind::ServiceUp);
      return;
    }
    Log(LOG_ERR, "cannot register with the service again: %s: %s; trying again in 1 s", failure.what.c_str(),
        failure.why.c_str());
    // Tried again at the next check.
    mService = Identity();
  }

  // Destroys the client without letting its event thread wait for room in
  // the queue (the client's destructor joins that thread); events that
  // arrive meanwhile are dropped.
  void Disconnect(bool unregister) {
    if (!mClient) return;
    if (!unregister) mClient->SetUnregisterAtExit(false);
    {
      std::lock_guard<std::mutex> lock(mMutex);
      mClosed = true;
    }
    mRoom.notify_all();
    mClient.reset();
    std::lock_guard<std::mutex> lock(mMutex);
    mClosed = false;
  }

  const Settings mSettings;
  const int mWakeFd;
  const int mStopFd;
  std::atomic<bool> mStopped{false};
  std::unique_ptr<zel::ipc::IPCClient> mClient;
  Identity mService;
  zel::ipc::WaitDeadline mNextCheck;
  bool mDown = false;  // ServiceDown given, and no ServiceUp since

  std::mutex mMutex;  // guards mNotices, mEvents and mClosed
  std::condition_variable mRoom;
  // A list rather than a deque, whose code would add some 500 bytes to each
  // program on the device.
  std::list<Notice> mNotices;
  size_t mEvents = 0;    // the events among mNotices
  bool mClosed = false;  // while the client is destroyed: events are dropped
};

Watch::Watch(Settings settings) : mState(std::make_unique<State>(std::move(settings))) {}

Watch::~Watch() = default;

bool Watch::Start(Failure& failure) { return mState->Start(failure); }

int Watch::Fd() const { return mState->Fd(); }

int Watch::NextCheckMs() const { return mState->NextCheckMs(); }

void Watch::Check() { mState->Check(); }

bool Watch::Take(Notice& notice) { return mState->Take(notice); }

void Watch::Run(const std::function<void(const Notice&)>& onNotice) { mState->Run(onNotice); }

void Watch::Stop() { mState->Stop(); }

}  // namespace zel::service_client
