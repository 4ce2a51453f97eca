// Soak of the IPC client: many requests through the C++ client while events
// pour into its event socket, then many requests through the C binding, all
// against an in-process service socket that answers at once (so that the
// figures are the client's own cost, not a second process's or its log's).
// Prints requests/s, events/s, and the process's resident memory,
// descriptors and threads at the start, after each phase and at the end.
// Usage: soak [requests] [events]   (defaults 200000 and 100000)
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "bench/soak/process_footprint.h"
#include "bench/support/answering_service.h"
#include "ipc/ipc_client.h"
#include "kendrivex_ipc.h"

namespace {

using Clock = std::chrono::steady_clock;
using zel::bench::AnsweringService;
using zel::bench::ProcessFootprint;

double SecondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

[[noreturn]] void Fail(const std::string& what) {
  // NOLINTNEXTLINE(cert-err33-c): a failed write to standard error has nowhere to be reported
  std::fprintf(stderr, "soak: %s\n", what.c_str());
  // NOLINTNEXTLINE(concurrency-mt-unsafe): a failed step ends the benchmark at once, whatever other threads do
  std::exit(1);
}

void Report(const char* when, const ProcessFootprint& footprint) {
  std::printf("%-34s %s\n", when, footprint.Text().c_str());
}

// The path a client of this process takes in `dir` for `slot`.
std::string SlotPath(const std::string& dir, int slot) {
  return dir + "/ipc_client-" + std::to_string(::getpid()) + "-" + std::to_string(slot);
}

// Sends `count` events to `path` from an unbound socket of its own. A full
// queue at the event socket makes the sender wait, so none is lost.
void SendEvents(const std::string& path, long count) {
  const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  static const char kEvent[] = "7\tsoak event";
  for (long i = 0; i < count; ++i) {
    if (::sendto(fd, kEvent, sizeof kEvent - 1, 0, reinterpret_cast<sockaddr*>(&address), sizeof address) < 0) {
      Fail("an event could not be sent");
    }
  }
  ::close(fd);
}

// Requests through the C++ client on this thread while another thread sends
// events to its event socket.
void SoakClient(const AnsweringService& service, long requests, long events) {
  std::atomic<long> delivered{0};
  // When the last event arrived, in steady-clock ticks; set on the event thread.
  std::atomic<Clock::rep> lastEvent{0};
  auto onEvent = [&](zel::ipc::IPCEvent&) {
    if (++delivered == events) lastEvent = Clock::now().time_since_epoch().count();
  };
  auto client = std::make_unique<zel::ipc::IPCClient>();
  if (!client->SetLocalPath(service.path(), service.dir(), onEvent)) {
    Fail("the C++ client could not be set up");
  }
  Report("C++ client set up:", ProcessFootprint::Now());

  const Clock::time_point start = Clock::now();
  std::thread sender([&] { SendEvents(SlotPath(service.dir(), 0) + "-event", events); });
  for (long i = 0; i < requests; ++i) {
    if (client->Send(zel::ipc::Ping).code != zel::ipc::ResultSuccess) Fail("a request through the client failed");
  }
  const double requestSeconds = SecondsSince(start);
  sender.join();
  while (delivered < events) {
    if (SecondsSince(start) > requestSeconds + 60) Fail("events were lost");
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  const double eventSeconds =
      std::chrono::duration<double>(Clock::time_point(Clock::duration(lastEvent.load())) - start).count();
  std::printf("C++ client: %ld requests in %.2f s: %.0f requests/s\n", requests, requestSeconds,
              static_cast<double>(requests) / requestSeconds);
  if (events > 0) {
    std::printf("C++ client: %ld events in %.2f s, while the requests ran: %.0f events/s\n", events, eventSeconds,
                static_cast<double>(events) / eventSeconds);
  }
  Report("C++ client after its soak:", ProcessFootprint::Now());
  client.reset();
  Report("C++ client destroyed:", ProcessFootprint::Now());
}

// Requests through the C binding, from making its client to destroying it.
void SoakBinding(const AnsweringService& service, long requests) {
  kdx_ipc_client* handle = kdx_ipc_create_client(service.path().c_str(), service.dir().c_str(), 0u);
  if (handle == nullptr) Fail("the C binding's client could not be made");
  Report("C binding's client made:", ProcessFootprint::Now());
  const Clock::time_point start = Clock::now();
  for (long i = 0; i < requests; ++i) {
    if (kdx_ipc_send(handle, KDX_IPC_PING, 0, nullptr).code != KDX_IPC_RESULT_SUCCESS) {
      Fail("a request through the C binding failed");
    }
  }
  const double seconds = SecondsSince(start);
  std::printf("C binding: %ld requests in %.2f s: %.0f requests/s\n", requests, seconds,
              static_cast<double>(requests) / seconds);
  Report("C binding after its soak:", ProcessFootprint::Now());
  if (kdx_ipc_destroy_client(handle) != KDX_IPC_OK) Fail("the C binding's client could not be destroyed");
  Report("C binding's client destroyed:", ProcessFootprint::Now());
}

long Argument(int argc, char** argv, int index, long fallback) {
  return argc > index ? std::strtol(argv[index], nullptr, 10) : fallback;
}

}  // namespace

int main(int argc, char** argv) {
  const long requests = Argument(argc, argv, 1, 200000);
  const long events = Argument(argc, argv, 2, 100000);
  Report("start:", ProcessFootprint::Now());
  {
    AnsweringService service;
    Report("service socket made:", ProcessFootprint::Now());
    SoakClient(service, requests, events);
    SoakBinding(service, requests);
  }
  Report("end (service socket gone):", ProcessFootprint::Now());
  return 0;
}
