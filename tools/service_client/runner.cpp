#include "tools/service_client/runner.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "ipc/client_paths.h"
#include "ipc/ipc_client.h"
#include "ipc/ipc_message.h"
#include "tools/service_client/format.h"
#include "tools/service_client/output.h"
#include "util/decimal_text.h"

// Why retired clients stay bound: a reply that comes after its request timed
// out would be read as the reply to whatever the same socket sends next. The
// next request therefore goes out on a new client, and the old one keeps its
// path (swallowing the late reply unread), because the IPC client gives each
// new client the first free of this process's ten slot paths and would
// otherwise hand the same path out again. When all ten are taken, the runner
// goes on in a directory of its own below the given one; the old directory is
// never used again, so its retired clients can go.
//
// Nothing is looked at before a client is made: the IPC client checks the
// service's socket and the directory itself, and only a failure is explained
// afterwards, so that a command that works costs no more system calls than
// its exchange needs.
namespace zel::service_client {
namespace {

// mkdtemp's pattern below the given directory; short, so that socket paths
// still fit.
const char kPrivatePattern[] = "/ctl-XXXXXX";
// Others may pass through to reach the sockets (a service running as another
// user must answer), but not add files.
constexpr mode_t kPrivateMode = 0755;
// Socket files readable and writable by their owner, or by the group too.
constexpr mode_t kOwnerOnlyUmask = 0177;
constexpr mode_t kGroupSharedUmask = 0117;

// The observer of a runner that was given none.
class NoObserver final : public FileObserver {
 public:
  void Added(const std::string& /*path*/, bool /*directory*/) override {}
  void Removed(const std::string& /*path*/) override {}
};
NoObserver gNoObserver;

std::string ShownPath(const std::string& path) { return Shown(path, kShownPathLength); }

bool Fits(const std::string& path) { return path.size() <= zel::ipc::kMaxSocketPathLength; }

// The longest of this process's socket paths in `dir`: that of its last
// slot, with the event socket's suffix when `withEvents`.
std::string LongestClientPath(std::string dir, bool withEvents) {
  zel::ipc::DropTrailingSlash(dir);
  std::string path = zel::ipc::ClientSlotPath(dir, static_cast<uint32_t>(::getpid()), zel::ipc::kClientSlots - 1);
  if (withEvents) path += zel::ipc::kEventPathSuffix;
  return path;
}

// Whether a datagram socket bound at `path` takes datagrams, without sending
// any: connecting an unbound socket makes no file and tells the service
// nothing.
bool Reachable(const std::string& path, int& error) {
  const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    error = errno;
    return false;
  }
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  const bool connected = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  error = errno;
  ::close(fd);
  return connected;
}

std::string Milliseconds(uint32_t ms) { return zel::util::DecimalText(ms) + " ms"; }

}  // namespace

bool CheckService(const std::string& path, Failure& failure) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) {
    failure = Fail(kStatusUnreachable, ShownPath(path), ErrorText(errno));
    return false;
  }
  if (!S_ISSOCK(info.st_mode)) {
    failure = Fail(kStatusUnreachable, ShownPath(path), "not a socket");
    return false;
  }
  if (!Fits(path)) {
    failure = Fail(kStatusLocal, ShownPath(path), "too long for a socket address (at most 107 bytes)");
    return false;
  }
  int error = 0;
  if (!Reachable(path, error)) {
    failure = Fail(kStatusUnreachable, ShownPath(path), ErrorText(error));
    return false;
  }
  return true;
}

bool CheckDirectory(const std::string& dir, bool withEvents, Failure& failure) {
  struct stat info {};
  if (::stat(dir.c_str(), &info) != 0) {
    failure = Fail(kStatusLocal, ShownPath(dir), ErrorText(errno));
    return false;
  }
  if (!S_ISDIR(info.st_mode)) {
    failure = Fail(kStatusLocal, ShownPath(dir), "not a directory");
    return false;
  }
  if (::access(dir.c_str(), W_OK | X_OK) != 0) {
    failure = Fail(kStatusLocal, ShownPath(dir), "not writable: " + ErrorText(errno));
    return false;
  }
  if (!Fits(LongestClientPath(dir, withEvents))) {
    failure = Fail(kStatusLocal, ShownPath(dir), "too long for the client's socket paths (at most 107 bytes)");
    return false;
  }
  return true;
}

Failure WhyNoClient(const Settings& settings, const std::string& dir, bool withEvents, bool* slotsTaken) {
  Failure failure;
  if (slotsTaken != nullptr) *slotsTaken = false;
  if (!CheckService(settings.servicePath, failure)) return failure;
  if (!CheckDirectory(dir, withEvents, failure)) return failure;
  if (slotsTaken != nullptr) *slotsTaken = true;
  return Fail(kStatusLocal, ShownPath(dir), "no free client socket path (all ten of this process are taken)");
}

Failure WhyNotBound(const Settings& settings, const std::string& dir, const std::string& path, bool withEvents) {
  Failure failure;
  if (!CheckService(settings.servicePath, failure)) return failure;
  if (!CheckDirectory(dir, withEvents, failure)) return failure;
  struct stat info {};
  std::string why = "cannot make a socket there";
  if (::lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
    why += ": a directory is in the way";
  } else if (::lstat(path.c_str(), &info) == 0 && !S_ISSOCK(info.st_mode)) {
    why += ": a file is in the way";
  }
  return Fail(kStatusLocal, ShownPath(path), why);
}

mode_t SocketUmask(const std::string& dir) {
  struct stat info {};
  if (::stat(dir.c_str(), &info) != 0) return kOwnerOnlyUmask;
  const bool groupShared =
      (info.st_mode & S_ISGID) != 0 || ((info.st_mode & S_IWGRP) != 0 && (info.st_mode & S_IWOTH) == 0);
  return groupShared ? kGroupSharedUmask : kOwnerOnlyUmask;
}

std::string Outcome::Json() const { return answered ? JsonReply(command->name, reply) : std::string(); }

// The request clients of a runner: the current one, and the ones retired
// after an unanswered request. One thread; owns every client it made.
class Runner::Clients {
 public:
  Clients(Settings settings, FileObserver* observer)
      : mSettings(std::move(settings)), mObserver(observer != nullptr ? *observer : gNoObserver), mDir(mSettings.dir) {}
  ~Clients() {
    Discard(mCurrent);
    DropRetired();
    RemovePrivateDirectory();
  }
  Clients(const Clients&) = delete;
  Clients& operator=(const Clients&) = delete;

  const Settings& settings() const { return mSettings; }

  // The client for the next request, made when there is none; nullptr with
  // the failure when none can be made. Only slots that the runner itself
  // holds are worth a move to a directory of its own: a directory full of
  // other files would fill up again.
  zel::ipc::IPCClient* Current(Failure& failure) {
    if (mCurrent.client) return mCurrent.client.get();
    bool slotsTaken = false;
    if (TryMake(failure, slotsTaken)) return mCurrent.client.get();
    if (slotsTaken && !mRetired.empty() && MoveToPrivateDirectory(failure) && TryMake(failure, slotsTaken)) {
      return mCurrent.client.get();
    }
    return nullptr;
  }

  // The current client's request went unanswered: it is kept aside, and the
  // next request gets a new client.
  void Retire() {
    if (!mCurrent.client) return;
    Log(LOG_NOTICE, "no reply came to %s in time; it stays bound, and the next request goes out from a new socket",
        mCurrent.path.c_str());
    mRetired.push_back(std::move(mCurrent));
    mCurrent = Held();
  }

 private:
  struct Held {
    std::unique_ptr<zel::ipc::IPCClient> client;
    std::string path;
  };

  bool TryMake(Failure& failure, bool& slotsTaken) {
    auto client = std::make_unique<zel::ipc::IPCClient>();
    client->SetReplyTimeout(mSettings.TimeoutUs());
    client->SetUnregisterAtExit(false);
    mObserver.BeginMaking();
    const bool made = client->SetLocalPath(mSettings.servicePath, mDir, nullptr);
    // A socket that could not be bound has no descriptor.
    if (!made || !client->DescriptorsFitSelect()) {
      mObserver.EndMaking();
      failure = made ? WhyNotBound(mSettings, mDir, client->GetClientPath(), false)
                     : WhyNoClient(mSettings, mDir, false, &slotsTaken);
      return false;
    }
    mCurrent.path = client->GetClientPath();
    mCurrent.client = std::move(client);
    mObserver.Added(mCurrent.path, false);
    mObserver.EndMaking();
    return true;
  }

  bool MoveToPrivateDirectory(Failure& failure) {
    DropRetired();
    RemovePrivateDirectory();
    std::string pattern = mSettings.dir;
    zel::ipc::DropTrailingSlash(pattern);
    pattern += kPrivatePattern;
    if (!Fits(LongestClientPath(pattern, false))) {
      failure = Fail(kStatusLocal, ShownPath(mSettings.dir),
                     "no free client socket path, and no room for a directory of its own");
      return false;
    }
    // mkdtemp fills in the X's of the pattern, which is its own copy.
    std::string name = pattern;
    mObserver.BeginMaking();
    const bool made = ::mkdtemp(name.data()) != nullptr;
    const int error = errno;
    if (made) {
      mPrivateDir = name;
      mObserver.Added(mPrivateDir, true);
    }
    mObserver.EndMaking();
    if (!made) {
      failure = Fail(kStatusLocal, ShownPath(pattern), ErrorText(error));
      return false;
    }
    ::chmod(mPrivateDir.c_str(), kPrivateMode);
    mDir = mPrivateDir;
    Log(LOG_NOTICE, "every client socket path of this process in %s is taken; going on in %s", mSettings.dir.c_str(),
        mDir.c_str());
    return true;
  }

  void DropRetired() {
    for (Held& held : mRetired) Discard(held);
    mRetired.clear();
  }

  // Destroys the client (its socket file goes with it) and forgets its path.
  void Discard(Held& held) {
    held.client.reset();
    if (!held.path.empty()) mObserver.Removed(held.path);
    held.path.clear();
  }

  void RemovePrivateDirectory() {
    if (mPrivateDir.empty()) return;
    ::rmdir(mPrivateDir.c_str());
    mObserver.Removed(mPrivateDir);
    mPrivateDir.clear();
  }

  const Settings mSettings;
  FileObserver& mObserver;
  std::string mDir;         // where clients are made now
  std::string mPrivateDir;  // the runner's own directory, once the given one ran out of slots
  Held mCurrent;
  std::vector<Held> mRetired;
};

Runner::Runner(Settings settings, FileObserver* observer)
    : mClients(std::make_unique<Clients>(std::move(settings), observer)) {}

Runner::~Runner() = default;

Outcome Runner::Run(const Request& request) {
  Outcome outcome;
  outcome.command = request.command;
  const auto fail = [&outcome](Failure failure) {
    outcome.status = failure.status;
    outcome.failure = std::move(failure);
    return outcome;
  };
  if (request.command == nullptr || request.command->reply == ReplyStyle::Events) {
    return fail(Fail(kStatusUsage, Shown(request.typed), "not a request"));
  }
  Failure failure;
  zel::ipc::IPCClient* client = mClients->Current(failure);
  if (client == nullptr) return fail(std::move(failure));
  const zel::ipc::IPCRequest sent{request.number, request.fields};
  zel::ipc::IPCResult reply = client->SendRequest(sent);
  const ssize_t replySize = client->LastReplySize();
  if (replySize < 0) return fail(Unanswered(request, sent, client->LastSendResult()));
  if (replySize == 0) return fail(Fail(kStatusRefused, Shown(request.typed), "the service's reply is empty"));
  if (reply.code == zel::ipc::ResultIoFailure && reply.args.empty() &&
      static_cast<size_t>(replySize) >= zel::ipc::kReplyBufferSize) {
    return fail(Fail(kStatusRefused, Shown(request.typed), "the service's reply is too long (8192 bytes or more)"));
  }
  outcome.answered = true;
  outcome.reply = std::move(reply);
  std::string why;
  if (ReadReply(*request.command, outcome.reply, outcome.plain, why)) return outcome;
  return fail(Fail(kStatusRefused, Shown(request.typed), why));
}

Failure Runner::Unanswered(const Request& request, const zel::ipc::IPCRequest& sent, ssize_t sendResult) {
  const Settings& settings = mClients->settings();
  if (sendResult == -EMSGSIZE) {
    return Fail(kStatusUsage, Shown(request.typed),
                "the request of " +
                    zel::util::DecimalText(static_cast<uint32_t>(zel::ipc::FormatRequest(sent).size())) +
                    " bytes is too long for one datagram");
  }
  // Only a request that went out can have a late reply.
  if (sendResult > 0) mClients->Retire();
  Failure failure;
  if (!CheckService(settings.servicePath, failure)) return failure;
  if (sendResult == 0) {
    return Fail(kStatusUnreachable, Shown(request.typed),
                "the service took no request within " + Milliseconds(settings.timeoutMs));
  }
  if (sendResult < 0) {
    // -1 is the IPC client's own: its socket found no service to connect to.
    const std::string why =
        sendResult == -1 ? std::string("the service was gone") : ErrorText(static_cast<int>(-sendResult));
    return Fail(kStatusUnreachable, Shown(request.typed), "cannot send the request: " + why);
  }
  return Fail(kStatusUnreachable, Shown(request.typed), "no reply within " + Milliseconds(settings.timeoutMs));
}

Outcome Runner::RunLine(const std::string& line) {
  Outcome outcome;
  std::vector<std::string> words;
  Request request;
  if (SplitLine(line, words, outcome.failure) && !IsBlankOrComment(words) &&
      ParseRequest(words, request, outcome.failure)) {
    outcome.command = request.command;
    if (request.command->inBatch) return Run(request);
    outcome.failure = Fail(kStatusUsage, Shown(request.typed), "not on a line of standard input");
  }
  outcome.status = outcome.failure.status;
  return outcome;
}

}  // namespace zel::service_client
