// A few thousand random payloads from the broker: each is answered exactly
// once on its own response topic, with a reply of one of the two shapes;
// only the commands that the bridge accepts reach the service, and the bridge
// goes on.
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <vector>

#include "tests/tools/bridge/bridge_test.h"

namespace zel::bridge::test {
namespace {

constexpr int kPayloads = 3000;
// Requests sent ahead of their replies: well below the 64 that may wait.
constexpr size_t kAhead = 32;

class RandomPayloads {
 public:
  explicit RandomPayloads(uint32_t seed) : mRandom(seed) {}

  std::string Next() {
    switch (Pick(6)) {
      case 0:
        return Bytes(Pick(48));
      case 1:
        return Bytes(CommandIntakeLimit() - 2 + Pick(5));
      case 2:
        return Utf8(Pick(40));
      default:
        return Line();
    }
  }

 private:
  static size_t CommandIntakeLimit() { return 8192; }

  size_t Pick(size_t count) { return std::uniform_int_distribution<size_t>(0, count - 1)(mRandom); }

  std::string Bytes(size_t length) {
    std::string bytes;
    for (size_t i = 0; i < length; ++i) bytes += static_cast<char>(Pick(256));
    return bytes;
  }

  // Code points from every range, encoded as UTF-8.
  std::string Utf8(size_t count) {
    static const uint32_t kStarts[] = {0x20, 0x80, 0x800, 0xE000, 0x10000, 0x10FFF0, 0x09, 0x0A};
    std::string text;
    for (size_t i = 0; i < count; ++i) {
      const uint32_t code = kStarts[Pick(8)] + static_cast<uint32_t>(Pick(8));
      if (code < 0x80) {
        text += static_cast<char>(code);
      } else if (code < 0x800) {
        text += static_cast<char>(0xC0 | (code >> 6));
        text += static_cast<char>(0x80 | (code & 0x3F));
      } else if (code < 0x10000) {
        text += static_cast<char>(0xE0 | (code >> 12));
        text += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        text += static_cast<char>(0x80 | (code & 0x3F));
      } else {
        text += static_cast<char>(0xF0 | (code >> 18));
        text += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
        text += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        text += static_cast<char>(0x80 | (code & 0x3F));
      }
    }
    return text;
  }

  // Words of commands and arguments, some right, most not, with blanks,
  // tabs and now and then a line end or another control byte between them.
  std::string Line() {
    static const std::vector<std::string> kWords = {
        "ping", "stations", "mac", "send", "watch",  "send_ping", "atcmd_wlanmac", "4", "1",
        "9",    "/x/y",     "#",   "-",    "--help", "\xff",      "\xc3\xa9",      ""};
    // The first five gaps keep to one line.
    static const std::vector<std::string> kGaps = {" ",   " ", " ", "\t", "  ", "\n", "\r\n", std::string("\0", 1),
                                                   "\x1b"};
    std::string line;
    const size_t words = 1 + Pick(4);
    for (size_t i = 0; i < words; ++i) {
      if (i > 0 || Pick(4) == 0) line += kGaps[Pick(i > 0 ? kGaps.size() : 5)];
      line += kWords[Pick(kWords.size())];
    }
    if (Pick(4) == 0) line += "\n";
    return line;
  }

  std::mt19937 mRandom;
};

// The shape of a reply: an answer (command, code, args, box) or an error
// (box, command, status 2 or 3, error); "" when it is neither.
std::string Shape(const std::string& payload) {
  const nlohmann::ordered_json reply = nlohmann::ordered_json::parse(payload, nullptr, false);
  if (reply.is_discarded() || !reply.is_object()) return "";
  std::vector<std::string> keys;
  for (const auto& item : reply.items()) keys.push_back(item.key());
  if (keys == std::vector<std::string>{"command", "code", "args", "box"} && reply["box"] == "box1") return "answer";
  if (keys == std::vector<std::string>{"box", "command", "status", "error"} && reply["box"] == "box1" &&
      (reply["status"] == 2 || reply["status"] == 3) && reply["error"].is_string()) {
    return "error";
  }
  return "";
}

class BridgeRandomTest : public BridgeTest {};

TEST_F(BridgeRandomTest, EveryRandomPayloadIsAnsweredOnceAndOnlyAcceptedCommandsReachTheService) {
  StartBroker();
  StartFake();
  fake->Script(2, FakeService::Answer::Reply("1"));
  fake->Script(3, FakeService::Answer::Reply("1\t02:00:00:00:00:01"));
  StartOnline();
  auto requester = Client({"test/r/#"});
  const uint32_t seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  RandomPayloads payloads(seed);
  std::vector<std::string> sent;
  for (int i = 0; i < kPayloads; ++i) {
    const size_t answered = sent.size() < kAhead ? 0 : sent.size() - kAhead;
    ASSERT_TRUE(requester->WaitFor([&](const std::vector<Message>& m) { return m.size() >= answered; }));
    sent.push_back(payloads.Next());
    ASSERT_TRUE(requester->Request(Topic("cmd"), sent.back(), "test/r/" + std::to_string(i), std::to_string(i)));
  }
  ASSERT_TRUE(requester->WaitFor([&](const std::vector<Message>& m) { return m.size() >= sent.size(); },
                                 std::chrono::seconds(60)));
  size_t answers = 0;
  for (const Message& reply : requester->Messages()) {
    const std::string number = reply.topic.substr(reply.topic.rfind('/') + 1);
    EXPECT_EQ(reply.correlation, std::optional<std::string>(number));
    const std::string shape = Shape(reply.payload);
    EXPECT_NE(shape, "") << reply.payload;
    answers += shape == "answer";
  }
  EXPECT_EQ(requester->Messages().size(), sent.size());
  size_t commands = 0;
  for (const FakeService::Request& request : fake->Requests()) {
    EXPECT_TRUE(request.command >= 1 && request.command <= 5) << request.text;
    commands += request.command >= 1 && request.command <= 3;
    // Only ping, stations and mac, which take no arguments.
    if (request.command >= 1 && request.command <= 3) {
      EXPECT_EQ(request.text, std::to_string(request.command));
    }
  }
  EXPECT_EQ(commands, answers);
  EXPECT_EQ(Ask("ping"), AnsweredPayload("ping", 1, {"PONG"}));
}

}  // namespace
}  // namespace zel::bridge::test
