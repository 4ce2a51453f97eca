// The watch: one line per event as it arrives, --count, --exec, the stop
// signals, and registering again with a restarted service.
#include <signal.h>
#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "kdx_test_paths.h"
#include "tests/support/syslog_file.h"
#include "tests/support/wait_until.h"
#include "tests/tools/ctl/ctl_test.h"

namespace zel::ctl::test {
namespace {

using Answer = FakeService::Answer;

// The shape of an event's time: "2026-11-23T09:00:00.123Z", a digit where
// the shape has a 9.
const char kTimeShape[] = "9999-99-99T99:99:99.999Z";

bool IsUtcTime(const std::string& text) {
  if (text.size() != sizeof kTimeShape - 1) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    const bool digit = text[i] >= '0' && text[i] <= '9';
    if (kTimeShape[i] == '9' ? !digit : text[i] != kTimeShape[i]) return false;
  }
  return true;
}

// Whether `line` is a plain event line: a time, a tab, then `rest`.
bool IsEventLine(const std::string& line, const std::string& rest) {
  const size_t tab = line.find('\t');
  return tab != std::string::npos && IsUtcTime(line.substr(0, tab)) && line.substr(tab + 1) == rest;
}

class CtlWatchTest : public CtlTest {
 protected:
  // Starts a watch against the fake service, with `options` after the
  // command as the documented examples write them, and waits for its
  // registration; the event path it registered. A watch that runs programs
  // is started without the system log capture: behind an emulator, the
  // capture library (built for the target) would reach the programs it
  // starts, and the build machine's shell would complain of it.
  std::string StartWatch(const std::vector<std::string>& options = {}, bool captureSyslog = true) {
    std::vector<std::string> args = {"watch"};
    args.insert(args.end(), options.begin(), options.end());
    watch = StartCtl(args, captureSyslog ? Options() : UncapturedOptions());
    EXPECT_TRUE(fake->WaitForRequestsFor(4, 1));
    const std::vector<FakeService::Request> registrations = fake->RequestsFor(4);
    return registrations.empty() ? std::string() : Argument(registrations[0].text);
  }

  // A shell script in the test's directory that runs `body`.
  std::string Script(const std::string& name, const std::string& body) {
    const std::string path = dir.File(name);
    std::ofstream(path) << "#!/bin/sh\n" << body << "\n";
    ::chmod(path.c_str(), 0755);
    return path;
  }

  std::vector<std::string> Lines(const std::string& path) {
    std::ifstream in(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }

  // Ends the watch with `signo` and expects a clean end: status 0, the
  // unregistration of `eventPath` received, no socket file left.
  void ExpectCleanStop(int signo, const std::string& eventPath) {
    watch->Signal(signo);
    const Result result = watch->Finish();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.signal, 0);
    const std::vector<FakeService::Request> unregistrations = fake->RequestsFor(5);
    ASSERT_EQ(unregistrations.size(), 1u);
    EXPECT_EQ(Argument(unregistrations[0].text), eventPath);
    EXPECT_EQ(LeftOver(), std::vector<std::string>());
  }

  std::unique_ptr<PipeProcess> watch;
};

TEST_F(CtlWatchTest, PrintsEachEventAsItArrives) {
  StartFake();
  const std::string eventPath = StartWatch();
  ASSERT_TRUE(fake->SendTo(eventPath, "7\tlink up"));
  ASSERT_TRUE(watch->WaitForOutLines(1));
  EXPECT_TRUE(IsEventLine(watch->Out(), "7\tlink up\n")) << watch->Out();
  ASSERT_TRUE(fake->SendTo(eventPath, "8\ta\t\tb"));
  ASSERT_TRUE(watch->WaitForOutLines(2));
  const std::string second = watch->Out().substr(watch->Out().find('\n') + 1);
  EXPECT_TRUE(IsEventLine(second, "8\ta\t\tb\n")) << second;
  ExpectCleanStop(SIGTERM, eventPath);
}

TEST_F(CtlWatchTest, EventsNumberedZeroAreNotShown) {
  StartFake();
  const std::string eventPath = StartWatch();
  ASSERT_TRUE(fake->SendTo(eventPath, "0\tnothing"));
  ASSERT_TRUE(fake->SendTo(eventPath, "9"));
  ASSERT_TRUE(watch->WaitForOutLines(1));
  EXPECT_TRUE(IsEventLine(watch->Out(), "9\n")) << watch->Out();
  ExpectCleanStop(SIGTERM, eventPath);
}

TEST_F(CtlWatchTest, JsonEventsAreObjectsWithTimeIdAndArgs) {
  StartFake();
  const std::string eventPath = StartWatch({"--json"});
  ASSERT_TRUE(fake->SendTo(eventPath, "7\tlink up\t\xff"));
  ASSERT_TRUE(watch->WaitForOutLines(1));
  const nlohmann::json event = nlohmann::json::parse(watch->Out(), nullptr, false);
  ASSERT_FALSE(event.is_discarded()) << watch->Out();
  EXPECT_EQ(watch->Out().rfind("{\"time\":\"", 0), 0u) << watch->Out();
  EXPECT_TRUE(IsUtcTime(event["time"].get<std::string>()));
  EXPECT_EQ(event["id"], 7);
  EXPECT_EQ(event["args"], nlohmann::json({"link up", "\xef\xbf\xbd"}));
  ExpectCleanStop(SIGINT, eventPath);
}

TEST_F(CtlWatchTest, CountEndsTheWatchAfterTheNthEvent) {
  StartFake();
  const std::string eventPath = StartWatch({"--count", "2"});
  ASSERT_TRUE(fake->SendTo(eventPath, "1\tone"));
  ASSERT_TRUE(fake->SendTo(eventPath, "2\ttwo"));
  // The watch may have ended and removed its socket by now, and then this
  // event has nowhere to go; either way it must not be printed.
  static_cast<void>(fake->SendTo(eventPath, "3\tthree"));
  const Result result = watch->Finish();
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 2);
  EXPECT_NE(result.out.find("\t1\tone\n"), std::string::npos);
  EXPECT_NE(result.out.find("\t2\ttwo\n"), std::string::npos);
  EXPECT_EQ(fake->RequestsFor(5).size(), 1u);
  EXPECT_EQ(LeftOver(), std::vector<std::string>());
}

TEST_F(CtlWatchTest, SigintEndsTheWatchCleanly) {
  StartFake();
  ExpectCleanStop(SIGINT, StartWatch());
}

TEST_F(CtlWatchTest, SigtermEndsTheWatchCleanly) {
  StartFake();
  ExpectCleanStop(SIGTERM, StartWatch());
}

TEST_F(CtlWatchTest, SighupEndsTheWatchCleanly) {
  StartFake();
  ExpectCleanStop(SIGHUP, StartWatch());
}

TEST_F(CtlWatchTest, StopWithAnUnansweredUnregistrationStillEndsCleanly) {
  StartFake();
  fake->Script(5, Answer::Never());
  const std::string eventPath = StartWatch({"--timeout", "200"});
  watch->Signal(SIGTERM);
  const Result result = watch->Finish();
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(fake->RequestsFor(5).size(), 1u);
  EXPECT_EQ(LeftOver(), std::vector<std::string>());
}

TEST_F(CtlWatchTest, SecondStopSignalDuringTheCleanUpChangesNothing) {
  StartFake();
  // The unregistration goes unanswered, so the clean-up takes its time-out.
  fake->Script(5, Answer::Never());
  StartWatch({"--timeout", "1000"});
  watch->Signal(SIGTERM);
  ASSERT_TRUE(fake->WaitForRequestsFor(5, 1));
  watch->Signal(SIGINT);
  const Result result = watch->Finish();
  EXPECT_EQ(result.signal, 0);
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(LeftOver(), std::vector<std::string>());
}

TEST_F(CtlWatchTest, DirectoryAtTheEventSocketsPathFailsTheSetUp) {
  StartFake();
  // The event socket's path holds the process id: a shell makes the
  // directory there, then becomes the program (behind the test launcher, an
  // emulator, when there is one). The capture library, built for the
  // target, would not suit the shell.
  PipeProcess::Options options = UncapturedOptions();
  options.hostTool = true;
  const Result result = PipeProcess::Run(
      {"/bin/sh", "-c",
       "mkdir \"$2/ipc_client-$$-0-event\" && exec ${KDX_TEST_LAUNCHER} \"$0\" -s \"$1\" -d \"$2\" watch", KDX_CTL_PATH,
       ServicePath(), dir.path()},
      "", options);
  EXPECT_EQ(result.exitCode, 4);
  EXPECT_EQ(result.out, "");
  const size_t colon = result.err.find(": ", std::string("kendrivex-ctl: ").size());
  ASSERT_NE(colon, std::string::npos) << result.err;
  const std::string path =
      result.err.substr(std::string("kendrivex-ctl: ").size(), colon - std::string("kendrivex-ctl: ").size());
  EXPECT_EQ(path.substr(0, dir.path().size() + 12), dir.path() + "/ipc_client-");
  EXPECT_EQ(path.substr(path.size() - 8), "-0-event");
  EXPECT_EQ(result.err, ErrorLine(path, "cannot make a socket there: a directory is in the way"));
}

TEST_F(CtlWatchTest, ExecRunsTheProgramForEachEventInOrderAndWaitsForIt) {
  StartFake();
  const std::string log = dir.File("exec.log");
  const std::string program =
      Script("handler", "echo \"begin $*\" >> " + log + "\nsleep 0.1\necho \"end $1\" >> " + log);
  const std::string eventPath = StartWatch({"--exec", program, "--count", "3"}, false);
  ASSERT_TRUE(fake->SendTo(eventPath, "7\tlink up"));
  ASSERT_TRUE(fake->SendTo(eventPath, "8"));
  ASSERT_TRUE(fake->SendTo(eventPath, "9\ta\tb"));
  const Result result = watch->Finish();
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(Lines(log),
            std::vector<std::string>({"begin 7 link up", "end 7", "begin 8", "end 8", "begin 9 a b", "end 9"}));
}

TEST_F(CtlWatchTest, ExecProgramThatFailsIsReportedAndTheWatchGoesOn) {
  StartFake();
  const std::string program = Script("failing", "exit 3");
  const std::string eventPath = StartWatch({"-e", program}, false);
  ASSERT_TRUE(fake->SendTo(eventPath, "7"));
  ASSERT_TRUE(watch->WaitForErr("\n"));
  EXPECT_EQ(watch->Err(), ErrorLine(program, "exited with status 3"));
  ASSERT_TRUE(fake->SendTo(eventPath, "8"));
  ASSERT_TRUE(watch->WaitForOutLines(2));
  ExpectCleanStop(SIGTERM, eventPath);
}

TEST_F(CtlWatchTest, ExecProgramThatCannotStartIsReportedAndTheWatchGoesOn) {
  StartFake();
  const std::string program = dir.File("missing-handler");
  const std::string eventPath = StartWatch({"--exec", program}, false);
  ASSERT_TRUE(fake->SendTo(eventPath, "7"));
  ASSERT_TRUE(watch->WaitForErr("\n"));
  EXPECT_EQ(watch->Err(), ErrorLine(program, "cannot start: no such executable program"));
  ASSERT_TRUE(fake->SendTo(eventPath, "8"));
  ASSERT_TRUE(watch->WaitForOutLines(2));
  ExpectCleanStop(SIGTERM, eventPath);
}

TEST_F(CtlWatchTest, ExecProgramNamedWithoutASlashIsLookedUpOnThePath) {
  StartFake();
  const std::string log = dir.File("exec.log");
  Script("on-event", "echo \"ran $*\" >> " + log);
  PipeProcess::Options options = UncapturedOptions();
  options.env.push_back("PATH=/nonexistent::" + dir.path() + ":/usr/bin:/bin");
  watch = StartCtl({"watch", "--exec", "on-event", "--count", "1"}, options);
  ASSERT_TRUE(fake->WaitForRequestsFor(4, 1));
  ASSERT_TRUE(fake->SendTo(Argument(fake->RequestsFor(4)[0].text), "7\tx"));
  const Result result = watch->Finish();
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(Lines(log), std::vector<std::string>({"ran 7 x"}));
}

TEST_F(CtlWatchTest, ExecProgramNotOnThePathIsReportedAndTheWatchGoesOn) {
  StartFake();
  PipeProcess::Options options = UncapturedOptions();
  options.env.push_back("PATH=" + dir.path());
  watch = StartCtl({"watch", "--exec", "no-such-handler"}, options);
  ASSERT_TRUE(fake->WaitForRequestsFor(4, 1));
  const std::string eventPath = Argument(fake->RequestsFor(4)[0].text);
  ASSERT_TRUE(fake->SendTo(eventPath, "7"));
  ASSERT_TRUE(watch->WaitForErr("\n"));
  EXPECT_EQ(watch->Err(), ErrorLine("no-such-handler", "cannot start: no such executable program"));
  ExpectCleanStop(SIGTERM, eventPath);
}

TEST_F(CtlWatchTest, ExecProgramKilledByASignalIsReported) {
  StartFake();
  const std::string program = Script("killed", "kill -KILL $$");
  const std::string eventPath = StartWatch({"-e", program}, false);
  ASSERT_TRUE(fake->SendTo(eventPath, "7"));
  ASSERT_TRUE(watch->WaitForErr("\n"));
  EXPECT_EQ(watch->Err(), ErrorLine(program, "killed by signal 9"));
  ExpectCleanStop(SIGTERM, eventPath);
}

TEST_F(CtlWatchTest, RefusedRegistrationIsRetriedLikeTheLibraryDoes) {
  StartFake();
  fake->Script(4, {Answer::Reply("3"), Answer::Reply("1")});
  watch = StartCtl({"watch"}, Options());
  ASSERT_TRUE(fake->WaitForRequestsFor(4, 2, std::chrono::seconds(15)));
  const std::string eventPath = Argument(fake->RequestsFor(4)[1].text);
  ASSERT_TRUE(fake->SendTo(eventPath, "7\tafter retry"));
  ASSERT_TRUE(watch->WaitForOut("\t7\tafter retry\n"));
  ExpectCleanStop(SIGTERM, eventPath);
}

TEST_F(CtlWatchTest, RestartedServiceIsRegisteredWithAgainWithoutDuplicates) {
  StartFake();
  const std::string firstPath = StartWatch();
  ASSERT_TRUE(fake->SendTo(firstPath, "7\tbefore"));
  ASSERT_TRUE(watch->WaitForOutLines(1));
  fake.reset();
  StartFake();
  ASSERT_TRUE(fake->WaitForRequestsFor(4, 1, std::chrono::seconds(10)));
  const std::string secondPath = Argument(fake->RequestsFor(4)[0].text);
  ASSERT_TRUE(fake->SendTo(secondPath, "7\tafter"));
  ASSERT_TRUE(watch->WaitForOutLines(2));
  EXPECT_TRUE(::zel::test::WaitForSyslogRecord(
      SyslogFile(),
      ::zel::test::LogRecord{LOG_INFO, "the service at " + ServicePath() + " started anew; registering again"}));
  const std::string out = watch->Out();
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 2);
  EXPECT_NE(out.find("\t7\tbefore\n"), std::string::npos);
  EXPECT_NE(out.find("\t7\tafter\n"), std::string::npos);
  // One registration with the new service, and no unregistration sent to it
  // for a path it never knew.
  EXPECT_EQ(fake->RequestsFor(4).size(), 1u);
  EXPECT_TRUE(fake->RequestsFor(5).empty());
  ExpectCleanStop(SIGTERM, secondPath);
}

TEST_F(CtlWatchTest, RestartedSimulatorDeliversEventsAgainOncePerPush) {
  StartSim({"--event-interval", "200", "--event-id", "7", "--event-text", "tick"});
  watch = StartCtl({"watch"}, Options());
  ASSERT_TRUE(watch->WaitForOutLines(2));
  ASSERT_TRUE(sim->Stop().has_value());
  StartSim({"--event-interval", "200", "--event-id", "8", "--event-text", "tock"});
  ASSERT_TRUE(watch->WaitForOut("\t8\ttock\n", std::chrono::seconds(10)));
  ASSERT_TRUE(sim->WaitForLines(dir.File("sim.log"), [](const std::vector<std::string>& lines) {
    return std::count_if(lines.begin(), lines.end(),
                         [](const std::string& line) { return line.rfind("event [8\\ttock]", 0) == 0; }) >= 3;
  }));
  // No more pushes once the simulator has stopped; each one it made reached
  // one registered path, once.
  ASSERT_TRUE(sim->Stop().has_value());
  // Both simulators log into one file; the second one's lines follow its
  // "serving on" line.
  std::vector<std::string> lines = SimProcess::ReadLines(dir.File("sim.log"));
  const auto second = std::find_if(lines.rbegin(), lines.rend(),
                                   [](const std::string& line) { return line.rfind("serving on [", 0) == 0; });
  lines.erase(lines.begin(), second.base());
  size_t pushes = 0;
  size_t registrations = 0;
  for (const std::string& line : lines) {
    if (line.rfind("event [8\\ttock] to [", 0) == 0 && line.find("not sent") == std::string::npos) ++pushes;
    if (line.rfind("request [4\\t", 0) == 0) ++registrations;
  }
  EXPECT_EQ(registrations, 1u);
  EXPECT_TRUE(::zel::test::WaitUntil([&] { return Occurrences(watch->Out(), "\t8\ttock\n") >= pushes; }));
  watch->Signal(SIGTERM);
  const Result result = watch->Finish();
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(Occurrences(result.out, "\t8\ttock\n"), pushes);
  EXPECT_EQ(LeftOver(), std::vector<std::string>());
}

TEST_F(CtlWatchTest, ReaderThatGoesAwayEndsTheWatchCleanly) {
  StartFake();
  // As in "kendrivex-ctl watch | head -n 1", the program behind the test
  // launcher (an emulator) when there is one; the capture library, built for
  // the target, would not suit the shell.
  PipeProcess::Options options = UncapturedOptions();
  options.hostTool = true;
  PipeProcess shell({"/bin/bash", "-c",
                     "set -o pipefail; ${KDX_TEST_LAUNCHER} \"$0\" -s \"$1\" -d \"$2\" watch | head -n 1; "
                     "echo \"status ${PIPESTATUS[0]}\"",
                     KDX_CTL_PATH, ServicePath(), dir.path()},
                    options);
  ASSERT_TRUE(fake->WaitForRequestsFor(4, 1));
  const std::string eventPath = Argument(fake->RequestsFor(4)[0].text);
  ASSERT_TRUE(fake->SendTo(eventPath, "7\tfirst"));
  ASSERT_TRUE(shell.WaitForOut("\t7\tfirst\n"));
  // The next line finds the pipe closed; sent until the watch has noticed.
  ASSERT_TRUE(::zel::test::WaitUntil([&] {
    fake->SendTo(eventPath, "7\tlater");
    return shell.Out().find("status ") != std::string::npos;
  }));
  const Result result = shell.Finish();
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_NE(result.out.find("status " + std::to_string(128 + SIGPIPE) + "\n"), std::string::npos) << result.out;
  EXPECT_EQ(fake->RequestsFor(5).size(), 1u);
  EXPECT_EQ(LeftOver(), std::vector<std::string>());
}

TEST_F(CtlWatchTest, UnreachableServiceEndsTheWatchWithThree) {
  const Result result = Ctl({"watch"});
  EXPECT_EQ(result.exitCode, 3);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, ErrorLine(ServicePath(), "No such file or directory"));
}

}  // namespace
}  // namespace zel::ctl::test
