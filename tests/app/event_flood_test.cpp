// A service that floods the client with events while the operator works: the
// events are taken on the event thread, each command still answers at once,
// and the program's memory does not grow with the number of events.
#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "tests/app/fault_matrix.h"

namespace zel::app::test {
namespace {

using std::chrono::seconds;

constexpr int kFloodEvents = 100000;
// Events and commands before the memory is first read, so that every code
// path and buffer the flood uses has been used once.
constexpr int kWarmUpEvents = 1000;
// The memory the program may gain over the whole flood.
constexpr long kMaxGrowthKb = 1024;

class EventFloodTest : public FaultMatrixTest {
 protected:
  ~EventFloodTest() override {
    if (mFlood.joinable()) mFlood.join();
  }

  // Sends `count` events to the client's event socket, each waiting for room
  // in its queue, from a thread of its own.
  void StartFlood(int count) {
    mFlood = std::thread([this, count] {
      for (int i = 0; i < count; ++i) {
        if (!fake->SendTo(EventPath(), "7\tflood " + std::to_string(i))) break;
        mSent = i + 1;
      }
    });
  }
  void WaitForFlood() {
    if (mFlood.joinable()) mFlood.join();
  }

  // Each command answers within a second, flood or not.
  void RunEachCommand() {
    ExpectWithinASecond("send_ping", "PING response : PONG\r\n");
    ExpectWithinASecond("atcmd_wlanapclist", "NO CONNECTED STATION\r\n");
    ExpectWithinASecond("atcmd_wlanmac", "WIFI MAC: 02:00:00:aa:bb:cc\r\n");
  }

  void ExpectWithinASecond(const std::string& command, const std::string& printed) {
    ASSERT_TRUE(client->Type(command + "\r"));
    const std::string expected = command + "\r\n" + printed + "hi>";
    EXPECT_TRUE(client->WaitForOutput(expected, seconds(1))) << ::zel::test::Printable(client->Output());
    ExpectShown(expected);
  }

  std::atomic<int> mSent{0};
  std::thread mFlood;
};

TEST_F(EventFloodTest, HundredThousandEventsLeaveEveryCommandPromptAndTheMemoryFlat) {
  StartFake();
  fake->Script(1, FakeService::Answer::Reply("1\tPONG"));
  fake->Script(2, FakeService::Answer::Reply("1"));
  fake->Script(3, FakeService::Answer::Reply("1\t02:00:00:aa:bb:cc"));
  StartSession();
  StartFlood(kWarmUpEvents);
  WaitForFlood();
  RunEachCommand();
  const size_t descriptors = ClientDescriptors();
  const long before = ClientRssKb();
  ASSERT_GT(before, 0);

  StartFlood(kFloodEvents);
  int rounds = 0;
  while (mSent < kFloodEvents && !HasFailure()) {
    RunEachCommand();
    ++rounds;
  }
  WaitForFlood();
  RunEachCommand();
  const long after = ClientRssKb();
  EXPECT_EQ(mSent, kFloodEvents);
  // The commands ran while the events came.
  EXPECT_GT(rounds, 0);
  EXPECT_LT(after - before, kMaxGrowthKb) << "VmRSS " << before << " kB before, " << after << " kB after";
  EXPECT_EQ(ClientDescriptors(), descriptors);
  ExpectCleanExit();
}

}  // namespace
}  // namespace zel::app::test
