#include "tests/tools/bridge/bridge_test.h"

#include <dirent.h>
#include <signal.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "kdx_test_paths.h"
#include "tests/support/launcher.h"
#include "tests/support/syslog_file.h"
#include "tests/support/wait_until.h"

namespace zel::bridge::test {
namespace {

using ::zel::test::LogRecord;

// Behind a launcher every step is several times slower.
constexpr int kLauncherSlowdown = 5;

}  // namespace

std::chrono::milliseconds StopLimit(std::chrono::milliseconds native) {
  return ::zel::test::LauncherCommand().empty() ? native : native * kLauncherSlowdown;
}

std::string AnsweredPayload(const std::string& command, int code, const std::vector<std::string>& args,
                            const std::string& box) {
  nlohmann::ordered_json object;
  object["command"] = command;
  object["code"] = code;
  object["args"] = args;
  object["box"] = box;
  return object.dump();
}

std::string ErrorPayload(const std::optional<std::string>& command, int status, const std::string& error,
                         const std::string& box) {
  nlohmann::ordered_json object;
  object["box"] = box;
  object["command"] = command ? nlohmann::ordered_json(*command) : nlohmann::ordered_json(nullptr);
  object["status"] = status;
  object["error"] = error;
  return object.dump();
}

EventBurst::EventBurst(FakeService& service, const std::string& path, int count)
    : mThread([this, &service, path, count] {
        for (int i = 1; i <= count && service.SendTo(path, "1\t" + std::to_string(i)); ++i) ++mSent;
      }) {}

EventBurst::~EventBurst() { Finish(); }

bool EventBurst::WaitForSent(int count, std::chrono::milliseconds timeout) const {
  return ::zel::test::WaitUntil([&] { return mSent >= count; }, timeout);
}

int EventBurst::Finish() {
  if (mThread.joinable()) mThread.join();
  return mSent;
}

BridgeTest::BridgeTest() : broker(dir.path()) {}

void BridgeTest::TearDown() {
  if (!bridge || bridge->WaitForExit(std::chrono::milliseconds(0))) return;
  bridge->Signal(SIGTERM);
  const Result result = bridge->Finish(StopLimit(std::chrono::seconds(6)));
  EXPECT_EQ(result.exitCode, 0) << result.err;
}

std::string BridgeTest::Topic(const std::string& leaf) { return std::string(kPrefix) + "/" + kBox + "/" + leaf; }

void BridgeTest::StartBroker() { ASSERT_TRUE(broker.Start()) << broker.Log(); }

void BridgeTest::StartSim(const std::vector<std::string>& options) {
  sim = std::make_unique<SimProcess>(KDX_SIM_PATH, ServicePath(), dir.File("sim.log"), dir.File("sim.syslog"), options);
  ASSERT_TRUE(sim->WaitUntilServing());
}

void BridgeTest::StartFake() {
  // The old one removes its socket file as it goes: before the new one is made.
  fake.reset();
  fake = std::make_unique<FakeService>(ServicePath());
  fake->Script(1, FakeService::Answer::Reply("1\tPONG"));
  fake->Script(4, FakeService::Answer::Reply("1"));
  fake->Script(5, FakeService::Answer::Reply("1"));
}

std::vector<std::string> BridgeTest::Command(const std::vector<std::string>& args) const {
  std::vector<std::string> argv = {KDX_BRIDGE_PATH, "-s", ServicePath(), "-d", dir.path(), "-b",
                                   broker.Url(),    "-i", kBox,          "-p", kPrefix};
  argv.insert(argv.end(), args.begin(), args.end());
  return argv;
}

void BridgeTest::StartBridge(const std::vector<std::string>& args) {
  bridge = std::make_unique<PipeProcess>(Command(args), Options());
}

void BridgeTest::StartOnline(const std::vector<std::string>& args) {
  auto status = Client({Topic("status")});
  StartBridge(args);
  ASSERT_TRUE(WaitForStatus(*status, "online")) << bridge->Err();
}

Result BridgeTest::RunBare(const std::vector<std::string>& args) const {
  std::vector<std::string> argv = {KDX_BRIDGE_PATH};
  argv.insert(argv.end(), args.begin(), args.end());
  return PipeProcess::Run(argv, "", Options());
}

PipeProcess::Options BridgeTest::Options() const {
  PipeProcess::Options options;
  options.env = {"KENDRIVEX_SERVICE=", "KENDRIVEX_DIR="};
  const std::vector<std::string> capture = ::zel::test::SyslogCaptureEnv(SyslogFile());
  options.env.insert(options.env.end(), capture.begin(), capture.end());
  return options;
}

std::unique_ptr<MqttTestClient> BridgeTest::Client(const std::vector<std::string>& filters,
                                                   const MqttTestClient::Options& options) {
  auto client = std::make_unique<MqttTestClient>(broker.Port(), options);
  EXPECT_TRUE(client->Connected());
  for (const std::string& filter : filters) EXPECT_TRUE(client->Subscribe(filter)) << filter;
  return client;
}

bool BridgeTest::WaitForStatus(const MqttTestClient& client, const std::string& status, size_t times) {
  return client.WaitFor([&](const std::vector<Message>& messages) {
    return static_cast<size_t>(std::count_if(messages.begin(), messages.end(), [&](const Message& message) {
             return message.topic == Topic("status") && message.payload == status;
           })) >= times;
  });
}

std::optional<std::string> BridgeTest::Ask(const std::string& payload, const std::string& topic,
                                           std::chrono::milliseconds timeout) {
  if (!asker) asker = Client({"test/replies/#"});
  const std::string number = std::to_string(++asked);
  const std::string replyTopic = "test/replies/" + number;
  if (!asker->Request(topic, payload, replyTopic, "c" + number)) return std::nullopt;
  if (!asker->WaitForCount(replyTopic, 1, timeout)) return std::nullopt;
  const std::vector<Message> replies = asker->On(replyTopic);
  EXPECT_EQ(replies.size(), 1u);
  EXPECT_EQ(replies[0].correlation, std::optional<std::string>("c" + number));
  return replies[0].payload;
}

std::string BridgeTest::EventPath(size_t registration) {
  EXPECT_TRUE(fake->WaitForRequestsFor(4, registration));
  const std::vector<FakeService::Request> registrations = fake->RequestsFor(4);
  return registrations.size() < registration ? std::string() : Argument(registrations[registration - 1].text);
}

std::string BridgeTest::Argument(const std::string& request) {
  const size_t tab = request.find('\t');
  return tab == std::string::npos ? std::string() : request.substr(tab + 1);
}

std::vector<std::string> BridgeTest::LeftOver() const {
  std::vector<std::string> names;
  DIR* stream = ::opendir(dir.path().c_str());
  if (stream == nullptr) return names;
  while (const dirent* entry = ::readdir(stream)) {
    const std::string name = entry->d_name;
    if (name.rfind("ipc_client-", 0) == 0) names.push_back(name);
  }
  ::closedir(stream);
  std::sort(names.begin(), names.end());
  return names;
}

void BridgeTest::ExpectCleanStop(int signo, std::chrono::milliseconds limit) {
  const auto start = std::chrono::steady_clock::now();
  bridge->Signal(signo);
  // Waited for a while beyond the limit, so that a slow stop shows how slow.
  const Result result = bridge->Finish(StopLimit(limit) + std::chrono::seconds(10));
  const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
  EXPECT_LE(took, StopLimit(limit)) << "the stop took " << took.count() << " ms";
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(result.signal, 0);
  EXPECT_EQ(LeftOver(), std::vector<std::string>());
}

bool BridgeTest::WaitForLog(const std::string& text, std::chrono::milliseconds timeout) const {
  return WaitForLogMatching([&](const std::string& record) { return record == text; }, timeout);
}

bool BridgeTest::WaitForLogMatching(const std::function<bool(const std::string&)>& predicate,
                                    std::chrono::milliseconds timeout) const {
  return ::zel::test::WaitForSyslogFile(
      SyslogFile(),
      [&](const std::vector<LogRecord>& records) {
        return std::any_of(records.begin(), records.end(),
                           [&](const LogRecord& record) { return predicate(record.text); });
      },
      timeout);
}

}  // namespace zel::bridge::test
