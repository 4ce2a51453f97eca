// The bash completion of kendrivex-fleet, loaded into a real bash with
// Debian's bash-completion as an interactive shell would load it, and asked
// for the candidates at the end of a command line: commands, options, box
// commands, and box IDs from the program's own ls against a broker of the
// test's own.
#include <sys/stat.h>

#include <fstream>
#include <string>
#include <vector>

#include "kdx_test_paths.h"
#include "tests/support/bash_completion.h"
#include "tests/tools/fleet/fleet_program_test.h"

namespace zel::fleet::test {
namespace {

class FleetCompletionTest : public FleetTest {
 protected:
  void SetUp() override {
    // The completion runs the program named on the command line; behind the
    // test launcher (an emulator) when there is one.
    program = dir.File("kendrivex-fleet");
    std::ofstream(program) << "#!/bin/sh\nexec ${KDX_TEST_LAUNCHER} " << KDX_FLEET_PATH << " \"$@\"\n";
    ASSERT_EQ(::chmod(program.c_str(), 0755), 0);
  }

  // A broker with boxes box1 and box2, and the options that name it.
  std::string WithBoxes() {
    StartBroker();
    Play("box1");
    Play("box2", "offline");
    return "-b " + broker.Url() + " -p " + kPrefix + " ";
  }

  // The candidates for the end of `line` (whose first word is the program),
  // sorted.
  std::vector<std::string> Complete(const std::string& line) {
    return ::zel::test::CompletionsOf(KDX_FLEET_COMPLETION, "_kendrivex_fleet", program + " " + line,
                                      {"KENDRIVEX_BROKER="});
  }

  std::string program;
};

TEST_F(FleetCompletionTest, CompletesEveryCommand) {
  EXPECT_EQ(Complete(""), std::vector<std::string>({"forget", "ls", "run", "watch", "web"}));
  EXPECT_EQ(Complete("-t 100 -j w"), std::vector<std::string>({"watch", "web"}));
}

TEST_F(FleetCompletionTest, CompletesTheLongOptions) {
  EXPECT_EQ(Complete("--"),
            std::vector<std::string>({"--box", "--broker", "--cafile", "--capath", "--cert", "--config", "--count",
                                      "--help", "--json", "--key", "--listen", "--password-file", "--prefix",
                                      "--timeout", "--username", "--verbose", "--version", "--web-password-file"}));
  // No word is offered for an address.
  EXPECT_EQ(Complete("web --listen "), std::vector<std::string>());
  EXPECT_EQ(Complete("watch --c"), std::vector<std::string>({"--cafile", "--capath", "--cert", "--config", "--count"}));
}

TEST_F(FleetCompletionTest, CompletesAllAndTheBoxIdsAsRunsTarget) {
  const std::string options = WithBoxes();
  EXPECT_EQ(Complete(options + "run "), std::vector<std::string>({"all", "box1", "box2"}));
  EXPECT_EQ(Complete(options + "run box"), std::vector<std::string>({"box1", "box2"}));
}

TEST_F(FleetCompletionTest, CompletesTheNextIdOfATargetList) {
  const std::string options = WithBoxes();
  EXPECT_EQ(Complete(options + "run box1,"), std::vector<std::string>({"box1,box2"}));
}

TEST_F(FleetCompletionTest, CompletesTheBoxCommandsAfterTheTarget) {
  EXPECT_EQ(Complete("run all "), std::vector<std::string>({"atcmd_wlanapclist", "atcmd_wlanmac", "mac", "ping", "send",
                                                            "send_ping", "stations"}));
  EXPECT_EQ(Complete("run all send "), std::vector<std::string>({"1", "2", "3", "4", "5"}));
  EXPECT_EQ(Complete("run all ping "), std::vector<std::string>());
}

TEST_F(FleetCompletionTest, CompletesTheBoxIdsOfBoxAndForget) {
  const std::string options = WithBoxes();
  EXPECT_EQ(Complete(options + "watch --box "), std::vector<std::string>({"box1", "box2"}));
  EXPECT_EQ(Complete(options + "forget box1 b"), std::vector<std::string>({"box1", "box2"}));
}

TEST_F(FleetCompletionTest, CompletesFilesForTheFileOptions) {
  std::ofstream(dir.File("ca.pem")) << "x";
  EXPECT_EQ(Complete("--cafile " + dir.File("ca.")), std::vector<std::string>({dir.File("ca.pem")}));
}

TEST_F(FleetCompletionTest, CompletesNoBoxWhenTheBrokerIsAway) {
  EXPECT_EQ(Complete("-b mqtt://127.0.0.1:" + std::to_string(MqttBroker::FreePort()) + " run "),
            std::vector<std::string>({"all"}));
}

}  // namespace
}  // namespace zel::fleet::test
