#include "tests/support/syslog_file.h"

#include <sys/wait.h>
#include <syslog.h>

#include "gtest/gtest.h"
#include "kdx_test_paths.h"
#include "tests/support/pty_process.h"
#include "tests/support/temp_dir.h"

namespace zel::test {
namespace {

TEST(SyslogFileTest, PreloadedLibraryWritesEveryRecordOfARealProgram) {
  TempDir dir;
  const std::string logFile = dir.File("syslog");
  PtyProcess probe({KDX_PTY_PROBE_PATH, "log"}, {SyslogCaptureEnv(logFile), ""});
  const auto status = probe.WaitForExit();
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(PtyProcess::ExitCode(*status), 3);
  EXPECT_EQ(ReadSyslogFile(logFile), (std::vector<LogRecord>{
                                         {LOG_WARNING, "probe text 7\n"         },
                                         {LOG_ERR,     "second without line end"}
  }));
}

TEST(SyslogFileTest, PreloadedLibraryLeavesOutWhatTheProgramsLogMaskLeavesOut) {
  TempDir dir;
  const std::string logFile = dir.File("syslog");
  PtyProcess probe({KDX_PTY_PROBE_PATH, "masked"}, {SyslogCaptureEnv(logFile), ""});
  ASSERT_TRUE(probe.WaitForExit().has_value());
  EXPECT_EQ(ReadSyslogFile(logFile), (std::vector<LogRecord>{
                                         {LOG_WARNING, "kept\n"}
  }));
}

TEST(SyslogFileTest, PreloadedLibraryLeavesTheTerminalOutputAlone) {
  TempDir dir;
  PtyProcess probe({KDX_PTY_PROBE_PATH, "log"}, {SyslogCaptureEnv(dir.File("syslog")), ""});
  ASSERT_TRUE(probe.WaitForExit().has_value());
  EXPECT_EQ(probe.Output(), "logged\r\n");
}

TEST(SyslogFileTest, RecordIsFoundByTheStartOfItsText) {
  TempDir dir;
  const std::string logFile = dir.File("syslog");
  PtyProcess probe({KDX_PTY_PROBE_PATH, "log"}, {SyslogCaptureEnv(logFile), ""});
  ASSERT_TRUE(probe.WaitForExit().has_value());
  EXPECT_TRUE(HasSyslogRecordStarting(logFile, "second without"));
  EXPECT_FALSE(HasSyslogRecordStarting(logFile, "without"));
}

TEST(SyslogFileTest, MissingFileHasNoRecords) {
  TempDir dir;
  EXPECT_TRUE(ReadSyslogFile(dir.File("absent")).empty());
}

}  // namespace
}  // namespace zel::test
