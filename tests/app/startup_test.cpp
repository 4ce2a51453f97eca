// Starting and ending the program: its arguments, a service or directory that
// cannot be used, the banner and the prompt, "exit" and "quit".
#include <syslog.h>

#include <string>
#include <vector>

#include "kdx_test_paths.h"
#include "tests/app/app_test.h"

namespace zel::app::test {
namespace {

const char kSetLocalPath[] =
    "bool zel::ipc::IPCClient::SetLocalPath(std::string, std::string, zel::ipc::IPCClient::EventCb)";
const LogRecord kConstructed{LOG_INFO, "zel::ipc::IPCClient::IPCClient() 21: \n"};

std::string Usage() { return std::string("usage: ") + KDX_CLI_PATH + " [server_path] [client_path_prefix(==dir)]\r\n"; }

using StartupTest = AppTest;

TEST_F(StartupTest, NoArgumentPrintsTheUsageAndExitsWith255) {
  std::string output;
  EXPECT_EQ(RunToEnd({}, output), 255);
  EXPECT_EQ(output, Usage());
  // The client was built before main, and never asked to set its paths.
  EXPECT_EQ(Records(), std::vector<LogRecord>{kConstructed});
}

TEST_F(StartupTest, OneArgumentPrintsTheUsageAndExitsWith255) {
  StartSim();
  std::string output;
  EXPECT_EQ(RunToEnd({ServicePath()}, output), 255);
  EXPECT_EQ(output, Usage());
  EXPECT_EQ(Records(), std::vector<LogRecord>{kConstructed});
  EXPECT_TRUE(sim->Requests().empty());
}

TEST_F(StartupTest, MissingServiceSocketIsReportedWithBothArgumentsVerbatim) {
  const std::string service = dir.File("no service here");
  const std::string prefix = dir.path() + "//";
  std::string output;
  EXPECT_EQ(RunToEnd({service, prefix}, output), 255);
  EXPECT_EQ(output, "Cannot set ipc_client: please check " + service + " and " + prefix + "\r\n");
  EXPECT_EQ(
      Records(),
      (std::vector<LogRecord>{
          kConstructed, {LOG_INFO, std::string(kSetLocalPath) + " 47: no server activated on [" + service + "]\n"}
  }));
}

TEST_F(StartupTest, MissingClientDirectoryIsReportedWithBothArgumentsVerbatim) {
  StartSim();
  const std::string prefix = dir.File("missing dir");
  std::string output;
  EXPECT_EQ(RunToEnd({ServicePath(), prefix}, output), 255);
  EXPECT_EQ(output, "Cannot set ipc_client: please check " + ServicePath() + " and " + prefix + "\r\n");
  EXPECT_EQ(
      Records(),
      (std::vector<LogRecord>{
          kConstructed,
          {LOG_ERR, std::string(kSetLocalPath) + " 53: no such directory for client socket [" + prefix + "]\n"}
  }));
  EXPECT_TRUE(sim->Requests().empty());
}

TEST_F(StartupTest, BannerAndPromptComeFirst) {
  StartSim();
  StartSession();
  EXPECT_EQ(client->Output(), "");
}

TEST_F(StartupTest, ArgumentsAfterTheSecondAreIgnored) {
  StartSim();
  StartSession(std::vector<std::string>{ServicePath(), dir.path(), dir.File("other"), "x"});
  Expect("send_ping\r", "send_ping\r\nPING response : PONG\r\nhi>");
  ASSERT_TRUE(sim->WaitForRequests(2));
  EXPECT_EQ(sim->Requests().front().text, Registration());
  EXPECT_EQ(sim->Requests().front().from, ClientPath());
}

TEST_F(StartupTest, ExitEndsTheProgramWithStatusZero) {
  StartSim();
  StartSession();
  ExpectEnd("exit\r", "exit\r\n");
}

TEST_F(StartupTest, QuitEndsTheProgramWithStatusZero) {
  StartSim();
  StartSession();
  ExpectEnd("quit\r", "quit\r\n");
}

TEST_F(StartupTest, ExitWithWordsAfterItStillEnds) {
  StartSim();
  StartSession();
  ExpectEnd("exit now please\r", "exit now please\r\n");
}

}  // namespace
}  // namespace zel::app::test
