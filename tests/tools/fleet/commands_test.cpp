// The texts of kendrivex-fleet's lines: the run's summary and progress, and
// watch's line of an event, its fields escaped.
#include "tools/fleet/commands.h"

#include <string>

#include "gtest/gtest.h"

namespace zel::fleet {
namespace {

TEST(CommandTextsTest, SummaryCountsEachOutcome) {
  EXPECT_EQ(SummaryText(3, 1, 1, 1),
            "3 boxes expected: 1 answered with success, 1 answered otherwise, 1 did not answer");
  EXPECT_EQ(SummaryText(1, 1, 0, 0), "1 box expected: 1 answered with success, 0 answered otherwise, 0 did not answer");
}

TEST(CommandTextsTest, ProgressIsAnsweredOfExpected) {
  EXPECT_EQ(ProgressText(0, 1), "0 of 1 box answered");
  EXPECT_EQ(ProgressText(12, 1000), "12 of 1000 boxes answered");
}

TEST(CommandTextsTest, EventLineIsTimeBoxNumberAndTextsEachEscaped) {
  Event event;
  event.box = "box1";
  event.time = "2026-11-25T14:06:00.568Z";
  event.id = -7;
  event.args = {"link up", "a\tb\x1b[2J"};
  EXPECT_EQ(EventLine(event), "2026-11-25T14:06:00.568Z\tbox1\t-7\tlink up\ta\\tb\\x1b[2J\n");
  event.time = "t\n";
  event.args.clear();
  EXPECT_EQ(EventLine(event), "t\\n\tbox1\t-7\n");
}

}  // namespace
}  // namespace zel::fleet
