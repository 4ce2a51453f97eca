// The watch against the simulator: the notices of events and of the
// service's changes, taken from a loop of one's own or called back on a
// thread, and the failures of its set-up.
#include "tools/service_client/watch.h"

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "kdx_test_paths.h"
#include "tests/support/sim_process.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait_until.h"

namespace zel::service_client {
namespace {

using ::zel::test::SimProcess;
using ::zel::test::WaitUntil;
using Kind = Notice::Kind;

class WatchTest : public ::testing::Test {
 protected:
  std::string ServicePath() const { return dir.File("svc"); }

  Settings MakeSettings() const {
    Settings settings;
    settings.servicePath = ServicePath();
    settings.dir = dir.path();
    settings.timeoutMs = 2000;
    return settings;
  }

  // The simulator, pushing an event with `id` and `text` every 100 ms.
  void StartSim(int id, const std::string& text) {
    sim = std::make_unique<SimProcess>(
        KDX_SIM_PATH, ServicePath(), dir.File("sim.log"), dir.File("sim.syslog"),
        std::vector<std::string>{"--event-interval", "100", "--event-id", std::to_string(id), "--event-text", text});
    ASSERT_TRUE(sim->WaitUntilServing());
  }

  // Drives the watch as a loop of its own would until a notice of `kind`
  // (and, for an event, with `id`) has been taken; every notice taken is
  // kept in `taken`.
  bool TakeUntil(Watch& watch, Kind kind, int32_t id = 0) {
    return WaitUntil(
        [&] {
          pollfd ready = {watch.Fd(), POLLIN, 0};
          ::poll(&ready, 1, std::min(watch.NextCheckMs(), 100));
          watch.Check();
          Notice notice;
          while (watch.Take(notice)) {
            taken.push_back(notice);
            if (notice.kind == kind && (kind != Kind::Event || notice.event.id == id)) return true;
          }
          return false;
        },
        std::chrono::seconds(10));
  }

  zel::test::TempDir dir;
  std::unique_ptr<SimProcess> sim;
  std::vector<Notice> taken;
};

TEST_F(WatchTest, StartGivesServiceUpThenTheEventsAsTheyCome) {
  StartSim(7, "tick");
  Watch watch(MakeSettings());
  Failure failure;
  ASSERT_TRUE(watch.Start(failure)) << failure.Line("test");
  ASSERT_TRUE(TakeUntil(watch, Kind::Event, 7));
  EXPECT_EQ(taken.front().kind, Kind::ServiceUp);
  const Notice& event = taken.back();
  EXPECT_EQ(event.event.args, std::vector<std::string>({"tick"}));
  EXPECT_GT(event.time.tv_sec, 0);
}

TEST_F(WatchTest, DescriptorIsReadableWhileANoticeWaits) {
  StartSim(7, "tick");
  Watch watch(MakeSettings());
  Failure failure;
  ASSERT_TRUE(watch.Start(failure));
  pollfd ready = {watch.Fd(), POLLIN, 0};
  ASSERT_EQ(::poll(&ready, 1, 0), 1);
  Notice notice;
  while (watch.Take(notice)) {
  }
  EXPECT_EQ(::poll(&ready, 1, 0), 0);
  EXPECT_EQ(::poll(&ready, 1, 5000), 1);
  EXPECT_TRUE(watch.Take(notice));
  EXPECT_EQ(notice.kind, Kind::Event);
}

TEST_F(WatchTest, RestartedServiceGivesDownThenUpAndIsRegisteredWithAgain) {
  StartSim(7, "before");
  Watch watch(MakeSettings());
  Failure failure;
  ASSERT_TRUE(watch.Start(failure));
  ASSERT_TRUE(TakeUntil(watch, Kind::Event, 7));
  ASSERT_TRUE(sim->Stop().has_value());
  ASSERT_TRUE(TakeUntil(watch, Kind::ServiceDown));
  StartSim(8, "after");
  ASSERT_TRUE(TakeUntil(watch, Kind::ServiceUp));
  ASSERT_TRUE(TakeUntil(watch, Kind::Event, 8));
  EXPECT_EQ(taken.back().event.args, std::vector<std::string>({"after"}));
}

TEST_F(WatchTest, RunCallsBackOnItsThreadUntilStopped) {
  StartSim(9, "called");
  Watch watch(MakeSettings());
  Failure failure;
  ASSERT_TRUE(watch.Start(failure));
  std::mutex mutex;  // guards `seen`
  std::vector<Notice> seen;
  std::thread thread([&] {
    watch.Run([&](const Notice& notice) {
      std::lock_guard<std::mutex> lock(mutex);
      seen.push_back(notice);
    });
  });
  EXPECT_TRUE(WaitUntil([&] {
    std::lock_guard<std::mutex> lock(mutex);
    return seen.size() >= 3;
  }));
  watch.Stop();
  thread.join();
  std::lock_guard<std::mutex> lock(mutex);
  EXPECT_EQ(seen[0].kind, Kind::ServiceUp);
  EXPECT_EQ(seen[1].kind, Kind::Event);
  EXPECT_EQ(seen[1].event.id, 9);
}

TEST_F(WatchTest, StopBeforeRunEndsItAtOnce) {
  StartSim(9, "x");
  Watch watch(MakeSettings());
  Failure failure;
  ASSERT_TRUE(watch.Start(failure));
  watch.Stop();
  bool called = false;
  watch.Run([&](const Notice&) { called = true; });
  EXPECT_FALSE(called);
}

TEST_F(WatchTest, MissingServiceFailsTheStartWithThree) {
  Watch watch(MakeSettings());
  Failure failure;
  EXPECT_FALSE(watch.Start(failure));
  EXPECT_EQ(failure.status, kStatusUnreachable);
  EXPECT_EQ(failure.Line("p"), "p: " + ServicePath() + ": No such file or directory\n");
}

TEST_F(WatchTest, DirectoryAtTheEventSocketsPathFailsTheStartWithFour) {
  StartSim(9, "x");
  const std::string eventPath = dir.File("ipc_client-" + std::to_string(::getpid()) + "-0-event");
  ASSERT_EQ(::mkdir(eventPath.c_str(), 0700), 0);
  Watch watch(MakeSettings());
  Failure failure;
  EXPECT_FALSE(watch.Start(failure));
  EXPECT_EQ(failure.status, kStatusLocal);
  EXPECT_EQ(failure.Line("p"), "p: " + eventPath + ": cannot make a socket there: a directory is in the way\n");
}

TEST_F(WatchTest, NoFreeSlotPathFailsTheStartWithFour) {
  StartSim(9, "x");
  const std::string stem = dir.File("ipc_client-" + std::to_string(::getpid()) + "-");
  for (int slot = 0; slot < 10; ++slot) ASSERT_EQ(::mkdir((stem + std::to_string(slot)).c_str(), 0700), 0);
  Watch watch(MakeSettings());
  Failure failure;
  EXPECT_FALSE(watch.Start(failure));
  EXPECT_EQ(failure.status, kStatusLocal);
  EXPECT_EQ(failure.why, "no free client socket path (all ten of this process are taken)");
}

}  // namespace
}  // namespace zel::service_client
