// The fixture of kendrivex-bridge's end-to-end tests: the real program run as
// a service manager runs it (standard output and standard error apart, its
// system log captured in a file), a Mosquitto broker of the test's own, the
// device-service simulator or a scripted fake service, and MQTT clients of
// the test. Everything lives in one fresh directory per test. One thread at
// a time.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "tests/support/fake_service.h"
#include "tests/support/mqtt_broker.h"
#include "tests/support/mqtt_test_client.h"
#include "tests/support/pipe_process.h"
#include "tests/support/sim_process.h"
#include "tests/support/temp_dir.h"

namespace zel::bridge::test {

using ::zel::test::FakeService;
using ::zel::test::MqttBroker;
using ::zel::test::MqttTestClient;
using ::zel::test::PipeProcess;
using ::zel::test::SimProcess;
using ::zel::test::TempDir;
using Message = MqttTestClient::Message;
using Result = PipeProcess::Result;

// How long a stop may take: 2 s, or 6 s when the unregistration goes
// unanswered, and more behind a launcher (an emulator or valgrind), whose
// slowness is not the program's.
std::chrono::milliseconds StopLimit(std::chrono::milliseconds native);

class BridgeTest : public ::testing::Test {
 protected:
  static constexpr const char* kBox = "box1";
  static constexpr const char* kPrefix = "kdx";

  BridgeTest();
  // Stops a bridge still running as a service manager would (SIGTERM), and
  // expects it to end cleanly: every run ends with its clean-up checked.
  void TearDown() override;

  std::string ServicePath() const { return dir.File("svc"); }
  std::string SyslogFile() const { return dir.File("syslog"); }
  // PREFIX/box1/<leaf>
  static std::string Topic(const std::string& leaf);

  void StartBroker();
  // The simulator, serving at ServicePath() with `options`.
  void StartSim(const std::vector<std::string>& options = {});
  // The fake service at ServicePath(), accepting registrations and
  // unregistrations and answering ping with PONG; other commands go
  // unanswered until scripted.
  void StartFake();

  // The program's command line: the service, the directory, the broker, the
  // box and the prefix, then `args`.
  std::vector<std::string> Command(const std::vector<std::string>& args) const;
  // Starts the bridge with `args` after those.
  void StartBridge(const std::vector<std::string>& args = {});
  // Starts it and waits until its status reads "online".
  void StartOnline(const std::vector<std::string>& args = {});
  // Runs it with exactly `args` to its end (no service, broker or box given).
  Result RunBare(const std::vector<std::string>& args) const;
  // Options for the program: its system log captured, no defaults from the
  // environment of the test run.
  PipeProcess::Options Options() const;

  // A client of the broker subscribed to `filters`.
  std::unique_ptr<MqttTestClient> Client(const std::vector<std::string>& filters,
                                         const MqttTestClient::Options& options = MqttTestClient::Options());
  // Waits until the box's status has read "online" `times` times.
  static bool WaitForStatus(const MqttTestClient& client, const std::string& status, size_t times = 1);

  // Sends `payload` as an MQTT 5 request with a response topic of its own
  // and correlation data, and waits for the one reply; its payload, or
  // std::nullopt when none came.
  std::optional<std::string> Ask(const std::string& payload, const std::string& topic = Topic("cmd"),
                                 std::chrono::milliseconds timeout = std::chrono::seconds(10));

  // The event path the bridge registered with the fake service in its
  // `registration`th registration (waited for).
  std::string EventPath(size_t registration = 1);
  // The fields after the command number of a request line.
  static std::string Argument(const std::string& request);

  // The bridge's socket files in the test's directory, which must be gone
  // after a clean stop.
  std::vector<std::string> LeftOver() const;
  // Stops the bridge with `signo` and expects status 0 within `limit`.
  void ExpectCleanStop(int signo, std::chrono::milliseconds limit);
  // Whether the captured system log holds a record with this text.
  bool WaitForLog(const std::string& text, std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
  // Whether it holds a record whose text satisfies `predicate`.
  bool WaitForLogMatching(const std::function<bool(const std::string&)>& predicate,
                          std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

  TempDir dir;
  MqttBroker broker;
  std::unique_ptr<SimProcess> sim;
  std::unique_ptr<FakeService> fake;
  std::unique_ptr<PipeProcess> bridge;
  std::unique_ptr<MqttTestClient> asker;  // Ask's client, made on first use
  int asked = 0;
};

// A burst of events from the fake service, "1\t1" to "1\t<count>", sent to
// the event socket at `path` on a thread of its own. A send waits while the
// socket's queue is full; the first that fails (the socket gone) ends the
// burst. Its end waits for the thread.
class EventBurst {
 public:
  EventBurst(FakeService& service, const std::string& path, int count);
  ~EventBurst();
  EventBurst(const EventBurst&) = delete;
  EventBurst& operator=(const EventBurst&) = delete;

  int Sent() const { return mSent; }
  // Waits until `count` have been sent.
  bool WaitForSent(int count, std::chrono::milliseconds timeout = std::chrono::seconds(60)) const;
  // Waits for the end of the burst; how many were sent.
  int Finish();

 private:
  std::atomic<int> mSent{0};
  std::thread mThread;
};

// The JSON reply of kendrivex-ctl -j for `command` with "box" added.
std::string AnsweredPayload(const std::string& command, int code, const std::vector<std::string>& args,
                            const std::string& box = "box1");
// The error reply.
std::string ErrorPayload(const std::optional<std::string>& command, int status, const std::string& error,
                         const std::string& box = "box1");

}  // namespace zel::bridge::test
