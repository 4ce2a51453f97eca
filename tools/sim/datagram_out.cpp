#include "tools/sim/datagram_out.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

namespace zel::sim {
namespace {

// MSG_DONTWAIT makes a full receiver queue an error (EAGAIN) rather than a
// wait; the socket itself stays blocking for everything else.
DatagramOut::Outcome OutcomeOf(ssize_t sent, size_t size) {
  if (sent == static_cast<ssize_t>(size)) return DatagramOut::Outcome::Sent;
  if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return DatagramOut::Outcome::NoRoom;
  return DatagramOut::Outcome::Failed;
}

}  // namespace

DatagramOut::Outcome DatagramOut::SendTo(int fd, const std::string& dest, const std::string& bytes) {
  sockaddr_un address{};
  if (dest.size() >= sizeof(address.sun_path)) return Outcome::Failed;
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, dest.data(), dest.size());
  ssize_t sent;
  do {
    sent = ::sendto(fd, bytes.data(), bytes.size(), MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(&address),
                    sizeof(address));
  } while (sent < 0 && errno == EINTR);
  return OutcomeOf(sent, bytes.size());
}

DatagramOut::Outcome DatagramOut::Send(int fd, const std::string& bytes) {
  ssize_t sent;
  do {
    sent = ::send(fd, bytes.data(), bytes.size(), MSG_DONTWAIT);
  } while (sent < 0 && errno == EINTR);
  return OutcomeOf(sent, bytes.size());
}

int DatagramOut::Unread(int fd) {
  int bytes = 0;
  return ::ioctl(fd, SIOCOUTQ, &bytes) == 0 ? bytes : -1;
}

}  // namespace zel::sim
