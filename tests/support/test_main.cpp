// The main of every test executable: each test starts with an empty syslog
// capture, and failures are also reported on standard error while a test has
// standard output on a pseudo-terminal (where they would otherwise vanish).
#include <unistd.h>

#include <string>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "tests/support/pty_stdio.h"
#include "tests/support/syslog_capture.h"

namespace {

class TestSupportListener : public testing::EmptyTestEventListener {
  void OnTestStart(const testing::TestInfo& /*info*/) override { zel::test::SyslogCapture::Clear(); }

  void OnTestPartResult(const testing::TestPartResult& result) override {
    if (!result.failed() || !zel::test::PtyStdio::Active()) return;
    const std::string text = std::string(result.file_name() ? result.file_name() : "?") + ":" +
                             std::to_string(result.line_number()) + ": Failure\n" +
                             result.message() + "\n";
    ssize_t ignored = ::write(STDERR_FILENO, text.data(), text.size());
    (void)ignored;
  }
};

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  // Death tests re-run the executable, which is safe with the threads that
  // socket and monitor tests start.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  testing::UnitTest::GetInstance()->listeners().Append(new TestSupportListener);
  return RUN_ALL_TESTS();
}
