// The client's sockets as the service and the file system see them: their
// paths and slots, registration first and unregistration last, events, and
// the registration retry.
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "tests/app/app_test.h"
#include "tests/support/pid_files.h"
#include "tests/support/syslog_file.h"

namespace zel::app::test {
namespace {

using ::zel::test::PidFiles;

bool Exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

bool IsSocket(const std::string& path) {
  struct stat info;
  return ::stat(path.c_str(), &info) == 0 && S_ISSOCK(info.st_mode);
}

// The names of the slots 0 to count - 1, after the process id.
std::vector<std::string> SlotSuffixes(int count) {
  std::vector<std::string> suffixes;
  for (int slot = 0; slot < count; ++slot) suffixes.push_back("-" + std::to_string(slot));
  return suffixes;
}

class ClientSocketTest : public AppTest {
 protected:
  // Starts the program with the first `count` slot paths of its process id
  // already taken by plain files.
  void StartWithSlotsTaken(int count) {
    slotFiles = std::make_unique<PidFiles>(dir.path() + "/ipc_client-", SlotSuffixes(count));
    PtyProcess::Options options;
    options.inChild = [files = slotFiles.get()] { files->CreateForThisProcess(); };
    StartClient(std::nullopt, options);
  }

  std::unique_ptr<PidFiles> slotFiles;
};

TEST_F(ClientSocketTest, RegistrationIsTheFirstRequestTheServiceSees) {
  StartFake();
  StartSession();
  const std::vector<FakeService::Request> requests = fake->Requests();
  ASSERT_FALSE(requests.empty());
  EXPECT_EQ(requests.front().text, Registration());
  EXPECT_EQ(requests.front().sender, ClientPath());
}

TEST_F(ClientSocketTest, UnregistrationIsTheLastRequestTheServiceSees) {
  StartFake();
  fake->Script(1, FakeService::Answer::Reply("1\tPONG"));
  StartSession();
  Expect("send_ping\r", "send_ping\r\nPING response : PONG\r\nhi>");
  ExpectEnd("exit\r", "exit\r\n");
  const std::vector<FakeService::Request> requests = fake->Requests();
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_EQ(requests[0].text, Registration());
  EXPECT_EQ(requests[1].text, "1");
  EXPECT_EQ(requests[2].text, Unregistration());
  EXPECT_EQ(requests[2].sender, ClientPath());
}

TEST_F(ClientSocketTest, SocketFilesExistWhileRunningAndAreGoneAfterExit) {
  StartSim();
  StartSession();
  EXPECT_TRUE(IsSocket(ClientPath()));
  EXPECT_TRUE(IsSocket(EventPath()));
  const std::string clientPath = ClientPath();
  const std::string eventPath = EventPath();
  ExpectEnd("exit\r", "exit\r\n");
  EXPECT_FALSE(Exists(clientPath));
  EXPECT_FALSE(Exists(eventPath));
}

TEST_F(ClientSocketTest, FirstFreeSlotIsTakenAfterOccupiedOnes) {
  StartSim();
  StartWithSlotsTaken(9);
  ASSERT_TRUE(client->WaitForOutput(kStart));
  ASSERT_TRUE(sim->WaitForRequests(1));
  EXPECT_EQ(sim->Requests()[0].text, Registration(9));
  EXPECT_EQ(sim->Requests()[0].from, ClientPath(9));
  EXPECT_TRUE(IsSocket(ClientPath(9)));
  ASSERT_TRUE(client->WaitForKeyRead());
  client->TakeOutput();
  ExpectEnd("exit\r", "exit\r\n");
  // The files that were there already stay; only the client's own go.
  for (const std::string& name : slotFiles->Names(client->Pid())) EXPECT_TRUE(Exists(name)) << name;
  EXPECT_FALSE(Exists(ClientPath(9)));
}

TEST_F(ClientSocketTest, AllTenSlotsTakenFailsTheSetUp) {
  StartSim();
  StartWithSlotsTaken(10);
  const std::optional<int> status = client->WaitForExit();
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(PtyProcess::ExitCode(*status), 255);
  EXPECT_EQ(client->Output(), "Cannot set ipc_client: please check " + ServicePath() + " and " + dir.path() + "\r\n");
  EXPECT_EQ(Records().back(),
            (LogRecord{LOG_INFO,
                       "bool zel::ipc::IPCClient::SetLocalPath(std::string, std::string, zel::ipc::IPCClient::EventCb) "
                       "71: Cannot make more socket on pid [" +
                           std::to_string(client->Pid()) + "] at [" + dir.path() + "]\n"}));
  EXPECT_TRUE(sim->Requests().empty());
}

TEST_F(ClientSocketTest, PrefixWithATrailingSlashGivesTheSamePaths) {
  StartSim();
  StartSession(std::vector<std::string>{ServicePath(), dir.path() + "/"});
  ASSERT_TRUE(sim->WaitForRequests(1));
  EXPECT_EQ(sim->Requests()[0].text, Registration());
  EXPECT_TRUE(IsSocket(ClientPath()));
}

TEST_F(ClientSocketTest, PrefixWithTwoTrailingSlashesKeepsOneTooMany) {
  StartSim();
  StartSession(std::vector<std::string>{ServicePath(), dir.path() + "//"});
  ASSERT_TRUE(sim->WaitForRequests(1));
  const std::string clientPath = dir.path() + "//ipc_client-" + std::to_string(client->Pid()) + "-0";
  EXPECT_EQ(sim->Requests()[0].text, "4\t" + clientPath + "-event");
  EXPECT_EQ(sim->Requests()[0].from, clientPath);
}

TEST_F(ClientSocketTest, EventsArriveAndAreIgnored) {
  StartSim({"--event-interval", "20", "--event-id", "7", "--event-text", "link up"});
  StartSession();
  const std::string start = "bool zel::ipc::IPCClient::EventServerCb(int, int, std::string, void*, size_t) 162: sf [";
  const std::string end = "] cf [0] path [] data [7\tlink up]\n";
  EXPECT_TRUE(::zel::test::WaitForSyslogFile(SyslogFile(), [&](const std::vector<LogRecord>& records) {
    size_t events = 0;
    for (const LogRecord& r : records) {
      const bool match = r.priority == LOG_DEBUG && r.text.compare(0, start.size(), start) == 0 &&
                         r.text.size() > start.size() + end.size() &&
                         r.text.compare(r.text.size() - end.size(), end.size(), end) == 0;
      events += match ? 1 : 0;
    }
    return events >= 2;
  }));
  // Nothing of them reached the terminal.
  Expect(keys::kEnter, "\r\nhi>");
}

TEST_F(ClientSocketTest, UnregistrationIsSentEvenWhenTheRegistrationWasRefused) {
  StartSim({"--refuse-register", "5"});
  StartSession();
  ExpectEnd("exit\r", "exit\r\n");
  ASSERT_TRUE(sim->WaitForRequests(2));
  const std::vector<SimProcess::Request> requests = sim->Requests();
  // The retry thread's first attempt, made at once, may come before the exit.
  ASSERT_GE(requests.size(), 2u);
  ASSERT_LE(requests.size(), 3u);
  for (size_t i = 0; i + 1 < requests.size(); ++i) {
    EXPECT_EQ(requests[i].text, Registration());
    EXPECT_EQ(requests[i].outcome,
              "reply [3] (registration refused on purpose, " + std::to_string(4 - i) + " more to refuse)");
  }
  EXPECT_EQ(requests.back().text, Unregistration());
  EXPECT_EQ(requests.back().outcome, "reply [1] (was not registered, 0 event paths)");
}

TEST_F(ClientSocketTest, RefusedRegistrationIsRetriedAtOnceAndThenAfterFiveSeconds) {
  StartSim({"--refuse-register", "2"});
  StartSession();
  // The session does not wait for the retries.
  Expect("send_ping\r",
         "send_ping\r\nPING response : PONG\r\n"
         "hi>");
  const auto registrations = [this] {
    std::vector<SimProcess::Request> found;
    for (const SimProcess::Request& request : sim->Requests()) {
      if (request.text.compare(0, 2, "4\t") == 0) found.push_back(request);
    }
    return found;
  };
  ASSERT_TRUE(SimProcess::WaitForLines(dir.File("sim.log"),
                                       [&](const std::vector<std::string>&) { return registrations().size() >= 2; }));
  const auto secondSeen = std::chrono::steady_clock::now();
  ASSERT_TRUE(SimProcess::WaitForLines(
      dir.File("sim.log"), [&](const std::vector<std::string>&) { return registrations().size() >= 3; },
      std::chrono::seconds(15)));
  EXPECT_GE(std::chrono::steady_clock::now() - secondSeen, std::chrono::milliseconds(4500));
  const std::vector<SimProcess::Request> found = registrations();
  ASSERT_EQ(found.size(), 3u);
  EXPECT_EQ(found[0].outcome, "reply [3] (registration refused on purpose, 1 more to refuse)");
  EXPECT_EQ(found[1].outcome, "reply [3] (registration refused on purpose, 0 more to refuse)");
  EXPECT_EQ(found[2].outcome, "reply [1] (registered, 1 event path)");
  for (const SimProcess::Request& request : found) EXPECT_EQ(request.text, Registration());
}

}  // namespace
}  // namespace zel::app::test
