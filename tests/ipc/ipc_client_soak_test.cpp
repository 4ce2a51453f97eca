// A short soak: a few thousand requests and events through the IPC client,
// and requests through the handle-based binding, leave the process with the
// descriptors, threads and socket files it had before. Counts, not times; the
// long version with its rates is the soak program among the benchmarks.
#include <algorithm>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "ipc/client_handle.h"
#include "ipc/ipc_client.h"
#include "tests/ipc/client_test_env.h"
#include "tests/support/wait_until.h"

namespace zel::test {
namespace {

using zel::ipc::IPCClient;

constexpr int kRequests = 2000;
constexpr int kEvents = 2000;

// What a leak would make grow: open descriptors, threads, and the files in
// the test's directory (the service's socket and the client's sockets).
struct Footprint {
  size_t descriptors = 0;
  size_t threads = 0;
  std::vector<std::string> files;

  bool operator==(const Footprint& other) const {
    return descriptors == other.descriptors && threads == other.threads && files == other.files;
  }
};

std::vector<std::string> Names(const std::string& dir) {
  std::vector<std::string> names;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(dir, error)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string Describe(const Footprint& footprint) {
  std::string text =
      std::to_string(footprint.descriptors) + " descriptors, " + std::to_string(footprint.threads) + " threads, files:";
  for (const std::string& name : footprint.files) text += " " + name;
  return text;
}

class ClientSoakTest : public ClientTest {
 protected:
  Footprint Now() const { return Footprint{Names("/proc/self/fd").size(), ThreadCount(), Names(mDir.path())}; }

  // Joined threads and closed descriptors can stay listed for a moment under
  // an emulator, so the footprint is waited for rather than read once.
  bool ComesBackTo(const Footprint& before, Footprint& after) const {
    return WaitUntil([&] {
      after = Now();
      return after == before;
    });
  }
};

TEST_F(ClientSoakTest, RequestsAndEventsThroughAClientLeaveNoDescriptorThreadOrSocketFileBehind) {
  const Footprint before = Now();
  {
    EventSink events;
    IPCClient client;
    ASSERT_TRUE(client.SetLocalPath(mService.path(), mDir.path(), events.Callback()));
    const std::string eventPath = SlotPath(mDir.path(), 0) + "-event";
    std::thread sender([&] {
      for (int i = 0; i < kEvents; ++i) ASSERT_TRUE(mService.SendTo(eventPath, "7\tsoak"));
    });
    int succeeded = 0;
    for (int i = 0; i < kRequests; ++i) succeeded += client.Send(zel::ipc::Ping).code == zel::ipc::ResultSuccess;
    sender.join();
    EXPECT_EQ(succeeded, kRequests);
    EXPECT_TRUE(events.WaitForCount(kEvents)) << events.Events().size() << " events";
  }
  Footprint after;
  EXPECT_TRUE(ComesBackTo(before, after)) << "before: " << Describe(before) << "\nafter: " << Describe(after);
}

TEST_F(ClientSoakTest, RequestsThroughAHandleLeaveNoDescriptorThreadOrSocketFileBehind) {
  const Footprint before = Now();
  IPCClient* handle = zel::ipc::CreateClientHandle(mService.path().c_str(), mDir.path().c_str(), 7u);
  ASSERT_NE(handle, nullptr);
  int succeeded = 0;
  for (int i = 0; i < kRequests; ++i) {
    succeeded += zel::ipc::SendByHandle(handle, zel::ipc::Ping, 0, nullptr).code == zel::ipc::ResultSuccess;
  }
  EXPECT_EQ(succeeded, kRequests);
  EXPECT_TRUE(zel::ipc::DestroyClientHandle(handle));
  Footprint after;
  EXPECT_TRUE(ComesBackTo(before, after)) << "before: " << Describe(before) << "\nafter: " << Describe(after);
}

}  // namespace
}  // namespace zel::test
