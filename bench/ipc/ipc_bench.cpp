// Throughput of the line format and the cost of one request/reply exchange
// against an in-process service socket that answers every request at once.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>

#include "benchmark/benchmark.h"
#include "ipc/field_split.h"
#include "ipc/ipc_client.h"
#include "ipc/ipc_message.h"

namespace {

using namespace zel::ipc;

std::string ManyFieldReply() {
  std::string reply = "1";
  for (int i = 0; i < 12; ++i) reply += "\tstation-00:11:22:33:44:" + std::to_string(10 + i);
  return reply;
}

void BM_SplitFields(benchmark::State& state) {
  const std::string line = ManyFieldReply();
  for (auto _ : state) benchmark::DoNotOptimize(SplitFields(line, '\t'));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * line.size()));
}
BENCHMARK(BM_SplitFields);

void BM_ParseReplyPong(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(ParseReply("1\tPONG"));
}
BENCHMARK(BM_ParseReplyPong);

void BM_ParseReplyTwelveArguments(benchmark::State& state) {
  const std::string line = ManyFieldReply();
  for (auto _ : state) benchmark::DoNotOptimize(ParseReply(line));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * line.size()));
}
BENCHMARK(BM_ParseReplyTwelveArguments);

void BM_FormatRequestRegistration(benchmark::State& state) {
  const IPCRequest request{RegisterEventPath, {"/tmp/ipc_client-812-0-event"}};
  for (auto _ : state) benchmark::DoNotOptimize(FormatRequest(request));
}
BENCHMARK(BM_FormatRequestRegistration);

void BM_JoinFieldsRegistration(benchmark::State& state) {
  const std::vector<std::string> fields{"4", "/tmp/ipc_client-812-0-event"};
  for (auto _ : state) benchmark::DoNotOptimize(JoinFields(fields, '\t'));
}
BENCHMARK(BM_JoinFieldsRegistration);

// A service socket in a fresh directory whose thread answers "1\tPONG" to
// every datagram until it is destroyed.
class AnsweringService {
 public:
  AnsweringService() {
    char pattern[] = "/tmp/kdx-bench-XXXXXX";
    if (mkdtemp(pattern) == nullptr) std::abort();
    mDir = pattern;
    mPath = mDir + "/service";
    mFd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, mPath.c_str(), sizeof address.sun_path - 1);
    if (::bind(mFd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) std::abort();
    if (::pipe(mStop) != 0) std::abort();
    mThread = std::thread([this] { Serve(); });
  }

  ~AnsweringService() {
    const char stop = 's';
    if (::write(mStop[1], &stop, 1) != 1) std::abort();
    mThread.join();
    ::close(mFd);
    ::close(mStop[0]);
    ::close(mStop[1]);
    std::filesystem::remove_all(mDir);
  }

  const std::string& dir() const { return mDir; }
  const std::string& path() const { return mPath; }

 private:
  void Serve() {
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
    }
  }

  std::string mDir;
  std::string mPath;
  int mFd = -1;
  int mStop[2] = {-1, -1};
  std::thread mThread;
};

void BM_PingRoundTrip(benchmark::State& state) {
  AnsweringService service;
  IPCClient client;
  if (!client.SetLocalPath(service.path(), service.dir(), nullptr)) {
    state.SkipWithError("set-up failed");
    return;
  }
  for (auto _ : state) {
    const IPCResult result = client.Send(Ping);
    if (result.code != ResultSuccess) {
      state.SkipWithError("ping failed");
      break;
    }
  }
}
BENCHMARK(BM_PingRoundTrip)->UseRealTime();

}  // namespace
