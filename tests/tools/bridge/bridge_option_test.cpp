// The command line and the configuration file: --help and --version, each
// kind of usage or configuration error as its one line on standard error
// with status 2, a local set-up failure with status 4, a configuration file
// whose settings the command line overrides, and what --verbose adds to the
// system log.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include "kdx_test_paths.h"
#include "tests/support/pty_process.h"
#include "tests/support/syslog_file.h"
#include "tests/tools/bridge/bridge_test.h"

namespace zel::bridge::test {
namespace {

std::string ErrorLine(const std::string& what, const std::string& why) {
  return "kendrivex-bridge: " + what + ": " + why + "\n";
}

class BridgeOptionTest : public BridgeTest {
 protected:
  // Runs the bridge with the service, directory, broker and box given and
  // `args` after them, and expects it to end at once with status 2 and
  // `line` on standard error, nothing on standard output.
  void ExpectUsageError(const std::vector<std::string>& args, const std::string& line) {
    const Result result = PipeProcess::Run(Command(args), "", Options());
    EXPECT_EQ(result.exitCode, 2) << result.err;
    EXPECT_EQ(result.err, line);
    EXPECT_EQ(result.out, "");
  }

  std::string WriteFile(const std::string& name, const std::string& text) {
    std::string path = dir.File(name);
    std::ofstream(path) << text;
    return path;
  }
};

TEST_F(BridgeOptionTest, HelpListsEveryOptionAndExitsWithZero) {
  const Result result = RunBare({"--help"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out.rfind("Usage: kendrivex-bridge [OPTIONS]\n", 0), 0u) << result.out;
  for (const char* option :
       {"-s, --service PATH", "-d, --dir DIR", "-b, --broker URL", "-i, --id NAME", "-p, --prefix TOPIC",
        "    --allow LIST", "    --queue N", "    --health SECONDS", "    --cafile FILE", "    --capath DIR",
        "    --cert FILE", "    --key FILE", "    --username NAME", "    --password-file FILE", "-c, --config FILE",
        "-v, --verbose", "-h, --help", "-V, --version"}) {
    EXPECT_NE(result.out.find("\n  " + std::string(option) + "  "), std::string::npos) << option;
  }
}

TEST_F(BridgeOptionTest, HelpWinsOverVersionWhicheverComesFirst) {
  EXPECT_EQ(RunBare({"-V", "-h"}).out.rfind("Usage: kendrivex-bridge", 0), 0u);
  EXPECT_EQ(RunBare({"--help", "--version"}).out.rfind("Usage: kendrivex-bridge", 0), 0u);
}

TEST_F(BridgeOptionTest, ServiceAndDirectoryComeFromTheEnvironmentUnlessGiven) {
  // A directory too deep for the socket paths shows which one was taken (and
  // is still one that a program behind the launcher, valgrind, can use).
  const std::string deep = dir.File(std::string(100, 'd'));
  ASSERT_EQ(::mkdir(deep.c_str(), 0755), 0);
  const std::string tooLong = "too long for the client's socket paths (at most 107 bytes)";
  PipeProcess::Options options = Options();
  options.env = {"KENDRIVEX_SERVICE=" + ServicePath(), "KENDRIVEX_DIR=", "TMPDIR=" + deep};
  const Result result = PipeProcess::Run({KDX_BRIDGE_PATH, "-b", broker.Url(), "-i", "box1"}, "", options);
  EXPECT_EQ(result.exitCode, 4);
  EXPECT_EQ(result.err, ErrorLine(deep, tooLong));
  options.env = {"KENDRIVEX_SERVICE=" + ServicePath(), "KENDRIVEX_DIR=" + deep, "TMPDIR=" + dir.path()};
  EXPECT_EQ(PipeProcess::Run({KDX_BRIDGE_PATH, "-i", "box1"}, "", options).err, ErrorLine(deep, tooLong));
}

TEST_F(BridgeOptionTest, VersionPrintsTheProgramAndItsVersion) {
  const Result result = RunBare({"-V"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "kendrivex-bridge 0.1.0\n");
}

TEST_F(BridgeOptionTest, UnknownOptionIsAUsageError) {
  ExpectUsageError({"--bogus"}, ErrorLine("--bogus", "unknown option (try --help)"));
  ExpectUsageError({"-x"}, ErrorLine("-x", "unknown option (try --help)"));
}

TEST_F(BridgeOptionTest, OptionWithoutItsValueIsAUsageError) {
  ExpectUsageError({"--queue"}, ErrorLine("--queue", "needs a value"));
  ExpectUsageError({"-i"}, ErrorLine("-i", "needs a value"));
}

TEST_F(BridgeOptionTest, ArgumentsAreAUsageError) {
  ExpectUsageError({"ping"}, ErrorLine("ping", "takes no arguments, only options (try --help)"));
}

TEST_F(BridgeOptionTest, MissingServiceIsAUsageError) {
  const Result result = RunBare({"-b", broker.Url(), "-i", "box1"});
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_EQ(result.err, ErrorLine("--service", "no service socket given (use -s PATH or set KENDRIVEX_SERVICE)"));
}

TEST_F(BridgeOptionTest, BrokerMustBeAnMqttOrMqttsUrl) {
  ExpectUsageError({"-b", "tcp://h:1"},
                   ErrorLine("-b", "not mqtt://HOST[:PORT] or mqtts://HOST[:PORT]: \"tcp://h:1\""));
  ExpectUsageError({"--broker", "mqtt://h:70000"},
                   ErrorLine("--broker", "not mqtt://HOST[:PORT] or mqtts://HOST[:PORT]: \"mqtt://h:70000\""));
}

TEST_F(BridgeOptionTest, IdMayNotBeEmptyNorHoldTopicSeparatorsOrWildcards) {
  for (const char* id : {"", "a/b", "a+", "#"}) {
    ExpectUsageError({"-i", id},
                     ErrorLine("-i", "may not be empty or hold '/', '+' or '#': \"" + std::string(id) + "\""));
  }
  ExpectUsageError({"--id", "all"}, ErrorLine("--id", "\"all\" stands for every box"));
  ExpectUsageError({"--id", "bad\xff"},
                   ErrorLine("--id", "not text that a topic can hold (UTF-8 without control characters)"));
}

TEST_F(BridgeOptionTest, PrefixMayNotBeEmptyNorHoldWildcards) {
  ExpectUsageError({"-p", ""}, ErrorLine("-p", "may not be empty or hold '+' or '#': \"\""));
  ExpectUsageError({"--prefix", "a/+"}, ErrorLine("--prefix", "may not be empty or hold '+' or '#': \"a/+\""));
  ExpectUsageError({"--prefix", "a\x01"},
                   ErrorLine("--prefix", "not text that a topic can hold (UTF-8 without control characters)"));
}

TEST_F(BridgeOptionTest, UserNameMayNotBeEmpty) {
  ExpectUsageError({"--username", ""}, ErrorLine("--username", "may not be empty"));
}

TEST_F(BridgeOptionTest, AllowTakesOnlyCommandsOfABatchLine) {
  ExpectUsageError({"--allow", "ping,reboot"}, ErrorLine("--allow", "not a command the bridge can run: \"reboot\""));
  ExpectUsageError({"--allow", "ping,watch"}, ErrorLine("--allow", "not a command the bridge can run: \"watch\""));
  ExpectUsageError({"--allow", "ping,"}, ErrorLine("--allow", "not a command the bridge can run: \"\""));
}

TEST_F(BridgeOptionTest, QueueAndHealthTakeWholeNumbersInTheirRange) {
  ExpectUsageError({"--queue", "-1"}, ErrorLine("--queue", "not a whole number from 0 to 1000000: \"-1\""));
  ExpectUsageError({"--queue", "1000001"}, ErrorLine("--queue", "not a whole number from 0 to 1000000: \"1000001\""));
  ExpectUsageError({"--health", "1.5"},
                   ErrorLine("--health", "not a whole number of seconds from 0 to 86400: \"1.5\""));
}

TEST_F(BridgeOptionTest, TlsOptionsNeedAnMqttsBroker) {
  const std::string ca = WriteFile("ca.pem", "x");
  ExpectUsageError({"--cafile", ca}, ErrorLine("--broker", "TLS options need an mqtts:// broker"));
}

TEST_F(BridgeOptionTest, TlsFilesMustBeReadable) {
  ExpectUsageError({"--cafile", dir.File("none.pem")},
                   ErrorLine("--cafile", dir.File("none.pem") + ": No such file or directory"));
  ExpectUsageError({"--capath", dir.File("none")},
                   ErrorLine("--capath", dir.File("none") + ": No such file or directory"));
  const std::string file = WriteFile("ca.pem", "x");
  ExpectUsageError({"--capath", file}, ErrorLine("--capath", file + ": not a directory"));
  ExpectUsageError({"--cafile", dir.path()}, ErrorLine("--cafile", dir.path() + ": a directory"));
}

TEST_F(BridgeOptionTest, CertificateAndKeyComeTogether) {
  const std::string cert = WriteFile("cert.pem", "x");
  ExpectUsageError({"-b", "mqtts://h", "--cert", cert}, ErrorLine("--cert", "needs --cert and --key together"));
  ExpectUsageError({"-b", "mqtts://h", "--key", cert}, ErrorLine("--key", "needs --cert and --key together"));
}

TEST_F(BridgeOptionTest, PasswordFileNeedsAUserName) {
  const std::string password = WriteFile("password", "secret\n");
  ExpectUsageError({"--password-file", password}, ErrorLine("--password-file", "needs --username"));
  ExpectUsageError({"--username", "box1", "--password-file", dir.File("none")},
                   ErrorLine("--password-file", dir.File("none") + ": No such file or directory"));
}

TEST_F(BridgeOptionTest, ConfigurationFileThatCannotBeReadIsAUsageError) {
  ExpectUsageError({"-c", dir.File("none.conf")}, ErrorLine(dir.File("none.conf"), "No such file or directory"));
}

TEST_F(BridgeOptionTest, ConfigurationFileErrorsNameTheirLine) {
  const std::string unknown = WriteFile("a.conf", "# the box\nid = box1\nqueue=5 # a comment\nbogus = 1\n");
  ExpectUsageError({"-c", unknown}, ErrorLine(unknown + ":4", "unknown option \"bogus\""));
  const std::string noEquals = WriteFile("b.conf", "\n  \nverbose\n");
  ExpectUsageError({"--config", noEquals}, ErrorLine(noEquals + ":3", "not a name = value line"));
  const std::string badValue = WriteFile("c.conf", "queue = lots\n");
  ExpectUsageError({"-c", badValue},
                   ErrorLine(badValue + ":1", "queue: not a whole number from 0 to 1000000: \"lots\""));
  const std::string notInFile = WriteFile("d.conf", "config = other.conf\n");
  ExpectUsageError({"-c", notInFile}, ErrorLine(notInFile + ":1", "unknown option \"config\""));
  const std::string badFlag = WriteFile("e.conf", "verbose = maybe\n");
  ExpectUsageError({"-c", badFlag}, ErrorLine(badFlag + ":1", "verbose: not yes or no: \"maybe\""));
}

TEST_F(BridgeOptionTest, ConfigurationFileThatIsADirectoryIsAUsageError) {
  ExpectUsageError({"-c", dir.path()}, ErrorLine(dir.path(), "Is a directory"));
}

TEST_F(BridgeOptionTest, MissingDirectoryIsALocalFailure) {
  const Result result = RunBare({"-s", ServicePath(), "-d", dir.File("none"), "-b", broker.Url(), "-i", "box1"});
  EXPECT_EQ(result.exitCode, 4);
  EXPECT_EQ(result.err, ErrorLine(dir.File("none"), "No such file or directory"));
}

TEST_F(BridgeOptionTest, VerboseCopiesTheDiagnosticsToStandardError) {
  // The system log is not captured here: the copy is the C library's.
  PipeProcess::Options uncaptured;
  uncaptured.env = {"KENDRIVEX_SERVICE=", "KENDRIVEX_DIR="};
  const std::string config = WriteFile("verbose.conf", "verbose = no\nverbose = yes\n");
  bridge = std::make_unique<PipeProcess>(Command({"-c", config}), uncaptured);
  EXPECT_TRUE(
      bridge->WaitForErr("cannot reach the broker at " + broker.Url() + ": connection refused; trying again in 1 s\n"))
      << bridge->Err();
}

// Whether the captured system log holds a record that begins with `start`.
bool HasRecordStarting(const std::string& file, const std::string& start) {
  const std::vector<::zel::test::LogRecord> records = ::zel::test::ReadSyslogFile(file);
  return std::any_of(records.begin(), records.end(),
                     [&](const ::zel::test::LogRecord& record) { return record.text.rfind(start, 0) == 0; });
}

TEST_F(BridgeOptionTest, WithoutVerboseTheClientLibrarysRecordsOfEachRequestStayOutOfTheLog) {
  StartBroker();
  StartFake();
  StartOnline();
  ASSERT_EQ(Ask("ping"), AnsweredPayload("ping", 1, {"PONG"}));
  // The request and its reply were logged, if at all, before the reply went
  // out; the bridge's own records are there.
  EXPECT_FALSE(HasRecordStarting(SyslogFile(), "client snd ["));
  EXPECT_FALSE(HasRecordStarting(SyslogFile(), "client rcv ["));
  EXPECT_TRUE(HasRecordStarting(SyslogFile(), "online: taking commands from "));
}

TEST_F(BridgeOptionTest, VerboseLogsTheClientLibrarysRecordsOfEachRequest) {
  StartBroker();
  StartFake();
  StartOnline({"-v"});
  ASSERT_EQ(Ask("ping"), AnsweredPayload("ping", 1, {"PONG"}));
  EXPECT_TRUE(WaitForLog("client snd [1]\n"));
  EXPECT_TRUE(WaitForLog("client rcv [1\tPONG]\n"));
}

TEST_F(BridgeOptionTest, ConfigurationFileSetsOptionsAndTheCommandLineWins) {
  StartBroker();
  StartFake();
  const std::string config = WriteFile("bridge.conf",
                                       "# a box of the fleet\n"
                                       "service = " +
                                           ServicePath() +
                                           "\n"
                                           "dir = " +
                                           dir.path() +
                                           "\n"
                                           "broker = " +
                                           broker.Url() +
                                           "\n"
                                           "prefix = fleet\n"
                                           "id = from-file   # overridden below\n"
                                           "allow = ping, stations\n");
  auto status = Client({"fleet/+/status"});
  bridge = std::make_unique<PipeProcess>(
      std::vector<std::string>{KDX_BRIDGE_PATH, "--config", config, "--id", "from-line", "--allow", "mac"}, Options());
  ASSERT_TRUE(status->WaitForCount("fleet/from-line/status", 1)) << bridge->Err();
  EXPECT_EQ(status->PayloadsOn("fleet/from-line/status"), std::vector<std::string>{"online"});
  EXPECT_TRUE(status->On("fleet/from-file/status").empty());
  // --allow on the command line replaced the file's list.
  EXPECT_EQ(Ask("ping", "fleet/from-line/cmd"),
            ErrorPayload("ping", 2, "ping: not allowed from the broker", "from-line"));
  ExpectCleanStop(SIGTERM, std::chrono::seconds(2));
}

TEST_F(BridgeOptionTest, PasswordFileThatCannotHoldAPasswordEndsTheBridgeWithOneLine) {
  const std::string empty = WriteFile("empty", "");
  ExpectUsageError({"--username", "box1", "--password-file", empty}, ErrorLine("--password-file", empty + ": empty"));
  ExpectUsageError({"--username", "box1", "--password-file", dir.path()},
                   ErrorLine("--password-file", dir.path() + ": not a regular file"));
  ExpectUsageError({"--username", "box1", "--password-file", "/dev/zero"},
                   ErrorLine("--password-file", "/dev/zero: not a regular file"));
  const std::string huge = WriteFile("huge", std::string(100000, 'p'));
  ExpectUsageError({"--username", "box1", "--password-file", huge},
                   ErrorLine("--password-file", huge + ": its first line is longer than 64 KB"));
}

TEST_F(BridgeOptionTest, PasswordFileOthersMayReadAndAPasswordInTheClearAreWarnedOf) {
  const std::string password = WriteFile("password", "pw\n");
  ::chmod(password.c_str(), 0644);
  // A broker on another machine, never reached: the warnings come at start,
  // and the missing directory ends the bridge before it connects anywhere.
  const Result result = RunBare({"-s", ServicePath(), "-d", dir.File("missing"), "-b", "mqtt://192.0.2.1:1",
                                 "--username", "box1", "--password-file", password});
  EXPECT_EQ(result.exitCode, 4) << result.err;
  EXPECT_TRUE(WaitForLog("permissions 0644 for the password file " + password +
                         " are too open: it should be readable by its owner alone (chmod 600 " + password + ")"));
  EXPECT_TRUE(
      WaitForLog("the password of box1 goes unencrypted to the broker at mqtt://192.0.2.1:1; use mqtts:// "
                 "for a broker on another machine"));
}

TEST_F(BridgeOptionTest, StaleSocketFilesOfEndedProcessesAreRemovedAtStart) {
  // What a bridge killed with SIGKILL leaves: its sockets, of a process id
  // that no process has now.
  const pid_t ended = ::fork();
  if (ended == 0) ::_exit(0);
  ::waitpid(ended, nullptr, 0);
  const std::string stale = dir.File("ipc_client-" + std::to_string(ended) + "-0");
  for (const std::string& path : {stale, stale + "-event"}) {
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ::close(fd);
  }
  StartBroker();
  StartFake();
  StartOnline();
  EXPECT_TRUE(WaitForLog("removed 2 socket files in " + dir.path() + " that ended processes had left"));
  EXPECT_EQ(::access(stale.c_str(), F_OK), -1);
}

TEST_F(BridgeOptionTest, OnATerminalWarningsReachStandardErrorWithoutVerbose) {
  // Standard error a terminal, as for an operator who runs it by hand; no
  // broker there.
  ::zel::test::PtyProcess::Options options;
  options.env = {"KENDRIVEX_SERVICE=", "KENDRIVEX_DIR="};
  ::zel::test::PtyProcess terminal(Command({}), options);
  EXPECT_TRUE(terminal.WaitForOutput("kendrivex-bridge: cannot reach the broker at " + broker.Url() +
                                     ": connection refused; trying again in 1 s"));
  // Its lifecycle records stay in the system log alone.
  EXPECT_EQ(terminal.Output().find("connecting to the broker"), std::string::npos) << terminal.Output();
  terminal.Signal(SIGTERM);
  EXPECT_EQ(terminal.WaitForExit(), std::optional<int>(0));
}

TEST_F(BridgeOptionTest, VerboseTwiceCopiesTheClientLibrarysRecordsToStandardErrorToo) {
  StartBroker();
  StartFake();
  PipeProcess::Options uncaptured;
  uncaptured.env = {"KENDRIVEX_SERVICE=", "KENDRIVEX_DIR="};
  auto status = Client({Topic("status")});
  bridge = std::make_unique<PipeProcess>(Command({"-v", "-v"}), uncaptured);
  ASSERT_TRUE(WaitForStatus(*status, "online")) << bridge->Err();
  ASSERT_EQ(Ask("ping"), AnsweredPayload("ping", 1, {"PONG"}));
  EXPECT_TRUE(bridge->WaitForErr("kendrivex-bridge: client snd [1]")) << bridge->Err();
  // The bridge's own messages once each, not a second time through the C
  // library's copy.
  const std::string online = "kendrivex-bridge: online: taking commands from ";
  const std::string err = bridge->Err();
  ASSERT_NE(err.find(online), std::string::npos) << err;
  EXPECT_EQ(err.find(online, err.find(online) + 1), std::string::npos) << err;
}

TEST_F(BridgeOptionTest, VerboseOnceCopiesTheBridgesMessagesButNotTheClientLibrarys) {
  StartBroker();
  StartFake();
  PipeProcess::Options uncaptured;
  uncaptured.env = {"KENDRIVEX_SERVICE=", "KENDRIVEX_DIR="};
  auto status = Client({Topic("status")});
  bridge = std::make_unique<PipeProcess>(Command({"-v"}), uncaptured);
  ASSERT_TRUE(WaitForStatus(*status, "online")) << bridge->Err();
  ASSERT_EQ(Ask("ping"), AnsweredPayload("ping", 1, {"PONG"}));
  EXPECT_TRUE(bridge->WaitForErr("kendrivex-bridge: online: taking commands from ")) << bridge->Err();
  ExpectCleanStop(SIGTERM, std::chrono::seconds(2));
  EXPECT_EQ(bridge->Err().find("client snd"), std::string::npos) << bridge->Err();
  EXPECT_EQ(bridge->Err().find("zel::"), std::string::npos) << bridge->Err();
}

}  // namespace
}  // namespace zel::bridge::test
