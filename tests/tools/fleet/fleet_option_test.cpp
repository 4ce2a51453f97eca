// kendrivex-fleet's command line end to end: the help and version texts,
// usage errors (each before the broker is asked, status 2), the broker from
// the environment or a configuration file, and the checks of the connection
// settings.
#include <string>

#include "tests/tools/fleet/fleet_program_test.h"

namespace zel::fleet::test {
namespace {

const char kHelp[] =
    "Usage: kendrivex-fleet [OPTIONS] ls\n"
    "       kendrivex-fleet [OPTIONS] run TARGET COMMAND [ARG...]\n"
    "       kendrivex-fleet [OPTIONS] watch\n"
    "       kendrivex-fleet [OPTIONS] forget ID...\n"
    "       kendrivex-fleet [OPTIONS] web [--listen ADDR:PORT] [--web-password-file FILE]\n"
    "The operator's client of the boxes on an MQTT broker: lists them, runs a command\n"
    "on all of them, some or one and gathers every answer, prints their events,\n"
    "forgets boxes that are gone for good, and serves a live page of them.\n"
    "\n"
    "Commands:\n"
    "  ls                           list the boxes: ID, online or offline, service up, down or -\n"
    "  run TARGET COMMAND [ARG...]  run a box command on all, one ID or ID,ID... and gather the replies\n"
    "  watch                        print the boxes' events as they come, until stopped\n"
    "  forget ID...                 clear the retained status and service of boxes gone for good\n"
    "  web                          serve the boxes' live page and its HTTP API until stopped\n"
    "\n"
    "Box commands (run's COMMAND):\n"
    "  ping (send_ping)              print the service's answer to a ping\n"
    "  stations (atcmd_wlanapclist)  print the connected stations\n"
    "  mac (atcmd_wlanmac)           print the access point's MAC address\n"
    "  send N [FIELD...]             send command N (1 to 5), print its reply\n"
    "\n"
    "Options:\n"
    "  -b, --broker URL              mqtt[s]://HOST[:PORT] ($KENDRIVEX_BROKER or mqtt://localhost:1883)\n"
    "  -p, --prefix TOPIC            the first part of every topic (default kendrivex)\n"
    "      --cafile FILE             mqtts: the authorities that vouch for the broker\n"
    "      --capath DIR              mqtts: a directory of them (default: the system's)\n"
    "      --cert FILE               mqtts: the client's own certificate\n"
    "      --key FILE                mqtts: its private key\n"
    "      --username NAME           the user name given to the broker\n"
    "      --password-file FILE      the password: the first line of FILE\n"
    "  -t, --timeout MS              the wait for the boxes and for the broker, 1 to 600000 ms (default 5000)\n"
    "  -j, --json                    print one JSON object a line\n"
    "  -n, --count N                 watch: stop after N events\n"
    "      --box ID                  watch: only this box's events (repeatable)\n"
    "      --listen ADDR:PORT        web: where to serve the page (default 127.0.0.1:8737; port 0: a free one)\n"
    "      --web-password-file FILE  web: the password browsers give (HTTP Basic), the first line of FILE\n"
    "  -c, --config FILE             read options from FILE: name = value lines\n"
    "  -v, --verbose                 copy the diagnostics to standard error\n"
    "  -h, --help                    print this help and exit\n"
    "  -V, --version                 print the version and exit\n"
    "\n"
    "Exit status: 0 success; 1 run: a box answered, but not with success; forget: a\n"
    "box is online; 2 usage error; 3 the broker could not be reached, or run: a box\n"
    "did not answer or none was online; 4 local set-up failed.\n";

class FleetOptionTest : public FleetTest {
 protected:
  // A broker URL where nothing listens: a usage error is found before it.
  std::string Away() const { return "mqtt://127.0.0.1:" + std::to_string(away); }

  // Runs the program with `args` and expects a usage error saying `what:
  // why`, with nothing on standard output.
  void ExpectUsage(const std::vector<std::string>& args, const std::string& what, const std::string& why) {
    const Result result = Fleet(args, Away());
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, ErrorLine(what, why));
    EXPECT_EQ(result.exitCode, 2);
  }

  int away = MqttBroker::FreePort();
};

TEST_F(FleetOptionTest, HelpSaysEveryCommandBoxCommandAndOption) {
  const Result result = FleetBare({"--help"}, Options());
  EXPECT_EQ(result.out, kHelp);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.exitCode, 0);
}

TEST_F(FleetOptionTest, HelpWinsAfterACommandToo) { EXPECT_EQ(Fleet({"run", "-h"}, Away()).out, kHelp); }

TEST_F(FleetOptionTest, VersionIsThePackagesVersion) {
  const Result result = FleetBare({"-V"}, Options());
  EXPECT_EQ(result.out, "kendrivex-fleet 0.1.0\n");
  EXPECT_EQ(result.exitCode, 0);
}

TEST_F(FleetOptionTest, CommandMissingOrUnknownPointsToTheHelp) {
  ExpectUsage({}, "command", "missing (try --help)");
  ExpectUsage({"list"}, "list", "unknown command (try --help)");
}

TEST_F(FleetOptionTest, CommandsWithoutArgumentsTakeNone) {
  ExpectUsage({"ls", "box1"}, "ls", "takes no arguments, not \"box1\"");
  ExpectUsage({"watch", "box1"}, "watch", "takes no arguments, not \"box1\"");
}

TEST_F(FleetOptionTest, RunNeedsATargetAndACommand) {
  ExpectUsage({"run"}, "run", "missing TARGET (all, ID or ID,ID...)");
  ExpectUsage({"run", "all"}, "command", "missing (try --help)");
  ExpectUsage({"run", "box1,,box2", "ping"}, "\"\"", "a box's ID may not be empty or hold '/', '+' or '#'");
}

TEST_F(FleetOptionTest, ForgetNeedsValidBoxIds) {
  ExpectUsage({"forget"}, "forget", "missing the ID of a box");
  ExpectUsage({"forget", "box1", "all"}, "\"all\"", "\"all\" stands for every box, and is no box's ID");
}

TEST_F(FleetOptionTest, CountAndBoxAreForWatchOnly) {
  ExpectUsage({"-n", "3", "ls"}, "-n", "only with watch");
  ExpectUsage({"run", "--box", "box1", "all", "ping"}, "--box", "only with watch");
}

TEST_F(FleetOptionTest, ValuesOutOfRangeAreUsageErrors) {
  ExpectUsage({"-t", "0", "ls"}, "-t", "not a whole number of milliseconds from 1 to 600000: \"0\"");
  ExpectUsage({"--timeout=600001", "ls"}, "--timeout",
              "not a whole number of milliseconds from 1 to 600000: \"600001\"");
  ExpectUsage({"watch", "-n", "x"}, "-n", "not a whole number from 1 to 4294967295: \"x\"");
  ExpectUsage({"watch", "--box", "a/b"}, "--box", "a box's ID may not be empty or hold '/', '+' or '#'");
  ExpectUsage({"-p", "kdx/#", "ls"}, "-p", "may not be empty or hold '+' or '#': \"kdx/#\"");
}

TEST_F(FleetOptionTest, PrefixMustBeTextATopicCanHold) {
  ExpectUsage({"-p", "", "ls"}, "-p", "may not be empty or hold '+' or '#': \"\"");
  ExpectUsage({"-p", "kdx\x01", "ls"}, "-p", "not text that a topic can hold (UTF-8 without control characters)");
}

TEST_F(FleetOptionTest, UnknownOptionBeforeOrAfterTheCommandPointsToTheHelp) {
  ExpectUsage({"--bogus", "ls"}, "--bogus", "unknown option (try --help)");
  ExpectUsage({"ls", "--bogus"}, "--bogus", "unknown option (try --help)");
}

TEST_F(FleetOptionTest, WebPasswordFileThatCannotHoldAPasswordIsAUsageError) {
  const std::string empty = WriteFile("empty", "");
  ExpectUsage({"web", "--web-password-file", empty}, "--web-password-file", empty + ": empty");
  ExpectUsage({"web", "--listen", "0.0.0.0:0", "--web-password-file", "/dev/zero"}, "--web-password-file",
              "/dev/zero: not a regular file");
}

TEST_F(FleetOptionTest, BrokerOfAnotherSchemeIsAUsageError) {
  const Result result = FleetBare({"-b", "http://127.0.0.1", "ls"}, Options());
  EXPECT_EQ(result.err, ErrorLine("-b", "not mqtt://HOST[:PORT] or mqtts://HOST[:PORT]: \"http://127.0.0.1\""));
  EXPECT_EQ(result.exitCode, 2);
}

TEST_F(FleetOptionTest, ConnectionSettingsAreCheckedAsAWhole) {
  ExpectUsage({"--password-file", WriteFile("password", "pw\n"), "ls"}, "--password-file", "needs --username");
  ExpectUsage({"--cafile", WriteFile("ca.pem", "x"), "ls"}, "--broker", "TLS options need an mqtts:// broker");
}

TEST_F(FleetOptionTest, BrokerComesFromTheEnvironment) {
  StartBroker();
  Play("box1");
  PipeProcess::Options options = Options();
  options.env.push_back("KENDRIVEX_BROKER=" + broker.Url());
  const Result result = FleetBare({"-p", kPrefix, "ls"}, options);
  EXPECT_EQ(result.out, "box1\tonline\t-\n");
  EXPECT_EQ(result.exitCode, 0) << result.err;
}

TEST_F(FleetOptionTest, BrokerAndPrefixComeFromAConfigurationFileAndTheCommandLineWins) {
  StartBroker();
  Play("box1");
  const std::string config =
      WriteFile("fleet.conf", "# the fleet\nbroker = " + broker.Url() + "\nprefix = other\ntimeout = 3000\n");
  PipeProcess::Options options = Options();
  options.env.push_back("KENDRIVEX_BROKER=" + Away());
  Result result = FleetBare({"-c", config, "-p", kPrefix, "ls"}, options);
  EXPECT_EQ(result.out, "box1\tonline\t-\n");
  EXPECT_EQ(result.exitCode, 0) << result.err;
  result = FleetBare({"-c", config, "ls"}, options);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.exitCode, 0) << result.err;
}

TEST_F(FleetOptionTest, ConfigurationFileTakesNoOptionOfTheCommandLineAlone) {
  const std::string config = WriteFile("fleet.conf", "json = yes\n");
  ExpectUsage({"-c", config, "ls"}, config + ":1", "unknown option \"json\"");
}

}  // namespace
}  // namespace zel::fleet::test
