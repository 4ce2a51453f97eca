#include "tools/sim/event_paths.h"

#include "tools/sim/datagram_out.h"

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
  switch (DatagramOut::Send(sender.GetFd(), line)) {
    case DatagramOut::Outcome::Sent:
      return Delivery::Sent;
    case DatagramOut::Outcome::NoRoom:
      return Delivery::QueueFull;
    case DatagramOut::Outcome::Failed:
      break;
  }
  return Delivery::Gone;
}

}  // namespace zel::sim
