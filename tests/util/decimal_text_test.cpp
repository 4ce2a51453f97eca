// The decimal text of numbers in paths, peer texts and request lines, and
// the numbers of decimal texts.
#include "util/decimal_text.h"

#include <cstdint>

#include "gtest/gtest.h"

namespace zel::util {
namespace {

TEST(DecimalTextTest, ZeroIsOneDigit) { EXPECT_EQ(DecimalText(0), "0"); }

TEST(DecimalTextTest, NumberIsWrittenWithoutPadding) { EXPECT_EQ(DecimalText(4242), "4242"); }

TEST(DecimalTextTest, LargestNumberIsWrittenInFull) { EXPECT_EQ(DecimalText(UINT32_MAX), "4294967295"); }

TEST(DecimalTextTest, SignedNumberHasItsMinusSign) {
  EXPECT_EQ(SignedDecimalText(-3), "-3");
  EXPECT_EQ(SignedDecimalText(0), "0");
  EXPECT_EQ(SignedDecimalText(INT32_MIN), "-2147483648");
  EXPECT_EQ(SignedDecimalText(INT32_MAX), "2147483647");
}

TEST(ParseDecimalTest, DigitsGiveTheirNumber) {
  uint64_t value = 0;
  ASSERT_TRUE(ParseDecimal("0042", 100, value));
  EXPECT_EQ(value, 42u);
}

TEST(ParseDecimalTest, TheLimitItselfIsTaken) {
  uint64_t value = 0;
  ASSERT_TRUE(ParseDecimal("60000", 60000, value));
  EXPECT_EQ(value, 60000u);
}

TEST(ParseDecimalTest, ANumberAboveTheLimitIsRefused) {
  uint64_t value = 7;
  EXPECT_FALSE(ParseDecimal("60001", 60000, value));
  EXPECT_FALSE(ParseDecimal("5", 4, value));
  EXPECT_FALSE(ParseDecimal("1", 0, value));
  EXPECT_EQ(value, 7u);
}

TEST(ParseDecimalTest, ManyDigitsNeverWrapRound) {
  uint64_t value = 0;
  EXPECT_FALSE(ParseDecimal("18446744073709551616", UINT64_MAX, value));
  EXPECT_FALSE(ParseDecimal("4294967296", UINT32_MAX, value));
  ASSERT_TRUE(ParseDecimal("18446744073709551615", UINT64_MAX, value));
  EXPECT_EQ(value, UINT64_MAX);
}

TEST(ParseDecimalTest, AnythingButDigitsIsRefused) {
  uint64_t value = 0;
  for (const char* text : {"", "-1", "+1", " 1", "1 ", "5s", "0x10", "1.0"}) {
    EXPECT_FALSE(ParseDecimal(text, UINT64_MAX, value)) << text;
  }
}

}  // namespace
}  // namespace zel::util
