#include "tools/sim/event_paths.h"

#include <poll.h>

namespace zel::sim {

using zel::util::SocketClient;
using zel::util::SocketDomain;
using zel::util::SocketType;

EventPaths::Registration EventPaths::Register(const std::string& path) {
  std::lock_guard<std::mutex> lock(mMutex);
  if (mSenders.count(path) != 0) return Registration::AlreadyRegistered;
  // Unbound: events need no answer, so they need no path of their own.
  auto sender = std::make_unique<SocketClient>("", SocketType::Datagram, SocketDomain::Unix, path);
  if (!sender->IsConnected()) return Registration::Unreachable;
  mSenders.emplace(path, std::move(sender));
  return Registration::Added;
}

bool EventPaths::Unregister(const std::string& path) {
  std::lock_guard<std::mutex> lock(mMutex);
  return mSenders.erase(path) != 0;
}

size_t EventPaths::Count() const {
  std::lock_guard<std::mutex> lock(mMutex);
  return mSenders.size();
}

std::vector<std::string> EventPaths::Paths() const {
  std::lock_guard<std::mutex> lock(mMutex);
  std::vector<std::string> paths;
  for (const auto& entry : mSenders) paths.push_back(entry.first);
  return paths;
}

std::vector<EventPaths::Report> EventPaths::SendToAll(const std::string& line) {
  std::lock_guard<std::mutex> lock(mMutex);
  std::vector<Report> reports;
  for (auto it = mSenders.begin(); it != mSenders.end();) {
    const Delivery delivery = SendWithoutBlocking(*it->second, line);
    reports.push_back(Report{it->first, delivery});
    it = delivery == Delivery::Gone ? mSenders.erase(it) : std::next(it);
  }
  return reports;
}

EventPaths::Delivery EventPaths::SendWithoutBlocking(SocketClient& sender, const std::string& line) {
  // A connected datagram socket is writable only while the receiver's queue
  // has room, so the send below cannot block.
  // An error or hang-up is reported at once by the send itself.
  pollfd ready = {sender.GetFd(), POLLOUT, 0};
  if (::poll(&ready, 1, 0) != 1 || (ready.revents & (POLLOUT | POLLERR | POLLHUP)) == 0) {
    return Delivery::QueueFull;
  }
  const ssize_t sent = sender.Send(line);
  return sent == static_cast<ssize_t>(line.size()) ? Delivery::Sent : Delivery::Gone;
}

}  // namespace zel::sim
