// The program's link to the device-control service: request/reply exchanges
// bounded by the reply time-out, events from an optional event socket, and a
// thread that retries the event socket's registration. A service that was
// restarted is found again on the next request. Send is safe from any thread
// (one exchange at a time); events arrive on the event server's thread. Owns
// both sockets and the retry thread.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "ipc/client_paths.h"
#include "ipc/field_split.h"
#include "ipc/ipc_message.h"
#include "ipc/ipc_types.h"
#include "util/mutex_guard.h"
#include "util/socket_client.h"
#include "util/socket_server.h"
#include "util/thread.h"

namespace zel::ipc {

class IPCClient {
 public:
  using EventCb = std::function<void(IPCEvent&)>;

  IPCClient();
  // Stops the retry thread, unregisters the event path (unless switched off)
  // and closes both sockets, removing their files. Waits for the send mutex
  // for at most the reply time-out: when the thread that holds it is the one
  // ending the process (a signal during a request), the unregistration is
  // skipped rather than waited for for ever.
  ~IPCClient();
  IPCClient(const IPCClient&) = delete;
  IPCClient& operator=(const IPCClient&) = delete;

  // Picks this client's socket path in `client_prefix`, makes the client
  // socket aimed at `server_path` and, with a callback, the event socket and
  // its registration. Only the first successful call has any effect.
  bool SetLocalPath(std::string server_path, std::string client_prefix, EventCb cb);

  // One request and its reply: the command number, then each argument as one
  // more field. Held under the send mutex from building the line until the
  // reply is parsed.
  template <typename... Args>
  IPCResult Send(IPCCommand cmd, Args&&... args);

  // Sends a finished request line and takes the next datagram as its reply.
  // A send that finds the service gone makes the client socket again (and
  // registers the event path with the new service first) and sends once
  // more; a send that cannot leave within the reply time-out fails. Takes no
  // lock: callers must not overlap with other requests.
  IPCResult SendFormatString(std::string line);

  // Sends any command number with its arguments, without the range check (the
  // handle-based entry). Takes the send mutex, so that it never overlaps with
  // the retry thread, which may make the client socket again.
  IPCResult SendRequest(const IPCRequest& request);

  // The event server's data callback: parses the datagram as an event and
  // passes it on unless its number is 0.
  bool EventServerCb(int sf, int cf, std::string path, void* data, size_t len);

  bool StartRetryThread();
  bool StopRetryThread();
  void RetryThreadLoop();

  // How long each request waits for its reply, and for its datagram to leave,
  // in microseconds (5,000,000 unless set). Takes effect from the next
  // request; any thread.
  void SetReplyTimeout(uint64_t timeoutUs);
  uint64_t GetReplyTimeout() const { return mReplyTimeoutUs; }

  // Whether the destructor sends the unregistration of the event path (on
  // unless switched off; sent even by a client made without an event
  // callback). A client that never registered an event path can switch it off
  // and so end without a request that may wait out a reply time-out.
  void SetUnregisterAtExit(bool on) { mUnregisterAtExit = on; }

  // True when the client's sockets can be waited for by select, whose sets
  // end at FD_SETSIZE; a client whose descriptors lie beyond cannot work.
  // False too when a socket could not be made or bound (it has no
  // descriptor then).
  bool DescriptorsFitSelect();

  // This client's socket path, chosen by SetLocalPath; empty until then.
  // The event socket's path is this with kEventPathSuffix after it.
  const std::string& GetClientPath() const { return mClientPath; }

  // How the last exchange went, beyond its result: a service may itself
  // answer with the code 5, which is also the client's own ResultIoFailure.
  // LastSendResult is what the request's send returned (the bytes sent, a
  // negated errno, -1 without a connected socket, 0 when the request could
  // not leave within the reply time-out); LastReplySize is the size of the
  // datagram taken as the reply (0 for an empty one, kReplyBufferSize for
  // one that filled the buffer), -1 when none came. They describe the last
  // exchange by any thread: read them on the thread that sent, in a client
  // whose retry thread does not send meanwhile (one made without an event
  // callback has none).
  ssize_t LastSendResult() const { return mLastSent; }
  ssize_t LastReplySize() const { return mLastReceived; }
  bool LastExchangeReplied() const { return mLastReceived >= 0; }

 private:
  // A result the client sets itself: the code and no arguments.
  static IPCResult Failure(int32_t code);
  // Makes the client socket and, with a callback, the event socket and its
  // registration.
  void OpenSockets();
  void MakeClientSocket();

  // The body of Send, with the send mutex already held.
  template <typename... Args>
  IPCResult SendHoldingLock(IPCCommand cmd, Args&&... args);
  // One exchange; `mayReconnect` allows one reconnect when the service is
  // found gone.
  IPCResult Exchange(const std::string& line, bool mayReconnect);
  // Sends the line once the socket can take it; false (logged) when it could
  // not within the reply time-out. `sent` is what the send returned.
  bool SendWhenWritable(const std::string& line, ssize_t& sent);
  bool WaitUntilWritable();
  // Waits for the next datagram for the reply time-out; a wait cut short by a
  // signal goes on for what is left of it.
  ssize_t ReceiveReply(std::vector<char>& buffer);
  IPCResult ParseReceived(const std::vector<char>& buffer, ssize_t received);

  // Whether a send's result says that the service's socket has gone away.
  bool ServiceGone(ssize_t sent) const;
  // Makes the client socket again and registers the event path with the new
  // service before `line` goes out; false when the service is still absent.
  bool Reconnect(const std::string& line, ssize_t sent);
  void RegisterAfterReconnect();
  std::string RegistrationLine() const;
  std::string UnregistrationLine() const;

  // The registration retry: the live service's state of the event path and
  // whether a retry loop is running that will see to it.
  void SetRegistered(bool registered);
  bool LeaveRetryLoopIfRegistered();
  void LeaveRetryLoop();
  void CarryOnRegistration();
  IPCResult RegisterFromRetryThread();
  bool RetryShouldGoOn() const;
  void WaitBeforeRetry();

  // The unregistration at the end, under a bounded wait for the send mutex.
  void UnregisterAtExit();

  EventCb mEventCb;
  std::vector<std::string> mParams;  // guarded by mSendMutex
  std::unique_ptr<zel::util::SocketClient> mClient;
  std::unique_ptr<zel::util::SocketServer> mEventServer;
  zel::util::Thread mRetryThread;
  pthread_mutex_t mRetryMutex;  // guards the retry loop's timed wait on mRetryCond
  pthread_mutex_t mSendMutex;   // serialises request/reply exchanges, mParams and mClient's renewal
  pthread_cond_t mRetryCond;
  // Set when the retry thread starts, cleared only by a stop; read by the
  // retry thread, so it is atomic.
  std::atomic<bool> mRetryRunning;
  bool mPathReady;
  std::string mClientPath;
  std::string mServerPath;
  std::string mEventPath;
  // Read by whichever thread sends, so it is atomic.
  std::atomic<uint64_t> mReplyTimeoutUs;
  // Read by the destructor only; set by the owner.
  bool mUnregisterAtExit;
  // Guards mRegistered and mRetryLoopActive. Held only briefly, possibly
  // inside mSendMutex, never the other way round, and never together with
  // mRetryMutex.
  pthread_mutex_t mRegistrationMutex;
  // Whether the live service instance has accepted the event path.
  bool mRegistered;
  // Whether a retry loop runs (or is about to) that will register it.
  bool mRetryLoopActive;
  // Set once destruction begins: no retry loop is started after that.
  std::atomic<bool> mClosing;
  // Set when the destructor could not have the send mutex; it is then left
  // as it is rather than destroyed while held.
  bool mSendMutexAbandoned;
  // What the last exchange's send returned and the size of its reply
  // datagram (-1: none); written under the send mutex.
  ssize_t mLastSent;
  ssize_t mLastReceived;
};

namespace detail {

// One request field from a Send argument.
template <typename Arg>
std::string ToField(Arg&& arg) {
  return std::string(std::forward<Arg>(arg));
}

}  // namespace detail

template <typename... Args>
IPCResult IPCClient::Send(IPCCommand cmd, Args&&... args) {
  zel::util::MutexGuard guard(mSendMutex);
  return SendHoldingLock(cmd, std::forward<Args>(args)...);
}

template <typename... Args>
IPCResult IPCClient::SendHoldingLock(IPCCommand cmd, Args&&... args) {
  if (!mClient) return Failure(ResultNotConnected);
  if (cmd < Ping || cmd > UnregisterEventPath) return Failure(ResultInvalidCommand);
  mParams.push_back(FormatCommand(cmd));
  (mParams.push_back(detail::ToField(std::forward<Args>(args))), ...);
  std::string line = JoinFields(mParams, kFieldSeparator);
  mParams.clear();
  return SendFormatString(std::move(line));
}

}  // namespace zel::ipc
