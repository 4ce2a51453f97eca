// A stand-in for the device-control service in benchmarks: a Unix datagram
// socket in a fresh directory whose thread answers "1\tPONG" to every
// datagram at once (so registrations succeed too), until it is destroyed.
// Built on POSIX calls only. Owns its socket, thread and directory.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

namespace zel::bench {

class AnsweringService {
 public:
  AnsweringService();
  ~AnsweringService();
  AnsweringService(const AnsweringService&) = delete;
  AnsweringService& operator=(const AnsweringService&) = delete;

  // The directory, where clients make their sockets too.
  const std::string& dir() const { return mDir; }
  const std::string& path() const { return mPath; }
  // Datagrams answered so far.
  uint64_t Answered() const { return mAnswered; }

 private:
  void Serve();

  std::string mDir;
  std::string mPath;
  int mFd = -1;
  int mStop[2] = {-1, -1};
  std::atomic<uint64_t> mAnswered{0};
  std::thread mThread;
};

}  // namespace zel::bench
