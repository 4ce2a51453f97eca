// The C binding's results as a C program sees them, through the shared
// library and its header alone.
#include <kendrivex_ipc.h>

#include "gtest/gtest.h"
#include "tests/support/fake_service.h"
#include "tests/support/temp_dir.h"

namespace zel::test {
namespace {

class CBindingTest : public ::testing::Test {
 protected:
  CBindingTest() : mService(mDir.File("service")) {
    mService.Script(KDX_IPC_REGISTER_EVENT_PATH, FakeService::Answer::Reply("1"));
    mService.Script(KDX_IPC_UNREGISTER_EVENT_PATH, FakeService::Answer::Reply("1"));
  }

  kdx_ipc_client* Create() { return kdx_ipc_create_client(mService.path().c_str(), mDir.path().c_str(), 7); }

  TempDir mDir;
  FakeService mService;
};

TEST_F(CBindingTest, DestroyOfALiveHandleIsOk) {
  kdx_ipc_client* handle = Create();
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(kdx_ipc_destroy_client(handle), KDX_IPC_OK);
}

TEST_F(CBindingTest, SecondDestroyOfAHandleReportsAnUnknownHandle) {
  kdx_ipc_client* handle = Create();
  ASSERT_NE(handle, nullptr);
  ASSERT_EQ(kdx_ipc_destroy_client(handle), KDX_IPC_OK);
  EXPECT_EQ(kdx_ipc_destroy_client(handle), KDX_IPC_ERROR_UNKNOWN_HANDLE);
}

TEST_F(CBindingTest, DestroyOfNullReportsAnUnknownHandle) {
  EXPECT_EQ(kdx_ipc_destroy_client(nullptr), KDX_IPC_ERROR_UNKNOWN_HANDLE);
}

}  // namespace
}  // namespace zel::test
