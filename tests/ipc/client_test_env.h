// What the IPC client tests share: a temp dir with a fake service in it that
// answers ping, registration and unregistration at once, an event collector
// for the client's callback, and small probes of the process (socket paths,
// thread count, log records). One test thread drives each object.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "ipc/ipc_client.h"
#include "tests/support/fake_service.h"
#include "tests/support/log_record.h"
#include "tests/support/temp_dir.h"

namespace zel::test {

using Answer = FakeService::Answer;
using std::chrono::milliseconds;
using std::chrono::seconds;

class ClientTest : public ::testing::Test {
 public:
  // The path the client takes in `dir` for `slot`, as this process.
  static std::string SlotPath(const std::string& dir, int slot);

 protected:
  ClientTest();

  // The texts of every request the fake service received, in order.
  std::vector<std::string> RequestTexts() const;

  TempDir mDir;
  FakeService mService;
};

// Collects the events that the client passes to its callback (on the event
// server's thread) so that the test thread can wait for them.
class EventSink {
 public:
  zel::ipc::IPCClient::EventCb Callback();
  bool WaitForCount(size_t count, milliseconds timeout = seconds(10)) const;
  bool WaitFor(const std::function<bool(const std::vector<zel::ipc::IPCEvent>&)>& predicate,
               milliseconds timeout = seconds(10)) const;
  std::vector<zel::ipc::IPCEvent> Events() const;

 private:
  mutable std::mutex mMutex;  // guards mEvents
  mutable std::condition_variable mChanged;
  std::vector<zel::ipc::IPCEvent> mEvents;
};

// A callback that drops every event.
zel::ipc::IPCClient::EventCb IgnoreEvents();
// Threads of this process right now.
size_t ThreadCount();
// Open descriptors of this process right now.
size_t DescriptorCount();
bool FileExists(const std::string& path);
// Creates an empty regular file.
void Touch(const std::string& path);
// True when a record equal to `record` has been logged in this test.
bool HasRecord(const LogRecord& record);
// Log records whose text starts with `prefix`.
std::vector<LogRecord> RecordsStartingWith(const std::string& prefix);
// Handles of the C binding registered right now.
size_t RegistrySize();
// The calling thread's kernel id.
pid_t CurrentTid();
// Waits until thread `tid` of this process sleeps in poll or select (a key
// read, a reply wait), so that a signal sent now cuts that wait short.
bool WaitUntilWaitingInSelect(pid_t tid);
// Seconds between two points in time.
double SecondsBetween(std::chrono::steady_clock::time_point from, std::chrono::steady_clock::time_point to);

// The function texts that the client's log records quote.
extern const char kSetLocalPathText[];
extern const char kSendFormatStringText[];
extern const char kEventServerCbText[];

}  // namespace zel::test
