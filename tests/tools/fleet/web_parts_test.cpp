// The web command's parts in process: the listening address, the stream's
// JSON texts (rows, events, times, the body of a run), and the hub that the
// fleet's thread and the HTTP threads share (snapshot, batches, ticks,
// bounded queues, limits, the end).
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "tools/fleet/http.h"
#include "tools/fleet/stream.h"
#include "tools/fleet/web.h"

namespace zel::fleet::test {
namespace {

using std::chrono::milliseconds;

TEST(ListenAddressTest, TakesIpv4AndBracketedIpv6AddressesWithAPort) {
  ListenAddress address;
  ASSERT_TRUE(ListenAddress::Parse("127.0.0.1:8737", address));
  EXPECT_EQ(address.host, "127.0.0.1");
  EXPECT_EQ(address.port, 8737);
  EXPECT_TRUE(address.Loopback());
  EXPECT_EQ(address.Url(8737), "http://127.0.0.1:8737/");
  ASSERT_TRUE(ListenAddress::Parse("[::1]:0", address));
  EXPECT_EQ(address.host, "::1");
  EXPECT_EQ(address.port, 0);
  EXPECT_TRUE(address.Loopback());
  EXPECT_EQ(address.Url(41000), "http://[::1]:41000/");
  ASSERT_TRUE(ListenAddress::Parse("0.0.0.0:65535", address));
  EXPECT_FALSE(address.Loopback());
  ASSERT_TRUE(ListenAddress::Parse("[::]:80", address));
  EXPECT_FALSE(address.Loopback());
  ASSERT_TRUE(ListenAddress::Parse("[::ffff:127.0.0.2]:80", address));
  EXPECT_TRUE(address.Loopback());
  ASSERT_TRUE(ListenAddress::Parse("127.200.1.1:1", address));
  EXPECT_TRUE(address.Loopback());
}

TEST(ListenAddressTest, RefusesNamesAndMalformedPorts) {
  ListenAddress address;
  for (const char* text : {"localhost:80", "127.0.0.1", "127.0.0.1:", "127.0.0.1:65536", "127.0.0.1:-1", "::1:80",
                           "[::1]", "[::1]80", "[127.0.0.1]:80", "1.2.3:80", ":80", "127.0.0.1:8o"}) {
    EXPECT_FALSE(ListenAddress::Parse(text, address)) << text;
  }
  ListenAddress defaults;
  EXPECT_EQ(defaults.Url(defaults.port), "http://127.0.0.1:8737/");
}

TEST(ListenAddressTest, LoopbackIsThe127NetworkAndIpv6sLoopbackOrItsMappedForm) {
  ListenAddress address;
  for (const char* host : {"::ffff:10.0.0.1", "fe80::1", "128.0.0.1", "localhost", ""}) {
    address.host = host;
    EXPECT_FALSE(address.Loopback()) << host;
  }
  for (const char* host : {"127.255.255.254", "::1", "::ffff:127.0.0.1"}) {
    address.host = host;
    EXPECT_TRUE(address.Loopback()) << host;
  }
}

TEST(WebJsonTest, TimesAreUtcToTheMillisecond) {
  EXPECT_EQ(IsoTime(timespec{1795615560, 568000000}), "2026-11-25T14:06:00.568Z");
  EXPECT_EQ(IsoTime(timespec{0, 7000000}), "1970-01-01T00:00:00.007Z");
  EXPECT_EQ(IsoTime(timespec{0, 999999999}), "1970-01-01T00:00:00.999Z");
}

TEST(WebJsonTest, AnEventIsItsFieldsInTheStreamsOrder) {
  Event event;
  event.box = "box1";
  event.time = "2026-11-25T14:06:00.568Z";
  event.id = 7;
  event.args = {"link up", "<b>"};
  EXPECT_EQ(EventJson(event), R"({"box":"box1","time":"2026-11-25T14:06:00.568Z","id":7,"args":["link up","<b>"]})");
}

TEST(WebJsonTest, AnEventsTextIsCutToItsLimitsWithoutSplittingACharacter) {
  Event event;
  event.box = "b";
  event.time = "t";
  event.args = {std::string(1023, 'a') + "\xC3\xA9"};
  EXPECT_EQ(EventJson(event),
            R"({"box":"b","time":"t","id":0,"args":[")" + std::string(1023, 'a') + "\xE2\x80\xA6\"]}");
  event.args.assign(40, "x");
  std::string args;
  for (int i = 0; i < 31; ++i) args += "\"x\",";
  EXPECT_EQ(EventJson(event), R"({"box":"b","time":"t","id":0,"args":[)" + args + "\"x\xE2\x80\xA6\"]}");
  event.args.assign(32, "x");
  EXPECT_EQ(EventJson(event).find("\xE2\x80\xA6"), std::string::npos);
}

TEST(WebJsonTest, ARowHoldsTheBoxItsLastEventAndWhenItChanged) {
  BoxDirectory::Box box;
  box.hasStatus = true;
  box.online = true;
  box.service = BoxDirectory::Service::Down;
  EXPECT_EQ(RowJson("box1", box, ""),
            R"({"box":"box1","status":"online","service":"down","event":null,"changed":null})");
  box.changed = timespec{1795615560, 568000000};
  EXPECT_EQ(RowJson("box1", box, R"({"box":"box1"})"),
            R"({"box":"box1","status":"online","service":"down","event":{"box":"box1"},)"
            R"("changed":"2026-11-25T14:06:00.568Z"})");
  // Offline: the service the broker still holds is stale.
  box.online = false;
  EXPECT_EQ(RowJson("a\"b\x01", box, ""), R"({"box":"a\"b\u0001","status":"offline","service":null,"event":null,)"
                                          R"("changed":"2026-11-25T14:06:00.568Z"})");
}

TEST(RunRequestTest, TakesTheTargetTheCommandAndTheTimeout) {
  RunRequest request;
  std::string why;
  ASSERT_TRUE(ParseRunRequest(R"({"target":"all","command":"ping"})", request, why)) << why;
  EXPECT_TRUE(request.target.all);
  EXPECT_EQ(request.command.line, "ping");
  EXPECT_EQ(request.timeoutMs, 5000U);
  ASSERT_TRUE(ParseRunRequest(R"({"target":["b1","b2","b1"],"command":"send  2 x y","timeout":600000})", request, why))
      << why;
  EXPECT_EQ(request.target.boxes, (std::vector<std::string>{"b1", "b2"}));
  EXPECT_EQ(request.command.line, "send 2 x y");
  EXPECT_EQ(request.timeoutMs, 600000U);
  ASSERT_TRUE(ParseRunRequest(R"({"target":"b1,b2","command":"mac","extra":1})", request, why)) << why;
  EXPECT_EQ(request.target.boxes, (std::vector<std::string>{"b1", "b2"}));
}

TEST(RunRequestTest, RefusesWhatARunCannotCarry) {
  RunRequest request;
  std::string why;
  EXPECT_FALSE(ParseRunRequest(R"({"target":"all","command":"send 2 a\tb"})", request, why));
  EXPECT_EQ(why,
            "command: \"a\\tb\": a word of the command cannot be empty or hold a blank, a tab or a control "
            "character");
  EXPECT_FALSE(ParseRunRequest(R"({"target":"all","command":""})", request, why));
  EXPECT_FALSE(ParseRunRequest(R"({"target":"all","command":"send 9"})", request, why));
  EXPECT_FALSE(ParseRunRequest(R"({"target":"all","command":"ping","timeout":1.5})", request, why));
  EXPECT_FALSE(ParseRunRequest(R"({"target":[1],"command":"ping"})", request, why));
  EXPECT_FALSE(ParseRunRequest(R"({"target":[["b"]],"command":"ping"})", request, why));
  EXPECT_FALSE(ParseRunRequest(R"({"target":"all","command":"ping","x":[[[[]]]]})", request, why));
  EXPECT_EQ(why, "the body is not a JSON object of a run");
}

TEST(HubTest, AStreamBeginsWithTheSnapshotThenGetsBatchesTicksAndLinkChanges) {
  Hub hub(Hub::Limits{});
  ASSERT_TRUE(hub.Ok());
  hub.SetBroker(true);
  hub.Publish(
      {
          {"b2", R"({"box":"b2"})", R"({"box":"b2","status":"online","service":"up"})" },
          {"b1", R"({"box":"b1"})", R"({"box":"b1","status":"offline","service":null})"}
  },
      {R"({"box":"b1","id":1})"});
  EXPECT_EQ(hub.Boxes(), R"([{"box":"b1","status":"offline","service":null},)"
                         R"({"box":"b2","status":"online","service":"up"}])");
  const std::shared_ptr<Hub::Stream> stream = hub.Open();
  ASSERT_TRUE(stream);
  std::string out;
  ASSERT_EQ(hub.Wait(*stream, out, milliseconds(0)), Hub::Next::Data);
  EXPECT_EQ(out,
            "event: snapshot\ndata: {\"broker\":\"up\",\"boxes\":[{\"box\":\"b1\"},{\"box\":\"b2\"}],"
            "\"events\":[{\"box\":\"b1\",\"id\":1}]}\n\n");
  EXPECT_EQ(hub.Wait(*stream, out, milliseconds(0)), Hub::Next::Idle);
  hub.Publish(
      {
          {"b1", R"({"box":"b1","x":1})", "l"},
          {"b3", "",                      "" }
  },
      {R"({"e":2})", R"({"e":3})"});
  hub.Tick();
  hub.SetBroker(false);
  hub.SetBroker(false);
  ASSERT_EQ(hub.Wait(*stream, out, milliseconds(0)), Hub::Next::Data);
  EXPECT_EQ(out,
            "event: boxes\ndata: [{\"box\":\"b1\",\"x\":1}]\n\n"
            "event: events\ndata: [{\"e\":2},{\"e\":3}]\n\n"
            "event: tick\ndata: {\"broker\":\"up\"}\n\n"
            "event: link\ndata: {\"broker\":\"down\"}\n\n");
  hub.Close(*stream);
  EXPECT_EQ(hub.Streams(), 0U);
}

TEST(HubTest, KeepsTheLatest500EventsForASnapshot) {
  Hub hub(Hub::Limits{});
  std::vector<std::string> events;
  events.reserve(600);
  for (int i = 0; i < 600; ++i) events.push_back(std::to_string(i));
  hub.Publish({}, events);
  const std::shared_ptr<Hub::Stream> stream = hub.Open();
  std::string out;
  ASSERT_EQ(hub.Wait(*stream, out, milliseconds(0)), Hub::Next::Data);
  std::string expected;
  for (int i = 100; i < 600; ++i) expected += (i == 100 ? "" : ",") + std::to_string(i);
  EXPECT_NE(out.find("\"events\":[" + expected + "]}"), std::string::npos);
}

TEST(HubTest, AStreamThatFallsBehindIsDroppedAndTheOthersGoOn) {
  Hub::Limits limits;
  limits.queueBytes = 1000;
  Hub hub(limits);
  const std::shared_ptr<Hub::Stream> slow = hub.Open();
  const std::shared_ptr<Hub::Stream> quick = hub.Open();
  std::string out;
  ASSERT_EQ(hub.Wait(*slow, out, milliseconds(0)), Hub::Next::Data);
  for (int i = 0; i < 20; ++i) {
    hub.Publish({}, {std::string(100, 'x')});
    ASSERT_EQ(hub.Wait(*quick, out, milliseconds(0)), Hub::Next::Data);
  }
  EXPECT_EQ(hub.Wait(*slow, out, milliseconds(0)), Hub::Next::End);
  EXPECT_EQ(hub.Dropped(), 1U);
  hub.Tick();
  EXPECT_EQ(hub.Wait(*quick, out, milliseconds(0)), Hub::Next::Data);
}

TEST(HubTest, OpensNoMoreStreamsThanItsLimit) {
  Hub::Limits limits;
  limits.streams = 2;
  Hub hub(limits);
  const std::shared_ptr<Hub::Stream> first = hub.Open();
  const std::shared_ptr<Hub::Stream> second = hub.Open();
  EXPECT_TRUE(first && second);
  EXPECT_FALSE(hub.Open());
  hub.Close(*first);
  EXPECT_TRUE(hub.Open());
}

TEST(HubTest, TakesNoMoreRunsThanItsLimitAndAnswersThoseLeftWhenItStops) {
  Hub::Limits limits;
  limits.runs = 1;
  Hub hub(limits);
  const auto first = std::make_shared<RunTicket>(RunRequest());
  const auto second = std::make_shared<RunTicket>(RunRequest());
  EXPECT_EQ(hub.SubmitRun(first), Hub::Admitted::Yes);
  EXPECT_EQ(hub.SubmitRun(second), Hub::Admitted::Busy);
  const std::vector<std::shared_ptr<RunTicket>> taken = hub.TakeRuns();
  ASSERT_EQ(taken.size(), 1U);
  taken[0]->Answer(200, "[]");
  hub.RunEnded();
  EXPECT_EQ(hub.SubmitRun(second), Hub::Admitted::Yes);
  const std::shared_ptr<Hub::Stream> stream = hub.Open();
  std::thread reader([&hub, stream] {
    std::string out;
    while (hub.Wait(*stream, out, milliseconds(10000)) != Hub::Next::End) {
    }
  });
  hub.Stop();
  reader.join();
  int status = 0;
  std::string body;
  second->Wait(status, body);
  EXPECT_EQ(status, 503);
  EXPECT_EQ(body, R"({"error":"kendrivex-fleet is stopping"})");
  EXPECT_FALSE(hub.Open());
  EXPECT_EQ(hub.SubmitRun(first), Hub::Admitted::Stopped);
}

TEST(HubTest, CommandsAreTheOnesARunMayCarry) {
  EXPECT_EQ(CommandsJson(), R"([{"name":"ping","arguments":""},{"name":"stations","arguments":""},)"
                            R"({"name":"mac","arguments":""},{"name":"send","arguments":"N [FIELD...]"}])");
  EXPECT_EQ(ErrorJson("a \"b\"\n"), R"({"error":"a \"b\"\n"})");
}

}  // namespace
}  // namespace zel::fleet::test
