// The event paths that clients have registered, each with a socket connected
// to it over which events go out. Safe from any thread: the request handler
// registers and unregisters on the service's thread while the event pusher
// sends from its own. Owns the sockets.
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "util/socket_client.h"

namespace zel::sim {

class EventPaths {
 public:
  enum class Registration {
    Added,
    AlreadyRegistered,
    Unreachable,  // nothing receives at the path: not registered
  };
  enum class Delivery {
    Sent,
    QueueFull,  // the receiver is not reading; this event is skipped
    Gone,       // the receiver's socket is closed; the path is forgotten
  };
  struct Report {
    std::string path;
    Delivery delivery;
  };

  EventPaths() = default;
  EventPaths(const EventPaths&) = delete;
  EventPaths& operator=(const EventPaths&) = delete;

  Registration Register(const std::string& path);
  // True when the path was registered.
  bool Unregister(const std::string& path);
  size_t Count() const;
  std::vector<std::string> Paths() const;

  // Sends one datagram to every registered path without ever blocking: a
  // receiver whose queue is full misses it, a closed one is forgotten.
  std::vector<Report> SendToAll(const std::string& line);

 private:
  static Delivery SendWithoutBlocking(zel::util::SocketClient& sender, const std::string& line);

  mutable std::mutex mMutex;  // guards mSenders
  std::map<std::string, std::unique_ptr<zel::util::SocketClient>> mSenders;
};

}  // namespace zel::sim
