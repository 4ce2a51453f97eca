// The answers of the simulated service, decided without sockets except for the
// event paths, which must have a receiver to be registered.
#include "tools/sim/request_handler.h"

#include <string>

#include "gtest/gtest.h"
#include "ipc/ipc_message.h"
#include "tests/support/temp_dir.h"
#include "tests/tools/sim/test_peer.h"
#include "tools/sim/event_paths.h"
#include "tools/sim/sim_options.h"

namespace zel::sim {
namespace {

using ::zel::sim::test::TestPeer;
using ::zel::test::TempDir;
using Answer = RequestHandler::Answer;

class RequestHandlerTest : public ::testing::Test {
 protected:
  Answer Handle(const std::string& request) {
    if (!handler) handler = std::make_unique<RequestHandler>(options, paths);
    return handler->Handle(request);
  }

  // A socket that receives at `name` in the test's directory.
  std::string Receiver(const std::string& name) {
    receivers.push_back(std::make_unique<TestPeer>(dir.File(name), ""));
    return dir.File(name);
  }

  static void ExpectReply(const Answer& answer, const std::string& text, const std::string& note = "") {
    EXPECT_TRUE(answer.reply);
    EXPECT_EQ(answer.text, text);
    EXPECT_EQ(answer.delayMs, 0u);
    EXPECT_EQ(answer.note, note);
  }

  TempDir dir;
  SimOptions options;
  EventPaths paths;
  std::vector<std::unique_ptr<TestPeer>> receivers;
  std::unique_ptr<RequestHandler> handler;
};

TEST_F(RequestHandlerTest, PingIsAnsweredWithPong) { ExpectReply(Handle("1"), "1\tPONG"); }

TEST_F(RequestHandlerTest, StationListHasOneFieldPerStation) {
  options.stations = {"aa 10.0.0.2 one", "bb 10.0.0.3 two", "cc"};
  ExpectReply(Handle("2"), "1\taa 10.0.0.2 one\tbb 10.0.0.3 two\tcc");
}

TEST_F(RequestHandlerTest, EmptyStationListIsTheCodeAlone) {
  options.stations.clear();
  ExpectReply(Handle("2"), "1");
}

TEST_F(RequestHandlerTest, MacIsTheConfiguredAddress) {
  options.mac = "02:00:00:00:00:01";
  ExpectReply(Handle("3"), "1\t02:00:00:00:00:01");
}

TEST_F(RequestHandlerTest, ExtraFieldsOfADeviceCommandAreIgnored) { ExpectReply(Handle("1\tmore\tfields"), "1\tPONG"); }

TEST_F(RequestHandlerTest, RegistrationOfAReceivingPathIsAccepted) {
  const std::string path = Receiver("ev");
  ExpectReply(Handle("4\t" + path), "1", "registered, 1 event path");
  EXPECT_EQ(paths.Paths(), std::vector<std::string>{path});
}

TEST_F(RequestHandlerTest, RepeatedRegistrationKeepsOneEntry) {
  const std::string path = Receiver("ev");
  Handle("4\t" + path);
  ExpectReply(Handle("4\t" + path), "1", "already registered, 1 event path");
  EXPECT_EQ(paths.Count(), 1u);
}

TEST_F(RequestHandlerTest, RegistrationOfAPathWithoutReceiverIsRefused) {
  ExpectReply(Handle("4\t" + dir.File("nobody")), "3", "nothing receives at that path");
  EXPECT_EQ(paths.Count(), 0u);
}

TEST_F(RequestHandlerTest, RegistrationNeedsExactlyOnePath) {
  ExpectReply(Handle("4"), "2", "registration without one path");
  ExpectReply(Handle("4\t"), "2", "registration without one path");
  ExpectReply(Handle("4\t" + Receiver("ev") + "\tmore"), "2", "registration without one path");
  EXPECT_EQ(paths.Count(), 0u);
}

TEST_F(RequestHandlerTest, UnregistrationForgetsThePath) {
  const std::string path = Receiver("ev");
  Handle("4\t" + path);
  ExpectReply(Handle("5\t" + path), "1", "unregistered, 0 event paths");
  EXPECT_EQ(paths.Count(), 0u);
}

TEST_F(RequestHandlerTest, UnregistrationOfAnUnknownPathSucceeds) {
  ExpectReply(Handle("5\t/tmp/unknown"), "1", "was not registered, 0 event paths");
}

TEST_F(RequestHandlerTest, UnregistrationNeedsExactlyOnePath) {
  ExpectReply(Handle("5"), "2", "unregistration without one path");
}

TEST_F(RequestHandlerTest, AnythingElseIsAnInvalidCommand) {
  for (const char* request : {"0", "6", "99", "abc", "1x", " 1", "+1", "-1", "\t1", "99999999999", "4294967297"}) {
    ExpectReply(Handle(request), "2", "unknown command");
  }
}

TEST_F(RequestHandlerTest, RefusedRegistrationsComeFirst) {
  options.refuseRegistrations = 2;
  const std::string path = Receiver("ev");
  ExpectReply(Handle("4\t" + path), "3", "registration refused on purpose, 1 more to refuse");
  ExpectReply(Handle("4\t" + path), "3", "registration refused on purpose, 0 more to refuse");
  ExpectReply(Handle("4\t" + path), "1", "registered, 1 event path");
}

TEST_F(RequestHandlerTest, InvalidRegistrationIsNotCountedAsRefused) {
  options.refuseRegistrations = 1;
  ExpectReply(Handle("4"), "2", "registration without one path");
  ExpectReply(Handle("4\t" + Receiver("ev")), "3", "registration refused on purpose, 0 more to refuse");
}

TEST_F(RequestHandlerTest, DroppedReplyIsNotSent) {
  options.dropReplies = true;
  const Answer answer = Handle("1");
  EXPECT_FALSE(answer.reply);
  EXPECT_EQ(answer.note, "dropped on purpose");
}

TEST_F(RequestHandlerTest, GarbageReplyHasNoNumberInFront) {
  options.garbageReplies = true;
  const Answer answer = Handle("3");
  ExpectReply(answer, "#!garbage\x01\xff\tnot a reply", "garbage on purpose");
  EXPECT_EQ(zel::ipc::ParseReply(answer.text).code, 0);
}

TEST_F(RequestHandlerTest, OversizeReplyFillsAClientsWholeBuffer) {
  options.oversizeReplies = true;
  const Answer answer = Handle("1");
  ASSERT_EQ(answer.text.size(), 8192u);
  EXPECT_EQ(answer.text.substr(0, 3), "1\tx");
  EXPECT_EQ(answer.text.find_first_not_of('x', 2), std::string::npos);
  EXPECT_EQ(answer.note, "oversize on purpose");
}

TEST_F(RequestHandlerTest, DelayAppliesToTheFaultyCommands) {
  options.delayMs = 250;
  const Answer answer = Handle("2");
  EXPECT_EQ(answer.delayMs, 250u);
  EXPECT_EQ(answer.note, "");
}

TEST_F(RequestHandlerTest, FaultsSpareTheRegistrationByDefault) {
  options.dropReplies = true;
  options.delayMs = 250;
  ExpectReply(Handle("4\t" + Receiver("ev")), "1", "registered, 1 event path");
}

TEST_F(RequestHandlerTest, FaultsOnListedCommandsOnly) {
  options.dropReplies = true;
  options.faultyCommands = {5};
  ExpectReply(Handle("1"), "1\tPONG");
  const Answer answer = Handle("5\t/tmp/x");
  EXPECT_FALSE(answer.reply);
  EXPECT_EQ(answer.note, "was not registered, 0 event paths; dropped on purpose");
}

TEST_F(RequestHandlerTest, DroppedRegistrationIsStillCarriedOut) {
  options.dropReplies = true;
  options.faultyCommands = {4};
  EXPECT_FALSE(Handle("4\t" + Receiver("ev")).reply);
  EXPECT_EQ(paths.Count(), 1u);
}

}  // namespace
}  // namespace zel::sim
