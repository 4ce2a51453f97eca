// Collects what a socket server hands to its callbacks, for the util tests.
// Filled on the monitor thread and read by the test thread under one lock.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

#include "util/socket_server.h"

namespace zel::util::testkit {

struct Delivery {
  int serverFd;
  int clientFd;
  std::string peer;
  std::string data;
  // The byte just after the data, as the callback saw it.
  char after;
};

struct Connection {
  int serverFd;
  int clientFd;
  std::string peer;
};

class Inbox {
 public:
  // A data callback that records into this inbox.
  DataCallback Callback();
  ConnectCallback ConnectCb();

  std::vector<Delivery> Deliveries();
  std::vector<Connection> Connections();
  bool WaitForDeliveries(size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(10));
  bool WaitForConnections(size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(10));

 private:
  std::mutex mMutex;  // guards mDeliveries and mConnections
  std::condition_variable mChanged;
  std::vector<Delivery> mDeliveries;
  std::vector<Connection> mConnections;
};

}  // namespace zel::util::testkit
