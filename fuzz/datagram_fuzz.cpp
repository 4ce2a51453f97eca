// Fuzz target: the datagram path of the IPC client. A real client, set up
// once against a service socket of the harness, takes a fuzzed reply to a
// request, and its real event server takes a fuzzed event. Replies and events
// are 0 to 24576 bytes, any bytes, NUL included; the client must read a reply
// up to its first NUL, refuse one that fills its whole 8192-byte buffer, and
// deliver an event exactly when its number is not 0. Every request is
// answered (the reply waits on the client's socket before the request goes
// out), so no input waits for the 5-second reply time-out.
//
// Each of the two datagrams is made from the input in one of two ways: its
// bytes as they are, or a short unit repeated to a chosen length, which makes
// the sizes around the 8192-byte buffer as easy to reach as small ones.
#include <fuzzer/FuzzedDataProvider.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "fuzz/require.h"
#include "fuzz/service_socket.h"
#include "ipc/ipc_client.h"
#include "ipc/ipc_message.h"

namespace {

using namespace zel::ipc;
using zel::fuzz::Require;
using zel::fuzz::ServiceSocket;

// The client's receive buffer: a reply or event is cut to this size.
constexpr size_t kBufferSize = 8192;
constexpr size_t kMaxRepeatedLength = 3 * kBufferSize;
constexpr size_t kMaxUnitLength = 16;
constexpr int kWaitMs = 10000;

// The text the client takes from a datagram: cut to the buffer, then up to
// the first zero byte.
std::string TextOf(const std::string& datagram) {
  const std::string kept = datagram.substr(0, kBufferSize);
  return kept.substr(0, kept.find('\0'));
}

std::string Payload(FuzzedDataProvider& input) {
  if (!input.ConsumeBool()) return input.ConsumeRandomLengthString();
  const size_t length = input.ConsumeIntegralInRange<size_t>(0, kMaxRepeatedLength);
  std::string unit = input.ConsumeRandomLengthString(kMaxUnitLength);
  if (unit.empty()) unit = "x";
  std::string payload;
  payload.reserve(length + unit.size());
  while (payload.size() < length) payload += unit;
  payload.resize(length);
  return payload;
}

bool SameEvent(const IPCEvent& a, const IPCEvent& b) { return a.id == b.id && a.args == b.args; }

// The client and the service socket it talks to, set up on first use and
// kept for the whole run; events arrive on the client's event thread.
class DatagramPath {
 public:
  DatagramPath() {
    // The registration is answered from a thread, while the set-up waits.
    std::string registration;
    std::thread answer([&] {
      std::string sender;
      Require(mService.Receive(registration, sender, kWaitMs), "the client registers its event socket");
      Require(mService.SendTo(sender, "1"), "the registration is answered");
      mClientPath = sender;
    });
    const bool ready =
        mClient->SetLocalPath(mService.Path(), mService.Dir(), [this](IPCEvent& event) { Record(event); });
    answer.join();
    Require(ready, "the client sets up against the service socket");
    Require(registration == "4\t" + mClientPath + "-event", "the registration names the event socket");
    mEventPath = mClientPath + "-event";
  }

  ~DatagramPath() {
    // Answered before it is asked, so that ending the run does not wait out
    // the reply time-out of the client's unregistration.
    mService.SendTo(mClientPath, "1");
    mClient.reset();
  }

  void CheckReply(const std::string& reply) {
    Require(mService.SendTo(mClientPath, reply), "the reply goes out");
    const IPCResult result = mClient->Send(Ping);
    std::string request;
    std::string sender;
    Require(mService.Receive(request, sender, kWaitMs) && request == "1", "the client sends the ping request");

    const std::string text = TextOf(reply);
    if (reply.empty() || text.size() == kBufferSize) {
      Require(result.code == ResultIoFailure && result.args.empty(), "an empty or unterminated reply fails");
      return;
    }
    const IPCResult expected = ParseReply(text);
    Require(result.code == expected.code && result.args == expected.args, "the reply is parsed up to its NUL");
  }

  void CheckEvent(const std::string& event) {
    std::vector<IPCEvent> expected;
    // A datagram of no bytes is not handed on at all.
    if (!event.empty()) {
      IPCEvent parsed = ParseEvent(TextOf(event));
      if (parsed.id != 0) expected.push_back(std::move(parsed));
    }
    // A marker event behind the fuzzed one shows when the server is done
    // with it: datagrams arrive in order, and one thread hands them on.
    const std::string marker = "9\tmarker-" + std::to_string(++mMarkers);
    expected.push_back(ParseEvent(marker));

    {
      std::lock_guard<std::mutex> lock(mMutex);
      mEvents.clear();
    }
    Require(mService.SendTo(mEventPath, event), "the event goes out");
    Require(mService.SendTo(mEventPath, marker), "the marker event goes out");
    std::unique_lock<std::mutex> lock(mMutex);
    const bool arrived = mArrived.wait_for(lock, std::chrono::milliseconds(kWaitMs), [&] {
      return mEvents.size() >= expected.size() && SameEvent(mEvents.back(), expected.back());
    });
    Require(arrived, "the event server hands on the marker event");
    Require(mEvents.size() == expected.size(), "only events with a number other than 0 are handed on");
    for (size_t i = 0; i < expected.size(); ++i) {
      // cppcheck-suppress containerOutOfBounds ; the event thread filled it, and the size was required above
      Require(SameEvent(mEvents[i], expected[i]), "an event is parsed up to its NUL");
    }
  }

 private:
  void Record(const IPCEvent& event) {
    std::lock_guard<std::mutex> lock(mMutex);
    mEvents.push_back(event);
    mArrived.notify_all();
  }

  ServiceSocket mService;
  std::unique_ptr<IPCClient> mClient = std::make_unique<IPCClient>();
  std::string mClientPath;
  std::string mEventPath;
  size_t mMarkers = 0;
  std::mutex mMutex;  // guards mEvents, filled on the client's event thread
  std::condition_variable mArrived;
  std::vector<IPCEvent> mEvents;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static DatagramPath path;
  FuzzedDataProvider input(data, size);
  const std::string reply = Payload(input);
  const std::string event = Payload(input);
  path.CheckReply(reply);
  path.CheckEvent(event);
  return 0;
}
