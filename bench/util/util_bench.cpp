// Costs of the socket layer and the event loop: a datagram round trip through
// a socket server's monitor thread, the monitor's wake-up for a readable
// descriptor, and a plain connected send and receive as the baseline.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "util/fd_monitor.h"
#include "util/socket.h"
#include "util/socket_client.h"
#include "util/socket_server.h"

namespace {

using zel::util::FdMonitor;
using zel::util::FdType;
using zel::util::Socket;
using zel::util::SocketClient;
using zel::util::SocketDomain;
using zel::util::SocketServer;
using zel::util::SocketType;

// A scratch directory for the socket files of one benchmark.
class ScratchDir {
 public:
  ScratchDir() {
    char pattern[] = "/tmp/kdxb-XXXXXX";
    mPath = mkdtemp(pattern) != nullptr ? pattern : "/tmp";
  }
  ~ScratchDir() { rmdir(mPath.c_str()); }
  std::string File(const std::string& name) const { return mPath + "/" + name; }

 private:
  std::string mPath;
};

// Client → server → echo back to the client's path, all Unix datagrams.
void BM_DatagramRoundTrip(benchmark::State& state) {
  ScratchDir dir;
  const size_t size = static_cast<size_t>(state.range(0));
  // The client is connected to the server, so the reply must come from the
  // server's own socket; the callback reaches it once it exists.
  std::atomic<SocketServer*> self{nullptr};
  SocketServer server(dir.File("srv"), SocketType::Datagram, SocketDomain::Unix,
                      [&self](int, int, const std::string& peer, void* data, size_t len) {
                        return self.load()->SendTo(peer, std::string(static_cast<char*>(data), len)) > 0;
                      });
  self = &server;
  SocketClient client(dir.File("cli"), SocketType::Datagram, SocketDomain::Unix, dir.File("srv"));
  std::vector<char> out(size, 'r');
  std::vector<char> in(size + 1);
  for ([[maybe_unused]] auto _ : state) {
    client.Send(out.data(), out.size());
    const ssize_t n = client.RecvTimedWait(in.data(), in.size(), 5000000);
    if (n != static_cast<ssize_t>(size)) state.SkipWithError("lost datagram");
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(size));
}
BENCHMARK(BM_DatagramRoundTrip)->Arg(16)->Arg(1024)->Arg(8192)->UseRealTime();

// Time from a descriptor becoming readable to its callback having run.
void BM_FdMonitorDispatch(benchmark::State& state) {
  int fds[2];
  if (pipe(fds) != 0) {
    state.SkipWithError("pipe failed");
    return;
  }
  std::mutex mutex;
  std::condition_variable done;
  uint64_t calls = 0;
  {
    FdMonitor monitor;
    monitor.AddFd(fds[0], FdType::Read, [&](int fd, FdType) {
      char byte;
      if (read(fd, &byte, 1) != 1) return;
      {
        std::lock_guard<std::mutex> lock(mutex);
        ++calls;
      }
      done.notify_one();
    });
    uint64_t expected = 0;
    for ([[maybe_unused]] auto _ : state) {
      ++expected;
      if (write(fds[1], "x", 1) != 1) state.SkipWithError("write failed");
      std::unique_lock<std::mutex> lock(mutex);
      done.wait(lock, [&] { return calls == expected; });
    }
  }
  close(fds[0]);
  close(fds[1]);
}
BENCHMARK(BM_FdMonitorDispatch)->UseRealTime();

// The baseline without a monitor thread: connected send, then receive.
void BM_ConnectedSendRecv(benchmark::State& state) {
  ScratchDir dir;
  Socket server(dir.File("srv"), SocketType::Datagram, SocketDomain::Unix);
  SocketClient client(dir.File("cli"), SocketType::Datagram, SocketDomain::Unix, dir.File("srv"));
  char buffer[64];
  for ([[maybe_unused]] auto _ : state) {
    client.Send("0123456789abcdef", 16);
    benchmark::DoNotOptimize(server.Recv(buffer, sizeof(buffer)));
  }
}
BENCHMARK(BM_ConnectedSendRecv);

// Adding and removing a descriptor from another thread: lock, table change
// and one eventfd command each.
void BM_FdMonitorAddRemove(benchmark::State& state) {
  int fds[2];
  if (pipe(fds) != 0) {
    state.SkipWithError("pipe failed");
    return;
  }
  {
    FdMonitor monitor;
    for ([[maybe_unused]] auto _ : state) {
      monitor.AddFd(fds[0], FdType::Read, [](int, FdType) {});
      monitor.RemoveFd(fds[0], FdType::Read);
    }
  }
  close(fds[0]);
  close(fds[1]);
}
BENCHMARK(BM_FdMonitorAddRemove);

}  // namespace
