// The simulator as a program: its command line, its report on standard
// output, and a clean stop on SIGINT and SIGTERM.
#include <signal.h>
#include <unistd.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "kdx_test_paths.h"
#include "tests/support/log_record.h"
#include "tests/support/pty_process.h"
#include "tests/support/sim_process.h"
#include "tests/support/syslog_file.h"
#include "tests/support/temp_dir.h"
#include "tests/tools/sim/test_peer.h"
#include "tools/sim/sim_options.h"

namespace zel::sim {
namespace {

using ::zel::sim::test::TestPeer;
using ::zel::test::PathExists;
using ::zel::test::Printable;
using ::zel::test::PtyProcess;
using ::zel::test::SimProcess;
using ::zel::test::SyslogCaptureEnv;
using ::zel::test::TempDir;

const char* const kSim = KDX_SIM_PATH;

// Text as it arrives through the terminal: "\n" becomes "\r\n".
std::string OnTerminal(const std::string& text) {
  std::string out;
  for (char c : text) out += c == '\n' ? std::string("\r\n") : std::string(1, c);
  return out;
}

class SimProgramTest : public ::testing::Test {
 protected:
  // Runs the simulator with `args` to its end; its exit code.
  int RunToEnd(const std::vector<std::string>& args) {
    std::vector<std::string> argv = {kSim};
    argv.insert(argv.end(), args.begin(), args.end());
    PtyProcess::Options options;
    options.env = SyslogCaptureEnv(dir.File("syslog"));
    PtyProcess sim(argv, options);
    const std::optional<int> status = sim.WaitForExit();
    output = sim.Output();
    return status ? PtyProcess::ExitCode(*status) : -2;
  }

  void ExpectCleanStopOn(int signo) {
    SimProcess sim(kSim, dir.File("svc"), dir.File("log"), dir.File("syslog"));
    ASSERT_TRUE(sim.WaitUntilServing());
    ASSERT_TRUE(PathExists(dir.File("svc")));
    sim.Process().Signal(signo);
    const std::optional<int> status = sim.Process().WaitForExit();
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(PtyProcess::ExitCode(*status), 0);
    EXPECT_FALSE(PathExists(dir.File("svc")));
    EXPECT_EQ(sim.LogLines(), (std::vector<std::string>{"serving on [" + dir.File("svc") + "]",
                                                        "stopping on signal " + std::to_string(signo)}));
    EXPECT_EQ(sim.Process().Output(), "");
  }

  TempDir dir;
  std::string output;
};

TEST_F(SimProgramTest, HelpPrintsTheUsageAndExitsWithZero) {
  EXPECT_EQ(RunToEnd({"--help"}), 0);
  EXPECT_EQ(Printable(output), Printable(OnTerminal(SimOptions::Usage(kSim))));
}

TEST_F(SimProgramTest, VersionPrintsTheProgramAndItsVersionAndExitsWithZero) {
  EXPECT_EQ(RunToEnd({"--version"}), 0);
  EXPECT_EQ(output, std::string("kendrivex-sim ") + KDX_VERSION + "\r\n");
}

TEST_F(SimProgramTest, CommandLineErrorIsOneLineThatPointsToHelp) {
  EXPECT_EQ(RunToEnd({"--delay", "soon", dir.File("svc")}), 2);
  EXPECT_EQ(Printable(output),
            Printable(std::string(kSim) + ": --delay: not a whole number of milliseconds from 0 to 4294967295: "
                                          "\"soon\" (try --help)\r\n"));
  EXPECT_FALSE(PathExists(dir.File("svc")));
}

TEST_F(SimProgramTest, UnknownOptionIsOneLineThatPointsToHelp) {
  EXPECT_EQ(RunToEnd({"--bogus", dir.File("svc")}), 2);
  EXPECT_EQ(output, std::string(kSim) + ": --bogus: unknown option (try --help)\r\n");
}

TEST_F(SimProgramTest, PathTooLongForASocketAddressIsRefused) {
  const std::string path = dir.path() + "/" + std::string(108 - dir.path().size() - 1, 's');
  ASSERT_EQ(path.size(), 108u);
  EXPECT_EQ(RunToEnd({path}), 2);
  EXPECT_EQ(output, std::string(kSim) + ": the socket path [" + path +
                        "] is 108 bytes long, but a Unix socket address holds at most 107\r\n");
  EXPECT_FALSE(PathExists(path));
}

TEST_F(SimProgramTest, PathAnotherServiceAnswersOnIsRefused) {
  TestPeer other(dir.File("svc"), "");
  EXPECT_EQ(RunToEnd({dir.File("svc")}), 2);
  EXPECT_EQ(output, std::string(kSim) + ": another service already answers at [" + dir.File("svc") + "]\r\n");
  EXPECT_TRUE(PathExists(dir.File("svc")));
}

TEST_F(SimProgramTest, SigtermStopsItCleanlyAndRemovesTheSocket) { ExpectCleanStopOn(SIGTERM); }

TEST_F(SimProgramTest, SigintStopsItCleanlyAndRemovesTheSocket) { ExpectCleanStopOn(SIGINT); }

TEST_F(SimProgramTest, SigintIgnoredAtStartStaysIgnored) {
  // As a shell starts a background job: Ctrl-C at the terminal is not for it.
  PtyProcess::Options options;
  options.env = SyslogCaptureEnv(dir.File("syslog"));
  options.inChild = [] { ::signal(SIGINT, SIG_IGN); };
  PtyProcess sim({kSim, "--log", dir.File("log"), dir.File("svc")}, options);
  ASSERT_TRUE(SimProcess::WaitForLineIn(dir.File("log"), "serving on [" + dir.File("svc") + "]"));
  sim.Signal(SIGINT);
  sim.Signal(SIGTERM);
  const std::optional<int> status = sim.WaitForExit();
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(PtyProcess::ExitCode(*status), 0);
  EXPECT_EQ(SimProcess::ReadLines(dir.File("log")).back(), "stopping on signal 15");
  EXPECT_FALSE(PathExists(dir.File("svc")));
}

TEST_F(SimProgramTest, RequestLinesGoToStandardOutputWithoutALogFile) {
  PtyProcess::Options options;
  options.env = SyslogCaptureEnv(dir.File("syslog"));
  PtyProcess sim({kSim, "--event-interval", "0", dir.File("svc")}, options);
  ASSERT_TRUE(sim.WaitForOutput("serving on [" + dir.File("svc") + "]\r\n"));
  TestPeer client(dir.File("c"), dir.File("svc"));
  client.Send("1");
  EXPECT_EQ(client.Receive(), "1\tPONG");
  const std::string line = "request [1] from [" + dir.File("c") + "]: reply [1\\tPONG]\r\n";
  ASSERT_TRUE(sim.WaitForOutput(line));
  EXPECT_EQ(sim.Output(), "serving on [" + dir.File("svc") + "]\r\n" + line);
}

TEST_F(SimProgramTest, ItAnswersEveryRequestOfTheClientProtocol) {
  SimProcess sim(kSim, dir.File("svc"), dir.File("log"), dir.File("syslog"), {"--station", "only one"});
  ASSERT_TRUE(sim.WaitUntilServing());
  TestPeer events(dir.File("c-event"), "");
  TestPeer client(dir.File("c"), dir.File("svc"));
  const std::vector<std::pair<std::string, std::string>> exchanges = {
      {"4\t" + dir.File("c-event"), "1"                   },
      {"1",                         "1\tPONG"             },
      {"2",                         "1\tonly one"         },
      {"3",                         "1\t02:1a:7d:4c:88:e1"},
      {"9",                         "2"                   },
      {"5\t" + dir.File("c-event"), "1"                   },
  };
  for (const auto& exchange : exchanges) {
    ASSERT_TRUE(client.Send(exchange.first));
    EXPECT_EQ(client.Receive(), exchange.second) << Printable(exchange.first);
  }
  ASSERT_TRUE(sim.WaitForRequests(exchanges.size()));
  const std::vector<SimProcess::Request> requests = sim.Requests();
  for (size_t i = 0; i < exchanges.size(); ++i) {
    EXPECT_EQ(requests[i].text, exchanges[i].first);
    EXPECT_EQ(requests[i].from, dir.File("c"));
  }
}

TEST_F(SimProgramTest, ClientThatDoesNotReadNeverHoldsTheServiceUp) {
  SimProcess sim(kSim, dir.File("svc"), dir.File("log"), dir.File("syslog"), {"--event-interval", "10"});
  ASSERT_TRUE(sim.WaitUntilServing());
  // A client that registers its event socket and then reads neither its
  // replies nor its events.
  TestPeer stuckEvents(dir.File("s-event"), "");
  auto stuck = std::make_unique<TestPeer>(dir.File("s"), dir.File("svc"));
  ASSERT_TRUE(stuck->Send("4\t" + dir.File("s-event")));
  const std::string lostReply = "reply [1\\tPONG] to [" + dir.File("s") + "]: not sent, no room for it";
  const std::string lostEvent = "event [100\\theartbeat] to [" + dir.File("s-event") + "]: not sent, its queue is full";
  auto lost = [](const std::vector<std::string>& lines, const std::string& start) {
    for (const std::string& line : lines) {
      if (line.compare(0, start.size(), start) == 0) return true;
    }
    return false;
  };
  for (int i = 0; i < 2000 && !lost(sim.LogLines(), lostReply); ++i) ASSERT_TRUE(stuck->Send("1"));
  EXPECT_TRUE(SimProcess::WaitForLines(dir.File("log"), [&](const std::vector<std::string>& lines) {
    return lost(lines, lostReply) && lost(lines, lostEvent);
  }));
  // Another client is still served: its request is taken and logged at once,
  // and its reply comes once the stuck client's unread replies are gone.
  TestPeer other(dir.File("o"), dir.File("svc"));
  ASSERT_TRUE(other.Send("3"));
  EXPECT_TRUE(sim.WaitForLine("request [3] from [" + dir.File("o") + "]: reply [1\\t02:1a:7d:4c:88:e1]"));
  stuck.reset();
  while (other.Waiting().has_value()) {
  }
  ASSERT_TRUE(other.Send("1"));
  EXPECT_EQ(other.Receive(), "1\tPONG");
  const std::optional<int> status = sim.Stop();
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(PtyProcess::ExitCode(*status), 0);
}

}  // namespace
}  // namespace zel::sim
