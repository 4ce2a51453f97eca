// The simulator's report lines and how texts are shown in them.
#include "tools/sim/sim_log.h"

#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "tests/support/sim_process.h"
#include "tests/support/temp_dir.h"

namespace zel::sim {
namespace {

using ::zel::test::SimProcess;
using ::zel::test::TempDir;

TEST(SimLogTest, ShownEscapesControlAndNonAsciiBytes) {
  EXPECT_EQ(SimLog::Shown(std::string("1\tPONG\n\r\\\x01\xff", 11)), "1\\tPONG\\n\\r\\\\\\x01\\xff");
  EXPECT_EQ(SimLog::Shown(std::string("a\0b", 3)), "a\\x00b");
}

TEST(SimLogTest, ShownTextsRoundTripThroughUnescape) {
  const std::string text("4\t/tmp/x-event\n\x7f", 16);
  EXPECT_EQ(SimProcess::Unescape(SimLog::Shown(text)), text);
}

TEST(SimLogTest, LongTextIsShownByItsStartAndLength) {
  const std::string text(8192, 'x');
  EXPECT_EQ(SimLog::Shown(text), std::string(64, 'x') + "... (8192 bytes)");
  EXPECT_EQ(SimLog::Shown(std::string(200, 'y')), std::string(200, 'y'));
}

TEST(SimLogTest, LinesAreAppendedToTheFile) {
  TempDir dir;
  {
    SimLog log(dir.File("log"));
    ASSERT_TRUE(log.Ok());
    log.Line("first");
  }
  SimLog log(dir.File("log"));
  log.Line("second");
  EXPECT_EQ(SimProcess::ReadLines(dir.File("log")), (std::vector<std::string>{"first", "second"}));
}

TEST(SimLogTest, FileThatCannotBeOpenedIsReported) {
  TempDir dir;
  SimLog log(dir.File("missing/log"));
  EXPECT_FALSE(log.Ok());
}

}  // namespace
}  // namespace zel::sim
