// The command table, the parser of a command's words and the splitting of a
// batch line.
#include "tools/service_client/commands.h"

#include <set>
#include <string>
#include <vector>

#include "gtest/gtest.h"

namespace zel::service_client {
namespace {

using Words = std::vector<std::string>;

Request Parsed(const Words& words) {
  Request request;
  Failure failure;
  EXPECT_TRUE(ParseRequest(words, request, failure)) << failure.Line("test");
  return request;
}

Failure Refused(const Words& words) {
  Request request;
  Failure failure;
  EXPECT_FALSE(ParseRequest(words, request, failure));
  EXPECT_EQ(failure.status, kStatusUsage);
  return failure;
}

Words Split(const std::string& line) {
  Words words;
  Failure failure;
  EXPECT_TRUE(SplitLine(line, words, failure));
  return words;
}

TEST(CommandTableTest, EveryCommandIsFoundByItsNameAndItsAlias) {
  for (const Command& command : AllCommands()) {
    EXPECT_EQ(FindCommand(command.name), &command) << command.name;
    if (command.alias != nullptr) {
      EXPECT_EQ(FindCommand(command.alias), &command) << command.alias;
    }
  }
}

TEST(CommandTableTest, NamesAndAliasesAreAllDifferent) {
  std::set<std::string> names;
  size_t count = 0;
  for (const Command& command : AllCommands()) {
    names.insert(command.name);
    ++count;
    if (command.alias != nullptr) {
      names.insert(command.alias);
      ++count;
    }
  }
  EXPECT_EQ(names.size(), count);
}

TEST(CommandTableTest, ListsTheFiveCommandsInTheOrderOfTheHelp) {
  std::vector<std::string> names;
  for (const Command& command : AllCommands()) names.push_back(command.name);
  EXPECT_EQ(names, std::vector<std::string>({"ping", "stations", "mac", "send", "watch"}));
}

TEST(CommandTableTest, FirstFieldCommandsSayWhyAReplyWithoutItFails) {
  for (const Command& command : AllCommands()) {
    if (command.reply == ReplyStyle::FirstField) {
      EXPECT_NE(command.noFirstField, nullptr) << command.name;
    }
  }
}

TEST(CommandTableTest, UnknownWordFindsNothing) {
  EXPECT_EQ(FindCommand("pong"), nullptr);
  EXPECT_EQ(FindCommand(""), nullptr);
  EXPECT_EQ(FindCommand(std::string("ping\0x", 6)), nullptr);
}

TEST(ParseRequestTest, FixedCommandsSendTheirNumberAndNoField) {
  EXPECT_EQ(Parsed({"ping"}).number, 1u);
  EXPECT_EQ(Parsed({"atcmd_wlanapclist"}).number, 2u);
  const Request mac = Parsed({"mac"});
  EXPECT_EQ(mac.number, 3u);
  EXPECT_EQ(mac.typed, "mac");
  EXPECT_STREQ(mac.command->name, "mac");
  EXPECT_TRUE(mac.fields.empty());
}

TEST(ParseRequestTest, SendTakesItsNumberAndFieldsAsTyped) {
  const Request request = Parsed({"send", "5", "-x", "", "a b"});
  EXPECT_EQ(request.number, 5u);
  EXPECT_EQ(request.fields, Words({"-x", "", "a b"}));
}

TEST(ParseRequestTest, WatchSendsNothing) {
  const Request request = Parsed({"watch"});
  EXPECT_EQ(request.number, 0u);
  EXPECT_EQ(request.command->reply, ReplyStyle::Events);
  EXPECT_FALSE(request.command->inBatch);
}

TEST(ParseRequestTest, NoWordsIsAMissingCommand) {
  const Failure failure = Refused({});
  EXPECT_EQ(failure.what, "command");
  EXPECT_EQ(failure.why, "missing");
  EXPECT_TRUE(failure.commandUnknown);
}

TEST(ParseRequestTest, UnknownCommandIsShownEscaped) {
  const Failure failure = Refused({"po\x1bng"});
  EXPECT_EQ(failure.what, "po\\x1bng");
  EXPECT_EQ(failure.why, "unknown command");
  EXPECT_TRUE(failure.commandUnknown);
}

TEST(ParseRequestTest, OtherUsageFailuresLeaveTheCommandKnown) {
  EXPECT_FALSE(Refused({"stations", "all"}).commandUnknown);
  EXPECT_FALSE(Refused({"send"}).commandUnknown);
}

TEST(ParseRequestTest, ArgumentOfACommandWithoutArgumentsIsRefused) {
  EXPECT_EQ(Refused({"stations", "all"}).why, "takes no arguments, not \"all\"");
}

TEST(ParseRequestTest, SendNeedsANumberFromOneToFive) {
  EXPECT_EQ(Refused({"send"}).why, "missing command number N (1 to 5)");
  EXPECT_EQ(Refused({"send", "0"}).why, "command number must be 1 to 5, not \"0\"");
  EXPECT_EQ(Refused({"send", "6"}).why, "command number must be 1 to 5, not \"6\"");
  EXPECT_EQ(Refused({"send", "01"}).why, "command number must be 1 to 5, not \"01\"");
  EXPECT_EQ(Refused({"send", "x"}).why, "command number must be 1 to 5, not \"x\"");
}

TEST(ParseRequestTest, FieldHoldingATabIsRefused) {
  EXPECT_EQ(Refused({"send", "1", "a\tb"}).why, "a field cannot hold a tab");
}

TEST(SplitLineTest, SplitsAtRunsOfBlanksAndTabs) {
  EXPECT_EQ(Split("  send\t2   a\t\tb  "), Words({"send", "2", "a", "b"}));
}

TEST(SplitLineTest, BlankLineHasNoWords) {
  EXPECT_TRUE(Split("").empty());
  EXPECT_TRUE(Split(" \t ").empty());
}

TEST(SplitLineTest, LineHoldingANulByteIsRefused) {
  Words words = {"left over"};
  Failure failure;
  EXPECT_FALSE(SplitLine(std::string("ping\0junk", 9), words, failure));
  EXPECT_EQ(failure.status, kStatusUsage);
  EXPECT_EQ(failure.what, "ping\\x00junk");
  EXPECT_EQ(failure.why, "holds a NUL byte");
  EXPECT_TRUE(words.empty());
}

TEST(SplitLineTest, BlankAndCommentLinesAreSkipped) {
  EXPECT_TRUE(IsBlankOrComment(Split("")));
  EXPECT_TRUE(IsBlankOrComment(Split("  # ping")));
  EXPECT_TRUE(IsBlankOrComment(Split("#ping")));
  EXPECT_FALSE(IsBlankOrComment(Split("ping # no comment here")));
}

TEST(HelpColumnsTest, SummariesLineUpTwoBlanksAfterTheLongestLeftColumn) {
  const std::vector<HelpRow> rows = {
      {"-a",         "first" },
      {"--longer X", "second"},
      {"",           "third" },
  };
  EXPECT_EQ(HelpColumns(rows),
            "  -a" + std::string(10, ' ') + "first\n  --longer X  second\n" + std::string(14, ' ') + "third\n");
}

TEST(HelpColumnsTest, NoRowsMakeNoText) { EXPECT_EQ(HelpColumns({}), ""); }

}  // namespace
}  // namespace zel::service_client
