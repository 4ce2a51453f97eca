#include "tests/util/inbox.h"

namespace zel::util::testkit {

DataCallback Inbox::Callback() {
  return [this](int serverFd, int clientFd, std::string peer, void* data, size_t len) {
    const char* bytes = static_cast<const char*>(data);
    {
      std::lock_guard<std::mutex> lock(mMutex);
      mDeliveries.push_back(Delivery{serverFd, clientFd, std::move(peer), std::string(bytes, len), bytes[len]});
    }
    mChanged.notify_all();
    return true;
  };
}

ConnectCallback Inbox::ConnectCb() {
  return [this](int serverFd, int clientFd, std::string peer) {
    {
      std::lock_guard<std::mutex> lock(mMutex);
      mConnections.push_back(Connection{serverFd, clientFd, std::move(peer)});
    }
    mChanged.notify_all();
  };
}

std::vector<Delivery> Inbox::Deliveries() {
  std::lock_guard<std::mutex> lock(mMutex);
  return mDeliveries;
}

std::vector<Connection> Inbox::Connections() {
  std::lock_guard<std::mutex> lock(mMutex);
  return mConnections;
}

bool Inbox::WaitForDeliveries(size_t count, std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(mMutex);
  return mChanged.wait_for(lock, timeout, [&] { return mDeliveries.size() >= count; });
}

bool Inbox::WaitForConnections(size_t count, std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(mMutex);
  return mChanged.wait_for(lock, timeout, [&] { return mConnections.size() >= count; });
}

}  // namespace zel::util::testkit
