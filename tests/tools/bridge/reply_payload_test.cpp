// The payloads of replies: kendrivex-ctl's JSON with the box added, and the
// error reply.
#include "tools/bridge/reply_payload.h"

#include "gtest/gtest.h"

namespace zel::bridge::test {
namespace {

TEST(ReplyPayloadTest, AnswerIsTheCtlJsonWithTheBoxAddedLast) {
  EXPECT_EQ(ReplyPayload::Answered("{\"command\":\"ping\",\"code\":1,\"args\":[\"PONG\"]}\n", "box1"),
            "{\"command\":\"ping\",\"code\":1,\"args\":[\"PONG\"],\"box\":\"box1\"}");
}

TEST(ReplyPayloadTest, BoxIsWrittenAsAJsonString) {
  EXPECT_EQ(ReplyPayload::Answered("{\"command\":\"mac\",\"code\":0,\"args\":[]}\n", "a\"b\\c"),
            "{\"command\":\"mac\",\"code\":0,\"args\":[],\"box\":\"a\\\"b\\\\c\"}");
}

TEST(ReplyPayloadTest, ErrorNamesTheBoxTheCommandTheStatusAndWhy) {
  EXPECT_EQ(ReplyPayload::Error("box1", std::string("ping"), 3, "busy"),
            "{\"box\":\"box1\",\"command\":\"ping\",\"status\":3,\"error\":\"busy\"}");
}

TEST(ReplyPayloadTest, ErrorWithoutACommandHasNull) {
  EXPECT_EQ(ReplyPayload::Error("box1", std::nullopt, 2, "not valid UTF-8"),
            "{\"box\":\"box1\",\"command\":null,\"status\":2,\"error\":\"not valid UTF-8\"}");
}

TEST(ReplyPayloadTest, BytesThatAreNotUtf8BecomeReplacementCharacters) {
  EXPECT_EQ(ReplyPayload::Error("box1", std::string("x\xff"), 2, "\xfe"),
            "{\"box\":\"box1\",\"command\":\"x\xef\xbf\xbd\",\"status\":2,\"error\":\"\xef\xbf\xbd\"}");
}

}  // namespace
}  // namespace zel::bridge::test
