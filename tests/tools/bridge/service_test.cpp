// What the bridge last found of the service, and each change in turn; the
// socket files that ended processes left in the directory, removed at start.
#include "tools/bridge/service.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/temp_dir.h"

namespace zel::bridge::test {
namespace {

using ::zel::test::LogRecord;
using ::zel::test::SyslogCapture;
using Value = ServiceState::Value;

TEST(ServiceStateTest, UnknownUntilFirstFound) {
  Wakeup wakeup;
  ServiceState state("/svc", wakeup);
  EXPECT_EQ(state.Current(), Value::Unknown);
  EXPECT_STREQ(ServiceState::Text(Value::Unknown), "unknown");
  EXPECT_TRUE(state.TakeChanges().empty());
}

TEST(ServiceStateTest, EachChangeIsKeptInTurnAndSaidInTheLog) {
  Wakeup wakeup;
  ServiceState state("/svc", wakeup);
  state.Set(Value::Up);
  state.Set(Value::Up);
  state.Set(Value::Down);
  state.Set(Value::Up);
  EXPECT_EQ(state.TakeChanges(), (std::vector<Value>{Value::Up, Value::Down, Value::Up}));
  EXPECT_TRUE(state.TakeChanges().empty());
  EXPECT_EQ(state.Current(), Value::Up);
  EXPECT_EQ(SyslogCapture::Records(), (std::vector<LogRecord>{
                                          {LOG_INFO, "the service at /svc is up"  },
                                          {LOG_INFO, "the service at /svc is down"},
                                          {LOG_INFO, "the service at /svc is up"  }
  }));
}

TEST(ServiceStateTest, TakingTheCurrentValueForgetsTheChangesBeforeIt) {
  Wakeup wakeup;
  ServiceState state("/svc", wakeup);
  state.Set(Value::Up);
  state.Set(Value::Down);
  EXPECT_EQ(state.TakeCurrent(), Value::Down);
  EXPECT_TRUE(state.TakeChanges().empty());
  state.Set(Value::Up);
  EXPECT_EQ(state.TakeChanges(), (std::vector<Value>{Value::Up}));
}

// A socket file bound at `path` and left behind, as a killed process leaves
// it.
void LeaveSocket(const std::string& path) {
  const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << path;
  ::close(fd);
}

// A process id that no process has: that of a child that has ended.
pid_t EndedPid() {
  const pid_t pid = ::fork();
  if (pid == 0) ::_exit(0);
  int status = 0;
  ::waitpid(pid, &status, 0);
  return pid;
}

TEST(StaleSocketFilesTest, ThoseOfEndedProcessesAreRemovedAndTheRestStay) {
  ::zel::test::TempDir dir;
  const std::string dead = std::to_string(EndedPid());
  const std::string live = std::to_string(::getpid());
  for (const std::string& name : {"ipc_client-" + dead + "-0", "ipc_client-" + dead + "-0-event",
                                  "ipc_client-" + dead + "-9", "ipc_client-" + live + "-0", std::string("svc")}) {
    LeaveSocket(dir.File(name));
  }
  // Not a socket, or not a client's name: left alone.
  std::ofstream(dir.File("ipc_client-" + dead + "-1")) << "x";
  LeaveSocket(dir.File("ipc_client-" + dead + "-2-other"));
  EXPECT_EQ(RemoveStaleSocketFiles(dir.path()), 3u);
  EXPECT_EQ(::access(dir.File("ipc_client-" + dead + "-0").c_str(), F_OK), -1);
  EXPECT_EQ(::access(dir.File("ipc_client-" + dead + "-0-event").c_str(), F_OK), -1);
  for (const std::string& name : {"ipc_client-" + live + "-0", std::string("svc"), "ipc_client-" + dead + "-1",
                                  "ipc_client-" + dead + "-2-other"}) {
    EXPECT_EQ(::access(dir.File(name).c_str(), F_OK), 0) << name;
  }
  EXPECT_EQ(SyslogCapture::Records(),
            (std::vector<LogRecord>{
                {LOG_INFO, "removed 3 socket files in " + dir.path() + " that ended processes had left"}
  }));
}

}  // namespace
}  // namespace zel::bridge::test
