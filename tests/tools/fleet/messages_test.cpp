// The fleet's topics, and what boxes publish read as untrusted input:
// statuses, services, events and replies of the expected form pass, and
// everything else is skipped with its reason; what passes is shown escaped.
#include "tools/fleet/messages.h"

#include <set>
#include <string>

#include "gtest/gtest.h"

namespace zel::fleet {
namespace {

const char kBox[] = "box1";

std::string Deep(int levels) {
  return std::string(static_cast<size_t>(levels), '[') + std::string(static_cast<size_t>(levels), ']');
}

TEST(TopicsTest, NameEachLeafOfABoxAndOfEveryBox) {
  const Topics topics("site/kdx");
  EXPECT_EQ(topics.Status("b"), "site/kdx/b/status");
  EXPECT_EQ(topics.Service("b"), "site/kdx/b/service");
  EXPECT_EQ(topics.Events("b"), "site/kdx/b/event/#");
  EXPECT_EQ(topics.Command("b"), "site/kdx/b/cmd");
  EXPECT_EQ(topics.Reply("b", "0123"), "site/kdx/b/reply/0123");
  EXPECT_EQ(topics.OfEveryBox("status"), "site/kdx/+/status");
  EXPECT_EQ(topics.Marker("0123"), "site/kdx/all/sync/0123");
}

TEST(TopicsTest, SplitGivesTheBoxLevelAndTheRestBelowThePrefix) {
  const Topics topics("site/kdx");
  std::string box;
  std::string_view leaf;
  ASSERT_TRUE(topics.Split("site/kdx/b1/event/7", box, leaf));
  EXPECT_EQ(box, "b1");
  EXPECT_EQ(leaf, "event/7");
  EXPECT_FALSE(topics.Split("site/kdx/b1", box, leaf));
  EXPECT_FALSE(topics.Split("site/kdxx/b1/status", box, leaf));
  EXPECT_FALSE(topics.Split("other/b1/status", box, leaf));
  EXPECT_FALSE(topics.Split("site/kdx", box, leaf));
}

TEST(BoxIdTest, RefusesEmptyWildcardsSlashesAllAndControlCharacters) {
  std::string why;
  EXPECT_TRUE(ValidBoxId("box-1.é", why));
  for (const std::string id : {"", "a/b", "a+", "#", "tab\there", "esc\x1b", "del\x7f"}) {
    EXPECT_FALSE(ValidBoxId(id, why)) << id;
  }
  EXPECT_FALSE(ValidBoxId("a/b", why));
  EXPECT_EQ(why, "a box's ID may not be empty or hold '/', '+' or '#'");
  EXPECT_FALSE(ValidBoxId("all", why));
  EXPECT_EQ(why, "\"all\" stands for every box, and is no box's ID");
  EXPECT_FALSE(ValidBoxId("bad\xff", why));
  EXPECT_EQ(why, "a box's ID is UTF-8 text without control characters");
}

TEST(RunIdTest, IsSixteenHexDigitsAndNewEachTime) {
  std::set<std::string> ids;
  for (int i = 0; i < 100; ++i) {
    const std::string id = NewRunId();
    EXPECT_EQ(id.size(), 16u);
    EXPECT_EQ(id.find_first_not_of("0123456789abcdef"), std::string::npos) << id;
    ids.insert(id);
  }
  EXPECT_EQ(ids.size(), 100u);
}

TEST(SkipCountTest, SaysNothingWhenNoneWasSkipped) {
  const SkipCount none;
  EXPECT_EQ(none.Total(), 0u);
  EXPECT_EQ(none.Text(), "");
}

TEST(SkipCountTest, CountsEachReasonAndNamesOnlyThoseThatCame) {
  SkipCount count;
  count.Add(Skip::TooLarge);
  EXPECT_EQ(count.Text(), "skipped 1 message from boxes: 1 larger than 64 KB");
  count.Add(Skip::Malformed);
  count.Add(Skip::Unasked);
  count.Add(Skip::Unasked);
  count.Add(Skip::OtherBox);
  EXPECT_EQ(count.Total(), 5u);
  EXPECT_EQ(count.Of(Skip::Unasked), 2u);
  EXPECT_EQ(count.Text(),
            "skipped 5 messages from boxes: 1 not of the form a box sends, 1 larger than 64 KB, 1 naming another box "
            "than their topic, 2 not asked for by this run");
}

TEST(StatusTest, TakesOnlineOfflineUpDownAndTheEmptyPayloadThatClears) {
  Word word = Word::Cleared;
  Skip reason = Skip::Unasked;
  ASSERT_TRUE(ParseStatus("online", word, reason));
  EXPECT_EQ(word, Word::Online);
  ASSERT_TRUE(ParseStatus("offline", word, reason));
  EXPECT_EQ(word, Word::Offline);
  ASSERT_TRUE(ParseService("up", word, reason));
  EXPECT_EQ(word, Word::Up);
  ASSERT_TRUE(ParseService("down", word, reason));
  EXPECT_EQ(word, Word::Down);
  ASSERT_TRUE(ParseStatus("", word, reason));
  EXPECT_EQ(word, Word::Cleared);
}

TEST(StatusTest, SkipsAnyOtherWordOrSize) {
  Word word = Word::Cleared;
  Skip reason = Skip::Unasked;
  EXPECT_FALSE(ParseStatus("up", word, reason));
  EXPECT_EQ(reason, Skip::Malformed);
  EXPECT_FALSE(ParseService("online", word, reason));
  EXPECT_FALSE(ParseStatus("online\n", word, reason));
  EXPECT_EQ(reason, Skip::Malformed);
  EXPECT_FALSE(ParseStatus(std::string(kMaxPayload + 1, 'o'), word, reason));
  EXPECT_EQ(reason, Skip::TooLarge);
}

TEST(EventTest, TakesTheBridgesEventAndKeepsItsKeysInTheirOrder) {
  Event event;
  Skip reason = Skip::Unasked;
  const std::string payload = R"({"time":"2026-11-25T14:06:00.568Z","id":7,"args":["link up","x"],"box":"box1"})";
  ASSERT_TRUE(ParseEvent(kBox, payload, event, reason));
  EXPECT_EQ(event.box, kBox);
  EXPECT_EQ(event.time, "2026-11-25T14:06:00.568Z");
  EXPECT_EQ(event.id, 7);
  EXPECT_EQ(event.args, (std::vector<std::string>{"link up", "x"}));
  EXPECT_EQ(event.json, payload);
}

TEST(EventTest, WithoutABoxGetsItsTopicsBoxAdded) {
  Event event;
  Skip reason = Skip::Unasked;
  ASSERT_TRUE(ParseEvent(kBox, R"({"id":-2,"time":"t","args":[]})", event, reason));
  EXPECT_EQ(event.json, R"({"id":-2,"time":"t","args":[],"box":"box1"})");
}

TEST(EventTest, NamingAnotherBoxIsSkippedAsSuch) {
  Event event;
  Skip reason = Skip::Malformed;
  EXPECT_FALSE(ParseEvent(kBox, R"({"time":"t","id":1,"args":[],"box":"box2"})", event, reason));
  EXPECT_EQ(reason, Skip::OtherBox);
}

TEST(EventTest, OnATopicWhoseBoxIsNoValidIdIsSkippedAsMalformed) {
  Event event;
  Skip reason = Skip::Unasked;
  EXPECT_FALSE(ParseEvent("b\xff", R"({"time":"t","id":1,"args":[]})", event, reason));
  EXPECT_EQ(reason, Skip::Malformed);
  Reply reply;
  EXPECT_FALSE(ParseReply("all", R"({"command":"ping","code":1,"args":[],"box":"all"})", reply, reason));
  EXPECT_EQ(reason, Skip::Malformed);
}

TEST(EventTest, OfAnotherFormIsSkippedAsMalformed) {
  for (const std::string payload :
       {"", "not json", "[1]", "\"text\"", R"({"time":1,"id":1,"args":[]})", R"({"time":"t","id":"1","args":[]})",
        R"({"time":"t","id":1.5,"args":[]})", R"({"time":"t","id":4294967296,"args":[]})",
        R"({"time":"t","id":-2147483649,"args":[]})", R"({"time":"t","id":1,"args":[1]})",
        R"({"time":"t","id":1,"args":"x"})", R"({"time":"t","id":1})", R"({"time":"t","id":1,"args":[],"box":7})",
        "{\"time\":\"\xff\",\"id\":1,\"args\":[]}", R"({"time":"t","id":1,"args":[]} trailing)"}) {
    Event event;
    Skip reason = Skip::Unasked;
    EXPECT_FALSE(ParseEvent(kBox, payload, event, reason)) << payload;
    EXPECT_EQ(reason, Skip::Malformed) << payload;
  }
}

TEST(EventTest, LargerThan64KbIsSkippedBeforeItIsRead) {
  Event event;
  Skip reason = Skip::Malformed;
  const std::string head = R"({"time":"t","id":1,"args":[")";
  const std::string tail = R"("]})";
  const std::string fits = head + std::string(kMaxPayload - head.size() - tail.size(), 'x') + tail;
  EXPECT_TRUE(ParseEvent(kBox, fits, event, reason));
  EXPECT_FALSE(ParseEvent(kBox, fits + " ", event, reason));
  EXPECT_EQ(reason, Skip::TooLarge);
}

TEST(EventTest, NestedDeeperThanAnyBoxSendsIsSkipped) {
  Event event;
  Skip reason = Skip::Unasked;
  EXPECT_TRUE(ParseEvent(kBox, R"({"time":"t","id":1,"args":[],"extra":)" + Deep(8) + "}", event, reason));
  EXPECT_FALSE(ParseEvent(kBox, R"({"time":"t","id":1,"args":[],"extra":)" + Deep(9) + "}", event, reason));
  EXPECT_EQ(reason, Skip::Malformed);
  EXPECT_FALSE(ParseEvent(kBox, R"({"time":"t","id":1,"args":[],"extra":)" + Deep(30000) + "}", event, reason));
}

TEST(EventTest, ControlCharactersOfItsTextsAreEscapedInItsJson) {
  Event event;
  Skip reason = Skip::Unasked;
  ASSERT_TRUE(
      ParseEvent(kBox, "{\"time\":\"t\",\"id\":1,\"args\":[\"\\u001b[2J\\u007f\\u009b\xc2\xa0\"]}", event, reason));
  EXPECT_EQ(event.args[0], "\x1b[2J\x7f\xc2\x9b\xc2\xa0");
  EXPECT_EQ(event.json, "{\"time\":\"t\",\"id\":1,\"args\":[\"\\u001b[2J\\u007f\\u009b\xc2\xa0\"],\"box\":\"box1\"}");
}

TEST(ReplyTest, TakesTheServicesAnswerAsTheBridgeSendsIt) {
  Reply reply;
  Skip reason = Skip::Unasked;
  const std::string payload = R"({"command":"ping","code":1,"args":["PONG"],"box":"box1"})";
  ASSERT_TRUE(ParseReply(kBox, payload, reply, reason));
  EXPECT_TRUE(reply.fromService);
  EXPECT_EQ(reply.command, "ping");
  EXPECT_EQ(reply.code, 1);
  EXPECT_EQ(reply.args, std::vector<std::string>{"PONG"});
  EXPECT_EQ(reply.json, payload);
}

TEST(ReplyTest, TakesTheBridgesErrorObjectWithOrWithoutACommand) {
  Reply reply;
  Skip reason = Skip::Unasked;
  const std::string payload =
      R"({"box":"box1","command":"send","status":2,"error":"send: not allowed from the broker"})";
  ASSERT_TRUE(ParseReply(kBox, payload, reply, reason));
  EXPECT_FALSE(reply.fromService);
  EXPECT_EQ(reply.command, "send");
  EXPECT_EQ(reply.status, 2);
  EXPECT_EQ(reply.error, "send: not allowed from the broker");
  EXPECT_EQ(reply.json, payload);
  ASSERT_TRUE(ParseReply(kBox, R"({"box":"box1","command":null,"status":3,"error":"busy"})", reply, reason));
  EXPECT_EQ(reply.command, "");
}

TEST(ReplyTest, WithoutABoxOrNamingAnotherIsSkipped) {
  Reply reply;
  Skip reason = Skip::Unasked;
  EXPECT_FALSE(ParseReply(kBox, R"({"command":"ping","code":1,"args":["PONG"]})", reply, reason));
  EXPECT_EQ(reason, Skip::Malformed);
  EXPECT_FALSE(ParseReply(kBox, R"({"command":"ping","code":1,"args":["PONG"],"box":"box2"})", reply, reason));
  EXPECT_EQ(reason, Skip::OtherBox);
}

TEST(ReplyTest, OfAnotherFormIsSkippedAsMalformed) {
  for (const std::string payload :
       {"PONG", R"({"command":"ping","code":"1","args":[],"box":"box1"})",
        R"({"command":7,"code":1,"args":[],"box":"box1"})", R"({"command":"ping","code":1,"box":"box1"})",
        R"({"command":"ping","code":1,"args":[null],"box":"box1"})", R"({"status":3,"error":"x","box":"box1"})",
        R"({"command":"ping","status":"3","error":"x","box":"box1"})",
        R"({"command":"ping","status":3,"error":false,"box":"box1"})"}) {
    Reply reply;
    Skip reason = Skip::Unasked;
    EXPECT_FALSE(ParseReply(kBox, payload, reply, reason)) << payload;
    EXPECT_EQ(reason, Skip::Malformed) << payload;
  }
}

TEST(ReplyTest, LargerThan64KbIsSkipped) {
  Reply reply;
  Skip reason = Skip::Malformed;
  EXPECT_FALSE(ParseReply(kBox, std::string(kMaxPayload + 1, ' '), reply, reason));
  EXPECT_EQ(reason, Skip::TooLarge);
}

TEST(JsonShownTest, EscapesDelAndC1ControlsAndLeavesTheRest) {
  EXPECT_EQ(JsonShown("{\"a\":\"x\x7fy\xc2\x80\xc2\x9f\xc2\xa0\xc3\xa9\"}"),
            "{\"a\":\"x\\u007fy\\u0080\\u009f\xc2\xa0\xc3\xa9\"}");
  EXPECT_EQ(JsonShown("\xc2"), "\xc2");
}

TEST(EscapedTest, EscapesAsTheCoresShownDoesAtAnyLength) {
  EXPECT_EQ(Escaped("a\tb\nc\\d\x1b[1m\xff"), "a\\tb\\nc\\\\d\\x1b[1m\\xff");
  EXPECT_EQ(Escaped(std::string(1000, 'x')), std::string(1000, 'x'));
}

}  // namespace
}  // namespace zel::fleet
