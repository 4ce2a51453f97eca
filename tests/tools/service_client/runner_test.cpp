// The runner against the scripted fake service: what each command comes to,
// how every failure is named, that a late reply is never taken for another
// request, and that the program hears of every file the runner makes.
#include "tools/service_client/runner.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "ipc/ipc_types.h"
#include "tests/support/fake_service.h"
#include "tests/support/temp_dir.h"

namespace zel::service_client {
namespace {

using ::zel::test::FakeService;
using Answer = FakeService::Answer;
using std::chrono::milliseconds;

// Records what a runner tells of its files.
class RecordingObserver : public FileObserver {
 public:
  void BeginMaking() override { ++depth; }
  void EndMaking() override { --depth; }
  void Added(const std::string& path, bool directory) override {
    EXPECT_EQ(depth, 1) << "added outside BeginMaking and EndMaking";
    live.push_back(path);
    if (directory) directories.push_back(path);
  }
  void Removed(const std::string& path) override {
    const auto found = std::find(live.begin(), live.end(), path);
    ASSERT_NE(found, live.end()) << path;
    live.erase(found);
  }

  int depth = 0;
  std::vector<std::string> live;
  std::vector<std::string> directories;
};

class RunnerTest : public ::testing::Test {
 protected:
  std::string ServicePath() const { return dir.File("svc"); }

  Settings MakeSettings(uint32_t timeoutMs = 5000) const {
    Settings settings;
    settings.servicePath = ServicePath();
    settings.dir = dir.path();
    settings.timeoutMs = timeoutMs;
    return settings;
  }

  void StartFake() { fake = std::make_unique<FakeService>(ServicePath()); }

  Outcome RunLine(const std::string& line, uint32_t timeoutMs = 5000) {
    Runner runner(MakeSettings(timeoutMs));
    return runner.RunLine(line);
  }

  zel::test::TempDir dir;
  std::unique_ptr<FakeService> fake;
};

TEST_F(RunnerTest, PingComesToItsAnswer) {
  StartFake();
  fake->Script(1, Answer::Reply("1\tPONG"));
  const Outcome outcome = RunLine("send_ping");
  EXPECT_EQ(outcome.status, kStatusOk);
  EXPECT_FALSE(outcome.failure.Failed());
  EXPECT_STREQ(outcome.command->name, "ping");
  EXPECT_TRUE(outcome.answered);
  EXPECT_EQ(outcome.plain, "PONG\n");
  EXPECT_EQ(outcome.Json(), "{\"command\":\"ping\",\"code\":1,\"args\":[\"PONG\"]}\n");
}

TEST_F(RunnerTest, StationsComeOneALine) {
  StartFake();
  fake->Script(2, Answer::Reply("1\ta 1\tb 2"));
  const Outcome outcome = RunLine("stations");
  EXPECT_EQ(outcome.status, kStatusOk);
  EXPECT_EQ(outcome.plain, "a 1\nb 2\n");
}

TEST_F(RunnerTest, SendOfAnotherCodeHasItsReplyAndAFailure) {
  StartFake();
  fake->Script(4, Answer::Reply("3\tbusy"));
  const Outcome outcome = RunLine("send 4 x");
  EXPECT_EQ(outcome.status, kStatusRefused);
  EXPECT_EQ(outcome.plain, "3\tbusy\n");
  EXPECT_EQ(outcome.failure.Line("p"), "p: send: the service answered with code 3\n");
  EXPECT_EQ(outcome.Json(), "{\"command\":\"send\",\"code\":3,\"args\":[\"busy\"]}\n");
  ASSERT_EQ(fake->Requests().size(), 1u);
  EXPECT_EQ(fake->Requests()[0].text, "4\tx");
}

TEST_F(RunnerTest, SuccessWithoutTheFirstFieldIsNotASuccess) {
  StartFake();
  fake->Script(3, Answer::Reply("1"));
  const Outcome outcome = RunLine("mac");
  EXPECT_EQ(outcome.status, kStatusRefused);
  EXPECT_TRUE(outcome.answered);
  EXPECT_EQ(outcome.plain, "");
  EXPECT_EQ(outcome.failure.why, "the service's reply holds no MAC address");
}

TEST_F(RunnerTest, CodeFiveAloneIsTheServicesAnswerNotASilence) {
  StartFake();
  fake->Script(1, Answer::Reply("5"));
  const Outcome outcome = RunLine("ping");
  EXPECT_EQ(outcome.status, kStatusRefused);
  EXPECT_TRUE(outcome.answered);
  EXPECT_EQ(outcome.failure.why, "the service answered with code 5");
  EXPECT_EQ(outcome.Json(), "{\"command\":\"ping\",\"code\":5,\"args\":[]}\n");
}

TEST_F(RunnerTest, EmptyReplyIsNamedSo) {
  StartFake();
  fake->Script(1, Answer::Reply(""));
  const Outcome outcome = RunLine("ping");
  EXPECT_EQ(outcome.status, kStatusRefused);
  EXPECT_FALSE(outcome.answered);
  EXPECT_EQ(outcome.Json(), "");
  EXPECT_EQ(outcome.failure.why, "the service's reply is empty");
}

TEST_F(RunnerTest, ReplyFillingTheBufferIsNamedTooLong) {
  StartFake();
  fake->Script(1, Answer::Reply(std::string(8192, '1')));
  const Outcome outcome = RunLine("ping");
  EXPECT_EQ(outcome.status, kStatusRefused);
  EXPECT_EQ(outcome.failure.why, "the service's reply is too long (8192 bytes or more)");
}

TEST_F(RunnerTest, UnansweredRequestRetiresItsClientSoTheLateReplyIsNeverTaken) {
  StartFake();
  // The first reply comes after its request gave up, while the second
  // request waits; the second request's own reply comes after it.
  fake->Script(1, {Answer::Reply("1\tLATE", milliseconds(1300)), Answer::Reply("1\tOWN", milliseconds(600))});
  Runner runner(MakeSettings(1000));
  const Outcome first = runner.RunLine("ping");
  EXPECT_EQ(first.status, kStatusUnreachable);
  EXPECT_EQ(first.failure.why, "no reply within 1000 ms");
  const Outcome second = runner.RunLine("ping");
  EXPECT_EQ(second.status, kStatusOk);
  EXPECT_EQ(second.plain, "OWN\n");
  const std::vector<FakeService::Request> requests = fake->Requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_NE(requests[1].sender, requests[0].sender);
}

TEST_F(RunnerTest, AnsweredRequestsShareOneClient) {
  StartFake();
  fake->Script(1, Answer::Reply("1\tPONG"));
  Runner runner(MakeSettings());
  EXPECT_EQ(runner.RunLine("ping").status, kStatusOk);
  EXPECT_EQ(runner.RunLine("ping").status, kStatusOk);
  const std::vector<FakeService::Request> requests = fake->Requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[1].sender, requests[0].sender);
}

TEST_F(RunnerTest, RequestTooLongForOneDatagramIsNamedSoAndNothingIsSent) {
  StartFake();
  const Outcome outcome = RunLine("send 1 " + std::string(1 << 20, 'f'));
  EXPECT_EQ(outcome.status, kStatusUsage);
  EXPECT_EQ(outcome.failure.why, "the request of 1048578 bytes is too long for one datagram");
  EXPECT_TRUE(fake->Requests().empty());
}

TEST_F(RunnerTest, ServiceThatTakesNoRequestIsNamedSo) {
  // A socket that is never read: its queue fills, then nothing more leaves.
  const int service = ::socket(AF_UNIX, SOCK_DGRAM, 0);
  ASSERT_GE(service, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, ServicePath().c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(service, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  const int filler = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
  ASSERT_EQ(::connect(filler, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  while (::send(filler, "x", 1, 0) == 1) {
  }
  const Outcome outcome = RunLine("ping", 100);
  EXPECT_EQ(outcome.status, kStatusUnreachable);
  EXPECT_EQ(outcome.failure.why, "the service took no request within 100 ms");
  ::close(filler);
  ::close(service);
}

TEST_F(RunnerTest, MissingServiceIsUnreachable) {
  const Outcome outcome = RunLine("ping");
  EXPECT_EQ(outcome.status, kStatusUnreachable);
  EXPECT_EQ(outcome.failure.Line("p"), "p: " + ServicePath() + ": No such file or directory\n");
}

TEST_F(RunnerTest, ServiceSocketThatRefusesIsUnreachable) {
  const int fd = ::socket(AF_UNIX, SOCK_DGRAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, ServicePath().c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ::close(fd);
  const Outcome outcome = RunLine("ping");
  EXPECT_EQ(outcome.status, kStatusUnreachable);
  EXPECT_EQ(outcome.failure.why, "Connection refused");
}

TEST_F(RunnerTest, MissingDirectoryIsALocalFailure) {
  StartFake();
  Settings settings = MakeSettings();
  settings.dir = dir.File("missing");
  Runner runner(settings);
  const Outcome outcome = runner.RunLine("ping");
  EXPECT_EQ(outcome.status, kStatusLocal);
  EXPECT_EQ(outcome.failure.Line("p"), "p: " + settings.dir + ": No such file or directory\n");
  EXPECT_TRUE(fake->Requests().empty());
}

TEST_F(RunnerTest, AllTenSlotPathsTakenIsALocalFailure) {
  StartFake();
  // Ten slots taken by directories: the IPC client finds no free path.
  const std::string stem = dir.File("ipc_client-" + std::to_string(::getpid()) + "-");
  for (int slot = 0; slot < 10; ++slot) ASSERT_EQ(::mkdir((stem + std::to_string(slot)).c_str(), 0700), 0);
  const Outcome outcome = RunLine("ping");
  EXPECT_EQ(outcome.status, kStatusLocal);
  EXPECT_EQ(outcome.failure.why, "no free client socket path (all ten of this process are taken)");
}

TEST_F(RunnerTest, MoreUnansweredRequestsThanSlotsGoOnInADirectoryOfItsOwn) {
  StartFake();
  RecordingObserver observer;
  {
    Runner runner(MakeSettings(20), &observer);
    for (int i = 0; i < 12; ++i) EXPECT_EQ(runner.RunLine("ping").status, kStatusUnreachable) << i;
    ASSERT_EQ(observer.directories.size(), 1u);
    EXPECT_EQ(observer.directories[0].rfind(dir.path() + "/ctl-", 0), 0u);
    const std::vector<FakeService::Request> requests = fake->Requests();
    ASSERT_EQ(requests.size(), 12u);
    EXPECT_EQ(requests[11].sender.rfind(observer.directories[0] + "/", 0), 0u);
  }
  EXPECT_EQ(observer.depth, 0);
  EXPECT_TRUE(observer.live.empty());
  struct stat info {};
  EXPECT_NE(::stat(observer.directories[0].c_str(), &info), 0);
}

TEST_F(RunnerTest, ObserverHearsOfEveryFileMadeAndRemoved) {
  StartFake();
  fake->Script(1, Answer::Reply("1\tPONG"));
  RecordingObserver observer;
  std::string path;
  {
    Runner runner(MakeSettings(), &observer);
    EXPECT_EQ(runner.RunLine("ping").status, kStatusOk);
    ASSERT_EQ(observer.live.size(), 1u);
    path = observer.live[0];
    EXPECT_EQ(path, fake->Requests()[0].sender);
  }
  EXPECT_TRUE(observer.live.empty());
  struct stat info {};
  EXPECT_NE(::lstat(path.c_str(), &info), 0);
}

TEST_F(RunnerTest, ObserverNeedNotHearOfTheMaking) {
  StartFake();
  fake->Script(1, Answer::Reply("1\tPONG"));
  // An observer of the files alone, as a program without signal handlers
  // would have.
  struct FilesOnly : FileObserver {
    void Added(const std::string&, bool) override { ++files; }
    void Removed(const std::string&) override { --files; }
    int files = 0;
  } observer;
  {
    Runner runner(MakeSettings(), &observer);
    EXPECT_EQ(runner.RunLine("ping").status, kStatusOk);
    EXPECT_EQ(observer.files, 1);
  }
  EXPECT_EQ(observer.files, 0);
}

TEST_F(RunnerTest, BlankAndCommentLinesAskForNothing) {
  StartFake();
  for (const char* line : {"", "   ", "# ping"}) {
    const Outcome outcome = RunLine(line);
    EXPECT_EQ(outcome.status, kStatusOk) << line;
    EXPECT_EQ(outcome.command, nullptr) << line;
    EXPECT_EQ(outcome.plain, "") << line;
  }
  EXPECT_TRUE(fake->Requests().empty());
}

TEST_F(RunnerTest, WatchCannotStandOnABatchLine) {
  StartFake();
  const Outcome outcome = RunLine("watch");
  EXPECT_EQ(outcome.status, kStatusUsage);
  EXPECT_EQ(outcome.failure.why, "not on a line of standard input");
}

TEST_F(RunnerTest, WatchIsNotARequest) {
  Request request;
  Failure failure;
  ASSERT_TRUE(ParseRequest({"watch"}, request, failure));
  Runner runner(MakeSettings());
  const Outcome outcome = runner.Run(request);
  EXPECT_EQ(outcome.status, kStatusUsage);
  EXPECT_EQ(outcome.failure.why, "not a request");
}

TEST_F(RunnerTest, LineThatDoesNotParseIsAUsageFailure) {
  EXPECT_EQ(RunLine("pong").failure.why, "unknown command");
  EXPECT_EQ(RunLine(std::string("ping\0", 5)).failure.why, "holds a NUL byte");
}

TEST_F(RunnerTest, SocketUmaskKeepsSocketsToTheOwnerOrASharedGroup) {
  EXPECT_EQ(SocketUmask(dir.path()), 0177u);
  ASSERT_EQ(::chmod(dir.path().c_str(), 02700), 0);
  EXPECT_EQ(SocketUmask(dir.path()), 0117u);
  ASSERT_EQ(::chmod(dir.path().c_str(), 0770), 0);
  EXPECT_EQ(SocketUmask(dir.path()), 0117u);
  ASSERT_EQ(::chmod(dir.path().c_str(), 0777), 0);
  EXPECT_EQ(SocketUmask(dir.path()), 0177u);
  EXPECT_EQ(SocketUmask(dir.File("missing")), 0177u);
}

TEST_F(RunnerTest, DirectoryChecksNameWhatIsWrong) {
  Failure failure;
  const std::string file = dir.File("plain");
  ::close(::open(file.c_str(), O_CREAT | O_WRONLY, 0600));
  EXPECT_FALSE(CheckDirectory(file, false, failure));
  EXPECT_EQ(failure.why, "not a directory");
  std::string deep = dir.path();
  while (deep.size() < 100) {
    deep += "/deeper";
    ASSERT_EQ(::mkdir(deep.c_str(), 0700), 0);
  }
  EXPECT_FALSE(CheckDirectory(deep, false, failure));
  EXPECT_EQ(failure.why, "too long for the client's socket paths (at most 107 bytes)");
  EXPECT_TRUE(CheckDirectory(dir.path(), true, failure));
}

}  // namespace
}  // namespace zel::service_client
