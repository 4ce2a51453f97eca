// The systemd unit: it reads /etc/kendrivex/bridge.conf, restarts on failure,
// and systemd-analyze verify finds nothing wrong with it (its program and its
// manual page included); and the shipped configuration file is one the
// bridge reads.
#include <sys/stat.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "kdx_test_paths.h"
#include "tests/tools/bridge/bridge_test.h"

namespace zel::bridge::test {
namespace {

std::string ReadAll(const std::string& path) {
  std::ifstream file(path);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

bool HasLine(const std::string& text, const std::string& line) {
  for (const std::string& each : Lines(text)) {
    if (each == line) return true;
  }
  return false;
}

class BridgeUnitFileTest : public BridgeTest {};

TEST_F(BridgeUnitFileTest, UnitRunsTheBridgeOnItsConfigurationFileAndRestartsItOnFailure) {
  const std::string unit = ReadAll(KDX_BRIDGE_UNIT);
  EXPECT_TRUE(HasLine(unit, "ExecStart=/usr/bin/kendrivex-bridge --config /etc/kendrivex/bridge.conf")) << unit;
  EXPECT_TRUE(HasLine(unit, "Restart=on-failure"));
  EXPECT_TRUE(HasLine(unit, "WantedBy=multi-user.target"));
}

TEST_F(BridgeUnitFileTest, SystemdAnalyzeVerifiesTheUnit) {
  // The unit as installed, but naming the program of this build, and its
  // manual page where man finds it.
  std::string unit = ReadAll(KDX_BRIDGE_UNIT);
  const std::string installed = "/usr/bin/kendrivex-bridge";
  unit.replace(unit.find(installed), installed.size(), KDX_BRIDGE_PATH);
  ::mkdir(dir.File("man").c_str(), 0755);
  ::mkdir(dir.File("man/man8").c_str(), 0755);
  std::ofstream(dir.File("man/man8/kendrivex-bridge.8")) << ReadAll(KDX_BRIDGE_MAN_PAGE);
  std::ofstream(dir.File("kendrivex-bridge.service")) << unit;
  PipeProcess::Options options;
  options.hostTool = true;
  options.env = {"MANPATH=" + dir.File("man"), "SYSTEMD_LOG_COLOR=0"};
  const Result result =
      PipeProcess::Run({"systemd-analyze", "verify", dir.File("kendrivex-bridge.service")}, "", options);
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out, "");
}

TEST_F(BridgeUnitFileTest, ShippedConfigurationFileIsReadWithTheCommandLinesSettings) {
  StartBroker();
  StartFake();
  auto status = Client({Topic("status")});
  StartBridge({"--config", KDX_BRIDGE_CONFIG});
  ASSERT_TRUE(WaitForStatus(*status, "online")) << bridge->Err();
  EXPECT_EQ(Ask("ping"), AnsweredPayload("ping", 1, {"PONG"}));
}

}  // namespace
}  // namespace zel::bridge::test
