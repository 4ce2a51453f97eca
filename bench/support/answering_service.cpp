#include "bench/support/answering_service.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace zel::bench {

AnsweringService::AnsweringService() {
  char pattern[] = "/tmp/kdx-bench-XXXXXX";
  if (mkdtemp(pattern) == nullptr) std::abort();
  mDir = pattern;
  mPath = mDir + "/service";
  mFd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, mPath.c_str(), sizeof address.sun_path - 1);
  if (::bind(mFd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) std::abort();
  if (::pipe2(mStop, O_CLOEXEC) != 0) std::abort();
  mThread = std::thread([this] { Serve(); });
}

AnsweringService::~AnsweringService() {
  const char stop = 's';
  if (::write(mStop[1], &stop, 1) != 1) std::abort();
  mThread.join();
  ::close(mFd);
  ::close(mStop[0]);
  ::close(mStop[1]);
  std::filesystem::remove_all(mDir);
}

void AnsweringService::Serve() {
  char buffer[8192];
  while (true) {
    pollfd fds[2] = {
        {mFd,      POLLIN, 0},
        {mStop[0], POLLIN, 0}
    };
    ::poll(fds, 2, -1);
    if (fds[1].revents != 0) return;
    sockaddr_un sender{};
    socklen_t length = sizeof sender;
    if (::recvfrom(mFd, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&sender), &length) < 0) {
      continue;
    }
    static const char kReply[] = "1\tPONG";
    ::sendto(mFd, kReply, sizeof kReply - 1, 0, reinterpret_cast<sockaddr*>(&sender), length);
    ++mAnswered;
  }
}

}  // namespace zel::bench
