// A client whose sockets were given descriptor numbers that select cannot
// wait for knows it, and its requests fail at once rather than wait again.
#include <sys/select.h>
#include <syslog.h>

#include <string>

#include "gtest/gtest.h"
#include "ipc/ipc_client.h"
#include "tests/ipc/client_test_env.h"
#include "tests/support/descriptor_filler.h"

namespace zel::test {
namespace {

using zel::ipc::IPCClient;

constexpr char kRecvTimedWaitText[] = "ssize_t zel::util::Socket::RecvTimedWait(void*, size_t, uint64_t)";

using SelectLimitTest = ClientTest;

TEST_F(SelectLimitTest, ClientSocketBeyondSelectsLimitDoesNotFit) {
  DescriptorFiller filler(FD_SETSIZE);
  IPCClient client;
  ASSERT_TRUE(client.SetLocalPath(mService.path(), mDir.path(), nullptr));
  EXPECT_FALSE(client.DescriptorsFitSelect());
}

TEST_F(SelectLimitTest, EventSocketBeyondSelectsLimitDoesNotFit) {
  // The request socket takes the last number below the limit.
  DescriptorFiller filler(FD_SETSIZE - 1);
  IPCClient client;
  ASSERT_TRUE(client.SetLocalPath(mService.path(), mDir.path(), IgnoreEvents()));
  EXPECT_FALSE(client.DescriptorsFitSelect());
}

TEST_F(SelectLimitTest, RequestBeyondSelectsLimitFailsAfterOneRefusedWait) {
  DescriptorFiller filler(FD_SETSIZE);
  IPCClient client;
  ASSERT_TRUE(client.SetLocalPath(mService.path(), mDir.path(), nullptr));
  EXPECT_EQ(client.Send(zel::ipc::Ping).code, zel::ipc::ResultIoFailure);
  EXPECT_EQ(RecordsStartingWith(std::string(kRecvTimedWaitText) + ": fd [").size(), 1u);
}

}  // namespace
}  // namespace zel::test
