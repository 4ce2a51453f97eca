// The simulator's command line: defaults, every option, and the errors.
#include "tools/sim/sim_options.h"

#include <set>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace zel::sim {
namespace {

using ::testing::HasSubstr;
using Outcome = SimOptions::Outcome;

class SimOptionsTest : public ::testing::Test {
 protected:
  Outcome Parse(const std::vector<std::string>& args) { return SimOptions::Parse(args, options, error); }

  SimOptions options;
  std::string error;
};

TEST_F(SimOptionsTest, DefaultsAnswerThreeStationsAMacAndPushAnEventEveryTenSeconds) {
  ASSERT_EQ(Parse({"/tmp/svc"}), Outcome::Run);
  EXPECT_EQ(options.socketPath, "/tmp/svc");
  EXPECT_EQ(options.logPath, "");
  EXPECT_EQ(options.stations, (std::vector<std::string>{"f2:3a:9c:51:0e:47 192.168.43.12 pixel-7",
                                                        "3c:22:fb:91:4d:a7 192.168.43.27 maintenance-laptop",
                                                        "b8:27:eb:6f:03:d2 192.168.43.40 sensor-gateway"}));
  EXPECT_EQ(options.mac, "02:1a:7d:4c:88:e1");
  EXPECT_EQ(options.eventIntervalMs, 10000u);
  EXPECT_EQ(options.eventId, 100);
  EXPECT_EQ(options.eventText, "heartbeat");
  EXPECT_EQ(options.delayMs, 0u);
  EXPECT_FALSE(options.dropReplies);
  EXPECT_FALSE(options.garbageReplies);
  EXPECT_FALSE(options.oversizeReplies);
  EXPECT_EQ(options.faultyCommands, (std::set<uint32_t>{1, 2, 3}));
  EXPECT_EQ(options.refuseRegistrations, 0u);
}

TEST_F(SimOptionsTest, MissingSocketPathIsAnError) {
  EXPECT_EQ(Parse({"--drop"}), Outcome::Error);
  EXPECT_EQ(error, "socket path: missing");
}

TEST_F(SimOptionsTest, SecondSocketPathIsAnError) {
  EXPECT_EQ(Parse({"/tmp/a", "/tmp/b"}), Outcome::Error);
  EXPECT_EQ(error, "/tmp/b: more than one socket path (the first: /tmp/a)");
}

TEST_F(SimOptionsTest, EmptySocketPathIsAnError) {
  EXPECT_EQ(Parse({""}), Outcome::Error);
  EXPECT_EQ(error, "socket path: empty");
}

TEST_F(SimOptionsTest, UnknownOptionIsAnError) {
  EXPECT_EQ(Parse({"--bogus", "/tmp/svc"}), Outcome::Error);
  EXPECT_EQ(error, "--bogus: unknown option");
}

TEST_F(SimOptionsTest, ShortHelpIsHelp) { EXPECT_EQ(Parse({"-h"}), Outcome::Help); }

TEST_F(SimOptionsTest, SingleDashArgumentIsAnOption) {
  EXPECT_EQ(Parse({"-x", "/tmp/svc"}), Outcome::Error);
  EXPECT_EQ(error, "-x: unknown option");
}

TEST_F(SimOptionsTest, OptionWithoutItsValueIsAnError) {
  EXPECT_EQ(Parse({"/tmp/svc", "--mac"}), Outcome::Error);
  EXPECT_EQ(error, "--mac: needs a value");
}

TEST_F(SimOptionsTest, VersionLongAndShortIsVersion) {
  EXPECT_EQ(Parse({"--version"}), Outcome::Version);
  EXPECT_EQ(Parse({"-V"}), Outcome::Version);
}

TEST_F(SimOptionsTest, VersionEndsTheParsing) {
  EXPECT_EQ(Parse({"/tmp/svc", "--version", "--bogus"}), Outcome::Version);
}

TEST_F(SimOptionsTest, VersionWithAValueIsAnError) {
  EXPECT_EQ(Parse({"--version=1"}), Outcome::Error);
  EXPECT_EQ(error, "--version: takes no value");
}

TEST_F(SimOptionsTest, HelpEndsTheParsing) { EXPECT_EQ(Parse({"/tmp/svc", "--help", "--bogus"}), Outcome::Help); }

TEST_F(SimOptionsTest, ValueMayFollowAnEqualsSignOrTheNextArgument) {
  ASSERT_EQ(Parse({"--mac=aa:bb:cc:dd:ee:ff", "--event-text", "x=y", "/tmp/svc"}), Outcome::Run);
  EXPECT_EQ(options.mac, "aa:bb:cc:dd:ee:ff");
  EXPECT_EQ(options.eventText, "x=y");
}

TEST_F(SimOptionsTest, StationOptionsReplaceTheDefaultList) {
  ASSERT_EQ(Parse({"--station", "one", "--station=two", "/tmp/svc"}), Outcome::Run);
  EXPECT_EQ(options.stations, (std::vector<std::string>{"one", "two"}));
}

TEST_F(SimOptionsTest, NoStationsEmptiesTheList) {
  ASSERT_EQ(Parse({"--no-stations", "/tmp/svc"}), Outcome::Run);
  EXPECT_TRUE(options.stations.empty());
}

TEST_F(SimOptionsTest, TextWithATabIsRefused) {
  EXPECT_EQ(Parse({"--station", "a\tb", "/tmp/svc"}), Outcome::Error);
  EXPECT_EQ(error, "--station: cannot hold a tab: \"a\tb\"");
  EXPECT_EQ(Parse({"--mac", "a\tb", "/tmp/svc"}), Outcome::Error);
  EXPECT_EQ(error, "--mac: cannot hold a tab");
}

TEST_F(SimOptionsTest, EventOptionsAreTaken) {
  ASSERT_EQ(Parse({"--event-interval", "25", "--event-id", "-7", "--event-text", "", "/tmp/svc"}), Outcome::Run);
  EXPECT_EQ(options.eventIntervalMs, 25u);
  EXPECT_EQ(options.eventId, -7);
  EXPECT_EQ(options.eventText, "");
}

TEST_F(SimOptionsTest, NumbersMustBeDecimalAndInRange) {
  EXPECT_EQ(Parse({"--delay", "-1", "/tmp/svc"}), Outcome::Error);
  EXPECT_EQ(error, "--delay: not a whole number of milliseconds from 0 to 4294967295: \"-1\"");
  EXPECT_EQ(Parse({"--delay", "12ms", "/tmp/svc"}), Outcome::Error);
  EXPECT_EQ(Parse({"--event-interval", "4294967296", "/tmp/svc"}), Outcome::Error);
  EXPECT_EQ(Parse({"--event-id", "2147483648", "/tmp/svc"}), Outcome::Error);
  EXPECT_EQ(error, "--event-id: not a whole number from -2147483648 to 2147483647: \"2147483648\"");
  EXPECT_EQ(Parse({"--refuse-register", "", "/tmp/svc"}), Outcome::Error);
  EXPECT_EQ(error, "--refuse-register: not a whole number from 0 to 4294967295: \"\"");
}

TEST_F(SimOptionsTest, ExtremeNumbersAreTaken) {
  ASSERT_EQ(Parse({"--event-id", "-2147483648", "--delay", "4294967295", "/tmp/svc"}), Outcome::Run);
  EXPECT_EQ(options.eventId, -2147483647 - 1);
  EXPECT_EQ(options.delayMs, 4294967295u);
}

TEST_F(SimOptionsTest, MisbehaviourFlagsAreSet) {
  ASSERT_EQ(Parse({"--drop", "--garbage", "--oversize", "--delay", "300", "--refuse-register", "2", "/tmp/svc"}),
            Outcome::Run);
  EXPECT_TRUE(options.dropReplies);
  EXPECT_TRUE(options.garbageReplies);
  EXPECT_TRUE(options.oversizeReplies);
  EXPECT_EQ(options.delayMs, 300u);
  EXPECT_EQ(options.refuseRegistrations, 2u);
}

TEST_F(SimOptionsTest, FlagWithAValueIsAnError) {
  EXPECT_EQ(Parse({"--drop=1", "/tmp/svc"}), Outcome::Error);
  EXPECT_EQ(error, "--drop: takes no value");
}

TEST_F(SimOptionsTest, FaultsOnTakesACommaSeparatedList) {
  ASSERT_EQ(Parse({"--faults-on", "4,5,1", "/tmp/svc"}), Outcome::Run);
  EXPECT_EQ(options.faultyCommands, (std::set<uint32_t>{1, 4, 5}));
  EXPECT_EQ(Parse({"--faults-on", "1,,2", "/tmp/svc"}), Outcome::Error);
  EXPECT_EQ(error, "--faults-on: not a comma-separated list of command numbers: \"1,,2\"");
}

TEST_F(SimOptionsTest, LogNeedsAFileName) {
  EXPECT_EQ(Parse({"--log=", "/tmp/svc"}), Outcome::Error);
  EXPECT_EQ(error, "--log: needs a file name");
}

TEST_F(SimOptionsTest, UsageNamesTheProgramAndEveryOption) {
  const std::string usage = SimOptions::Usage("prog");
  EXPECT_THAT(usage, ::testing::StartsWith("usage: prog [options] <service socket path>\n"));
  for (const char* option :
       {"--station", "--no-stations", "--mac", "--event-interval", "--event-id", "--event-text", "--delay", "--drop",
        "--garbage", "--oversize", "--faults-on", "--refuse-register", "--log"}) {
    EXPECT_THAT(usage, HasSubstr(std::string("  ") + option + " ")) << option;
  }
  EXPECT_THAT(usage, HasSubstr("  -h, --help "));
  EXPECT_THAT(usage, HasSubstr("  -V, --version "));
}

}  // namespace
}  // namespace zel::sim
