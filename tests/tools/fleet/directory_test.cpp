// The box directory fed the messages a subscription brings: statuses,
// services and events, checked; the ls lines and objects of its boxes.
#include "tools/fleet/directory.h"

#include <string>
#include <vector>

#include "gtest/gtest.h"

namespace zel::fleet {
namespace {

class DirectoryTest : public ::testing::Test {
 protected:
  BoxDirectory::Taken Take(const std::string& topic, const std::string& payload, bool retain = true) {
    zel::mqtt::Message message;
    message.topic = topic;
    message.payload = payload;
    message.retain = retain;
    ++now.tv_sec;
    return directory.Take(message, now, skipped, box);
  }

  // The ls output of the directory.
  std::string Lines() const {
    std::string lines;
    for (const auto& [id, entry] : directory.Boxes()) {
      if (entry.hasStatus) lines += BoxDirectory::Line(id, entry);
    }
    return lines;
  }

  Topics topics{"kdx"};
  BoxDirectory directory{topics};
  SkipCount skipped;
  timespec now{1000, 0};
  std::string box;
};

TEST_F(DirectoryTest, ListsBoxesByIdWithStatusAndService) {
  EXPECT_EQ(Take("kdx/b2/status", "online"), BoxDirectory::Taken::Box);
  EXPECT_EQ(box, "b2");
  Take("kdx/b1/status", "offline");
  Take("kdx/b10/status", "online");
  Take("kdx/b2/service", "up");
  Take("kdx/b10/service", "down");
  EXPECT_EQ(Lines(), "b1\toffline\t-\nb10\tonline\tdown\nb2\tonline\tup\n");
  EXPECT_EQ(skipped.Total(), 0u);
}

TEST_F(DirectoryTest, ShowsTheServiceOfAnOfflineBoxAsUnknown) {
  Take("kdx/b1/service", "up");
  Take("kdx/b1/status", "offline");
  EXPECT_EQ(Lines(), "b1\toffline\t-\n");
  EXPECT_EQ(BoxDirectory::Json("b1", *directory.Find("b1")), R"({"box":"b1","status":"offline","service":null})");
  Take("kdx/b1/status", "online");
  EXPECT_EQ(BoxDirectory::Json("b1", *directory.Find("b1")), R"({"box":"b1","status":"online","service":"up"})");
}

TEST_F(DirectoryTest, DoesNotListABoxKnownByItsServiceAlone) {
  EXPECT_EQ(Take("kdx/b1/service", "up"), BoxDirectory::Taken::Box);
  ASSERT_NE(directory.Find("b1"), nullptr);
  EXPECT_EQ(Lines(), "");
}

TEST_F(DirectoryTest, ForgetsABoxWhoseStatusAndServiceAreCleared) {
  Take("kdx/b1/status", "online");
  Take("kdx/b1/service", "up");
  Take("kdx/b1/status", "", false);
  ASSERT_NE(directory.Find("b1"), nullptr);
  EXPECT_EQ(Lines(), "");
  Take("kdx/b1/service", "", false);
  EXPECT_EQ(directory.Find("b1"), nullptr);
  EXPECT_EQ(Take("kdx/b9/status", ""), BoxDirectory::Taken::Box);
  EXPECT_EQ(directory.Find("b9"), nullptr);
}

TEST_F(DirectoryTest, KnowsWhenAChangeWasSeenOnlyForWhatWasNotRetained) {
  Take("kdx/b1/status", "online", true);
  EXPECT_FALSE(directory.Find("b1")->changed.has_value());
  Take("kdx/b1/status", "offline", false);
  ASSERT_TRUE(directory.Find("b1")->changed.has_value());
  const time_t seen = directory.Find("b1")->changed->tv_sec;
  EXPECT_EQ(seen, now.tv_sec);
  Take("kdx/b1/status", "offline", false);
  EXPECT_EQ(directory.Find("b1")->changed->tv_sec, seen);
  Take("kdx/b1/service", "down", false);
  EXPECT_EQ(directory.Find("b1")->changed->tv_sec, now.tv_sec);
}

TEST_F(DirectoryTest, KeepsEachBoxsLastEvent) {
  Take("kdx/b1/status", "online");
  EXPECT_EQ(Take("kdx/b1/event/7", R"({"time":"t1","id":7,"args":["a"],"box":"b1"})", false),
            BoxDirectory::Taken::Event);
  Take("kdx/b1/event/8", R"({"time":"t2","id":8,"args":["b"],"box":"b1"})", false);
  ASSERT_TRUE(directory.Find("b1")->lastEvent.has_value());
  EXPECT_EQ(directory.Find("b1")->lastEvent->id, 8);
  EXPECT_EQ(directory.Find("b1")->lastEvent->time, "t2");
}

TEST_F(DirectoryTest, SkipsAndCountsWhatFailsItsChecks) {
  EXPECT_EQ(Take("kdx/b1/status", "ONLINE"), BoxDirectory::Taken::Skipped);
  EXPECT_EQ(Take("kdx/b1/service", std::string(70000, 'u')), BoxDirectory::Taken::Skipped);
  EXPECT_EQ(Take("kdx/b1/event/1", R"({"time":"t","id":1,"args":[],"box":"b2"})"), BoxDirectory::Taken::Skipped);
  EXPECT_EQ(Take("kdx/\x1b[2J/status", "online"), BoxDirectory::Taken::Skipped);
  EXPECT_EQ(Take("kdx/all/status", "online"), BoxDirectory::Taken::Skipped);
  EXPECT_EQ(skipped.Of(Skip::Malformed), 3u);
  EXPECT_EQ(skipped.Of(Skip::TooLarge), 1u);
  EXPECT_EQ(skipped.Of(Skip::OtherBox), 1u);
  EXPECT_EQ(Lines(), "");
}

TEST_F(DirectoryTest, LeavesOtherTopicsAlone) {
  EXPECT_EQ(Take("kdx/b1/cmd", "ping"), BoxDirectory::Taken::NotOurs);
  EXPECT_EQ(Take("kdx/b1/reply/x", "{}"), BoxDirectory::Taken::NotOurs);
  EXPECT_EQ(Take("other/b1/status", "online"), BoxDirectory::Taken::NotOurs);
  EXPECT_EQ(skipped.Total(), 0u);
  EXPECT_TRUE(directory.Boxes().empty());
}

TEST_F(DirectoryTest, SkipsABoxWhoseIdHoldsAControlCharacter) {
  EXPECT_EQ(Take("kdx/b\xc2\x9b"
                 "1/status",
                 "online"),
            BoxDirectory::Taken::Skipped);
  EXPECT_EQ(Take("kdx/b\x7f/status", "online"), BoxDirectory::Taken::Skipped);
  EXPECT_TRUE(directory.Boxes().empty());
}

TEST_F(DirectoryTest, EscapesWhatABoxsIdHoldsInItsLineAndObject) {
  Take("kdx/b\\1\"/status", "online");
  ASSERT_EQ(directory.Boxes().size(), 1u);
  const auto& [id, entry] = *directory.Boxes().begin();
  EXPECT_EQ(BoxDirectory::Line(id, entry), "b\\\\1\"\tonline\t-\n");
  EXPECT_EQ(BoxDirectory::Json(id, entry), "{\"box\":\"b\\\\1\\\"\",\"status\":\"online\",\"service\":null}");
}

TEST_F(DirectoryTest, TakesNoMoreBoxesThanItsLimit) {
  for (size_t i = 0; i < BoxDirectory::kMaxBoxes; ++i) Take("kdx/b" + std::to_string(i) + "/status", "online");
  EXPECT_EQ(Take("kdx/one-more/status", "online"), BoxDirectory::Taken::Skipped);
  EXPECT_EQ(directory.Boxes().size(), BoxDirectory::kMaxBoxes);
  EXPECT_EQ(directory.Refused(), 1u);
  EXPECT_EQ(directory.Find("one-more"), nullptr);
  EXPECT_EQ(Take("kdx/b1/status", "offline"), BoxDirectory::Taken::Box);
}

}  // namespace
}  // namespace zel::fleet
