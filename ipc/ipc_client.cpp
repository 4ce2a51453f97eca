#include "ipc/ipc_client.h"

#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstring>

#include "ipc/client_paths.h"
#include "ipc/retry_deadline.h"
#include "ipc/timed_lock.h"
#include "ipc/wait_deadline.h"
#include "util/decimal_text.h"

namespace zel::ipc {
namespace {

constexpr char kIPCClientText[] = "zel::ipc::IPCClient::IPCClient()";
constexpr char kDestructorText[] = "zel::ipc::IPCClient::~IPCClient()";
constexpr char kSetLocalPathText[] =
    "bool zel::ipc::IPCClient::SetLocalPath(std::string, std::string, zel::ipc::IPCClient::EventCb)";
constexpr char kSendFormatStringText[] = "zel::ipc::IPCResult zel::ipc::IPCClient::SendFormatString(std::string)";
constexpr char kSendWhenWritableText[] = "bool zel::ipc::IPCClient::SendWhenWritable(const std::string&, ssize_t&)";
constexpr char kReconnectText[] = "bool zel::ipc::IPCClient::Reconnect(const std::string&, ssize_t)";
constexpr char kEventServerCbText[] = "bool zel::ipc::IPCClient::EventServerCb(int, int, std::string, void*, size_t)";

// Identify the two messages about a socket path that is too long; they are
// message numbers, not line numbers.
constexpr int kMsgServerPathTooLong = 49;
constexpr int kMsgClientPathTooLong = 75;

// How long a request waits for its reply unless told otherwise, in
// microseconds.
constexpr uint64_t kDefaultReplyTimeoutUs = 5000000;
// How long the retry thread waits for the send mutex at a time before it
// looks whether it has been told to stop.
constexpr uint64_t kRetryLockSliceUs = 50000;

bool Exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

// The first of the process's ten slot paths in `dir` that nothing occupies.
// A stale file left by an earlier process with the same id takes up a slot.
bool FindFreeClientPath(const std::string& dir, std::string& path) {
  const std::string stem = dir + kClientPathStem + zel::util::DecimalText(static_cast<uint32_t>(::getpid())) + "-";
  for (int slot = 0; slot < kClientSlots; ++slot) {
    std::string candidate = stem + zel::util::DecimalText(static_cast<uint32_t>(slot));
    if (!Exists(candidate)) {
      path = std::move(candidate);
      return true;
    }
  }
  return false;
}

// Reports a path that no socket address can hold, rather than letting the
// socket layer copy it past the end of one.
bool FitsSocketAddress(const std::string& path, int message) {
  if (path.size() <= kMaxSocketPathLength) return true;
  syslog(LOG_ERR, "%s %d: socket path too long [%s]\n", kSetLocalPathText, message, path.c_str());
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
  if (!FitsSocketAddress(server_path, kMsgServerPathTooLong)) return false;
  if (!Exists(client_prefix)) {
    syslog(LOG_ERR, "%s %d: no such directory for client socket [%s]\n", kSetLocalPathText, 53, client_prefix.c_str());
    return false;
  }
  std::string dir = client_prefix;
  DropTrailingSlash(dir);
  if (!FindFreeClientPath(dir, clientPath)) {
    syslog(LOG_INFO, "%s %d: Cannot make more socket on pid [%d] at [%s]\n", kSetLocalPathText, 71,
           static_cast<int>(::getpid()), client_prefix.c_str());
    return false;
  }
  if (!FitsSocketAddress(clientPath, kMsgClientPathTooLong)) return false;
  return !withEvents || FitsSocketAddress(clientPath + kEventPathSuffix, kMsgClientPathTooLong);
}

bool FitsSelect(int fd) { return fd >= 0 && fd < FD_SETSIZE; }

}  // namespace

IPCClient::IPCClient()
    : mRetryRunning(false),
      mPathReady(false),
      mReplyTimeoutUs(kDefaultReplyTimeoutUs),
      mUnregisterAtExit(true),
      mRegistered(false),
      mRetryLoopActive(false),
      mClosing(false),
      mSendMutexAbandoned(false),
      mLastSent(0),
      mLastReceived(-1) {
  pthread_mutex_init(&mRetryMutex, nullptr);
  pthread_mutex_init(&mSendMutex, nullptr);
  pthread_cond_init(&mRetryCond, nullptr);
  pthread_mutex_init(&mRegistrationMutex, nullptr);
  syslog(LOG_INFO, "%s %d: \n", kIPCClientText, 21);
}

IPCClient::~IPCClient() {
  mClosing = true;
  StopRetryThread();
  // Sent whether or not the registration ever succeeded, so that the service
  // stops sending to a socket that is about to disappear.
  if (mUnregisterAtExit && !mEventPath.empty()) UnregisterAtExit();
  pthread_mutex_destroy(&mRegistrationMutex);
  pthread_cond_destroy(&mRetryCond);
  if (!mSendMutexAbandoned) pthread_mutex_destroy(&mSendMutex);
  pthread_mutex_destroy(&mRetryMutex);
  // The members then go in reverse order: the event server (whose monitor
  // thread stops) before the client socket; both socket files go with them.
}

void IPCClient::UnregisterAtExit() {
  // The thread that holds the send mutex may be this one, ended by a signal
  // in the middle of a request: waiting for it would never end.
  TimedLock lock(mSendMutex);
  const uint64_t timeoutUs = mReplyTimeoutUs;
  if (!lock.TryFor(timeoutUs)) {
    mSendMutexAbandoned = true;
    syslog(LOG_WARNING, "%s %d: a request still holds the send mutex after [%" PRIu64 "] us, [%s] not unregistered\n",
           kDestructorText, 31, timeoutUs, mEventPath.c_str());
    return;
  }
  SendHoldingLock(UnregisterEventPath, mEventPath);
}

// cppcheck-suppress passedByValue ; by value, as the interface defines it
// NOLINTNEXTLINE(performance-unnecessary-value-param): by value, as the interface defines it
bool IPCClient::SetLocalPath(std::string server_path, std::string client_prefix, EventCb cb) {
  if (!mClientPath.empty()) return true;
  std::string clientPath;
  if (!ChooseClientPath(server_path, client_prefix, static_cast<bool>(cb), clientPath)) {
    return false;
  }
  mServerPath = std::move(server_path);
  mClientPath = std::move(clientPath);
  mEventPath = mClientPath + kEventPathSuffix;
  mEventCb = std::move(cb);
  mPathReady = true;
  OpenSockets();
  return true;
}

void IPCClient::OpenSockets() {
  MakeClientSocket();
  if (!mEventCb) return;
  using namespace std::placeholders;
  mEventServer = std::make_unique<zel::util::SocketServer>(
      mEventPath, zel::util::SocketType::Datagram, zel::util::SocketDomain::Unix,
      std::bind(&IPCClient::EventServerCb, this, _1, _2, _3, _4, _5));
  // A refused or unanswered registration does not fail the set-up: the retry
  // thread carries it on.
  if (Send(RegisterEventPath, mEventPath).code != ResultSuccess) StartRetryThread();
}

void IPCClient::MakeClientSocket() {
  // The old socket goes first: it removes its file when it closes, which
  // would otherwise take away the new one's.
  mClient.reset();
  // A socket that could not be bound or connected shows later as a failed
  // send.
  mClient = std::make_unique<zel::util::SocketClient>(mClientPath, zel::util::SocketType::Datagram,
                                                      zel::util::SocketDomain::Unix, mServerPath);
}

bool IPCClient::DescriptorsFitSelect() {
  zel::util::MutexGuard guard(mSendMutex);
  if (!mClient || !FitsSelect(mClient->GetFd())) return false;
  return !mEventServer || FitsSelect(mEventServer->GetFd());
}

IPCResult IPCClient::Failure(int32_t code) {
  IPCResult result;
  result.code = code;
  return result;
}

// cppcheck-suppress passedByValue ; by value, as the interface defines it
// NOLINTNEXTLINE(performance-unnecessary-value-param): by value, as the interface defines it
IPCResult IPCClient::SendFormatString(std::string line) { return Exchange(line, true); }

IPCResult IPCClient::Exchange(const std::string& line, bool mayReconnect) {
  syslog(LOG_DEBUG, "client snd [%s]\n", line.c_str());
  mLastSent = 0;
  mLastReceived = -1;
  if (!mClient) {
    syslog(LOG_ERR, "%s %d: no client socket, set the local path first\n", kSendFormatStringText, 101);
    return Failure(ResultNotConnected);
  }
  ssize_t sent = 0;
  if (!SendWhenWritable(line, sent)) return Failure(ResultIoFailure);
  // A send that failed never reached the service, so the line goes out once
  // more to the new instance.
  if (mayReconnect && ServiceGone(sent)) {
    if (!Reconnect(line, sent) || !SendWhenWritable(line, sent)) return Failure(ResultIoFailure);
  }
  if (sent < 0 || static_cast<size_t>(sent) != line.size()) return Failure(ResultIoFailure);

  // The reply is not matched to its request: the next datagram is taken.
  std::vector<char> buffer(kReplyBufferSize);
  const ssize_t received = ReceiveReply(buffer);
  mLastReceived = received;
  IPCResult result = ParseReceived(buffer, received);
  if (result.code == ResultSuccess && line == RegistrationLine()) SetRegistered(true);
  return result;
}

bool IPCClient::SendWhenWritable(const std::string& line, ssize_t& sent) {
  if (!WaitUntilWritable()) {
    syslog(LOG_ERR, "%s %d: Send time out, the service at [%s] takes no datagram within [%" PRIu64 "] us\n",
           kSendWhenWritableText, 231, mServerPath.c_str(), static_cast<uint64_t>(mReplyTimeoutUs));
    return false;
  }
  // The socket layer's own retry then never has to wait: the service's queue
  // has room. (A queue that other clients fill in between can still hold the
  // send up until the service reads again.)
  sent = mClient->Send(line);
  mLastSent = sent;
  return true;
}

bool IPCClient::WaitUntilWritable() {
  const int fd = mClient->GetFd();
  // A socket that could not be made fails in the send itself.
  if (fd < 0 || !mClient->IsConnected()) return true;
  const WaitDeadline deadline(mReplyTimeoutUs);
  while (true) {
    pollfd ready = {fd, POLLOUT, 0};
    const int n = ::poll(&ready, 1, deadline.LeftMs());
    // Readiness, an error or a hang-up: the send reports what it finds.
    if (n > 0) return true;
    if (n == 0) return false;
    if (errno != EINTR) return true;
    if (deadline.LeftUs() == 0) return false;
  }
}

ssize_t IPCClient::ReceiveReply(std::vector<char>& buffer) {
  const uint64_t timeoutUs = mReplyTimeoutUs;
  const WaitDeadline deadline(timeoutUs);
  // A descriptor that select cannot wait for fails at once, every time.
  const bool canWaitAgain = FitsSelect(mClient->GetFd());
  uint64_t waitUs = timeoutUs;
  while (true) {
    const ssize_t received = mClient->RecvTimedWait(buffer.data(), buffer.size(), waitUs);
    if (received != -1 || !canWaitAgain) return received;
    // A wait that ended before its time was cut short by a signal: it goes on
    // for the rest, so that the reply still answers this request.
    waitUs = deadline.LeftUs();
    if (waitUs == 0) return received;
  }
}

IPCResult IPCClient::ParseReceived(const std::vector<char>& buffer, ssize_t received) {
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

bool IPCClient::ServiceGone(ssize_t sent) const {
  // A socket whose connect failed (no service answered at set-up) has never
  // been connected; a connected one learns from the send that its peer has
  // closed (refused at first, then not connected any more).
  if (sent == -1 && !mClient->IsConnected()) return true;
  return sent == -ECONNREFUSED || sent == -ENOTCONN || sent == -ECONNRESET;
}

bool IPCClient::Reconnect(const std::string& line, ssize_t sent) {
  SetRegistered(false);
  MakeClientSocket();
  if (!mClient->IsConnected()) {
    syslog(LOG_WARNING, "%s %d: service at [%s] gone (send [%zd]), cannot reconnect\n", kReconnectText, 288,
           mServerPath.c_str(), sent);
    return false;
  }
  syslog(LOG_WARNING, "%s %d: service at [%s] gone (send [%zd]), reconnected\n", kReconnectText, 293,
         mServerPath.c_str(), sent);
  // The new instance knows nothing of the event path. A line that is itself
  // the registration registers it; an unregistration has no use for it.
  if (mEventServer && line != RegistrationLine() && line != UnregistrationLine()) RegisterAfterReconnect();
  return true;
}

void IPCClient::RegisterAfterReconnect() {
  if (Exchange(RegistrationLine(), false).code == ResultSuccess) return;
  CarryOnRegistration();
}

std::string IPCClient::RegistrationLine() const {
  return JoinFields({FormatCommand(RegisterEventPath), mEventPath}, kFieldSeparator);
}

std::string IPCClient::UnregistrationLine() const {
  return JoinFields({FormatCommand(UnregisterEventPath), mEventPath}, kFieldSeparator);
}

IPCResult IPCClient::SendRequest(const IPCRequest& request) {
  // Under the send mutex: the retry thread may make the client socket again
  // while it registers, and the two must never use it at the same time.
  zel::util::MutexGuard guard(mSendMutex);
  return SendFormatString(FormatRequest(request));
}

// cppcheck-suppress passedByValue ; by value, as the interface defines it
// NOLINTNEXTLINE(performance-unnecessary-value-param): by value, as the interface defines it
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
  {
    zel::util::MutexGuard guard(mRegistrationMutex);
    mRetryLoopActive = true;
  }
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
  if (!RetryShouldGoOn()) {
    LeaveRetryLoop();
    return;
  }
  while (true) {
    const bool accepted = RegisterFromRetryThread().code == ResultSuccess;
    // Ends once the live service has the event path, whoever registered it:
    // this loop, or a reconnect on another thread during the pause. An
    // acceptance that a reconnect has lost since is tried again at once. The
    // flag stays set, so a later StartRetryThread never runs it again.
    if (LeaveRetryLoopIfRegistered()) return;
    if (accepted) continue;
    WaitBeforeRetry();
    if (!RetryShouldGoOn()) break;
    if (LeaveRetryLoopIfRegistered()) return;
  }
  LeaveRetryLoop();
}

IPCResult IPCClient::RegisterFromRetryThread() {
  // Never waits for the send mutex for ever: the thread holding it may be
  // ending the process, and the destructor then waits for this thread.
  TimedLock lock(mSendMutex);
  while (!lock.TryFor(kRetryLockSliceUs)) {
    if (!mRetryRunning) return Failure(ResultIoFailure);
  }
  return SendHoldingLock(RegisterEventPath, mEventPath);
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

void IPCClient::SetRegistered(bool registered) {
  zel::util::MutexGuard guard(mRegistrationMutex);
  mRegistered = registered;
}

bool IPCClient::LeaveRetryLoopIfRegistered() {
  zel::util::MutexGuard guard(mRegistrationMutex);
  if (!mRegistered) return false;
  mRetryLoopActive = false;
  return true;
}

void IPCClient::LeaveRetryLoop() {
  zel::util::MutexGuard guard(mRegistrationMutex);
  mRetryLoopActive = false;
}

void IPCClient::CarryOnRegistration() {
  if (mClosing || !mEventServer) return;
  {
    // A loop that still runs sees the lost registration by itself.
    zel::util::MutexGuard guard(mRegistrationMutex);
    if (mRegistered || mRetryLoopActive) return;
    mRetryLoopActive = true;
  }
  // The retry ran before and has left its loop (it takes no lock on its way
  // out), or never ran: start it again.
  if (mRetryRunning.exchange(true)) mRetryThread.Join();
  mRetryThread.Start([this] { RetryThreadLoop(); }, false);
}

}  // namespace zel::ipc
