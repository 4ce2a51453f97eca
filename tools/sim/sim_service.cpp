#include "tools/sim/sim_service.h"

#include <chrono>

#include "tools/sim/datagram_out.h"

namespace zel::sim {
namespace {

using zel::util::SocketDomain;
using zel::util::SocketServer;
using zel::util::SocketType;

}  // namespace

SimService::SimService(const SimOptions& options, SimLog& log)
    : mLog(log),
      mHandler(options, mPaths),
      mPusher(mPaths, log, EventPusher::Line(options.eventId, options.eventText),
              std::chrono::milliseconds(options.eventIntervalMs)),
      mServer(std::make_unique<SocketServer>(
          options.socketPath, SocketType::Datagram, SocketDomain::Unix,
          [this](int serverFd, int, const std::string& peer, void* data, size_t length) {
            OnRequest(serverFd, peer, std::string(static_cast<const char*>(data), length));
            return true;
          })) {}

SimService::~SimService() {
  // Nothing more is pushed or sent late; requests still arriving until the
  // server has gone are answered at once or not at all.
  mPusher.Stop();
  mSender.Stop();
  mServer.reset();
}

void SimService::OnRequest(int serverFd, const std::string& peer, const std::string& request) {
  const RequestHandler::Answer answer = mHandler.Handle(request);
  std::string line = "request [" + SimLog::Shown(request) + "] from [" + peer + "]: " + Outcome(peer, answer);
  if (!answer.note.empty()) line += " (" + answer.note + ")";
  // Logged before the reply leaves, so that a client holding its reply finds
  // the request in the log.
  mLog.Line(line);
  if (!answer.reply || peer.empty()) return;
  if (answer.delayMs == 0) {
    Send(serverFd, peer, answer.text, "");
    return;
  }
  const std::string text = answer.text;
  mSender.Post([this, serverFd, peer, text] { Send(serverFd, peer, text, "late "); },
               std::chrono::milliseconds(answer.delayMs));
}

std::string SimService::Outcome(const std::string& peer, const RequestHandler::Answer& answer) {
  if (!answer.reply) return "no reply";
  // A datagram from an unbound socket carries no address to answer to.
  if (peer.empty()) return "no reply, the sender has no socket path to answer to";
  const std::string shown = "reply [" + SimLog::Shown(answer.text) + "]";
  return answer.delayMs == 0 ? shown : shown + " in " + std::to_string(answer.delayMs) + " ms";
}

void SimService::Send(int serverFd, const std::string& dest, const std::string& text, const char* kind) {
  // Replies leave from the service's own socket, whose descriptor the server
  // hands to every callback: a client's socket is connected to the service's
  // path and takes datagrams from there only. Using the descriptor directly
  // also keeps the reply path independent of the server object, which may
  // still be under construction when the first request arrives.
  const std::string reply = std::string(kind) + "reply [" + SimLog::Shown(text) + "] to [" + dest + "]";
  switch (DatagramOut::SendTo(serverFd, dest, text)) {
    case DatagramOut::Outcome::Sent:
      return;
    case DatagramOut::Outcome::NoRoom:
      // A client reads its replies from the service's own socket, so what
      // clients leave unread fills that socket's buffer, shared by all.
      mLog.Line(reply + ": not sent, no room for it (replies not yet read hold [" +
                std::to_string(DatagramOut::Unread(serverFd)) + "] bytes)");
      return;
    case DatagramOut::Outcome::Failed:
      mLog.Line(reply + " could not be sent");
      return;
  }
}

}  // namespace zel::sim
