// The service's side of the datagram path for a fuzz target: a plain Unix
// datagram socket bound in a fresh directory (where the client under test
// makes its sockets too), which receives requests and sends replies and
// events. Built on POSIX calls only, independent of the code under test.
// One thread at a time; owns the socket and the directory with everything
// in it.
#pragma once

#include <string>

namespace zel::fuzz {

class ServiceSocket {
 public:
  ServiceSocket();
  ~ServiceSocket();
  ServiceSocket(const ServiceSocket&) = delete;
  ServiceSocket& operator=(const ServiceSocket&) = delete;

  const std::string& Dir() const { return mDir; }
  const std::string& Path() const { return mPath; }

  // Sends `bytes` as one datagram to the socket at `path`, waiting while the
  // receiver's queue is full; true when it went out whole.
  bool SendTo(const std::string& path, const std::string& bytes);
  // Receives one datagram and its sender's path, waiting at most
  // `timeoutMs`; false when none came.
  bool Receive(std::string& bytes, std::string& sender, int timeoutMs);

 private:
  std::string mDir;
  std::string mPath;
  int mFd = -1;
};

}  // namespace zel::fuzz
