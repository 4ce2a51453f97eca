// The simulated device service: a Unix datagram socket at the configured
// path whose every request is answered by the request handler, replies going
// back to the sender's path (late ones through the delayed sender), events
// pushed to the registered paths, and one log line per request. Requests are
// handled on the socket server's thread. Owns everything; destroying it stops
// the threads and removes the socket file.
#pragma once

#include <memory>
#include <string>

#include "tools/sim/delayed_sender.h"
#include "tools/sim/event_paths.h"
#include "tools/sim/event_pusher.h"
#include "tools/sim/request_handler.h"
#include "tools/sim/sim_log.h"
#include "tools/sim/sim_options.h"
#include "util/socket_server.h"

namespace zel::sim {

class SimService {
 public:
  // Binds the socket and starts serving; Ready() tells whether the bind
  // worked. `options` and `log` must outlive the service.
  SimService(const SimOptions& options, SimLog& log);
  ~SimService();
  SimService(const SimService&) = delete;
  SimService& operator=(const SimService&) = delete;

  bool Ready() const { return mServer->GetFd() >= 0; }
  const EventPaths& Paths() const { return mPaths; }

  // One request that arrived on the socket `serverFd` from the socket path
  // `peer` (empty for an unbound sender); the reply leaves from `serverFd`.
  void OnRequest(int serverFd, const std::string& peer, const std::string& request);

 private:
  // What becomes of the answer, for the request line.
  static std::string Outcome(const std::string& peer, const RequestHandler::Answer& answer);
  // Sends a reply; a failure gets a line of its own, `kind` ("late " or
  // empty) in front.
  void Send(int serverFd, const std::string& dest, const std::string& text, const char* kind);

  SimLog& mLog;
  EventPaths mPaths;
  RequestHandler mHandler;
  DelayedSender mSender;
  EventPusher mPusher;
  // Declared last: it is destroyed first, so that its thread never calls
  // into members that are already gone.
  std::unique_ptr<zel::util::SocketServer> mServer;
};

}  // namespace zel::sim
