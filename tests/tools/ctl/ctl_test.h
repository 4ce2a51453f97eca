// The fixture of kendrivex-ctl's tests: the real program run as a script runs
// it (standard input from a pipe or a file, standard output and standard
// error apart), with its system log captured in a file, against the device-
// service simulator or a scripted fake service in this process. Everything
// lives in one fresh directory per test: the service's socket, the client's
// sockets, the logs. One thread at a time.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "tests/support/fake_service.h"
#include "tests/support/pipe_process.h"
#include "tests/support/sim_process.h"
#include "tests/support/temp_dir.h"

namespace zel::ctl::test {

using ::zel::test::FakeService;
using ::zel::test::PipeProcess;
using ::zel::test::SimProcess;
using ::zel::test::TempDir;
using Result = PipeProcess::Result;

class CtlTest : public ::testing::Test {
 protected:
  std::string ServicePath() const { return dir.File("svc"); }
  std::string SyslogFile() const { return dir.File("syslog"); }

  // The simulator, serving at ServicePath() with `options`.
  void StartSim(const std::vector<std::string>& options = {});
  // The fake service at ServicePath(), accepting registrations and
  // unregistrations; other commands go unanswered until scripted.
  void StartFake();

  // The program's command line: the service and the directory, then `args`.
  std::vector<std::string> Command(const std::vector<std::string>& args) const;
  // Runs the program with `args` after the service and directory options,
  // `input` on its standard input, to its end.
  Result Ctl(const std::vector<std::string>& args, const std::string& input = "") const;
  // Runs it with exactly `args` (no service or directory given).
  Result CtlBare(const std::vector<std::string>& args, PipeProcess::Options options = PipeProcess::Options()) const;
  // Starts it with `args` after the service and directory options.
  std::unique_ptr<PipeProcess> StartCtl(const std::vector<std::string>& args,
                                        PipeProcess::Options options = PipeProcess::Options()) const;
  // Options for the program: its system log captured, no defaults from the
  // environment of the test run.
  PipeProcess::Options Options() const;
  // The same without the system log capture.
  PipeProcess::Options UncapturedOptions() const;

  // The client's socket files (and directory of them) in the test's
  // directory, which must be gone after each run.
  std::vector<std::string> LeftOver() const;
  // The fields after the command number of a request line.
  static std::string Argument(const std::string& request);

  TempDir dir;
  std::unique_ptr<SimProcess> sim;
  std::unique_ptr<FakeService> fake;
};

// Standard error as the program writes one error line.
std::string ErrorLine(const std::string& what, const std::string& why);

// How often `text` occurs in `output`.
size_t Occurrences(const std::string& output, const std::string& text);

}  // namespace zel::ctl::test
