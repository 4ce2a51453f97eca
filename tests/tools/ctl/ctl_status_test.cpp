// Exit statuses 2 to 4 and their error lines: nothing on standard output, one
// line on standard error, and no socket file made or left.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "kdx_test_paths.h"
#include "tests/tools/ctl/ctl_test.h"

namespace zel::ctl::test {
namespace {

// The user and group "nobody" of Debian.
constexpr int kNobody = 65534;
constexpr int kNoGroup = 65534;

// A socket file that nothing is bound to any more: connecting is refused.
void MakeDeadSocket(const std::string& path) {
  const int fd = ::socket(AF_UNIX, SOCK_DGRAM, 0);
  ASSERT_GE(fd, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ::close(fd);
}

// A directory below `base` whose path is at least `length` bytes long.
std::string DeepDirectory(const std::string& base, size_t length) {
  std::string deep = base;
  while (deep.size() < length) {
    deep += "/deeper";
    EXPECT_EQ(::mkdir(deep.c_str(), 0755), 0);
  }
  return deep;
}

void ExpectUsageError(const Result& result, const std::string& what, const std::string& why) {
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, ErrorLine(what, why));
}

TEST_F(CtlTest, MissingServiceSocketExitsWithThree) {
  const Result result = Ctl({"ping"});
  EXPECT_EQ(result.exitCode, 3);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, ErrorLine(ServicePath(), "No such file or directory"));
  EXPECT_EQ(LeftOver(), std::vector<std::string>());
}

TEST_F(CtlTest, ServicePathThatIsNotASocketExitsWithThree) {
  std::ofstream(ServicePath()) << "not a socket";
  const Result result = Ctl({"ping"});
  EXPECT_EQ(result.exitCode, 3);
  EXPECT_EQ(result.err, ErrorLine(ServicePath(), "not a socket"));
}

TEST_F(CtlTest, RefusingServiceSocketExitsWithThreeBeforeAnySocketIsMade) {
  MakeDeadSocket(ServicePath());
  const Result result = Ctl({"ping"});
  EXPECT_EQ(result.exitCode, 3);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, ErrorLine(ServicePath(), "Connection refused"));
  EXPECT_EQ(LeftOver(), std::vector<std::string>());
}

TEST_F(CtlTest, MissingDirectoryExitsWithFour) {
  StartSim();
  const std::string missing = dir.File("missing");
  const Result result = CtlBare({"-s", ServicePath(), "-d", missing, "ping"}, Options());
  EXPECT_EQ(result.exitCode, 4);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, ErrorLine(missing, "No such file or directory"));
  EXPECT_TRUE(sim->Requests().empty());
}

TEST_F(CtlTest, DirectoryThatIsAFileExitsWithFour) {
  StartSim();
  const std::string file = dir.File("plain");
  std::ofstream(file) << "x";
  const Result result = CtlBare({"-s", ServicePath(), "-d", file, "ping"}, Options());
  EXPECT_EQ(result.exitCode, 4);
  EXPECT_EQ(result.err, ErrorLine(file, "not a directory"));
}

TEST_F(CtlTest, DirectoryThatIsNotWritableExitsWithFour) {
  StartSim();
  const std::string readOnly = dir.File("ro");
  ASSERT_EQ(::mkdir(readOnly.c_str(), 0555), 0);
  // A plain user, so that the permission counts even when the test runs as
  // root; it must reach the service's socket and the program.
  ASSERT_EQ(::chmod(dir.path().c_str(), 0755), 0);
  ASSERT_EQ(::chmod(ServicePath().c_str(), 0777), 0);
  PipeProcess::Options options = Options();
  options.user = kNobody;
  options.group = kNoGroup;
  const Result result = CtlBare({"-s", ServicePath(), "-d", readOnly, "ping"}, options);
  EXPECT_EQ(result.exitCode, 4);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, ErrorLine(readOnly, "not writable: Permission denied"));
  EXPECT_TRUE(sim->Requests().empty());
}

TEST_F(CtlTest, DirectoryTooDeepForTheSocketPathsExitsWithFour) {
  StartSim();
  const std::string deep = DeepDirectory(dir.path(), 100);
  const Result result = CtlBare({"-s", ServicePath(), "-d", deep, "ping"}, Options());
  EXPECT_EQ(result.exitCode, 4);
  EXPECT_EQ(result.err, ErrorLine(deep, "too long for the client's socket paths (at most 107 bytes)"));
  EXPECT_TRUE(sim->Requests().empty());
}

TEST_F(CtlTest, ServicePathTooLongForASocketAddressExitsWithFour) {
  StartSim();
  // A long path that still leads to the socket, through a link.
  const std::string link = DeepDirectory(dir.path(), 110) + "/svc";
  ASSERT_EQ(::symlink(ServicePath().c_str(), link.c_str()), 0);
  const Result result = CtlBare({"-s", link, "-d", dir.path(), "ping"}, Options());
  EXPECT_EQ(result.exitCode, 4);
  EXPECT_EQ(result.err, ErrorLine(link, "too long for a socket address (at most 107 bytes)"));
}

TEST_F(CtlTest, UnknownCommandIsAUsageError) {
  StartSim();
  ExpectUsageError(Ctl({"pong"}), "pong", "unknown command (try --help)");
  EXPECT_TRUE(sim->Requests().empty());
}

TEST_F(CtlTest, MissingCommandIsAUsageError) { ExpectUsageError(Ctl({}), "command", "missing (try --help)"); }

TEST_F(CtlTest, UnknownLongOptionIsAUsageError) {
  ExpectUsageError(Ctl({"--bogus=1", "ping"}), "--bogus", "unknown option (try --help)");
}

TEST_F(CtlTest, UnknownShortOptionIsAUsageError) {
  ExpectUsageError(Ctl({"-jx", "ping"}), "-x", "unknown option (try --help)");
}

TEST_F(CtlTest, OptionWithoutItsValueIsAUsageError) {
  ExpectUsageError(CtlBare({"-s"}, Options()), "-s", "needs a value");
}

TEST_F(CtlTest, LongOptionWithoutItsValueIsAUsageError) {
  ExpectUsageError(Ctl({"--timeout"}), "--timeout", "needs a value");
}

TEST_F(CtlTest, TimeoutOfZeroIsAUsageError) {
  ExpectUsageError(Ctl({"-t", "0", "ping"}), "-t", "not a whole number of milliseconds from 1 to 60000: \"0\"");
}

TEST_F(CtlTest, TimeoutAboveSixtySecondsIsAUsageError) {
  ExpectUsageError(Ctl({"--timeout", "60001", "ping"}), "--timeout",
                   "not a whole number of milliseconds from 1 to 60000: \"60001\"");
}

TEST_F(CtlTest, TimeoutThatIsNotANumberIsAUsageError) {
  ExpectUsageError(Ctl({"--timeout=5s", "ping"}), "--timeout",
                   "not a whole number of milliseconds from 1 to 60000: \"5s\"");
}

TEST_F(CtlTest, MissingServicePathIsAUsageError) {
  ExpectUsageError(CtlBare({"ping"}, Options()), "--service",
                   "no service socket given (use -s PATH or set KENDRIVEX_SERVICE)");
}

TEST_F(CtlTest, ExecWithAnotherCommandIsAUsageError) {
  ExpectUsageError(Ctl({"-e", "true", "ping"}), "-e", "only with watch");
}

TEST_F(CtlTest, CountWithAnotherCommandIsAUsageError) {
  ExpectUsageError(Ctl({"--count", "2", "stations"}), "--count", "only with watch");
}

TEST_F(CtlTest, CountWithCommandsFromStandardInputIsAUsageError) {
  ExpectUsageError(Ctl({"-n", "1", "-"}), "-n", "only with watch");
}

TEST_F(CtlTest, CountOfZeroIsAUsageError) {
  ExpectUsageError(Ctl({"-n", "0", "watch"}), "-n", "not a whole number from 1 to 4294967295: \"0\"");
}

TEST_F(CtlTest, PingWithAnArgumentIsAUsageError) {
  ExpectUsageError(Ctl({"ping", "now"}), "ping", "takes no arguments, not \"now\"");
}

TEST_F(CtlTest, WatchWithAnArgumentIsAUsageError) {
  ExpectUsageError(Ctl({"watch", "all"}), "watch", "takes no arguments, not \"all\"");
}

TEST_F(CtlTest, SendWithoutANumberIsAUsageError) {
  ExpectUsageError(Ctl({"send"}), "send", "missing command number N (1 to 5)");
}

TEST_F(CtlTest, SendWithANumberOutsideOneToFiveIsAUsageError) {
  ExpectUsageError(Ctl({"send", "6"}), "send", "command number must be 1 to 5, not \"6\"");
  ExpectUsageError(Ctl({"send", "0"}), "send", "command number must be 1 to 5, not \"0\"");
}

TEST_F(CtlTest, SendWithAFieldHoldingATabIsAUsageError) {
  ExpectUsageError(Ctl({"send", "1", "a\tb"}), "send", "a field cannot hold a tab");
}

TEST_F(CtlTest, StandardInputWordWithArgumentsIsAUsageError) {
  ExpectUsageError(Ctl({"-", "ping"}), "-", "takes no arguments, not \"ping\"");
}

TEST_F(CtlTest, EmptyDirectoryNamesTheOptionItCameFrom) {
  StartSim();
  ExpectUsageError(CtlBare({"-s", ServicePath(), "-d", "", "ping"}, Options()), "-d", "the path is empty");
  ExpectUsageError(CtlBare({"-s", ServicePath(), "--dir=", "ping"}, Options()), "--dir", "the path is empty");
  EXPECT_TRUE(sim->Requests().empty());
}

TEST_F(CtlTest, EmptyServicePathNamesTheOptionItCameFrom) {
  ExpectUsageError(CtlBare({"--service", "", "-d", dir.path(), "ping"}, Options()), "--service", "the path is empty");
}

TEST_F(CtlTest, UnknownCommandOfAMegabyteIsShownShortened) {
  StartFake();
  const std::string word(1 << 20, 'w');
  // An argument may be at most 128 KiB long; standard input takes any line.
  const Result result = Ctl({"-"}, word + "\n");
  EXPECT_EQ(result.exitCode, 2);
  // Checked first, so that a failure does not print the megabyte twice.
  ASSERT_LT(result.err.size(), 200u);
  EXPECT_EQ(result.err, ErrorLine("line 1: " + std::string(80, 'w') + "...", "unknown command (try --help)"));
}

TEST_F(CtlTest, ControlBytesOfAnUnknownCommandAreShownEscaped) {
  const Result result = Ctl({"\x1b[31mred\tcell\x7f\xff"});
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_EQ(result.err, ErrorLine("\\x1b[31mred\\tcell\\x7f\\xff", "unknown command (try --help)"));
}

TEST_F(CtlTest, ArgumentsQuotedInAnErrorAreShownShortenedAndEscaped) {
  ExpectUsageError(Ctl({"ping", "\n" + std::string(200, 'a')}), "ping",
                   "takes no arguments, not \"\\n" + std::string(78, 'a') + "...\"");
  ExpectUsageError(Ctl({"--timeout", "\x01", "ping"}), "--timeout",
                   "not a whole number of milliseconds from 1 to 60000: \"\\x01\"");
}

TEST_F(CtlTest, StandardOutputThatCannotBeWrittenIsALocalFailure) {
  // The shell puts a full device behind standard output, then becomes the
  // program (behind the test launcher, an emulator, when there is one).
  PipeProcess::Options options = UncapturedOptions();
  options.hostTool = true;
  const Result result = PipeProcess::Run(
      {"/bin/sh", "-c", "exec ${KDX_TEST_LAUNCHER} \"$0\" --version >/dev/full", KDX_CTL_PATH}, "", options);
  EXPECT_EQ(result.exitCode, 4);
  EXPECT_EQ(result.err, ErrorLine("standard output", "No space left on device"));
}

TEST_F(CtlTest, HelpListsCommandsAndOptionsOnStandardOutput) {
  const Result result = CtlBare({"--help"}, Options());
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out.rfind("Usage: kendrivex-ctl [OPTIONS] COMMAND [ARG...]\n", 0), 0u);
  EXPECT_NE(result.out.find("\n  ping (send_ping) "), std::string::npos);
  EXPECT_NE(result.out.find("\n  send N [FIELD...] "), std::string::npos);
  EXPECT_NE(result.out.find("\n  -t, --timeout MS "), std::string::npos);
}

TEST_F(CtlTest, ShortHelpOptionPrintsTheSameHelp) {
  EXPECT_EQ(CtlBare({"-h"}, Options()).out, CtlBare({"--help"}, Options()).out);
}

TEST_F(CtlTest, VersionPrintsTheProgramAndItsVersion) {
  const Result result = CtlBare({"--version"}, Options());
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "kendrivex-ctl 0.1.0\n");
  EXPECT_EQ(CtlBare({"-V"}, Options()).out, "kendrivex-ctl 0.1.0\n");
}

}  // namespace
}  // namespace zel::ctl::test
