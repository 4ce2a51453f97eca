// The JSON and plain lines of replies and events, and the time of an event.
#include "tools/service_client/format.h"

#include <string>

#include "gtest/gtest.h"

namespace zel::service_client {
namespace {

zel::ipc::IPCResult Reply(int32_t code, std::vector<std::string> args) {
  zel::ipc::IPCResult reply;
  reply.code = code;
  reply.args = std::move(args);
  return reply;
}

zel::ipc::IPCEvent Event(int32_t id, std::vector<std::string> args) {
  zel::ipc::IPCEvent event;
  event.id = id;
  event.args = std::move(args);
  return event;
}

TEST(FormatTest, JsonReplyHasCommandCodeAndArgsInThatOrder) {
  EXPECT_EQ(JsonReply("ping", Reply(1, {"PONG"})), "{\"command\":\"ping\",\"code\":1,\"args\":[\"PONG\"]}\n");
  EXPECT_EQ(JsonReply("stations", Reply(1, {})), "{\"command\":\"stations\",\"code\":1,\"args\":[]}\n");
  EXPECT_EQ(JsonReply("send", Reply(-3, {"", "x"})), "{\"command\":\"send\",\"code\":-3,\"args\":[\"\",\"x\"]}\n");
}

TEST(FormatTest, JsonEscapesQuotesBackslashesAndControlCharacters) {
  EXPECT_EQ(JsonReply("send", Reply(1, {"\"q\"\\", "line\nnext\x01"})),
            "{\"command\":\"send\",\"code\":1,\"args\":[\"\\\"q\\\"\\\\\",\"line\\nnext\\u0001\"]}\n");
}

TEST(FormatTest, JsonReplacesBytesThatAreNotUtf8) {
  EXPECT_EQ(JsonReply("mac", Reply(1, {"ab\xff\xfe"
                                       "c",
                                       "ok\xc3\xa9"})),
            "{\"command\":\"mac\",\"code\":1,\"args\":[\"ab\xef\xbf\xbd\xef\xbf\xbd"
            "c\",\"ok\xc3\xa9\"]}\n");
}

TEST(FormatTest, JsonEventHasTimeIdAndArgsInThatOrder) {
  EXPECT_EQ(JsonEvent("2026-11-23T09:00:00.123Z", Event(7, {"link up"})),
            "{\"time\":\"2026-11-23T09:00:00.123Z\",\"id\":7,\"args\":[\"link up\"]}\n");
}

TEST(FormatTest, PlainReplyIsTheCodeAndFieldsTabSeparated) {
  EXPECT_EQ(PlainReply(Reply(3, {"busy", "", "x"})), "3\tbusy\t\tx\n");
  EXPECT_EQ(PlainReply(Reply(1, {})), "1\n");
}

TEST(FormatTest, PlainEventIsTheTimeNumberAndArgumentsTabSeparated) {
  EXPECT_EQ(PlainEvent("T", Event(8, {"a", "", "b"})), "T\t8\ta\t\tb\n");
  EXPECT_EQ(PlainEvent("T", Event(9, {})), "T\t9\n");
}

// What ReadReply made of a reply to the command named `name`: the plain
// output, then "|" and why when it is not a success.
std::string Read(const char* name, const zel::ipc::IPCResult& reply) {
  std::string plain;
  std::string why;
  const bool success = ReadReply(*FindCommand(name), reply, plain, why);
  return success ? plain : plain + "|" + why;
}

TEST(FormatTest, ReadReplyGivesTheFirstFieldOfASuccess) {
  EXPECT_EQ(Read("ping", Reply(1, {"PONG", "more"})), "PONG\n");
  EXPECT_EQ(Read("mac", Reply(1, {})), "|the service's reply holds no MAC address");
}

TEST(FormatTest, ReadReplyGivesEachFieldOfASuccessAsALine) {
  EXPECT_EQ(Read("stations", Reply(1, {"a b", "c"})), "a b\nc\n");
  EXPECT_EQ(Read("stations", Reply(1, {})), "");
}

TEST(FormatTest, ReadReplyGivesTheWholeReplyOfASendWhateverItsCode) {
  EXPECT_EQ(Read("send", Reply(1, {"x"})), "1\tx\n");
  EXPECT_EQ(Read("send", Reply(5, {"x"})), "5\tx\n|the service answered with code 5");
}

TEST(FormatTest, ReadReplyOfAnotherCodeSaysItAndPrintsNothing) {
  EXPECT_EQ(Read("ping", Reply(-2, {"PONG"})), "|the service answered with code -2");
  EXPECT_EQ(Read("stations", Reply(5, {"a"})), "|the service answered with code 5");
}

TEST(FormatTest, UtcTimeIsToTheMillisecond) {
  EXPECT_EQ(UtcTime(timespec{0, 0}), "1970-01-01T00:00:00.000Z");
  EXPECT_EQ(UtcTime(timespec{1795424400, 123999999}), "2026-11-23T09:00:00.123Z");
}

}  // namespace
}  // namespace zel::service_client
