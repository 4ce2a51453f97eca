// The program's link to the device-control service: request/reply exchanges
// with a 5-second time-out, events from an optional event socket, and a thread
// that retries the event socket's registration. Send is safe from any thread
// (one exchange at a time); events arrive on the event server's thread. Owns
// both sockets and the retry thread.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

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
  // Takes no lock: callers must not overlap with other requests.
  IPCResult SendFormatString(std::string line);

  // Sends any command number with its arguments, bypassing the send mutex and
  // the range check (the handle-based entry).
  IPCResult SendRequest(const IPCRequest& request);

  // The event server's data callback: parses the datagram as an event and
  // passes it on unless its number is 0.
  bool EventServerCb(int sf, int cf, std::string path, void* data, size_t len);

  bool StartRetryThread();
  bool StopRetryThread();
  void RetryThreadLoop();

  // How long each request waits for its reply, in microseconds (5,000,000
  // unless set). Takes effect from the next request; any thread.
  void SetReplyTimeout(uint64_t timeoutUs);
  uint64_t GetReplyTimeout() const { return mReplyTimeoutUs; }

  // Whether the destructor sends the unregistration of the event path (on
  // unless switched off; sent even by a client made without an event
  // callback). A client that never registered an event path can switch it off
  // and so end without a request that may wait out a reply time-out.
  void SetUnregisterAtExit(bool on) { mUnregisterAtExit = on; }

 private:
  // A result the client sets itself: the code and no arguments.
  static IPCResult Failure(int32_t code);
  // Makes the client socket and, with a callback, the event socket and its
  // registration.
  void OpenSockets();
  bool RetryShouldGoOn() const;
  void WaitBeforeRetry();

  EventCb mEventCb;
  std::vector<std::string> mParams;  // guarded by mSendMutex
  std::unique_ptr<zel::util::SocketClient> mClient;
  std::unique_ptr<zel::util::SocketServer> mEventServer;
  zel::util::Thread mRetryThread;
  pthread_mutex_t mRetryMutex;  // guards the retry loop's timed wait on mRetryCond
  pthread_mutex_t mSendMutex;   // serialises request/reply exchanges and mParams
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
  if (!mClient) return Failure(ResultNotConnected);
  if (cmd < Ping || cmd > UnregisterEventPath) return Failure(ResultInvalidCommand);
  mParams.push_back(FormatCommand(cmd));
  (mParams.push_back(detail::ToField(std::forward<Args>(args))), ...);
  std::string line = JoinFields(mParams, kFieldSeparator);
  mParams.clear();
  return SendFormatString(std::move(line));
}

}  // namespace zel::ipc
