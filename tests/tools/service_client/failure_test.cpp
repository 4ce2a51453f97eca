// Failures and how error lines show what they quote.
#include "tools/service_client/failure.h"

#include <cerrno>
#include <string>

#include "gtest/gtest.h"

namespace zel::service_client {
namespace {

TEST(FailureTest, LineIsProgramWhatAndWhy) {
  const Failure failure = Fail(kStatusUnreachable, "/run/svc", "Connection refused");
  EXPECT_TRUE(failure.Failed());
  EXPECT_EQ(failure.Line("kendrivex-ctl"), "kendrivex-ctl: /run/svc: Connection refused\n");
}

TEST(FailureTest, DefaultIsNoFailure) { EXPECT_FALSE(Failure().Failed()); }

TEST(FailureTest, UsageFailureShowsWhatWasTyped) {
  const Failure failure = Usage("--box\x1b", "only with watch");
  EXPECT_EQ(failure.status, kStatusUsage);
  EXPECT_EQ(failure.Line("kdx"), "kdx: --box\\x1b: only with watch\n");
}

TEST(FailureTest, ErrorTextIsTheCLibrarysText) { EXPECT_EQ(ErrorText(ENOENT), "No such file or directory"); }

TEST(ShownTest, PrintableTextIsShownAsItIs) { EXPECT_EQ(Shown("send_ping 2 [x]"), "send_ping 2 [x]"); }

TEST(ShownTest, ControlBytesAndTheBackslashAreEscaped) {
  EXPECT_EQ(Shown(std::string("a\tb\nc\rd\\e\x1b[0m\x7f\0", 15)), "a\\tb\\nc\\rd\\\\e\\x1b[0m\\x7f\\x00");
}

TEST(ShownTest, C1ControlCharactersAreEscapedByteByByte) {
  EXPECT_EQ(Shown("a\xc2\x9b"
                  "2J\xc2\x80\xc2\x9f\xc2\xa0"),
            "a\\xc2\\x9b2J\\xc2\\x80\\xc2\\x9f\xc2\xa0");
}

TEST(ShownTest, Utf8CharactersAreKept) {
  EXPECT_EQ(Shown("caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"), "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80");
}

TEST(ShownTest, BytesThatAreNotUtf8AreEscaped) {
  // A lone continuation byte, an overlong form, a surrogate, a code point
  // beyond U+10FFFF, a truncated character, and bytes UTF-8 never uses.
  EXPECT_EQ(Shown("\x80"), "\\x80");
  EXPECT_EQ(Shown("\xc0\xaf"), "\\xc0\\xaf");
  EXPECT_EQ(Shown("\xe0\x80\xaf"), "\\xe0\\x80\\xaf");
  EXPECT_EQ(Shown("\xed\xa0\x80"), "\\xed\\xa0\\x80");
  EXPECT_EQ(Shown("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80");
  EXPECT_EQ(Shown("\xf0\x9f\x98"), "\\xf0\\x9f\\x98");
  EXPECT_EQ(Shown("\xe2\x28\xa1"), "\\xe2(\\xa1");
  EXPECT_EQ(Shown("\xf5\xff"), "\\xf5\\xff");
}

TEST(ShownTest, LongTextIsCutAfterEightyCharacters) {
  EXPECT_EQ(Shown(std::string(80, 'x')), std::string(80, 'x'));
  EXPECT_EQ(Shown(std::string(1 << 20, 'x')), std::string(80, 'x') + "...");
}

TEST(ShownTest, CutNeverSplitsAnEscapeOrACharacter) {
  EXPECT_EQ(Shown(std::string(78, 'x') + "\x01"), std::string(78, 'x') + "...");
  EXPECT_EQ(Shown(std::string(79, 'x') + "\xc3\xa9\xc3\xa9"), std::string(79, 'x') + "\xc3\xa9...");
}

TEST(ShownTest, LimitCanBeChosen) {
  EXPECT_EQ(Shown("abcdef", 3), "abc...");
  EXPECT_EQ(Shown(std::string(150, 'p'), kShownPathLength), std::string(150, 'p'));
}

TEST(ValidUtf8Test, WellFormedTextIsValid) {
  for (const char* text : {"", "ping", "\x7f", "\xc3\xa9", "\xe2\x82\xac", "\xf0\x9f\x98\x80", "\xf4\x8f\xbf\xbf"}) {
    EXPECT_TRUE(ValidUtf8(text)) << text;
  }
}

TEST(ValidUtf8Test, OverlongFormsSurrogatesAndCutCharactersAreNot) {
  for (const char* text :
       {"\x80", "\xc1\xbf", "\xe0\x80\x80", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xff", "a\xe2\x82"}) {
    EXPECT_FALSE(ValidUtf8(text)) << text;
  }
}

}  // namespace
}  // namespace zel::service_client
