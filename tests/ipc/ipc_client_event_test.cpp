#include <syslog.h>

#include <mutex>
#include <thread>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "ipc/ipc_client.h"
#include "tests/ipc/client_test_env.h"
#include "tests/support/syslog_capture.h"

namespace zel::test {
namespace {

using ::testing::EndsWith;
using ::testing::SizeIs;
using ::testing::StartsWith;
using zel::ipc::IPCClient;
using zel::ipc::IPCEvent;
using Fields = std::vector<std::string>;

// A client whose event socket is registered; events go to mEvents.
class EventTest : public ClientTest {
 protected:
  EventTest() { EXPECT_TRUE(mClient.SetLocalPath(mService.path(), mDir.path(), mEvents.Callback())); }

  bool SendEvent(const std::string& text) { return mService.SendTo(SlotPath(mDir.path(), 0) + "-event", text); }

  // Sends `text`, then an event that is always delivered, and waits for that
  // one: whatever `text` caused has happened by then.
  std::vector<IPCEvent> EventsAfter(const std::string& text) {
    EXPECT_TRUE(SendEvent(text));
    EXPECT_TRUE(SendEvent("99\tsentinel"));
    EXPECT_TRUE(
        mEvents.WaitFor([](const std::vector<IPCEvent>& events) { return !events.empty() && events.back().id == 99; }));
    std::vector<IPCEvent> events = mEvents.Events();
    events.pop_back();
    return events;
  }

  EventSink mEvents;
  IPCClient mClient;  // destroyed before the sink it calls
};

TEST_F(EventTest, EventIsDeliveredWithItsNumberAndArguments) {
  const auto events = EventsAfter("7\tup\twlan0");
  ASSERT_THAT(events, SizeIs(1));
  EXPECT_EQ(events[0].id, 7);
  EXPECT_EQ(events[0].args, (Fields{"up", "wlan0"}));
}

TEST_F(EventTest, SingleFieldSevenIsDeliveredWithoutArguments) {
  const auto events = EventsAfter("7");
  ASSERT_THAT(events, SizeIs(1));
  EXPECT_EQ(events[0].id, 7);
  EXPECT_TRUE(events[0].args.empty());
}

TEST_F(EventTest, EventNumberedZeroIsDropped) { EXPECT_THAT(EventsAfter("0\tx"), SizeIs(0)); }

TEST_F(EventTest, NonNumericEventIsDropped) { EXPECT_THAT(EventsAfter("abc\tx"), SizeIs(0)); }

TEST_F(EventTest, EmptyEventIsDropped) { EXPECT_THAT(EventsAfter(""), SizeIs(0)); }

TEST_F(EventTest, NegativeEventNumberIsDelivered) {
  const auto events = EventsAfter("-2");
  ASSERT_THAT(events, SizeIs(1));
  EXPECT_EQ(events[0].id, -2);
}

TEST_F(EventTest, EventEndsAtItsFirstZeroByte) {
  const auto events = EventsAfter(std::string("5\tab\0cd", 7));
  ASSERT_THAT(events, SizeIs(1));
  EXPECT_EQ(events[0].args, Fields{"ab"});
}

TEST_F(EventTest, OversizeEventIsReadOnlyUpToItsLength) {
  const auto events = EventsAfter("5\t" + std::string(9000, 'x'));
  ASSERT_THAT(events, SizeIs(1));
  EXPECT_EQ(events[0].id, 5);
  ASSERT_THAT(events[0].args, SizeIs(1));
  // The event server's buffer holds 8192 bytes, two of them "5\t".
  EXPECT_EQ(events[0].args[0], std::string(8190, 'x'));
}

TEST_F(EventTest, EveryEventIsLoggedWithItsSenderAndData) {
  EventsAfter("0\tx");
  const auto records = RecordsStartingWith(std::string(kEventServerCbText) + " 162: sf [");
  ASSERT_THAT(records, SizeIs(2));
  EXPECT_EQ(records[0].priority, LOG_DEBUG);
  EXPECT_THAT(records[0].text, EndsWith("] cf [0] path [" + mService.path() + "] data [0\tx]\n"));
  EXPECT_THAT(records[1].text, EndsWith("] cf [0] path [" + mService.path() + "] data [99\tsentinel]\n"));
}

TEST_F(ClientTest, EventsArriveOnAnotherThread) {
  std::mutex mutex;  // guards callbackThread
  std::thread::id callbackThread;
  EventSink sink;
  IPCClient client;
  ASSERT_TRUE(client.SetLocalPath(mService.path(), mDir.path(), [&](IPCEvent& event) {
    {
      std::lock_guard<std::mutex> lock(mutex);
      callbackThread = std::this_thread::get_id();
    }
    sink.Callback()(event);
  }));
  ASSERT_TRUE(mService.SendTo(SlotPath(mDir.path(), 0) + "-event", "7"));
  ASSERT_TRUE(sink.WaitForCount(1));
  // cppcheck-suppress localMutex ; the callback locks the same mutex on the event thread
  std::lock_guard<std::mutex> lock(mutex);
  EXPECT_NE(callbackThread, std::this_thread::get_id());
}

TEST_F(EventTest, EventsAndRequestsRunSideBySide) {
  for (int i = 1; i <= 20; ++i) {
    ASSERT_TRUE(SendEvent(std::to_string(i)));
    EXPECT_EQ(mClient.Send(zel::ipc::Ping).args, Fields{"PONG"});
  }
  ASSERT_TRUE(mEvents.WaitForCount(20));
  EXPECT_EQ(mEvents.Events().back().id, 20);
}

}  // namespace
}  // namespace zel::test
