#include "ipc/client_handle.h"

#include <cstring>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "tests/ipc/client_test_env.h"

namespace zel::test {
namespace {

using ::testing::ElementsAre;
using zel::ipc::ClientHandleResult;
using zel::ipc::CreateClientHandle;
using zel::ipc::IPCClient;
using zel::ipc::SendByHandle;

uint32_t RegisteredValue(IPCClient* handle) {
  std::lock_guard<std::mutex> lock(zel::ipc::gClientRegistryMutex);
  const auto entry = zel::ipc::gClientRegistry.find(handle);
  return entry == zel::ipc::gClientRegistry.end() ? 0xFFFFFFFFu : entry->second;
}

bool SlotIsZero(const ClientHandleResult& result, int slot) {
  for (char byte : result.args[slot]) {
    if (byte != 0) return false;
  }
  return true;
}

// Handles live until the process ends, like those of any program using them.
class ClientHandleTest : public ClientTest {
 protected:
  IPCClient* Create(uint32_t value = 7) {
    return CreateClientHandle(mService.path().c_str(), mDir.path().c_str(), value);
  }
};

TEST_F(ClientHandleTest, MissingServiceGivesNullAndNoEntry) {
  const size_t before = RegistrySize();
  EXPECT_EQ(CreateClientHandle(mDir.File("none").c_str(), mDir.path().c_str(), 1), nullptr);
  EXPECT_EQ(CreateClientHandle(nullptr, mDir.path().c_str(), 1), nullptr);
  EXPECT_EQ(CreateClientHandle(mService.path().c_str(), nullptr, 1), nullptr);
  EXPECT_EQ(RegistrySize(), before);
}

TEST_F(ClientHandleTest, NewHandleIsRegisteredWithItsUserValue) {
  IPCClient* handle = Create(42);
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(RegisteredValue(handle), 42u);
}

TEST_F(ClientHandleTest, NewHandleRegistersItsEventSocket) {
  ASSERT_NE(Create(), nullptr);
  EXPECT_THAT(RequestTexts(), ElementsAre("4\t" + SlotPath(mDir.path(), 0) + "-event"));
}

TEST_F(ClientHandleTest, PingReplyIsCopiedIntoTheSlots) {
  IPCClient* handle = Create();
  ASSERT_NE(handle, nullptr);
  const ClientHandleResult result = SendByHandle(handle, zel::ipc::Ping, 0, nullptr);
  EXPECT_EQ(result.code, 1);
  EXPECT_EQ(result.count, 1);
  EXPECT_STREQ(result.args[0], "PONG");
  for (int slot = 1; slot < zel::ipc::kHandleResultSlots; ++slot) EXPECT_TRUE(SlotIsZero(result, slot));
}

TEST_F(ClientHandleTest, UnknownHandleGivesZeroCodeAndCountAndSendsNothing) {
  IPCClient* handle = Create();
  ASSERT_NE(handle, nullptr);
  IPCClient stranger;
  const ClientHandleResult result = SendByHandle(&stranger, zel::ipc::Ping, 0, nullptr);
  EXPECT_EQ(result.code, 0);
  EXPECT_EQ(result.count, 0);
  EXPECT_EQ(SendByHandle(nullptr, zel::ipc::Ping, 0, nullptr).count, 0);
  EXPECT_EQ(mService.RequestsFor(zel::ipc::Ping).size(), 0u);
}

TEST_F(ClientHandleTest, AnyCommandNumberIsSentWithItsArguments) {
  mService.Script(9, Answer::Reply("3\tx"));
  IPCClient* handle = Create();
  ASSERT_NE(handle, nullptr);
  char a[] = "a";
  char b[] = "b c";
  char* argv[] = {a, b};
  const ClientHandleResult result = SendByHandle(handle, 9, 2, argv);
  EXPECT_EQ(result.code, 3);
  ASSERT_EQ(mService.RequestsFor(9).size(), 1u);
  EXPECT_EQ(mService.RequestsFor(9)[0].text, "9\ta\tb c");
}

TEST_F(ClientHandleTest, ArgumentsStopAtANullEntryOrAtArgc) {
  mService.Script(zel::ipc::WlanApClientList, Answer::Reply("1"));
  IPCClient* handle = Create();
  ASSERT_NE(handle, nullptr);
  char a[] = "a";
  char c[] = "c";
  char* withNull[] = {a, nullptr, c};
  SendByHandle(handle, zel::ipc::WlanApClientList, 3, withNull);
  char* both[] = {a, c};
  SendByHandle(handle, zel::ipc::WlanApClientList, 1, both);
  const auto requests = mService.RequestsFor(zel::ipc::WlanApClientList);
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].text, "2\ta");
  EXPECT_EQ(requests[1].text, "2\ta");
}

TEST_F(ClientHandleTest, AtMostTwelveArgumentsAreCopied) {
  std::string reply = "1";
  for (int i = 0; i < 14; ++i) reply += "\targ" + std::to_string(i);
  mService.Script(zel::ipc::WlanApClientList, Answer::Reply(reply));
  IPCClient* handle = Create();
  ASSERT_NE(handle, nullptr);
  const ClientHandleResult result = SendByHandle(handle, zel::ipc::WlanApClientList, 0, nullptr);
  EXPECT_EQ(result.count, 12);
  EXPECT_STREQ(result.args[0], "arg0");
  EXPECT_STREQ(result.args[11], "arg11");
}

TEST_F(ClientHandleTest, EachArgumentKeepsAtMost254Characters) {
  mService.Script(zel::ipc::WlanMac, Answer::Reply("1\t" + std::string(300, 'm') + "\t" + std::string(254, 'n')));
  IPCClient* handle = Create();
  ASSERT_NE(handle, nullptr);
  const ClientHandleResult result = SendByHandle(handle, zel::ipc::WlanMac, 0, nullptr);
  EXPECT_EQ(std::string(result.args[0]), std::string(254, 'm'));
  EXPECT_EQ(std::string(result.args[1]), std::string(254, 'n'));
}

TEST_F(ClientHandleTest, HandlesMadeFromSeveralThreadsGetTheirOwnPaths) {
  std::vector<IPCClient*> handles(4, nullptr);
  std::vector<std::thread> threads;
  for (size_t i = 0; i < handles.size(); ++i) {
    threads.emplace_back([this, &handles, i] { handles[i] = Create(static_cast<uint32_t>(i)); });
  }
  for (std::thread& thread : threads) thread.join();
  for (size_t i = 0; i < handles.size(); ++i) {
    ASSERT_NE(handles[i], nullptr);
    EXPECT_EQ(RegisteredValue(handles[i]), i);
  }
  std::set<std::string> senders;
  for (const auto& request : mService.Requests()) senders.insert(request.sender);
  EXPECT_EQ(senders.size(), 4u);
  for (int slot = 0; slot < 4; ++slot) EXPECT_TRUE(FileExists(SlotPath(mDir.path(), slot)));
}

TEST_F(ClientHandleTest, RequestsByHandleNeverOverlapWithTheRegistrationRetry) {
  // Slow answers widen the window in which both want the socket.
  mService.Script(zel::ipc::RegisterEventPath, Answer::Reply("0", milliseconds(100)));
  mService.Script(zel::ipc::Ping, Answer::Reply("1\tPONG", milliseconds(20)));
  IPCClient* handle = Create();
  ASSERT_NE(handle, nullptr);
  for (int i = 0; i < 10; ++i) EXPECT_STREQ(SendByHandle(handle, zel::ipc::Ping, 0, nullptr).args[0], "PONG");
  ASSERT_TRUE(mService.WaitForRequestsFor(zel::ipc::RegisterEventPath, 2));
  for (const auto& request : mService.Requests()) {
    EXPECT_EQ(request.repliesOwed, 0u) << "overlapping request " << request.text;
  }
}

}  // namespace
}  // namespace zel::test
