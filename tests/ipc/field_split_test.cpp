#include "ipc/field_split.h"

#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace zel::ipc {
namespace {

using Fields = std::vector<std::string>;

TEST(SplitFieldsTest, EmptyTextGivesNoFields) { EXPECT_EQ(SplitFields("", '\t'), Fields{}); }

TEST(SplitFieldsTest, TextWithoutSeparatorIsOneField) { EXPECT_EQ(SplitFields("PONG", '\t'), Fields{"PONG"}); }

TEST(SplitFieldsTest, SplitsAtEverySeparator) { EXPECT_EQ(SplitFields("1\ta\tb", '\t'), (Fields{"1", "a", "b"})); }

TEST(SplitFieldsTest, TwoSeparatorsInARowGiveAnEmptyField) {
  EXPECT_EQ(SplitFields("1\t\tx", '\t'), (Fields{"1", "", "x"}));
}

TEST(SplitFieldsTest, LeadingSeparatorGivesAnEmptyFirstField) {
  EXPECT_EQ(SplitFields("\t1", '\t'), (Fields{"", "1"}));
}

TEST(SplitFieldsTest, TrailingSeparatorGivesNoEmptyLastField) {
  EXPECT_EQ(SplitFields("1\t", '\t'), Fields{"1"});
  EXPECT_EQ(SplitFields("1\ta\t\t", '\t'), (Fields{"1", "a", ""}));
}

TEST(SplitFieldsTest, LoneSeparatorGivesOneEmptyField) { EXPECT_EQ(SplitFields("\t", '\t'), Fields{""}); }

TEST(SplitFieldsTest, NewlineIsAnOrdinaryByte) { EXPECT_EQ(SplitFields("1\tPONG\n", '\t'), (Fields{"1", "PONG\n"})); }

TEST(SplitFieldsTest, UsesTheGivenSeparator) { EXPECT_EQ(SplitFields("a,b\tc", ','), (Fields{"a", "b\tc"})); }

TEST(JoinFieldsTest, PutsOneSeparatorBetweenFields) {
  EXPECT_EQ(JoinFields({"4", "/tmp/x-event"}, '\t'), "4\t/tmp/x-event");
}

TEST(JoinFieldsTest, SingleFieldHasNoSeparator) { EXPECT_EQ(JoinFields({"1"}, '\t'), "1"); }

TEST(JoinFieldsTest, EmptyFieldsStayInPlace) { EXPECT_EQ(JoinFields({"1", "", "x", ""}, '\t'), "1\t\tx\t"); }

TEST(JoinFieldsTest, NoFieldsGiveAnEmptyLine) { EXPECT_EQ(JoinFields({}, '\t'), ""); }

}  // namespace
}  // namespace zel::ipc
