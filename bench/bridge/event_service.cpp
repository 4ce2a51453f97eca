// A stand-in for the device-control service in kendrivex-bridge's event
// benchmark (bench/bridge/bridge_bench.sh): it binds PATH, answers pings
// ("1\tPONG"), registrations and unregistrations ("1") and anything else
// ("2"), and pushes COUNT events ("7\tbench event") to every registered
// event socket: on SIGUSR1 as fast as they are taken, on SIGUSR2 at RATE a
// second. A full socket queue makes it wait, so none is lost on the way to
// the bridge. It prints how long each push took, and ends on SIGTERM or
// SIGINT, removing its socket.
// Usage: bridge_event_service PATH COUNT [RATE]. POSIX calls only.
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

const char kEvent[] = "7\tbench event";
// How long a paced push sleeps when it is ahead of its schedule.
constexpr std::chrono::microseconds kPause(500);

[[noreturn]] void Fail(const std::string& what) {
  char reason[256];
  // NOLINTNEXTLINE(cert-err33-c): a failed write to standard error has nowhere to be reported
  std::fprintf(stderr, "bridge_event_service: %s: %s\n", what.c_str(), ::strerror_r(errno, reason, sizeof reason));
  std::exit(2);  // NOLINT(concurrency-mt-unsafe): the program has one thread
}

sockaddr_un Address(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) Fail("path too long: " + path);
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return address;
}

// The reply to one request; a registration adds its path to `paths`, an
// unregistration removes it.
std::string Answer(const std::string& request, std::set<std::string>& paths) {
  if (request == "1") return "1\tPONG";
  if (request.size() > 2 && request[1] == '\t' && (request[0] == '4' || request[0] == '5')) {
    const std::string path = request.substr(2);
    if (request[0] == '4') {
      paths.insert(path);
    } else {
      paths.erase(path);
    }
    return "1";
  }
  return "2";
}

// How many events are due `elapsed` after the start of a push at `rate` a
// second (all of them when the rate is 0).
uint64_t Due(Clock::duration elapsed, uint64_t rate, uint64_t count) {
  if (rate == 0) return count;
  const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(elapsed).count();
  const uint64_t due = static_cast<uint64_t>(micros) * rate / 1000000 + 1;
  return due < count ? due : count;
}

void Push(int fd, const std::set<std::string>& paths, uint64_t count, uint64_t rate) {
  const Clock::time_point start = Clock::now();
  std::vector<sockaddr_un> addresses;
  addresses.reserve(paths.size());
  for (const std::string& path : paths) addresses.push_back(Address(path));
  uint64_t sent = 0;
  while (sent < count) {
    const uint64_t due = Due(Clock::now() - start, rate, count);
    if (sent == due) {
      ::usleep(static_cast<useconds_t>(kPause.count()));
      continue;
    }
    for (; sent < due; ++sent) {
      for (const sockaddr_un& address : addresses) {
        if (::sendto(fd, kEvent, sizeof kEvent - 1, 0, reinterpret_cast<const sockaddr*>(&address), sizeof address) <
            0) {
          Fail(std::string("cannot push an event to ") + address.sun_path);
        }
      }
    }
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  std::printf("pushed=%llu paths=%zu seconds=%.3f rate_per_s=%.0f\n", static_cast<unsigned long long>(count),
              paths.size(), seconds, static_cast<double>(count) / seconds);
  // NOLINTNEXTLINE(cert-err33-c): the script reads the line once the push is over; nothing to do if it fails
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3 && argc != 4) {
    // NOLINTNEXTLINE(cert-err33-c): a failed write to standard error has nowhere to be reported
    std::fputs("usage: bridge_event_service PATH COUNT [RATE]\n", stderr);
    return 2;
  }
  const std::string path = argv[1];
  const uint64_t count = std::strtoull(argv[2], nullptr, 10);
  const uint64_t rate = argc == 4 ? std::strtoull(argv[3], nullptr, 10) : 0;

  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGUSR1);
  sigaddset(&signals, SIGUSR2);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  if (pthread_sigmask(SIG_BLOCK, &signals, nullptr) != 0) Fail("pthread_sigmask");
  const int signalFd = ::signalfd(-1, &signals, SFD_CLOEXEC);
  if (signalFd < 0) Fail("signalfd");

  const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const sockaddr_un address = Address(path);
  if (fd < 0 || ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) Fail("cannot bind");

  std::set<std::string> paths;
  char buffer[8192];
  while (true) {
    pollfd fds[2] = {
        {fd,       POLLIN, 0},
        {signalFd, POLLIN, 0}
    };
    if (::poll(fds, 2, -1) < 0) continue;
    if ((fds[1].revents & POLLIN) != 0) {
      signalfd_siginfo info{};
      if (::read(signalFd, &info, sizeof info) != sizeof info) continue;
      if (info.ssi_signo != SIGUSR1 && info.ssi_signo != SIGUSR2) break;
      Push(fd, paths, count, info.ssi_signo == SIGUSR2 ? rate : 0);
    }
    if ((fds[0].revents & POLLIN) != 0) {
      sockaddr_un sender{};
      socklen_t length = sizeof sender;
      const ssize_t size = ::recvfrom(fd, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&sender), &length);
      if (size < 0) continue;
      const std::string reply = Answer(std::string(buffer, static_cast<size_t>(size)), paths);
      ::sendto(fd, reply.data(), reply.size(), 0, reinterpret_cast<const sockaddr*>(&sender), length);
    }
  }
  ::close(fd);
  ::unlink(path.c_str());
  return 0;
}
