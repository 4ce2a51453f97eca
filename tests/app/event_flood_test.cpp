// A service that floods the client with events while the operator works: the
// events are taken on the event thread, each command still answers at once,
// and the program's memory does not grow with the number of events.
#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "tests/app/fault_matrix.h"
#include "tests/support/wait_until.h"

namespace zel::app::test {
namespace {

using std::chrono::seconds;

constexpr int kFloodEvents = 100000;
constexpr int kFloodStep = kFloodEvents / 10;
// Events and commands before the memory is first read, so that every code
// path and buffer the flood uses has been used once.
constexpr int kWarmUpEvents = 1000;
// The memory the program may gain over the whole flood.
constexpr long kMaxGrowthKb = 1024;

class EventFloodTest : public FaultMatrixTest {
 protected:
  // The address sanitizer holds freed memory back for a while to catch late
  // uses of it; that memory is the sanitizer's, not the program's, and would
  // hide what the flood costs the program.
  EventFloodTest() {
    clientEnv.push_back(SanitizerOptionsWith("ASAN_OPTIONS", "quarantine_size_mb=0:thread_local_quarantine_size_kb=0"));
  }
  ~EventFloodTest() override {
    if (mFlood.joinable()) mFlood.join();
  }

  // Sends `count` events to the client's event socket, each waiting for room
  // in its queue, from a thread of its own.
  void StartFlood(int count) {
    mSent = 0;
    mFloodEnded = false;
    mFlood = std::thread([this, count] {
      for (int i = 0; i < count; ++i) {
        if (!fake->SendTo(EventPath(), "7\tflood " + std::to_string(i))) break;
        mSent = i + 1;
      }
      mFloodEnded = true;
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
  std::atomic<bool> mFloodEnded{false};
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
  // A round of commands after every tenth of the flood, while it goes on.
  int rounds = 0;
  for (int sent = kFloodStep; sent <= kFloodEvents && !HasFailure(); sent += kFloodStep) {
    if (mSent < kFloodEvents) ++rounds;
    RunEachCommand();
    EXPECT_TRUE(::zel::test::WaitUntil([this, sent] { return mSent >= sent || mFloodEnded; }, seconds(120)));
  }
  WaitForFlood();
  RunEachCommand();
  const long after = ClientRssKb();
  // The figures, for the test report (--gtest_output).
  RecordProperty("vmrss_before_kb", static_cast<int>(before));
  RecordProperty("vmrss_after_kb", static_cast<int>(after));
  RecordProperty("command_rounds", rounds);
  EXPECT_EQ(mSent, kFloodEvents);
  // The commands ran while the events came.
  EXPECT_GE(rounds, 5);
  EXPECT_LT(after - before, kMaxGrowthKb) << "VmRSS " << before << " kB before, " << after << " kB after";
  EXPECT_EQ(ClientDescriptors(), descriptors);
  ExpectCleanExit();
}

}  // namespace
}  // namespace zel::app::test
