#include "tests/support/syslog_capture.h"

#include <syslog.h>

#include <cstdarg>
#include <thread>

#include "gtest/gtest.h"

extern "C" void __syslog_chk(int, int, const char*, ...);

namespace zel::test {
namespace {

void CallVsyslog(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  vsyslog(priority, format, args);
  va_end(args);
}

TEST(SyslogCaptureTest, RecordsPriorityAndFormattedText) {
  syslog(LOG_ERR, "%s %d: fd [%d]\n", "int f()", 12, 5);
  EXPECT_EQ(SyslogCapture::Records(), (std::vector<LogRecord>{
                                          {LOG_ERR, "int f() 12: fd [5]\n"}
  }));
}

TEST(SyslogCaptureTest, CapturesVsyslogAndFortifiedForm) {
  CallVsyslog(LOG_DEBUG, "a [%s]", "x");
  __syslog_chk(LOG_INFO, 1, "b [%zu]", static_cast<size_t>(3));
  EXPECT_EQ(SyslogCapture::Records(), (std::vector<LogRecord>{
                                          {LOG_DEBUG, "a [x]"},
                                          {LOG_INFO,  "b [3]"}
  }));
}

TEST(SyslogCaptureTest, StartsEmptyInEachTest) { EXPECT_TRUE(SyslogCapture::Records().empty()); }

TEST(SyslogCaptureTest, WaitsForRecordsFromAnotherThread) {
  std::thread writer([] { syslog(LOG_WARNING, "from thread %d", 1); });
  EXPECT_TRUE(SyslogCapture::WaitForRecord({LOG_WARNING, "from thread 1"}));
  writer.join();
}

TEST(SyslogCaptureTest, WaitGivesUpAfterTimeout) {
  EXPECT_FALSE(SyslogCapture::WaitForCount(1, std::chrono::milliseconds(20)));
}

TEST(SyslogCaptureDeathTest, EchoShowsRecordsOfADyingProcess) {
  EXPECT_DEATH(
      {
        SyslogCapture::EchoToStderr(true);
        syslog(LOG_ERR, "%s %d : last words\n", "f", 1);
        abort();
      },
      "syslog\\[3\\]: f 1 : last words");
}

}  // namespace
}  // namespace zel::test
