#include "ipc/ipc_message.h"

#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace zel::ipc {
namespace {

using Fields = std::vector<std::string>;

TEST(IPCValuesTest, CommandNumbers) {
  EXPECT_EQ(Ping, 1u);
  EXPECT_EQ(WlanApClientList, 2u);
  EXPECT_EQ(WlanMac, 3u);
  EXPECT_EQ(RegisterEventPath, 4u);
  EXPECT_EQ(UnregisterEventPath, 5u);
}

TEST(IPCValuesTest, ResultCodes) {
  EXPECT_EQ(ResultNone, 0);
  EXPECT_EQ(ResultSuccess, 1);
  EXPECT_EQ(ResultInvalidCommand, 2);
  EXPECT_EQ(ResultNotConnected, 4);
  EXPECT_EQ(ResultIoFailure, 5);
}

TEST(IPCValuesTest, RecordsStartEmpty) {
  EXPECT_EQ(IPCResult{}.code, ResultNone);
  EXPECT_TRUE(IPCResult{}.args.empty());
  EXPECT_EQ(IPCEvent{}.id, 0);
  EXPECT_TRUE(IPCEvent{}.args.empty());
}

TEST(ParseReplyTest, SingleFieldOneIsSuccessWithoutArguments) {
  const IPCResult result = ParseReply("1");
  EXPECT_EQ(result.code, ResultSuccess);
  EXPECT_EQ(result.args, Fields{});
}

TEST(ParseReplyTest, OneTabPongIsSuccessWithPong) {
  const IPCResult result = ParseReply("1\tPONG");
  EXPECT_EQ(result.code, 1);
  EXPECT_EQ(result.args, Fields{"PONG"});
}

TEST(ParseReplyTest, TrailingNewlineStaysInTheLastArgument) {
  EXPECT_EQ(ParseReply("1\tPONG\n").args, Fields{"PONG\n"});
}

TEST(ParseReplyTest, LeadingTabGivesCodeZero) {
  const IPCResult result = ParseReply("\tPONG");
  EXPECT_EQ(result.code, ResultNone);
  EXPECT_EQ(result.args, Fields{"PONG"});
}

TEST(ParseReplyTest, OneAndATabHasNoArguments) {
  const IPCResult result = ParseReply("1\t");
  EXPECT_EQ(result.code, 1);
  EXPECT_EQ(result.args, Fields{});
}

TEST(ParseReplyTest, TwoTabsGiveAnEmptyArgumentFirst) { EXPECT_EQ(ParseReply("1\t\tx").args, (Fields{"", "x"})); }

TEST(ParseReplyTest, EmptyReplyIsCodeNoneWithoutArguments) {
  const IPCResult result = ParseReply("");
  EXPECT_EQ(result.code, ResultNone);
  EXPECT_EQ(result.args, Fields{});
}

TEST(ParseReplyTest, NumberStopsAtTheFirstNonDigit) { EXPECT_EQ(ParseReply("12abc").code, 12); }

TEST(ParseReplyTest, FieldWithoutDigitsIsZero) { EXPECT_EQ(ParseReply("abc\tx").code, 0); }

TEST(ParseReplyTest, LeadingBlankIsSkipped) { EXPECT_EQ(ParseReply(" 7").code, 7); }

TEST(ParseReplyTest, MinusSignGivesANegativeCode) { EXPECT_EQ(ParseReply("-3").code, -3); }

TEST(ParseReplyTest, UnknownCodesPassUnchanged) {
  EXPECT_EQ(ParseReply("3").code, 3);
  EXPECT_EQ(ParseReply("250\ta").code, 250);
}

TEST(ParseReplyTest, NumbersBeyondThirtyTwoBitsSaturate) {
  EXPECT_EQ(ParseReply("2147483647").code, 2147483647);
  EXPECT_EQ(ParseReply("99999999999").code, 2147483647);
  EXPECT_EQ(ParseReply("-99999999999").code, -2147483647 - 1);
}

TEST(ParseReplyTest, ManyArgumentsKeepTheirOrder) { EXPECT_EQ(ParseReply("1\ta\tb\tc").args, (Fields{"a", "b", "c"})); }

TEST(ParseEventTest, NumberGoesToIdAndTheRestToArgs) {
  const IPCEvent event = ParseEvent("7\tup\twlan0");
  EXPECT_EQ(event.id, 7);
  EXPECT_EQ(event.args, (Fields{"up", "wlan0"}));
}

TEST(ParseEventTest, SingleFieldHasNoArguments) {
  const IPCEvent event = ParseEvent("7");
  EXPECT_EQ(event.id, 7);
  EXPECT_EQ(event.args, Fields{});
}

TEST(ParseEventTest, NonNumericFirstFieldIsZero) { EXPECT_EQ(ParseEvent("abc\tx").id, 0); }

TEST(ParseEventTest, EmptyTextIsZero) {
  const IPCEvent event = ParseEvent("");
  EXPECT_EQ(event.id, 0);
  EXPECT_EQ(event.args, Fields{});
}

TEST(FormatRequestTest, CommandWithoutArgumentsIsJustTheNumber) { EXPECT_EQ(FormatRequest({Ping, {}}), "1"); }

TEST(FormatRequestTest, ArgumentsFollowAfterTabs) {
  EXPECT_EQ(FormatRequest({RegisterEventPath, {"/tmp/x-event"}}), "4\t/tmp/x-event");
  EXPECT_EQ(FormatRequest({
                9, {"a", "", "b"}
  }),
            "9\ta\t\tb");
}

TEST(FormatRequestTest, NumberIsUnsignedDecimal) {
  EXPECT_EQ(FormatRequest({4294967295u, {}}), "4294967295");
  EXPECT_EQ(FormatCommand(0), "0");
}

}  // namespace
}  // namespace zel::ipc
