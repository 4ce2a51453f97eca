// What the fleet's tests share: connection settings for a test broker, and
// a box the test plays on the broker (a client subscribed to the box's
// commands, its status retained), which answers each command as the test
// says, as a bridge would or as a broken or hostile one would. One thread at
// a time.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tests/support/mqtt_test_client.h"
#include "tools/mqtt/connection.h"

namespace zel::fleet::test {

using ::zel::test::MqttTestClient;

// The settings of a client of the test broker at 127.0.0.1:`port`.
zel::mqtt::ConnectionSettings LoopbackSettings(int port);

class PlayedBox {
 public:
  // Box `id` under the prefix "kdx", its status `status` retained (none
  // when empty), its client logged in as `login` says.
  PlayedBox(int port, const std::string& id, const std::string& status,
            const MqttTestClient::Options& login = MqttTestClient::Options());

  // The commands it received, in order.
  std::vector<MqttTestClient::Message> Commands() const;
  // Waits for its first command, then publishes `payloads` on that
  // command's response topic with `correlation`, or the correlation data
  // the command came with; false when no command came or a publication
  // failed.
  bool Answer(const std::vector<std::string>& payloads, const std::optional<std::string>& correlation = std::nullopt);
  // Publishes `payload` on the box's topic "kdx/ID/<leaf>".
  bool Publish(const std::string& leaf, const std::string& payload, bool retain = false);
  MqttTestClient& Client() { return mClient; }

 private:
  std::string mId;
  MqttTestClient mClient;
};

// The reply the bridge of `box` publishes to a ping that the service
// answered.
std::string Pong(const std::string& box);

}  // namespace zel::fleet::test
