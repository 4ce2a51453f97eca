// JSON output: one object a line that a JSON parser takes, with the canonical
// command name, the code and the arguments; bytes that are not UTF-8 become
// U+FFFD; no object at all when no reply came.
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/tools/ctl/ctl_test.h"

namespace zel::ctl::test {
namespace {

using Answer = FakeService::Answer;
using Json = nlohmann::json;

// The one line of output, parsed; fails the test unless it is exactly one
// line of valid JSON.
Json OneObject(const std::string& out) {
  EXPECT_EQ(out.find('\n'), out.size() - 1) << out;
  return Json::parse(out, nullptr, false);
}

TEST_F(CtlTest, JsonPingIsOneObjectWithCommandCodeAndArgs) {
  StartSim();
  const Result result = Ctl({"--json", "ping"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "{\"command\":\"ping\",\"code\":1,\"args\":[\"PONG\"]}\n");
  const Json object = OneObject(result.out);
  ASSERT_FALSE(object.is_discarded());
  EXPECT_EQ(object, Json({
                        {"command", "ping"  },
                        {"code",    1       },
                        {"args",    {"PONG"}}
  }));
}

TEST_F(CtlTest, JsonNamesTheCanonicalCommandForAnAlias) {
  StartSim({"--mac", "02:00:00:00:00:03"});
  const Result result = Ctl({"-j", "atcmd_wlanmac"});
  EXPECT_EQ(result.exitCode, 0);
  const Json object = OneObject(result.out);
  ASSERT_FALSE(object.is_discarded());
  EXPECT_EQ(object, Json({
                        {"command", "mac"                },
                        {"code",    1                    },
                        {"args",    {"02:00:00:00:00:03"}}
  }));
}

TEST_F(CtlTest, JsonStationsHoldsEveryStation) {
  StartSim({"--station", "a 1", "--station", "b 2"});
  const Json object = OneObject(Ctl({"-j", "atcmd_wlanapclist"}).out);
  ASSERT_FALSE(object.is_discarded());
  EXPECT_EQ(object, Json({
                        {"command", "stations"    },
                        {"code",    1             },
                        {"args",    {"a 1", "b 2"}}
  }));
}

TEST_F(CtlTest, JsonStationsWithNoneConnectedHasAnEmptyArgumentList) {
  StartSim({"--no-stations"});
  const Result result = Ctl({"-j", "stations"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "{\"command\":\"stations\",\"code\":1,\"args\":[]}\n");
}

TEST_F(CtlTest, JsonPrintsAReplyOfAnotherCodeAndStillExitsWithOne) {
  StartFake();
  fake->Script(1, Answer::Reply("3\tbusy"));
  const Result result = Ctl({"--json", "send_ping"});
  EXPECT_EQ(result.exitCode, 1);
  const Json object = OneObject(result.out);
  ASSERT_FALSE(object.is_discarded());
  EXPECT_EQ(object, Json({
                        {"command", "ping"  },
                        {"code",    3       },
                        {"args",    {"busy"}}
  }));
  EXPECT_EQ(result.err, ErrorLine("send_ping", "the service answered with code 3"));
}

TEST_F(CtlTest, JsonSendHoldsTheReplyFields) {
  StartFake();
  fake->Script(5, Answer::Reply("1\t\t\"quoted\"\\"));
  const Result result = Ctl({"--json", "send", "5", "x"});
  EXPECT_EQ(result.exitCode, 0);
  const Json object = OneObject(result.out);
  ASSERT_FALSE(object.is_discarded());
  EXPECT_EQ(object, Json({
                        {"command", "send"              },
                        {"code",    1                   },
                        {"args",    {"", "\"quoted\"\\"}}
  }));
}

TEST_F(CtlTest, JsonEscapesControlCharacters) {
  StartFake();
  fake->Script(1, Answer::Reply("1\tline\nnext\x01"));
  const Result result = Ctl({"--json", "ping"});
  EXPECT_EQ(result.out, "{\"command\":\"ping\",\"code\":1,\"args\":[\"line\\nnext\\u0001\"]}\n");
  const Json object = OneObject(result.out);
  ASSERT_FALSE(object.is_discarded());
  EXPECT_EQ(object["args"][0], "line\nnext\x01");
}

TEST_F(CtlTest, JsonReplacesBytesThatAreNotUtf8) {
  StartFake();
  fake->Script(3, Answer::Reply("1\tab\xff\xfe"
                                "c\tok\xc3\xa9"));
  const Result result = Ctl({"--json", "mac"});
  EXPECT_EQ(result.exitCode, 0);
  const Json object = OneObject(result.out);
  ASSERT_FALSE(object.is_discarded());
  EXPECT_EQ(object["args"], Json({"ab\xef\xbf\xbd\xef\xbf\xbd"
                                  "c",
                                  "ok\xc3\xa9"}));
}

TEST_F(CtlTest, JsonPrintsNothingWhenNoReplyCame) {
  StartFake();
  const Result result = Ctl({"--json", "--timeout", "100", "ping"});
  EXPECT_EQ(result.exitCode, 3);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, ErrorLine("ping", "no reply within 100 ms"));
}

TEST_F(CtlTest, JsonPrintsNothingForAUsageError) {
  const Result result = Ctl({"--json", "nothing"});
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_EQ(result.out, "");
}

}  // namespace
}  // namespace zel::ctl::test
