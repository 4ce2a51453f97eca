// What the bridge last found of the service, and each change in turn.
#include "tools/bridge/service_state.h"

#include <syslog.h>

#include "gtest/gtest.h"
#include "tests/support/syslog_capture.h"

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
  const std::string prefix = "void zel::bridge::ServiceState::Set(zel::bridge::ServiceState::Value) 1: the service at ";
  EXPECT_EQ(SyslogCapture::Records(), (std::vector<LogRecord>{
                                          {LOG_INFO, prefix + "[/svc] is up\n"  },
                                          {LOG_INFO, prefix + "[/svc] is down\n"},
                                          {LOG_INFO, prefix + "[/svc] is up\n"  }
  }));
}

}  // namespace
}  // namespace zel::bridge::test
