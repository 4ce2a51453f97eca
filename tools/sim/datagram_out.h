// Sends one datagram without ever waiting for its receiver: when there is no
// room for it (a client does not read), the datagram is lost instead of
// holding up the service for every other client. Stateless; any thread.
#pragma once

#include <string>

namespace zel::sim {

class DatagramOut {
 public:
  enum class Outcome {
    Sent,
    // No room: the receiver's queue is full or, for a receiver connected to
    // the sender, the sender's buffer of datagrams not yet read is. Lost.
    NoRoom,
    // Nothing receives there, or the send failed otherwise.
    Failed,
  };

  // From the socket `fd` to the Unix socket path `dest`.
  static Outcome SendTo(int fd, const std::string& dest, const std::string& bytes);
  // Over the connected socket `fd`.
  static Outcome Send(int fd, const std::string& bytes);
  // Bytes that `fd` has sent and its receivers have not read yet.
  static int Unread(int fd);
};

}  // namespace zel::sim
