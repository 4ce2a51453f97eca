// Runs commands against the service, one at a time, and says how each went
// without printing anything (its notices go to the log, output.h): a
// one-shot command, the lines of a batch, or the requests of a long-running
// program (a bridge) from its own thread. The protocol carries no request
// identifiers, so a request that went unanswered retires its client socket,
// which stays bound and swallows the late reply, and the next request goes
// out on a new client socket: a late reply is never taken for another
// request's. Also the settings that the runner and the watch share, and the
// checks that explain a failed set-up.
//
// Threading: a Runner is used by one thread at a time; it owns its clients,
// their socket files and a directory of its own should it need one.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>

#include "ipc/ipc_types.h"
#include "tools/service_client/commands.h"
#include "tools/service_client/failure.h"

namespace zel::service_client {

// Where the service and the client's sockets are, and how long a reply may
// take. A plain value.
struct Settings {
  static constexpr uint32_t kDefaultTimeoutMs = 5000;
  // The longest reply wait accepted, in milliseconds.
  static constexpr uint32_t kMaxTimeoutMs = 60000;

  std::string servicePath;  // the service's socket
  std::string dir;          // the directory for the client's sockets
  uint32_t timeoutMs = kDefaultTimeoutMs;

  uint64_t TimeoutUs() const { return uint64_t{timeoutMs} * 1000; }
};

// Status 3 when no socket is at `path` or it takes no datagrams (found out by
// connecting an unbound socket: nothing is sent and no file made), status 4
// when the path is too long for a socket address.
bool CheckService(const std::string& path, Failure& failure);
// Status 4 when `dir` is missing, not a directory, not writable, or too deep
// for the client's socket paths (those of the event socket too when
// `withEvents`).
bool CheckDirectory(const std::string& dir, bool withEvents, Failure& failure);

// Why the IPC client could not be set up in `dir`: the service or the
// directory fails a check above, or else all ten of this process's slot
// paths there are taken (status 4; `slotsTaken` then, when not null).
Failure WhyNoClient(const Settings& settings, const std::string& dir, bool withEvents, bool* slotsTaken = nullptr);
// Why a client set up in `dir` has a socket at `path` that could not be
// bound: the checks above, or what is in the way at `path` (status 4).
Failure WhyNotBound(const Settings& settings, const std::string& dir, const std::string& path, bool withEvents);

// The umask under which socket files made in `dir` are readable and writable
// by their owner only (0600), or also by the group (0660) when `dir` is
// shared with a group: set-group-ID, or group-writable without being
// world-writable. A client socket file takes datagrams from whoever may write
// to it, so it must not be writable beyond that. One stat of `dir`; a
// directory that cannot be examined counts as not shared. A program sets it
// as its umask before it makes a Runner or a Watch, for as long as they
// live: the IPC client makes its socket again whenever it finds the service
// restarted, on any exchange, so a umask for the moment of set-up alone would
// not do.
mode_t SocketUmask(const std::string& dir);

// What one command came to. Nothing is printed: a program prints `plain` or
// Json() and reports `failure`.
struct Outcome {
  int status = kStatusOk;
  Failure failure;                   // why, when status is not 0
  const Command* command = nullptr;  // the command, once the line named a known one
  bool answered = false;             // a usable reply came: it is in `reply`
  zel::ipc::IPCResult reply;
  // The plain output: the reply read in its command's style. A send's reply
  // of another code has plain output and a failure both.
  std::string plain;

  // The reply as one JSON object and a newline; empty when no usable reply
  // came.
  std::string Json() const;
};

// Told of the socket files and directories a runner makes and removes, so
// that a program can remove them itself should a signal end it first. Called
// on the runner's thread. A client's socket file appears between BeginMaking
// and EndMaking, and Added names it before EndMaking: a program that holds
// its signals off in between never misses one. Removed comes once the file
// is gone.
class FileObserver {
 public:
  virtual ~FileObserver() = default;
  virtual void BeginMaking() {}
  virtual void EndMaking() {}
  virtual void Added(const std::string& path, bool directory) = 0;
  virtual void Removed(const std::string& path) = 0;
};

class Runner {
 public:
  // Nothing is made before the first request. `observer` (may be null) must
  // outlive the runner.
  explicit Runner(Settings settings, FileObserver* observer = nullptr);
  // Destroys every client (their socket files go with them) and removes the
  // runner's own directory.
  ~Runner();
  Runner(const Runner&) = delete;
  Runner& operator=(const Runner&) = delete;

  // Sends the request and waits for its reply. Every failure names its
  // cause: the service's reply with another code (1), a request too long
  // for one datagram (2), no service, no reply within the time-out or a
  // service that took no request (3), a client that could not be set up (4).
  Outcome Run(const Request& request);

  // One line as a batch has it: split into words; blank and comment lines
  // ask for nothing (status 0, no command); a command that cannot stand on a
  // batch line (watch) is a usage failure; otherwise as Run.
  Outcome RunLine(const std::string& line);

 private:
  class Clients;

  // Why a request got no reply: it was too long to send, the service has
  // gone, it took no request, or it did not answer in time.
  Failure Unanswered(const Request& request, const zel::ipc::IPCRequest& sent, ssize_t sendResult);

  std::unique_ptr<Clients> mClients;
};

}  // namespace zel::service_client
