// Runs the C example program, built against the shared library and its C
// header, against a fake service.
#include <filesystem>

#include "gtest/gtest.h"
#include "kdx_test_paths.h"
#include "tests/ipc/client_test_env.h"
#include "tests/support/pty_process.h"

namespace zel::test {
namespace {

TEST_F(ClientTest, CExamplePingsTheServiceAndPrintsTheReply) {
  PtyProcess example({KDX_IPC_C_EXAMPLE_PATH, mService.path(), mDir.path()});
  const auto status = example.WaitForExit();
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(PtyProcess::ExitCode(*status), 0);
  EXPECT_EQ(example.Output(), "code [1] count [1]\r\narg 0 [PONG]\r\n");
  const auto requests = mService.Requests();
  ASSERT_GE(requests.size(), 2u);
  EXPECT_EQ(requests[0].command, zel::ipc::RegisterEventPath);
  EXPECT_EQ(requests[1].text, "1");
}

TEST_F(ClientTest, CExampleDestroysItsHandleBeforeItEnds) {
  PtyProcess example({KDX_IPC_C_EXAMPLE_PATH, mService.path(), mDir.path()});
  const auto status = example.WaitForExit();
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(PtyProcess::ExitCode(*status), 0);
  const auto requests = mService.Requests();
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_EQ(requests[2].command, zel::ipc::UnregisterEventPath);
  // Only the service's own socket is left in the directory.
  size_t files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(mDir.path())) {
    EXPECT_EQ(entry.path().string(), mService.path());
    ++files;
  }
  EXPECT_EQ(files, 1u);
}

TEST_F(ClientTest, CExampleReportsAMissingService) {
  const std::string missing = mDir.File("none");
  PtyProcess example({KDX_IPC_C_EXAMPLE_PATH, missing, mDir.path()});
  const auto status = example.WaitForExit();
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(PtyProcess::ExitCode(*status), 1);
  EXPECT_EQ(example.Output(), "cannot reach the service at [" + missing + "]\r\n");
}

}  // namespace
}  // namespace zel::test
