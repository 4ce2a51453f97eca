#include "tests/tools/fleet/fleet_test.h"

#include "gtest/gtest.h"

namespace zel::fleet::test {

zel::mqtt::ConnectionSettings LoopbackSettings(int port) {
  zel::mqtt::ConnectionSettings settings;
  settings.broker.host = "127.0.0.1";
  settings.broker.port = port;
  return settings;
}

PlayedBox::PlayedBox(int port, const std::string& id, const std::string& status, const MqttTestClient::Options& login)
    : mId(id), mClient(port, login) {
  EXPECT_TRUE(mClient.Subscribe("kdx/" + id + "/cmd"));
  if (!status.empty()) {
    EXPECT_TRUE(Publish("status", status, true));
  }
}

std::vector<MqttTestClient::Message> PlayedBox::Commands() const { return mClient.On("kdx/" + mId + "/cmd"); }

bool PlayedBox::Answer(const std::vector<std::string>& payloads, const std::optional<std::string>& correlation) {
  if (!mClient.WaitForCount("kdx/" + mId + "/cmd", 1)) return false;
  const MqttTestClient::Message command = Commands().front();
  for (const std::string& payload : payloads) {
    if (!mClient.Request(command.responseTopic.value_or(""), payload, "unused/reply",
                         correlation ? correlation : command.correlation)) {
      return false;
    }
  }
  return true;
}

bool PlayedBox::Publish(const std::string& leaf, const std::string& payload, bool retain) {
  return mClient.Publish("kdx/" + mId + "/" + leaf, payload, 1, retain);
}

std::string Pong(const std::string& box) {
  return R"({"command":"ping","code":1,"args":["PONG"],"box":")" + box + "\"}";
}

}  // namespace zel::fleet::test
