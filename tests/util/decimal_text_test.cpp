// The decimal text of numbers in paths, peer texts and request lines.
#include "util/decimal_text.h"

#include <cstdint>

#include "gtest/gtest.h"

namespace zel::util {
namespace {

TEST(DecimalTextTest, ZeroIsOneDigit) { EXPECT_EQ(DecimalText(0), "0"); }

TEST(DecimalTextTest, NumberIsWrittenWithoutPadding) { EXPECT_EQ(DecimalText(4242), "4242"); }

TEST(DecimalTextTest, LargestNumberIsWrittenInFull) { EXPECT_EQ(DecimalText(UINT32_MAX), "4294967295"); }

}  // namespace
}  // namespace zel::util
