#include "tests/tools/fleet/fleet_program_test.h"

#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "kdx_test_paths.h"
#include "tests/support/launcher.h"
#include "tests/support/syslog_file.h"

namespace zel::fleet::test {
namespace {

// Behind a launcher (an emulator) every step is several times slower.
constexpr int kLauncherSlowdown = 5;

std::chrono::milliseconds StopLimit() {
  const std::chrono::milliseconds native(6000);
  return ::zel::test::LauncherCommand().empty() ? native : native * kLauncherSlowdown;
}

}  // namespace

std::vector<std::string> SortedLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  std::sort(lines.begin(), lines.end());
  return lines;
}

std::string ErrorLine(const std::string& what, const std::string& why) {
  return "kendrivex-fleet: " + what + ": " + why + "\n";
}

FleetTest::FleetTest() : broker(dir.path()) {}

void FleetTest::TearDown() {
  for (auto& [id, box] : mBoxes) {
    if (!box.bridge || box.bridge->WaitForExit(std::chrono::milliseconds(0))) continue;
    box.bridge->Signal(SIGTERM);
    const Result result = box.bridge->Finish(StopLimit());
    EXPECT_EQ(result.exitCode, 0) << id << ": " << result.err;
  }
}

void FleetTest::StartBroker() { ASSERT_TRUE(broker.Start()) << broker.Log(); }

void FleetTest::StartBox(const std::string& id, const std::vector<std::string>& simOptions,
                         const std::vector<std::string>& bridgeOptions, MqttBroker* on) {
  MqttBroker& at = on != nullptr ? *on : broker;
  const std::string boxDir = dir.File(id);
  ASSERT_EQ(::mkdir(boxDir.c_str(), 0755), 0) << boxDir;
  RealBox& box = mBoxes[id];
  box.sim = std::make_unique<SimProcess>(KDX_SIM_PATH, boxDir + "/svc", boxDir + "/sim.log", boxDir + "/sim.syslog",
                                         simOptions);
  ASSERT_TRUE(box.sim->WaitUntilServing());
  PipeProcess::Options options;
  options.env = {"KENDRIVEX_SERVICE=", "KENDRIVEX_DIR=", "KENDRIVEX_BROKER="};
  const std::vector<std::string> capture = ::zel::test::SyslogCaptureEnv(boxDir + "/syslog");
  options.env.insert(options.env.end(), capture.begin(), capture.end());
  std::vector<std::string> argv = {
      KDX_BRIDGE_PATH, "-s", boxDir + "/svc", "-d", boxDir, "-b", at.Url(), "-i", id, "-p", kPrefix, "--health", "0"};
  argv.insert(argv.end(), bridgeOptions.begin(), bridgeOptions.end());
  box.bridge = std::make_unique<PipeProcess>(argv, options);
  ASSERT_TRUE(WaitFor(id, "status", "online", &at)) << box.bridge->Err();
  ASSERT_TRUE(WaitFor(id, "service", "up", &at)) << box.bridge->Err();
}

void FleetTest::StopBridge(const std::string& id) {
  RealBox& box = mBoxes.at(id);
  box.bridge->Signal(SIGTERM);
  const Result result = box.bridge->Finish(StopLimit());
  EXPECT_EQ(result.exitCode, 0) << result.err;
}

void FleetTest::StopService(const std::string& id) { EXPECT_TRUE(mBoxes.at(id).sim->Stop().has_value()); }

PlayedBox& FleetTest::Play(const std::string& id, const std::string& status) {
  mPlayed.push_back(std::make_unique<PlayedBox>(broker.Port(), id, status, login));
  return *mPlayed.back();
}

bool FleetTest::WaitFor(const std::string& id, const std::string& leaf, const std::string& value, MqttBroker* on) {
  MqttTestClient watcher((on != nullptr ? *on : broker).Port(), login);
  const std::string topic = std::string(kPrefix) + "/" + id + "/" + leaf;
  if (!watcher.Subscribe(topic)) return false;
  return watcher.WaitFor([&](const std::vector<MqttTestClient::Message>& messages) {
    return !messages.empty() && messages.back().topic == topic && messages.back().payload == value;
  });
}

std::vector<std::string> FleetTest::Command(const std::vector<std::string>& args, const std::string& url) const {
  std::vector<std::string> argv = {KDX_FLEET_PATH, "-b", url.empty() ? broker.Url() : url, "-p", kPrefix};
  argv.insert(argv.end(), args.begin(), args.end());
  return argv;
}

Result FleetTest::Fleet(const std::vector<std::string>& args, const std::string& url) const {
  return PipeProcess::Run(Command(args, url), "", Options());
}

Result FleetTest::FleetBare(const std::vector<std::string>& args, PipeProcess::Options options) const {
  std::vector<std::string> argv = {KDX_FLEET_PATH};
  argv.insert(argv.end(), args.begin(), args.end());
  return PipeProcess::Run(argv, "", std::move(options));
}

std::unique_ptr<PipeProcess> FleetTest::StartFleet(const std::vector<std::string>& args) const {
  return std::make_unique<PipeProcess>(Command(args), Options());
}

std::string FleetTest::WriteFile(const std::string& name, const std::string& text, mode_t mode) const {
  std::string path = dir.File(name);
  std::ofstream(path) << text;
  ::chmod(path.c_str(), mode);
  return path;
}

PipeProcess::Options FleetTest::Options() const {
  PipeProcess::Options options;
  options.env = {"KENDRIVEX_BROKER="};
  const std::vector<std::string> capture = ::zel::test::SyslogCaptureEnv(SyslogFile());
  options.env.insert(options.env.end(), capture.begin(), capture.end());
  return options;
}

}  // namespace zel::fleet::test
