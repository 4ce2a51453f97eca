// kendrivex-ctl's command line read in process: modes, options and their
// defaults from the environment, and every usage error with its line.
#include "tools/ctl/arguments.h"

#include <stdlib.h>

#include <string>
#include <vector>

#include "gtest/gtest.h"

namespace zel::ctl {
namespace {

using Mode = Invocation::Mode;

class ArgumentsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // The environment of the test run must not count.
    ::unsetenv("KENDRIVEX_SERVICE");
    ::unsetenv("KENDRIVEX_DIR");
    ::setenv("TMPDIR", "/var/tmp", 1);
  }

  // Reads the command line `words` (after the program's name).
  bool Parse(std::vector<std::string> words) {
    words.insert(words.begin(), "kendrivex-ctl");
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    mWords = std::move(words);
    return ParseArguments(static_cast<int>(argv.size() - 1), argv.data(), invocation, failure);
  }

  std::string Error(const std::vector<std::string>& words) {
    EXPECT_FALSE(Parse(words));
    EXPECT_EQ(failure.status, service_client::kStatusUsage);
    return failure.Line("kendrivex-ctl");
  }

  Invocation invocation;
  Failure failure;

 private:
  std::vector<std::string> mWords;
};

TEST_F(ArgumentsTest, OneCommandIsAOneShot) {
  ASSERT_TRUE(Parse({"-s", "/run/svc", "mac"}));
  EXPECT_EQ(invocation.mode, Mode::OneShot);
  EXPECT_STREQ(invocation.request.command->name, "mac");
  EXPECT_EQ(invocation.settings.servicePath, "/run/svc");
  EXPECT_EQ(invocation.settings.dir, "/var/tmp");
  EXPECT_EQ(invocation.settings.timeoutMs, 5000u);
  EXPECT_FALSE(invocation.json);
}

TEST_F(ArgumentsTest, DashIsABatch) {
  ASSERT_TRUE(Parse({"-s", "svc", "-"}));
  EXPECT_EQ(invocation.mode, Mode::Batch);
}

TEST_F(ArgumentsTest, WatchTakesItsOptionsBeforeAndAfterIt) {
  ASSERT_TRUE(Parse({"-s", "svc", "-e", "handler", "watch", "--json", "--count=3"}));
  EXPECT_EQ(invocation.mode, Mode::Watch);
  EXPECT_TRUE(invocation.json);
  EXPECT_EQ(invocation.execProgram, "handler");
  EXPECT_EQ(invocation.count, 3u);
}

TEST_F(ArgumentsTest, EnvironmentGivesTheServiceAndTheDirectory) {
  ::setenv("KENDRIVEX_SERVICE", "/env/svc", 1);
  ::setenv("KENDRIVEX_DIR", "/env/dir", 1);
  ASSERT_TRUE(Parse({"ping"}));
  EXPECT_EQ(invocation.settings.servicePath, "/env/svc");
  EXPECT_EQ(invocation.settings.dir, "/env/dir");
  ASSERT_TRUE(Parse({"--service=/opt/svc", "--dir", "/opt", "ping"}));
  EXPECT_EQ(invocation.settings.servicePath, "/opt/svc");
  EXPECT_EQ(invocation.settings.dir, "/opt");
}

TEST_F(ArgumentsTest, EmptyEnvironmentCountsAsUnset) {
  ::setenv("KENDRIVEX_DIR", "", 1);
  ::unsetenv("TMPDIR");
  ASSERT_TRUE(Parse({"-s", "svc", "ping"}));
  EXPECT_EQ(invocation.settings.dir, "/tmp");
}

TEST_F(ArgumentsTest, SendTakesEveryLaterWordAsAField) {
  ASSERT_TRUE(Parse({"-s", "svc", "send", "2", "-j", "--timeout", "7"}));
  EXPECT_EQ(invocation.request.number, 2u);
  EXPECT_EQ(invocation.request.fields, std::vector<std::string>({"-j", "--timeout", "7"}));
  EXPECT_FALSE(invocation.json);
}

TEST_F(ArgumentsTest, TimeoutIsAWholeNumberOfMillisecondsUpToAMinute) {
  ASSERT_TRUE(Parse({"-s", "svc", "-t", "60000", "ping"}));
  EXPECT_EQ(invocation.settings.timeoutMs, 60000u);
  EXPECT_EQ(invocation.settings.TimeoutUs(), 60000000u);
  EXPECT_EQ(Error({"-s", "svc", "-t", "60001", "ping"}),
            "kendrivex-ctl: -t: not a whole number of milliseconds from 1 to 60000: \"60001\"\n");
  EXPECT_EQ(Error({"-s", "svc", "-t", "99999999999999999999", "ping"}),
            "kendrivex-ctl: -t: not a whole number of milliseconds from 1 to 60000: \"99999999999999999999\"\n");
}

TEST_F(ArgumentsTest, HelpWinsOverVersionWhicheverComesFirst) {
  ASSERT_TRUE(Parse({"-V", "-h"}));
  EXPECT_EQ(invocation.mode, Mode::Help);
  ASSERT_TRUE(Parse({"-h", "-V"}));
  EXPECT_EQ(invocation.mode, Mode::Help);
  ASSERT_TRUE(Parse({"--version"}));
  EXPECT_EQ(invocation.mode, Mode::Version);
}

TEST_F(ArgumentsTest, VerboseCountsEachTimeItIsGiven) {
  ASSERT_TRUE(Parse({"-s", "svc", "ping"}));
  EXPECT_EQ(invocation.verbosity, 0u);
  ASSERT_TRUE(Parse({"-s", "svc", "-v", "ping", "--verbose"}));
  EXPECT_EQ(invocation.verbosity, 2u);
}

TEST_F(ArgumentsTest, HelpComesBeforeTheValuesAreLookedAt) {
  ASSERT_TRUE(Parse({"-t", "0", "--help"}));
  EXPECT_EQ(invocation.mode, Mode::Help);
}

TEST_F(ArgumentsTest, UnknownOptionComesBeforeAValueThatDoesNotFit) {
  EXPECT_EQ(Error({"-s", "svc", "-t", "0", "ping", "--bogus"}),
            "kendrivex-ctl: --bogus: unknown option (try --help)\n");
}

TEST_F(ArgumentsTest, FlagGivenAValueIsAUsageError) {
  EXPECT_EQ(Error({"-s", "svc", "--json=yes", "ping"}), "kendrivex-ctl: --json: takes no value\n");
}

TEST_F(ArgumentsTest, UsageErrorsNameWhatIsWrong) {
  EXPECT_EQ(Error({"--bogus", "ping"}), "kendrivex-ctl: --bogus: unknown option (try --help)\n");
  EXPECT_EQ(Error({"-s"}), "kendrivex-ctl: -s: needs a value\n");
  EXPECT_EQ(Error({"ping"}),
            "kendrivex-ctl: --service: no service socket given (use -s PATH or set KENDRIVEX_SERVICE)\n");
  EXPECT_EQ(Error({"-s", "svc", "-n", "2", "ping"}), "kendrivex-ctl: -n: only with watch\n");
  EXPECT_EQ(Error({"-s", "svc", "-", "x"}), "kendrivex-ctl: -: takes no arguments, not \"x\"\n");
  EXPECT_EQ(Error({"-s", "svc"}), "kendrivex-ctl: command: missing (try --help)\n");
}

TEST_F(ArgumentsTest, EmptyPathsAndProgramsNameTheirOption) {
  EXPECT_EQ(Error({"-s", "", "ping"}), "kendrivex-ctl: -s: the path is empty\n");
  EXPECT_EQ(Error({"-s", "svc", "--dir=", "ping"}), "kendrivex-ctl: --dir: the path is empty\n");
  EXPECT_EQ(Error({"-s", "svc", "watch", "-e", ""}), "kendrivex-ctl: -e: the program's name is empty\n");
}

TEST_F(ArgumentsTest, HelpListsEveryCommandAndOption) {
  const std::string help = HelpText();
  for (const char* line :
       {"\n  ping (send_ping)  ", "\n  stations (atcmd_wlanapclist)  ", "\n  send N [FIELD...]  ", "\n  watch  ",
        "\n  -  ", "\n  -s, --service PATH  ", "\n  -j, --json  ", "\n  -V, --version  "}) {
    EXPECT_NE(help.find(line), std::string::npos) << line;
  }
  EXPECT_EQ(VersionText(), "kendrivex-ctl 0.1.0\n");
}

}  // namespace
}  // namespace zel::ctl
