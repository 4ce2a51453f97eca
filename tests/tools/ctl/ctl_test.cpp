#include "tests/tools/ctl/ctl_test.h"

#include <dirent.h>

#include <algorithm>

#include "kdx_test_paths.h"
#include "tests/support/syslog_file.h"

namespace zel::ctl::test {
namespace {

// The client's socket files and its own directory of them.
bool IsClientFile(const std::string& name) { return name.rfind("ipc_client-", 0) == 0 || name.rfind("ctl-", 0) == 0; }

}  // namespace

std::string ErrorLine(const std::string& what, const std::string& why) {
  return "kendrivex-ctl: " + what + ": " + why + "\n";
}

size_t Occurrences(const std::string& output, const std::string& text) {
  size_t count = 0;
  for (size_t at = output.find(text); at != std::string::npos; at = output.find(text, at + 1)) ++count;
  return count;
}

void CtlTest::StartSim(const std::vector<std::string>& options) {
  sim = std::make_unique<SimProcess>(KDX_SIM_PATH, ServicePath(), dir.File("sim.log"), dir.File("sim.syslog"), options);
  ASSERT_TRUE(sim->WaitUntilServing());
}

void CtlTest::StartFake() {
  fake = std::make_unique<FakeService>(ServicePath());
  fake->Script(4, FakeService::Answer::Reply("1"));
  fake->Script(5, FakeService::Answer::Reply("1"));
}

std::vector<std::string> CtlTest::Command(const std::vector<std::string>& args) const {
  std::vector<std::string> argv = {KDX_CTL_PATH, "-s", ServicePath(), "-d", dir.path()};
  argv.insert(argv.end(), args.begin(), args.end());
  return argv;
}

Result CtlTest::Ctl(const std::vector<std::string>& args, const std::string& input) const {
  return PipeProcess::Run(Command(args), input, Options());
}

Result CtlTest::CtlBare(const std::vector<std::string>& args, PipeProcess::Options options) const {
  std::vector<std::string> argv = {KDX_CTL_PATH};
  argv.insert(argv.end(), args.begin(), args.end());
  return PipeProcess::Run(argv, "", std::move(options));
}

std::unique_ptr<PipeProcess> CtlTest::StartCtl(const std::vector<std::string>& args,
                                               PipeProcess::Options options) const {
  return std::make_unique<PipeProcess>(Command(args), std::move(options));
}

PipeProcess::Options CtlTest::Options() const {
  PipeProcess::Options options = UncapturedOptions();
  const std::vector<std::string> capture = ::zel::test::SyslogCaptureEnv(SyslogFile());
  options.env.insert(options.env.end(), capture.begin(), capture.end());
  return options;
}

PipeProcess::Options CtlTest::UncapturedOptions() const {
  PipeProcess::Options options;
  options.env = {"KENDRIVEX_SERVICE=", "KENDRIVEX_DIR="};
  return options;
}

std::vector<std::string> CtlTest::LeftOver() const {
  std::vector<std::string> names;
  DIR* stream = ::opendir(dir.path().c_str());
  if (stream == nullptr) return names;
  while (const dirent* entry = ::readdir(stream)) {
    if (IsClientFile(entry->d_name)) names.push_back(entry->d_name);
  }
  ::closedir(stream);
  std::sort(names.begin(), names.end());
  return names;
}

std::string CtlTest::Argument(const std::string& request) {
  const size_t tab = request.find('\t');
  return tab == std::string::npos ? std::string() : request.substr(tab + 1);
}

}  // namespace zel::ctl::test
