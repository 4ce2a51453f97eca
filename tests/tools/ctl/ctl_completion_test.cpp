// The bash completion of kendrivex-ctl, loaded into a real bash with Debian's
// bash-completion as an interactive shell would load it, and asked for the
// candidates at the end of a command line.
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include "kdx_test_paths.h"
#include "tests/support/bash_completion.h"
#include "tests/tools/ctl/ctl_test.h"

namespace zel::ctl::test {
namespace {

class CtlCompletionTest : public CtlTest {
 protected:
  void SetUp() override {
    // The completion runs the program named on the command line; behind the
    // test launcher (an emulator) when there is one.
    program = dir.File("kendrivex-ctl");
    std::ofstream(program) << "#!/bin/sh\nexec ${KDX_TEST_LAUNCHER} " << KDX_CTL_PATH << " \"$@\"\n";
    ASSERT_EQ(::chmod(program.c_str(), 0755), 0);
  }

  // The candidates for the end of `line` (whose first word is the program),
  // sorted.
  std::vector<std::string> Complete(const std::string& line) {
    return ::zel::test::CompletionsOf(KDX_CTL_COMPLETION, "_kendrivex_ctl", program + " " + line,
                                      {"KENDRIVEX_BROKER="});
  }

  std::string program;
};

TEST_F(CtlCompletionTest, CompletesEveryCommandAndAlias) {
  EXPECT_EQ(Complete(""), std::vector<std::string>({"-", "atcmd_wlanapclist", "atcmd_wlanmac", "mac", "ping", "send",
                                                    "send_ping", "stations", "watch"}));
}

TEST_F(CtlCompletionTest, CompletesABeginningOfACommand) {
  EXPECT_EQ(Complete("st"), std::vector<std::string>({"stations"}));
}

TEST_F(CtlCompletionTest, CompletesTheLongOptions) {
  EXPECT_EQ(Complete("--"), std::vector<std::string>({"--count", "--dir", "--exec", "--help", "--json", "--service",
                                                      "--timeout", "--verbose", "--version"}));
}

TEST_F(CtlCompletionTest, CompletesTheCommandAfterOptionsAndTheirValues) {
  EXPECT_EQ(Complete("-t 100 -j w"), std::vector<std::string>({"watch"}));
}

TEST_F(CtlCompletionTest, CompletesTheCommandNumberOfSend) {
  EXPECT_EQ(Complete("send "), std::vector<std::string>({"1", "2", "3", "4", "5"}));
}

TEST_F(CtlCompletionTest, CompletesNothingAfterACommandWithoutArguments) {
  EXPECT_EQ(Complete("ping "), std::vector<std::string>());
}

TEST_F(CtlCompletionTest, CompletesTheOptionsAfterACommandWithoutArguments) {
  EXPECT_EQ(Complete("watch --"), Complete("--"));
  EXPECT_EQ(Complete("ping --j"), std::vector<std::string>({"--json"}));
}

TEST_F(CtlCompletionTest, CompletesTheOptionsAfterTheStandardInputWord) {
  EXPECT_EQ(Complete("- --t"), std::vector<std::string>({"--timeout"}));
  const std::vector<std::string> options = Complete("- -");
  EXPECT_NE(std::find(options.begin(), options.end(), "-j"), options.end());
  EXPECT_NE(std::find(options.begin(), options.end(), "--json"), options.end());
}

TEST_F(CtlCompletionTest, CompletesTheValueOfAnOptionAfterTheCommand) {
  ASSERT_EQ(::mkdir(dir.File("sockets").c_str(), 0755), 0);
  EXPECT_EQ(Complete("watch -d " + dir.File("sock")), std::vector<std::string>({dir.File("sockets")}));
}

TEST_F(CtlCompletionTest, CompletesNoOptionsAmongTheFieldsOfSend) {
  EXPECT_EQ(Complete("send 1 --"), std::vector<std::string>());
}

TEST_F(CtlCompletionTest, CompletesDirectoriesForTheDirectoryOption) {
  ASSERT_EQ(::mkdir(dir.File("sockets").c_str(), 0755), 0);
  std::ofstream(dir.File("socketfile")) << "x";
  EXPECT_EQ(Complete("-d " + dir.File("sock")), std::vector<std::string>({dir.File("sockets")}));
}

}  // namespace
}  // namespace zel::ctl::test
