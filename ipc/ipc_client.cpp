#include "ipc/ipc_client.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cstring>

#include "ipc/retry_deadline.h"

namespace zel::ipc {
namespace {

const char kSetLocalPathText[] =
    "bool zel::ipc::IPCClient::SetLocalPath(std::string, std::string, zel::ipc::IPCClient::EventCb)";
const char kSendFormatStringText[] = "zel::ipc::IPCResult zel::ipc::IPCClient::SendFormatString(std::string)";
const char kEventServerCbText[] = "bool zel::ipc::IPCClient::EventServerCb(int, int, std::string, void*, size_t)";

// One process may make this many clients in one directory.
constexpr int kClientSlots = 10;
// A reply must be shorter than this, so that a zero byte always follows it.
constexpr size_t kReplyBufferSize = 8192;
// How long a request waits for its reply unless told otherwise, in
// microseconds.
constexpr uint64_t kDefaultReplyTimeoutUs = 5000000;
// The longest path that a Unix socket address holds with its zero byte.
constexpr size_t kMaxSocketPathLength = sizeof(sockaddr_un::sun_path) - 1;

bool Exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

// The first of the process's ten slot paths in `dir` that nothing occupies.
// A stale file left by an earlier process with the same id takes up a slot.
bool FindFreeClientPath(const std::string& dir, std::string& path) {
  const std::string stem = dir + "/ipc_client-" + std::to_string(::getpid()) + "-";
  for (int slot = 0; slot < kClientSlots; ++slot) {
    std::string candidate = stem + std::to_string(slot);
    if (!Exists(candidate)) {
      path = std::move(candidate);
      return true;
    }
  }
  return false;
}

// Reports a path that no socket address can hold, rather than letting the
// socket layer copy it past the end of one.
bool FitsSocketAddress(const std::string& path, int line) {
  if (path.size() <= kMaxSocketPathLength) return true;
  syslog(LOG_ERR, "%s %d: socket path too long [%s]\n", kSetLocalPathText, line, path.c_str());
  return false;
}

// Checks the service's socket and the directory, and picks the client's
// socket path; false (with the reason logged) when set-up cannot go on.
bool ChooseClientPath(const std::string& server_path, const std::string& client_prefix, bool withEvents,
                      std::string& clientPath) {
  if (!Exists(server_path)) {
    syslog(LOG_INFO, "%s %d: no server activated on [%s]\n", kSetLocalPathText, 47, server_path.c_str());
    return false;
  }
  if (!FitsSocketAddress(server_path, 49)) return false;
  if (!Exists(client_prefix)) {
    syslog(LOG_ERR, "%s %d: no such directory for client socket [%s]\n", kSetLocalPathText, 53, client_prefix.c_str());
    return false;
  }
  std::string dir = client_prefix;
  if (!dir.empty() && dir.back() == '/') dir.pop_back();
  if (!FindFreeClientPath(dir, clientPath)) {
    syslog(LOG_INFO, "%s %d: Cannot make more socket on pid [%d] at [%s]\n", kSetLocalPathText, 71,
           static_cast<int>(::getpid()), client_prefix.c_str());
    return false;
  }
  if (!FitsSocketAddress(clientPath, 75)) return false;
  return !withEvents || FitsSocketAddress(clientPath + "-event", 75);
}

}  // namespace

IPCClient::IPCClient()
    : mRetryRunning(false), mPathReady(false), mReplyTimeoutUs(kDefaultReplyTimeoutUs), mUnregisterAtExit(true) {
  pthread_mutex_init(&mRetryMutex, nullptr);
  pthread_mutex_init(&mSendMutex, nullptr);
  pthread_cond_init(&mRetryCond, nullptr);
  syslog(LOG_INFO, "%s %d: \n", "zel::ipc::IPCClient::IPCClient()", 21);
}

IPCClient::~IPCClient() {
  StopRetryThread();
  // Sent whether or not the registration ever succeeded, so that the service
  // stops sending to a socket that is about to disappear.
  if (mUnregisterAtExit && !mEventPath.empty()) Send(UnregisterEventPath, mEventPath);
  pthread_cond_destroy(&mRetryCond);
  pthread_mutex_destroy(&mSendMutex);
  pthread_mutex_destroy(&mRetryMutex);
  // The members then go in reverse order: the event server (whose monitor
  // thread stops) before the client socket.
}

bool IPCClient::SetLocalPath(std::string server_path, std::string client_prefix, EventCb cb) {
  if (!mClientPath.empty()) return true;
  std::string clientPath;
  if (!ChooseClientPath(server_path, client_prefix, static_cast<bool>(cb), clientPath)) {
    return false;
  }
  mServerPath = std::move(server_path);
  mClientPath = std::move(clientPath);
  mEventPath = mClientPath + "-event";
  mEventCb = std::move(cb);
  mPathReady = true;
  OpenSockets();
  return true;
}

void IPCClient::OpenSockets() {
  // A socket that could not be bound shows later as a failed send.
  mClient = std::make_unique<zel::util::SocketClient>(mClientPath, zel::util::SocketType::Datagram,
                                                      zel::util::SocketDomain::Unix, mServerPath);
  if (!mEventCb) return;
  using namespace std::placeholders;
  mEventServer = std::make_unique<zel::util::SocketServer>(
      mEventPath, zel::util::SocketType::Datagram, zel::util::SocketDomain::Unix,
      std::bind(&IPCClient::EventServerCb, this, _1, _2, _3, _4, _5));
  // A refused or unanswered registration does not fail the set-up: the retry
  // thread carries it on.
  if (Send(RegisterEventPath, mEventPath).code != ResultSuccess) StartRetryThread();
}

IPCResult IPCClient::Failure(int32_t code) {
  IPCResult result;
  result.code = code;
  return result;
}

IPCResult IPCClient::SendFormatString(std::string line) {
  syslog(LOG_DEBUG, "client snd [%s]\n", line.c_str());
  if (!mClient) {
    syslog(LOG_ERR, "%s %d: no client socket, set the local path first\n", kSendFormatStringText, 101);
    return Failure(ResultNotConnected);
  }
  const ssize_t sent = mClient->Send(line);
  if (sent < 0 || static_cast<size_t>(sent) != line.size()) return Failure(ResultIoFailure);

  // The reply is not matched to its request: the next datagram is taken.
  std::vector<char> buffer(kReplyBufferSize);
  const ssize_t received = mClient->RecvTimedWait(buffer.data(), buffer.size(), mReplyTimeoutUs);
  if (received <= 0) {
    syslog(LOG_ERR, "%s %d: Recv time out\n", kSendFormatStringText, 112);
    return Failure(ResultIoFailure);
  }
  const size_t length = strnlen(buffer.data(), buffer.size());
  if (length == buffer.size()) {
    // Nothing marks the end of a reply that fills the whole buffer.
    syslog(LOG_ERR, "%s %d: reply too long [%zd]\n", kSendFormatStringText, 116, received);
    return Failure(ResultIoFailure);
  }
  std::string reply(buffer.data(), length);
  syslog(LOG_DEBUG, "client rcv [%s]\n", reply.c_str());
  return ParseReply(std::move(reply));
}

IPCResult IPCClient::SendRequest(const IPCRequest& request) { return SendFormatString(FormatRequest(request)); }

bool IPCClient::EventServerCb(int sf, int cf, std::string path, void* data, size_t len) {
  // The text ends at its first zero byte; an event that filled the server's
  // whole buffer has none and ends with its length instead.
  const char* bytes = static_cast<const char*>(data);
  std::string text = bytes != nullptr ? std::string(bytes, strnlen(bytes, len)) : std::string();
  syslog(LOG_DEBUG, "%s %d: sf [%d] cf [%d] path [%s] data [%s]\n", kEventServerCbText, 162, sf, cf, path.c_str(),
         text.c_str());
  IPCEvent event = ParseEvent(std::move(text));
  if (event.id != 0 && mEventCb) mEventCb(event);
  return true;
}

void IPCClient::SetReplyTimeout(uint64_t timeoutUs) { mReplyTimeoutUs = timeoutUs; }

bool IPCClient::StartRetryThread() {
  if (mRetryRunning.exchange(true)) return true;
  mRetryThread.Start([this] { RetryThreadLoop(); }, false);
  return true;
}

bool IPCClient::StopRetryThread() {
  if (!mRetryRunning) return true;
  {
    // Cleared and signalled under the retry mutex, so that a loop about to
    // wait sees the flag and one already waiting is woken.
    zel::util::MutexGuard guard(mRetryMutex);
    mRetryRunning = false;
    pthread_cond_signal(&mRetryCond);
  }
  mRetryThread.Join();
  return true;
}

void IPCClient::RetryThreadLoop() {
  if (!RetryShouldGoOn()) return;
  while (true) {
    // On success the thread ends but the flag stays set, so the retry is
    // never started a second time.
    if (Send(RegisterEventPath, mEventPath).code == ResultSuccess) return;
    WaitBeforeRetry();
    if (!RetryShouldGoOn()) return;
  }
}

bool IPCClient::RetryShouldGoOn() const { return mRetryRunning && mEventServer && !mEventPath.empty(); }

void IPCClient::WaitBeforeRetry() {
  // Never taken together with the send mutex: Send has returned by now.
  zel::util::MutexGuard guard(mRetryMutex);
  timeval now{};
  gettimeofday(&now, nullptr);
  const timespec deadline = RetryDeadline(now);
  // Spurious wake-ups wait on; only the deadline (or a failing wait) or a
  // stop ends the pause.
  while (mRetryRunning) {
    if (pthread_cond_timedwait(&mRetryCond, &mRetryMutex, &deadline) != 0) break;
  }
}

}  // namespace zel::ipc
