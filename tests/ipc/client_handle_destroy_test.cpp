// Destroying a handle gives back everything it holds, and a handle whose
// descriptors select could not wait for is never made.
#include <sys/select.h>
#include <syslog.h>
#include <unistd.h>

#include <mutex>
#include <string>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "ipc/client_handle.h"
#include "tests/ipc/client_test_env.h"
#include "tests/support/descriptor_filler.h"
#include "tests/support/wait_until.h"

namespace zel::test {
namespace {

using ::testing::ElementsAre;
using zel::ipc::CreateClientHandle;
using zel::ipc::DestroyClientHandle;
using zel::ipc::IPCClient;
using zel::ipc::SendByHandle;

const LogRecord kBeyondSelect{LOG_ERR,
                              "zel::ipc::IPCClient* zel::ipc::CreateClientHandle(const char*, const char*, uint32_t) "
                              "64: a new client's descriptors would not fit select (FD_SETSIZE [1024]), no handle "
                              "made\n"};

class DestroyHandleTest : public ClientTest {
 protected:
  IPCClient* Create() { return CreateClientHandle(mService.path().c_str(), mDir.path().c_str(), 7); }
  std::string ClientPath() const { return SlotPath(mDir.path(), 0); }
  std::string EventPath() const { return ClientPath() + "-event"; }
};

TEST_F(DestroyHandleTest, DestroyUnregistersAndRemovesBothSocketFiles) {
  IPCClient* handle = Create();
  ASSERT_NE(handle, nullptr);
  ASSERT_TRUE(FileExists(ClientPath()));
  ASSERT_TRUE(FileExists(EventPath()));
  EXPECT_TRUE(DestroyClientHandle(handle));
  EXPECT_THAT(RequestTexts(), ElementsAre("4\t" + EventPath(), "5\t" + EventPath()));
  EXPECT_FALSE(FileExists(ClientPath()));
  EXPECT_FALSE(FileExists(EventPath()));
}

TEST_F(DestroyHandleTest, DestroyClosesTheDescriptorsAndStopsTheThread) {
  const size_t descriptors = DescriptorCount();
  const size_t threads = ThreadCount();
  IPCClient* handle = Create();
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(DescriptorCount(), descriptors + 3);
  EXPECT_EQ(ThreadCount(), threads + 1);
  ASSERT_TRUE(DestroyClientHandle(handle));
  EXPECT_EQ(DescriptorCount(), descriptors);
  // A joined thread can stay listed for a moment (notably under emulation).
  EXPECT_TRUE(WaitUntil([threads] { return ThreadCount() == threads; }));
}

TEST_F(DestroyHandleTest, DestroyedHandleIsForgotten) {
  const size_t before = RegistrySize();
  IPCClient* handle = Create();
  ASSERT_NE(handle, nullptr);
  ASSERT_TRUE(DestroyClientHandle(handle));
  EXPECT_EQ(RegistrySize(), before);
  // The pointer is only looked up, never followed.
  EXPECT_EQ(SendByHandle(handle, zel::ipc::Ping, 0, nullptr).count, 0);
  EXPECT_TRUE(mService.RequestsFor(zel::ipc::Ping).empty());
}

TEST_F(DestroyHandleTest, SecondDestroyDoesNothingAndFails) {
  IPCClient* handle = Create();
  ASSERT_NE(handle, nullptr);
  ASSERT_TRUE(DestroyClientHandle(handle));
  const size_t requests = mService.Requests().size();
  EXPECT_FALSE(DestroyClientHandle(handle));
  EXPECT_EQ(mService.Requests().size(), requests);
}

TEST_F(DestroyHandleTest, UnknownHandlesAreNotDestroyed) {
  IPCClient stranger;
  EXPECT_FALSE(DestroyClientHandle(&stranger));
  EXPECT_FALSE(DestroyClientHandle(nullptr));
}

TEST_F(DestroyHandleTest, SlotOfADestroyedHandleIsFreeAgain) {
  ASSERT_TRUE(DestroyClientHandle(Create()));
  IPCClient* again = Create();
  ASSERT_NE(again, nullptr);
  EXPECT_TRUE(FileExists(ClientPath()));
  EXPECT_EQ(SendByHandle(again, zel::ipc::Ping, 0, nullptr).code, 1);
  EXPECT_TRUE(DestroyClientHandle(again));
}

TEST_F(DestroyHandleTest, NoHandleWhenItsDescriptorsWouldReachSelectsLimit) {
  const size_t threads = ThreadCount();
  {
    // Two numbers below the limit are left; a client takes three.
    DescriptorFiller filler(FD_SETSIZE - 2);
    EXPECT_EQ(Create(), nullptr);
  }
  EXPECT_TRUE(HasRecord(kBeyondSelect));
  EXPECT_TRUE(mService.Requests().empty());
  EXPECT_FALSE(FileExists(ClientPath()));
  EXPECT_EQ(ThreadCount(), threads);
}

TEST_F(DestroyHandleTest, ThreeDescriptorsLeftBelowSelectsLimitAreEnough) {
  DescriptorFiller filler(FD_SETSIZE - 3);
  IPCClient* handle = Create();
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(SendByHandle(handle, zel::ipc::Ping, 0, nullptr).code, 1);
  EXPECT_TRUE(DestroyClientHandle(handle));
  EXPECT_FALSE(HasRecord(kBeyondSelect));
}

}  // namespace
}  // namespace zel::test
