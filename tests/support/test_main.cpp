// The main of every test executable: each test starts with an empty syslog
// capture, and while a test has standard output on a pseudo-terminal its
// failures are reported on standard error instead (on standard output they
// would land in the very terminal output the test is checking).
#include <signal.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "tests/support/launcher.h"
#include "tests/support/pty_stdio.h"
#include "tests/support/syslog_capture.h"

namespace {

class TestSupportListener : public testing::EmptyTestEventListener {
  void OnTestStart(const testing::TestInfo& /*info*/) override { zel::test::SyslogCapture::Clear(); }

  void OnTestPartResult(const testing::TestPartResult& result) override {
    if (!result.failed() || !zel::test::PtyStdio::Active()) return;
    const std::string text = std::string(result.file_name() ? result.file_name() : "?") + ":" +
                             std::to_string(result.line_number()) + ": Failure\n" + result.message() + "\n";
    ssize_t ignored = ::write(STDERR_FILENO, text.data(), text.size());
    (void)ignored;
  }
};

// GoogleTest's own printer, silenced for failures while standard output is
// the terminal under test; everything else it prints as usual.
class TerminalAwarePrinter : public testing::TestEventListener {
 public:
  explicit TerminalAwarePrinter(testing::TestEventListener* printer) : mPrinter(printer) {}

  void OnTestProgramStart(const testing::UnitTest& u) override { mPrinter->OnTestProgramStart(u); }
  void OnTestIterationStart(const testing::UnitTest& u, int i) override { mPrinter->OnTestIterationStart(u, i); }
  void OnEnvironmentsSetUpStart(const testing::UnitTest& u) override { mPrinter->OnEnvironmentsSetUpStart(u); }
  void OnEnvironmentsSetUpEnd(const testing::UnitTest& u) override { mPrinter->OnEnvironmentsSetUpEnd(u); }
  void OnTestSuiteStart(const testing::TestSuite& s) override { mPrinter->OnTestSuiteStart(s); }
  void OnTestStart(const testing::TestInfo& t) override { mPrinter->OnTestStart(t); }
  void OnTestDisabled(const testing::TestInfo& t) override { mPrinter->OnTestDisabled(t); }
  void OnTestPartResult(const testing::TestPartResult& r) override {
    if (!zel::test::PtyStdio::Active()) mPrinter->OnTestPartResult(r);
  }
  void OnTestEnd(const testing::TestInfo& t) override { mPrinter->OnTestEnd(t); }
  void OnTestSuiteEnd(const testing::TestSuite& s) override { mPrinter->OnTestSuiteEnd(s); }
  void OnEnvironmentsTearDownStart(const testing::UnitTest& u) override { mPrinter->OnEnvironmentsTearDownStart(u); }
  void OnEnvironmentsTearDownEnd(const testing::UnitTest& u) override { mPrinter->OnEnvironmentsTearDownEnd(u); }
  void OnTestIterationEnd(const testing::UnitTest& u, int i) override { mPrinter->OnTestIterationEnd(u, i); }
  void OnTestProgramEnd(const testing::UnitTest& u) override { mPrinter->OnTestProgramEnd(u); }

 private:
  std::unique_ptr<testing::TestEventListener> mPrinter;
};

// Death tests start this executable again. A cross-built one runs only behind
// its emulator, so the new start goes through the launcher too.
void LaunchDeathTestsLikeThisRun() {
  std::vector<std::string> command = zel::test::LauncherCommand();
  if (command.empty()) return;
  const std::vector<std::string> self = testing::internal::GetArgvs();
  command.insert(command.end(), self.begin(), self.end());
  testing::internal::SetInjectableArgvs(command);
}

#ifdef KDX_COVERAGE_BUILD
extern "C" void __gcov_dump(void);

// Death tests end their child with abort(), which skips the exit handlers
// that write a coverage build's counters; the counters are written first, and
// the process then dies of the signal as before.
void DumpCountersAndAbort(int signo) {
  __gcov_dump();
  ::signal(signo, SIG_DFL);
  ::raise(signo);
}

void DumpCoverageCountersOnAbort() { ::signal(SIGABRT, DumpCountersAndAbort); }
#else
void DumpCoverageCountersOnAbort() {}
#endif

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  DumpCoverageCountersOnAbort();
  // Death tests re-run the executable, which is safe with the threads that
  // socket and monitor tests start.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  LaunchDeathTestsLikeThisRun();
  testing::TestEventListeners& listeners = testing::UnitTest::GetInstance()->listeners();
  if (testing::TestEventListener* printer = listeners.default_result_printer()) {
    listeners.Append(new TerminalAwarePrinter(listeners.Release(printer)));
  }
  listeners.Append(new TestSupportListener);
  return RUN_ALL_TESTS();
}
