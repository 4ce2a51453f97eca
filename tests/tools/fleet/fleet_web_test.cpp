// kendrivex-fleet web end to end: the real program against a broker of the
// test's own with real bridges and simulators (or boxes the test plays),
// asked over HTTP with cpp-httplib's client as a browser would: its address
// on standard output, the API's answers (exact bytes where they are fixed),
// the stream's snapshot, batches, ticks and link messages, runs, the
// security cases (other sites, content types, sizes, passwords, host
// names, hostile box data), a stalled stream reader, a broker restart and
// the stop signals.
#include <signal.h>
#include <syslog.h>

#include <fstream>
#include <future>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "kdx_test_paths.h"
#include "tests/support/mqtt_credentials.h"
#include "tests/support/syslog_file.h"
#include "tests/support/wait_until.h"
#include "tests/tools/fleet/fleet_program_test.h"
#include "tests/tools/fleet/web_client.h"

namespace zel::fleet::test {
namespace {

using nlohmann::json;
using std::chrono::milliseconds;
using std::chrono::seconds;

const char kCsp[] =
    "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; img-src 'self'; base-uri 'none'; "
    "form-action 'self'; frame-ancestors 'none'";
const char kIsoTime[] = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}Z";

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

std::string PingBody(const std::string& target, int timeoutMs) {
  return R"({"target":)" + target + R"(,"command":"ping","timeout":)" + std::to_string(timeoutMs) + "}";
}

// The resident memory of process `pid`, in KB; 0 when it cannot be read.
long ResidentKb(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
  }
  return 0;
}

class FleetWebTest : public FleetTest {
 protected:
  void TearDown() override {
    if (web && !web->WaitForExit(milliseconds(0))) {
      web->Signal(SIGTERM);
      const Result result = web->Finish();
      EXPECT_EQ(result.exitCode, 0) << result.err;
    }
    FleetTest::TearDown();
  }

  // Starts kendrivex-fleet `options` web `webOptions` and waits for the
  // page's address on its standard output.
  void StartWeb(const std::vector<std::string>& webOptions = {"--listen", "127.0.0.1:0"},
                const std::vector<std::string>& options = {}) {
    std::vector<std::string> args = options;
    args.push_back("web");
    args.insert(args.end(), webOptions.begin(), webOptions.end());
    web = StartFleet(args);
    ASSERT_TRUE(web->WaitForOutLines(1)) << web->Err();
    std::smatch match;
    const std::string out = web->Out();
    ASSERT_TRUE(
        std::regex_match(out, match, std::regex("http://(127\\.0\\.0\\.1|\\[::1\\]|0\\.0\\.0\\.0):([0-9]+)/\n")))
        << out;
    port = std::stoi(match[2]);
  }

  WebClient Client() const { return WebClient("127.0.0.1", port); }

  // Waits until GET /api/boxes answers `body`.
  bool WaitForBoxes(const std::string& body) const {
    return ::zel::test::WaitUntil([&] { return Client().Get("/api/boxes").body == body; }, seconds(10),
                                  milliseconds(20));
  }

  // Waits until the stream says that the program is linked to the broker:
  // a run asked for before is refused (503).
  bool WaitForBroker() const {
    const EventReader reader(port);
    return reader.WaitFor(
               [](const StreamMessage& message) { return message.data.rfind(R"({"broker":"up")", 0) == 0; }) >= 0;
  }

  std::unique_ptr<PipeProcess> web;
  int port = 0;
};

// ---- The program -------------------------------------------------------

TEST_F(FleetWebTest, PrintsThePageAddressOnceItListensAndServesThere) {
  StartBroker();
  StartWeb();
  EXPECT_EQ(web->Out(), "http://127.0.0.1:" + std::to_string(port) + "/\n");
  EXPECT_EQ(Client().Get("/").status, 200);
}

TEST_F(FleetWebTest, ListensOnABracketedIpv6Address) {
  StartBroker();
  web = StartFleet({"web", "--listen", "[::1]:0"});
  ASSERT_TRUE(web->WaitForOutLines(1) || web->WaitForExit(milliseconds(0))) << web->Err();
  if (web->Err().find("Cannot assign requested address") != std::string::npos ||
      web->Err().find("Address family not supported") != std::string::npos) {
    GTEST_SKIP() << "no IPv6 loopback here: " << web->Err();
  }
  std::smatch match;
  const std::string out = web->Out();
  ASSERT_TRUE(std::regex_match(out, match, std::regex("http://\\[::1\\]:([0-9]+)/\n"))) << out << web->Err();
  const WebAnswer answer = WebClient("::1", std::stoi(match[1])).Get("/api/commands");
  EXPECT_EQ(answer.status, 200);
}

TEST_F(FleetWebTest, AnAddressOtherThanLoopbackNeedsAPasswordFile) {
  const Result result = Fleet({"web", "--listen", "0.0.0.0:0"});
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(
      result.err,
      ErrorLine("--listen", "an address other than loopback needs --web-password-file: every request then gives it"));
}

TEST_F(FleetWebTest, ListenTakesAddressesAndPortsOnly) {
  for (const std::string bad : {"localhost:8737", "127.0.0.1", "127.0.0.1:65536", "::1:8737", "[::1]8737", "[x]:1"}) {
    const Result result = Fleet({"web", "--listen", bad});
    EXPECT_EQ(result.exitCode, 2) << bad;
    EXPECT_EQ(result.err, ErrorLine("--listen",
                                    "not ADDR:PORT, an IPv4 address or a bracketed IPv6 one and a port from 0 to "
                                    "65535: \"" +
                                        bad + "\""))
        << bad;
  }
}

TEST_F(FleetWebTest, WebOptionsGoWithWebOnly) {
  const Result listen = Fleet({"ls", "--listen", "127.0.0.1:0"});
  EXPECT_EQ(listen.exitCode, 2);
  EXPECT_EQ(listen.err, ErrorLine("--listen", "only with web"));
  const Result password = Fleet({"watch", "--web-password-file", "/nonexistent"});
  EXPECT_EQ(password.exitCode, 2);
  EXPECT_EQ(password.err, ErrorLine("--web-password-file", "only with web"));
}

TEST_F(FleetWebTest, APortInUseIsALocalFailure) {
  StartBroker();
  StartWeb();
  const std::string address = "127.0.0.1:" + std::to_string(port);
  const Result result = Fleet({"web", "--listen", address});
  EXPECT_EQ(result.exitCode, 4);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, ErrorLine("http://" + address + "/", "Address already in use"));
}

TEST_F(FleetWebTest, EachStopSignalEndsItWithStatus0AndEndsTheStreams) {
  StartBroker();
  for (const int signo : {SIGINT, SIGTERM, SIGHUP}) {
    StartWeb();
    EventReader reader(port);
    ASSERT_GE(reader.WaitFor([](const StreamMessage& message) { return message.event == "snapshot"; }), 0);
    web->Signal(signo);
    const Result result = web->Finish(seconds(15));
    EXPECT_EQ(result.exitCode, 0) << signo << ": " << result.err;
    EXPECT_EQ(result.err, "") << signo;
    EXPECT_TRUE(reader.WaitForEnd()) << signo;
    web.reset();
  }
}

TEST_F(FleetWebTest, ServesWhileTheBrokerIsAwayAndSaysSo) {
  // No broker yet: the page is served, and its stream says the broker is
  // down; once it runs, up.
  StartWeb();
  EventReader reader(port);
  const int snapshot = reader.WaitFor([](const StreamMessage& message) { return message.event == "snapshot"; });
  ASSERT_GE(snapshot, 0);
  EXPECT_EQ(reader.Messages()[static_cast<size_t>(snapshot)].data, R"({"broker":"down","boxes":[],"events":[]})");
  StartBroker();
  EXPECT_GE(
      reader.WaitFor(
          [](const StreamMessage& message) { return message.event == "link" && message.data == R"({"broker":"up"})"; },
          0, seconds(40)),
      0);
}

// ---- The API -----------------------------------------------------------

TEST_F(FleetWebTest, BoxesAnswerHoldsTheObjectsOfLsJson) {
  StartBroker();
  StartBox("box1");
  StartBox("box2");
  StopBridge("box2");
  StartWeb();
  const Result ls = Fleet({"ls", "-j"});
  ASSERT_EQ(ls.exitCode, 0) << ls.err;
  std::string objects = ls.out;
  for (size_t at = objects.find('\n'); at != std::string::npos; at = objects.find('\n', at)) objects[at] = ',';
  objects.pop_back();
  EXPECT_EQ(objects,
            R"({"box":"box1","status":"online","service":"up"},{"box":"box2","status":"offline","service":null})");
  EXPECT_TRUE(WaitForBoxes("[" + objects + "]")) << Client().Get("/api/boxes").body;
  const WebAnswer answer = Client().Get("/api/boxes");
  EXPECT_EQ(answer.Header("content-type"), "application/json");
  EXPECT_EQ(answer.Header("cache-control"), "no-store");
}

TEST_F(FleetWebTest, CommandsAnswerListsWhatARunMayCarry) {
  StartBroker();
  StartWeb();
  const WebAnswer answer = Client().Get("/api/commands");
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer.body,
            R"([{"name":"ping","arguments":""},{"name":"stations","arguments":""},{"name":"mac","arguments":""},)"
            R"({"name":"send","arguments":"N [FIELD...]"}])");
  EXPECT_EQ(answer.Header("content-type"), "application/json");
}

TEST_F(FleetWebTest, ThePageIsServedAsItIsInTheTree) {
  StartBroker();
  StartWeb();
  const struct {
    const char* path;
    const char* file;
    const char* type;
  } files[] = {
      {"/",        "index.html", "text/html; charset=utf-8"      },
      {"/app.js",  "app.js",     "text/javascript; charset=utf-8"},
      {"/app.css", "app.css",    "text/css; charset=utf-8"       },
  };
  for (const auto& file : files) {
    const WebAnswer answer = Client().Get(file.path);
    EXPECT_EQ(answer.status, 200) << file.path;
    EXPECT_EQ(answer.body, ReadFile(std::string(KDX_FLEET_WEB_DIR) + "/" + file.file)) << file.path;
    EXPECT_EQ(answer.Header("content-type"), file.type) << file.path;
  }
  const WebAnswer missing = Client().Get("/index.html");
  EXPECT_EQ(missing.status, 404);
  EXPECT_EQ(missing.body, R"({"error":"not found"})");
}

TEST_F(FleetWebTest, EveryAnswerCarriesTheSecurityHeaders) {
  StartBroker();
  StartWeb();
  const WebClient client = Client();
  std::vector<std::pair<std::string, WebAnswer>> answers;
  answers.emplace_back("page", client.Get("/"));
  answers.emplace_back("script", client.Get("/app.js"));
  answers.emplace_back("boxes", client.Get("/api/boxes"));
  answers.emplace_back("commands", client.Get("/api/commands"));
  answers.emplace_back("missing", client.Get("/nothing"));
  answers.emplace_back("wrong type", client.Post("/api/run", "{}", "text/plain"));
  answers.emplace_back("too large", client.Post("/api/run", std::string(20000, ' '), "application/json"));
  for (const auto& [what, answer] : answers) {
    EXPECT_NE(answer.status, -1) << what;
    EXPECT_EQ(answer.Header("content-security-policy"), kCsp) << what;
    EXPECT_EQ(answer.Header("x-content-type-options"), "nosniff") << what;
    EXPECT_EQ(answer.Header("referrer-policy"), "no-referrer") << what;
  }
  for (const auto& [what, answer] : answers) {
    if (what == "page" || what == "script") continue;
    EXPECT_EQ(answer.Header("cache-control"), "no-store") << what;
  }
  // No page of another site is let in by a preflight.
  EXPECT_EQ(answers[2].second.Header("access-control-allow-origin"), "");
}

// ---- The stream --------------------------------------------------------

TEST_F(FleetWebTest, StreamBeginsWithTheSnapshotThenSendsWhatChanges) {
  StartBroker();
  StartBox("box1", {"--event-interval", "200", "--event-id", "7", "--event-text", "link up"});
  StartBox("box2");
  StartWeb();
  // The page's address comes before the broker's connection: a stream
  // opened at once may begin with the broker down.
  ASSERT_TRUE(WaitForBroker());
  EventReader reader(port);
  const int first = reader.WaitFor([](const StreamMessage& message) { return !message.event.empty(); });
  ASSERT_EQ(first, 0);
  const WebAnswer head = reader.Head();
  EXPECT_EQ(head.status, 200);
  EXPECT_EQ(head.Header("content-type"), "text/event-stream");
  EXPECT_EQ(head.Header("cache-control"), "no-store");
  EXPECT_EQ(head.Header("content-security-policy"), kCsp);
  const StreamMessage snapshot = reader.Messages()[0];
  EXPECT_EQ(snapshot.event, "snapshot");
  const json data = json::parse(snapshot.data, nullptr, false);
  ASSERT_TRUE(data.is_object()) << snapshot.data;
  EXPECT_EQ(data["broker"], "up");
  ASSERT_TRUE(data["events"].is_array());
  EXPECT_LE(data["events"].size(), 500U);

  // box2's bridge goes: its row, whole, with the time the fleet saw it.
  StopBridge("box2");
  const int offline = reader.WaitFor([](const StreamMessage& message) {
    return message.event == "boxes" && message.data.find(R"("box":"box2","status":"offline")") != std::string::npos;
  });
  ASSERT_GE(offline, 0);
  const json rows = json::parse(reader.Messages()[static_cast<size_t>(offline)].data, nullptr, false);
  ASSERT_TRUE(rows.is_array());
  json row;
  for (const json& each : rows) {
    if (each["box"] == "box2") row = each;
  }
  EXPECT_EQ(row["service"], nullptr);
  EXPECT_EQ(row["event"], nullptr);
  ASSERT_TRUE(row["changed"].is_string()) << row.dump();
  EXPECT_TRUE(std::regex_match(row["changed"].get<std::string>(), std::regex(kIsoTime))) << row.dump();
  std::vector<std::string> keys;
  for (const auto& item : row.items()) keys.push_back(item.key());
  EXPECT_EQ(keys, (std::vector<std::string>{"box", "changed", "event", "service", "status"}));
  EXPECT_EQ(reader.Messages()[static_cast<size_t>(offline)].data.rfind(R"([{"box":)", 0), 0U);

  // box1's events: EVENT objects, in its row too.
  const int events = reader.WaitFor([](const StreamMessage& message) { return message.event == "events"; });
  ASSERT_GE(events, 0);
  const std::string text = reader.Messages()[static_cast<size_t>(events)].data;
  EXPECT_TRUE(std::regex_match(text, std::regex(std::string(R"(\[(\{"box":"box1","time":")") + kIsoTime +
                                                R"(","id":7,"args":\["link up"\]\},?)+\])")))
      << text;
  EXPECT_GE(reader.WaitFor([](const StreamMessage& message) {
    return message.event == "boxes" && message.data.find(R"({"box":"box1","status":"online","service":"up","event":{)"
                                                         R"("box":"box1","time":")") != std::string::npos;
  }),
            0);
}

TEST_F(FleetWebTest, StreamTicksEverySecond) {
  StartBroker();
  StartWeb();
  EventReader reader(port);
  const auto tick = [](const StreamMessage& message) {
    return message.event == "tick" && message.data == R"({"broker":"up"})";
  };
  const int first = reader.WaitFor(tick, 0, seconds(5));
  ASSERT_GE(first, 0);
  EXPECT_GE(reader.WaitFor(tick, static_cast<size_t>(first) + 1, seconds(5)), 0);
  // Each message is "event: NAME", one data line and a blank line.
  EXPECT_NE(reader.Raw().find("event: tick\ndata: {\"broker\":\"up\"}\n\n"), std::string::npos);
}

TEST_F(FleetWebTest, ABrokerRestartIsSaidInTheStreamAndRiddenOut) {
  StartBroker();
  StartBox("box1");
  StartWeb();
  EventReader reader(port);
  ASSERT_GE(reader.WaitFor([](const StreamMessage& message) { return message.event == "snapshot"; }), 0);
  ASSERT_TRUE(broker.Stop());
  const int down = reader.WaitFor(
      [](const StreamMessage& message) { return message.event == "link" && message.data == R"({"broker":"down"})"; });
  ASSERT_GE(down, 0);
  EXPECT_GE(reader.WaitFor(
                [](const StreamMessage& message) {
                  return message.event == "tick" && message.data == R"({"broker":"down"})";
                },
                static_cast<size_t>(down)),
            0);
  ASSERT_TRUE(broker.Start());
  const int up = reader.WaitFor(
      [](const StreamMessage& message) { return message.event == "link" && message.data == R"({"broker":"up"})"; },
      static_cast<size_t>(down), seconds(40));
  ASSERT_GE(up, 0);
  // The box is back on the broker; a change from now on still reaches the
  // stream.
  ASSERT_TRUE(WaitFor("box1", "status", "online"));
  StopBridge("box1");
  EXPECT_GE(reader.WaitFor(
                [](const StreamMessage& message) {
                  return message.event == "boxes" &&
                         message.data.find(R"("box":"box1","status":"offline")") != std::string::npos;
                },
                static_cast<size_t>(up), seconds(20)),
            0);
}

TEST_F(FleetWebTest, AStalledReaderIsDroppedAndTheProcessDoesNotGrow) {
  StartBroker();
  PlayedBox& box = Play("flood");
  StartWeb();
  ASSERT_TRUE(WaitForBoxes(R"([{"box":"flood","status":"online","service":null}])"));
  EventReader reader(port);
  ASSERT_GE(reader.WaitFor([](const StreamMessage& message) { return message.event == "snapshot"; }), 0);
  StalledReader stalled(port);
  ASSERT_TRUE(stalled.Connected());
  const long before = ResidentKb(web->Pid());
  // Events of 1 KB (the most the page is sent of one) until the stalled
  // stream is dropped: far more than its queue and its socket hold. It is
  // dropped when its queue overflows, or when what is written to it has not
  // been taken for the write time-out, whichever comes first (the second
  // where everything runs slower, under a sanitizer or an emulator).
  const std::string text(1000, 'x');
  bool gone = false;
  for (int round = 0; round < 100 && !gone; ++round) {
    for (int i = 0; i < 500; ++i) {
      const std::string event = R"({"time":"2026-11-25T14:06:00.568Z","id":)" + std::to_string(i) + R"(,"args":[")" +
                                text + R"("],"box":"flood"})";
      ASSERT_TRUE(box.Client().Publish("kdx/flood/event/1", event, 0));
    }
    gone = ::zel::test::WaitUntil([&] { return stalled.Closed(); }, milliseconds(200));
  }
  ASSERT_TRUE(gone) << web->Err();
  const std::vector<::zel::test::LogRecord> records = ::zel::test::ReadSyslogFile(SyslogFile());
  for (const ::zel::test::LogRecord& record : records) {
    if (record.text.rfind("dropped an event stream", 0) != 0) continue;
    EXPECT_EQ(record, (::zel::test::LogRecord{
                          LOG_NOTICE, "dropped an event stream whose reader fell behind by more than 4194304 bytes"}));
  }
  // The reader that keeps up is still served.
  const size_t seen = reader.Messages().size();
  EXPECT_GE(reader.WaitFor([](const StreamMessage& message) { return message.event == "tick"; }, seen), 0);
  EXPECT_FALSE(reader.Ended());
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  // A bound, not a measure: the dropped queue (4 MB) and the flood's
  // batches are given back or reused; the sanitizers keep freed memory.
  EXPECT_LT(ResidentKb(web->Pid()) - before, 32 * 1024) << before;
#else
  static_cast<void>(before);
#endif
}

// What the page cannot show is left out, and counted when the program ends.
TEST_F(FleetWebTest, OverlongBoxIdsAndEventTimesAreLeftOutAndCountedAtTheEnd) {
  StartBroker();
  Play("box1");
  StartWeb();
  // The box's retained status has come: the program has subscribed.
  ASSERT_TRUE(WaitForBoxes(R"([{"box":"box1","status":"online","service":null}])"));
  EventReader reader(port);
  MqttTestClient stray(broker.Port());
  // One byte longer than the page takes of an ID, and of an event's time;
  // then an event that the page shows, which comes after them.
  const std::string longId(257, 'x');
  ASSERT_TRUE(stray.Publish("kdx/" + longId + "/status", "online", 1, true));
  ASSERT_TRUE(
      stray.Publish("kdx/box1/event/7", R"({"time":")" + std::string(65, '1') + R"(","id":7,"args":[],"box":"box1"})"));
  ASSERT_TRUE(
      stray.Publish("kdx/box1/event/8", R"({"time":"2026-11-25T14:06:00.568Z","id":8,"args":[],"box":"box1"})"));
  ASSERT_GE(reader.WaitFor([](const StreamMessage& message) {
    return message.event == "events" && message.data.find(R"("id":8)") != std::string::npos;
  }),
            0);
  web->Signal(SIGTERM);
  const Result result = web->Finish();
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(
      result.err,
      "kendrivex-fleet: warning: skipped 1 message from boxes: 1 not of the form a box sends\n"
      "kendrivex-fleet: warning: boxes left out, beyond the 100000 kept or with an ID longer than 256 bytes: 1\n");
}

// ---- Runs --------------------------------------------------------------

TEST_F(FleetWebTest, RunOnAllAnswersWithEveryReplyOnceTheRunHasEnded) {
  StartBroker();
  StartBox("box1");
  StartBox("box2");
  StartWeb();
  ASSERT_TRUE(WaitForBroker());
  const WebAnswer answer = Client().Post("/api/run", PingBody(R"("all")", 5000), "application/json");
  EXPECT_EQ(answer.status, 200) << answer.body;
  EXPECT_EQ(answer.Header("content-type"), "application/json");
  EXPECT_EQ(answer.Header("cache-control"), "no-store");
  const nlohmann::ordered_json replies = nlohmann::ordered_json::parse(answer.body, nullptr, false);
  ASSERT_TRUE(replies.is_array()) << answer.body;
  std::vector<std::string> texts;
  for (const nlohmann::ordered_json& reply : replies) texts.push_back(reply.dump());
  std::sort(texts.begin(), texts.end());
  EXPECT_EQ(texts, (std::vector<std::string>{Pong("box1"), Pong("box2")}));
}

TEST_F(FleetWebTest, ABoxThatDoesNotAnswerOrIsUnknownGetsStatus3) {
  StartBroker();
  Play("quiet");
  StartWeb();
  ASSERT_TRUE(WaitForBoxes(R"([{"box":"quiet","status":"online","service":null}])"));
  const WebAnswer answer = Client().Post("/api/run", PingBody(R"(["quiet","nobox"])", 300), "application/json");
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer.body, R"([{"box":"nobox","status":3,"error":"the broker holds no status of this box"},)"
                         R"({"box":"quiet","status":3,"error":"no reply within 300 ms"}])");
}

TEST_F(FleetWebTest, TheTargetMayBeOneIdOrIdsSeparatedByCommas) {
  StartBroker();
  StartBox("box1");
  StartBox("box2");
  StartWeb();
  ASSERT_TRUE(WaitForBroker());
  const WebAnswer one = Client().Post("/api/run", PingBody(R"("box2")", 5000), "application/json");
  EXPECT_EQ(one.body, "[" + Pong("box2") + "]");
  const WebAnswer mac = Client().Post("/api/run", R"({"target":"box1,box1","command":"mac"})", "application/json");
  EXPECT_EQ(mac.body, R"([{"command":"mac","code":1,"args":["02:1a:7d:4c:88:e1"],"box":"box1"}])");
}

TEST_F(FleetWebTest, ABadRunBodyIsRefusedWithItsReason) {
  StartBroker();
  StartWeb();
  const std::vector<std::pair<std::string, std::string>> bodies = {
      {"not json",                                              R"({"error":"the body is not a JSON object of a run"})"           },
      {"[]",                                                    R"({"error":"the body is not a JSON object of a run"})"           },
      {R"({"command":"ping"})",                                 R"({"error":"the body needs a target and a command"})"            },
      {R"({"target":[],"command":"ping"})",                     R"({"error":"target: not \"all\", a box's ID or a list of them"})"},
      {R"({"target":"a/b","command":"ping"})",
       R"({"error":"target: \"a/b\": a box's ID may not be empty or hold '/', '+' or '#'"})"                                      },
      {R"({"target":["all"],"command":"ping"})",
       R"({"error":"target: \"all\" stands for every box, and is no box's ID"})"                                                  },
      {R"({"target":"all","command":"watch"})",                 R"({"error":"command: watch: not a command that a box runs"})"    },
      {R"({"target":"all","command":7})",                       R"({"error":"command: not text"})"                                },
      {R"({"target":"all","command":"ping","timeout":0})",
       R"({"error":"timeout: not a whole number of milliseconds from 1 to 600000"})"                                              },
      {R"({"target":"all","command":"ping","timeout":600001})",
       R"({"error":"timeout: not a whole number of milliseconds from 1 to 600000"})"                                              },
      {R"({"target":"all","command":"ping","timeout":"5"})",
       R"({"error":"timeout: not a whole number of milliseconds from 1 to 600000"})"                                              },
  };
  for (const auto& [body, error] : bodies) {
    const WebAnswer answer = Client().Post("/api/run", body, "application/json");
    EXPECT_EQ(answer.status, 400) << body;
    EXPECT_EQ(answer.body, error) << body;
  }
}

TEST_F(FleetWebTest, ACrossOriginRunIsRefusedAndNothingIsSent) {
  StartBroker();
  PlayedBox& box = Play("box1");
  StartWeb();
  ASSERT_TRUE(WaitForBoxes(R"([{"box":"box1","status":"online","service":null}])"));
  const std::string body = PingBody(R"("box1")", 2000);
  for (const std::string& origin :
       std::vector<std::string>{"http://127.0.0.1:1", "http://evil.example", "null",
                                "http://127.0.0.1:" + std::to_string(port) + ".evil.example"}) {
    const WebAnswer refused = Client().Post("/api/run", body, "application/json",
                                            {
                                                {"Origin", origin}
    });
    EXPECT_EQ(refused.status, 403) << origin;
    EXPECT_EQ(refused.body, R"({"error":"a run may be asked for only by this server's own page"})") << origin;
  }
  // From the page's own origin (and from a client that names none) it
  // runs: the box gets that command, and only that one.
  std::thread answer([&box] { EXPECT_TRUE(box.Answer({Pong("box1")})); });
  const WebAnswer own = Client().Post("/api/run", body, "application/json",
                                      {
                                          {"Origin", "http://127.0.0.1:" + std::to_string(port)}
  });
  answer.join();
  EXPECT_EQ(own.status, 200);
  EXPECT_EQ(own.body, "[" + Pong("box1") + "]");
  EXPECT_EQ(box.Commands().size(), 1U);
}

TEST_F(FleetWebTest, ARunNeedsAJsonBody) {
  StartBroker();
  StartWeb();
  ASSERT_TRUE(WaitForBroker());
  for (const std::string type : {"text/plain", "application/x-www-form-urlencoded", "application/jsonx"}) {
    const WebAnswer answer = Client().Post("/api/run", PingBody(R"("all")", 100), type);
    EXPECT_EQ(answer.status, 415) << type;
    EXPECT_EQ(answer.body, R"({"error":"the body of a run is application/json"})") << type;
  }
  const WebAnswer charset = Client().Post("/api/run", PingBody(R"("all")", 100), "Application/JSON; charset=utf-8");
  EXPECT_EQ(charset.status, 200) << charset.body;
}

TEST_F(FleetWebTest, ABodyOver16KbIsRefusedUnread) {
  StartBroker();
  StartWeb();
  ASSERT_TRUE(WaitForBroker());
  const std::string body = PingBody(R"("all")", 100);
  const WebAnswer fits = Client().Post("/api/run", body + std::string(16384 - body.size(), ' '), "application/json");
  EXPECT_EQ(fits.status, 200) << fits.body;
  const WebAnswer over = Client().Post("/api/run", body + std::string(16385 - body.size(), ' '), "application/json");
  EXPECT_EQ(over.status, 413);
  EXPECT_EQ(over.body, R"({"error":"the request's body is larger than kendrivex-fleet takes"})");
}

TEST_F(FleetWebTest, RunsBeyondFourAtOnceAreRefused) {
  StartBroker();
  PlayedBox& box = Play("quiet");
  StartWeb();
  ASSERT_TRUE(WaitForBoxes(R"([{"box":"quiet","status":"online","service":null}])"));
  std::vector<std::future<WebAnswer>> running;
  running.reserve(4);
  const WebClient client = Client();
  for (int i = 0; i < 4; ++i) {
    running.push_back(std::async(std::launch::async, [&client] {
      return client.Post("/api/run", PingBody(R"("quiet")", 4000), "application/json");
    }));
  }
  ASSERT_TRUE(box.Client().WaitForCount("kdx/quiet/cmd", 4));
  const WebAnswer refused = client.Post("/api/run", PingBody(R"("quiet")", 100), "application/json");
  EXPECT_EQ(refused.status, 503);
  EXPECT_EQ(refused.body, R"({"error":"as many runs as kendrivex-fleet takes at once are under way"})");
  for (std::future<WebAnswer>& run : running) EXPECT_EQ(run.get().status, 200);
  EXPECT_EQ(client.Post("/api/run", PingBody(R"("quiet")", 100), "application/json").status, 200);
}

TEST_F(FleetWebTest, RunWhileTheBrokerIsAwayIsRefusedWithTheReason) {
  StartBroker();
  StartWeb();
  EventReader reader(port);
  ASSERT_GE(reader.WaitFor([](const StreamMessage& message) { return message.event == "snapshot"; }), 0);
  ASSERT_TRUE(broker.Stop());
  ASSERT_GE(reader.WaitFor([](const StreamMessage& message) {
    return message.event == "link" && message.data == R"({"broker":"down"})";
  }),
            0);
  const WebAnswer refused = Client().Post("/api/run", PingBody(R"("all")", 100), "application/json");
  EXPECT_EQ(refused.status, 503);
  EXPECT_EQ(refused.body, R"({"error":"no connection to the broker at )" + broker.Url() + R"("})");
}

// The broker stops answering after the run was asked for: the run is given
// up once its time-out and the program's have passed.
TEST_F(FleetWebTest, RunThatTheBrokerNeverAcknowledgesIsGivenUp) {
  StartBroker();
  Play("quiet");
  StartWeb({"--listen", "127.0.0.1:0"}, {"-t", "300"});
  ASSERT_TRUE(WaitForBoxes(R"([{"box":"quiet","status":"online","service":null}])"));
  broker.Pause();
  const WebAnswer given = Client().Post("/api/run", PingBody(R"("all")", 200), "application/json");
  broker.Resume();
  EXPECT_EQ(given.status, 503);
  EXPECT_EQ(given.body, R"({"error":"cannot run it: the broker did not answer in time"})");
}

// ---- Security ----------------------------------------------------------

TEST_F(FleetWebTest, WithAPasswordEveryRequestGivesIt) {
  StartBroker();
  const std::string file = WriteFile("web.password", "s3cret: pass\n");
  StartWeb({"--listen", "0.0.0.0:0", "--web-password-file", file});
  EXPECT_EQ(web->Out(), "http://0.0.0.0:" + std::to_string(port) + "/\n");
  WebClient client = Client();
  for (const std::string path : {"/", "/app.js", "/api/boxes", "/api/stream"}) {
    const WebAnswer refused = client.Get(path);
    EXPECT_EQ(refused.status, 401) << path;
    EXPECT_EQ(refused.Header("www-authenticate"), R"(Basic realm="kendrivex-fleet", charset="UTF-8")") << path;
    EXPECT_EQ(refused.Header("content-security-policy"), kCsp) << path;
  }
  EXPECT_EQ(client.Post("/api/run", PingBody(R"("all")", 100), "application/json").status, 401);
  client.SetPassword("operator", "s3cret");
  EXPECT_EQ(client.Get("/api/boxes").status, 401);
  client.SetPassword("operator", "s3cret: pass ");
  EXPECT_EQ(client.Get("/api/boxes").status, 401);
  client.SetPassword("operator", "s3cret: pass");
  EXPECT_EQ(client.Get("/api/boxes").status, 200);
  EXPECT_EQ(client.Get("/").status, 200);
  // Any user name; a name for another host is fine with the password.
  client.SetPassword("", "s3cret: pass");
  EXPECT_EQ(client
                .Get("/api/commands",
                     {
                         {"Host", "fleet.example:8737"}
  })
                .status,
            200);
}

TEST_F(FleetWebTest, WebPasswordFileOthersMayReadGetsAWarning) {
  StartBroker();
  const std::string file = WriteFile("web.password", "s3cret\n", 0644);
  StartWeb({"--listen", "127.0.0.1:0", "--web-password-file", file});
  web->Signal(SIGTERM);
  const Result result = web->Finish();
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.err, "kendrivex-fleet: warning: permissions 0644 for the password file " + file +
                            " are too open: it should be readable by its owner alone (chmod 600 " + file + ")\n");
}

TEST_F(FleetWebTest, WithoutAPasswordOnlyLoopbackNamesAreServed) {
  StartBroker();
  StartWeb();
  const std::string suffix = ":" + std::to_string(port);
  for (const std::string& host :
       std::vector<std::string>{"fleet.example" + suffix, "10.0.0.1" + suffix, "evil.localhost" + suffix, ""}) {
    const WebAnswer answer = Client().Get("/api/boxes", {
                                                            {"Host", host}
    });
    EXPECT_EQ(answer.status, 403) << host;
    EXPECT_EQ(answer.body, R"({"error":"without a password only requests to a loopback address are served"})") << host;
  }
  for (const std::string& host : std::vector<std::string>{"127.0.0.1" + suffix, "localhost" + suffix, "LOCALHOST",
                                                          "[::1]" + suffix, "127.1.2.3" + suffix}) {
    EXPECT_EQ(Client()
                  .Get("/api/boxes",
                       {
                           {"Host", host}
    })
                  .status,
              200)
        << host;
  }
}

TEST_F(FleetWebTest, HostileBoxDataIsEscapedInTheJson) {
  StartBroker();
  PlayedBox& box = Play("<svg onload=alert(2)>");
  StartWeb();
  const std::string id = R"(<svg onload=alert(2)>)";
  ASSERT_TRUE(WaitForBoxes(R"([{"box":")" + id + R"(","status":"online","service":null}])"));
  EventReader reader(port);
  ASSERT_GE(reader.WaitFor([](const StreamMessage& message) { return message.event == "snapshot"; }), 0);
  // Markup, a line end (which would end an event stream's data line), a C0
  // control, DEL, a C1 control, and a text longer than the page is sent.
  const std::string event = R"({"time":"2026-11-25T14:06:00.568Z","id":9,"args":["<img src=x onerror=alert(1)>",)"
                            R"("a\nevent: boxes\ndata: x","\u0001\u007f\u0085",")" +
                            std::string(1100, 'y') + R"("],"box":"<svg onload=alert(2)>"})";
  ASSERT_TRUE(box.Publish("event/9", event));
  const int events = reader.WaitFor([](const StreamMessage& message) { return message.event == "events"; });
  ASSERT_GE(events, 0);
  // What is left of the 1024 bytes of text after the first three fields.
  const std::string cut = std::string(1024 - 28 - 22 - 4, 'y') + "\xE2\x80\xA6";
  EXPECT_EQ(reader.Messages()[static_cast<size_t>(events)].data,
            R"([{"box":"<svg onload=alert(2)>","time":"2026-11-25T14:06:00.568Z","id":9,"args":)"
            R"(["<img src=x onerror=alert(1)>","a\nevent: boxes\ndata: x","\u0001\u007f\u0085",")" +
                cut + R"("]}])");
  // Nothing but those messages: the line end in the text did not make one.
  for (const StreamMessage& message : reader.Messages()) {
    EXPECT_TRUE(message.event == "snapshot" || message.event == "events" || message.event == "boxes" ||
                message.event == "tick")
        << message.event;
  }
}

}  // namespace
}  // namespace zel::fleet::test
