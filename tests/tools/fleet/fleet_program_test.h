// The fixture of kendrivex-fleet's end-to-end tests: a Mosquitto broker of
// the test's own, real boxes on it (the device-service simulator and the
// real kendrivex-bridge each) or boxes the test plays, and the real
// kendrivex-fleet run as a script runs it (standard output and standard
// error apart, its system log captured in a file). Everything lives in one
// fresh directory per test. One thread at a time.
#pragma once

#include <sys/types.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "tests/support/mqtt_broker.h"
#include "tests/support/pipe_process.h"
#include "tests/support/sim_process.h"
#include "tests/support/temp_dir.h"
#include "tests/tools/fleet/fleet_test.h"

namespace zel::fleet::test {

using ::zel::test::MqttBroker;
using ::zel::test::PipeProcess;
using ::zel::test::SimProcess;
using ::zel::test::TempDir;
using Result = PipeProcess::Result;

class FleetTest : public ::testing::Test {
 protected:
  static constexpr const char* kPrefix = "kdx";

  FleetTest();
  // Stops the bridges still running as a service manager would (SIGTERM),
  // each expected to end cleanly.
  void TearDown() override;

  void StartBroker();
  // A real box `id`: the simulator with `simOptions` and the bridge with
  // `bridgeOptions` (its health pings off), on `on` (the test's broker by
  // default), in a directory of the box's own; waits until it is online
  // with its service up.
  void StartBox(const std::string& id, const std::vector<std::string>& simOptions = {},
                const std::vector<std::string>& bridgeOptions = {}, MqttBroker* on = nullptr);
  // Stops box `id`'s bridge (SIGTERM: its status goes offline) and waits for
  // its end.
  void StopBridge(const std::string& id);
  // Stops box `id`'s simulator: its bridge then finds the service down.
  void StopService(const std::string& id);
  // A box the test plays on the test's broker.
  PlayedBox& Play(const std::string& id, const std::string& status = "online");
  // Waits until the broker has box `id`'s `leaf` ("status", "service") at
  // `value`.
  bool WaitFor(const std::string& id, const std::string& leaf, const std::string& value, MqttBroker* on = nullptr);

  // kendrivex-fleet's command line against the test's broker (or `url`),
  // with the prefix kdx, then `args`.
  std::vector<std::string> Command(const std::vector<std::string>& args, const std::string& url = "") const;
  // Runs it to its end.
  Result Fleet(const std::vector<std::string>& args, const std::string& url = "") const;
  // Runs it with exactly `args`.
  Result FleetBare(const std::vector<std::string>& args, PipeProcess::Options options) const;
  // Starts it.
  std::unique_ptr<PipeProcess> StartFleet(const std::vector<std::string>& args) const;
  // Writes `text` to the file `name` of the test's directory with `mode`;
  // its path.
  std::string WriteFile(const std::string& name, const std::string& text, mode_t mode = 0600) const;
  // Options for it: its system log captured, no defaults from the
  // environment of the test run.
  PipeProcess::Options Options() const;
  std::string SyslogFile() const { return dir.File("fleet.syslog"); }

  TempDir dir;
  MqttBroker broker;
  // How the test's own clients log in to the broker.
  MqttTestClient::Options login;

 private:
  struct RealBox {
    std::unique_ptr<SimProcess> sim;
    std::unique_ptr<PipeProcess> bridge;
  };
  std::map<std::string, RealBox> mBoxes;
  std::vector<std::unique_ptr<PlayedBox>> mPlayed;
};

// The lines of `text` without their line ends, sorted: the replies of a run
// come in the order the boxes send them.
std::vector<std::string> SortedLines(const std::string& text);

// Standard error as the program writes one failure line.
std::string ErrorLine(const std::string& what, const std::string& why);

}  // namespace zel::fleet::test
