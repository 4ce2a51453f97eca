// An MQTT client for tests, on libmosquitto: connects to a test broker (MQTT 5
// unless asked for 3.1.1), subscribes, publishes (with a response topic and
// correlation data when asked) and records every message it receives, with
// its properties, in arrival order. Its network thread is libmosquitto's; the
// record may be read from any thread while it grows. Owns its client.
#pragma once

#include <mosquitto.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace zel::test {

class MqttTestClient {
 public:
  using milliseconds = std::chrono::milliseconds;

  struct Message {
    std::string topic;
    std::string payload;
    int qos = 0;
    bool retain = false;
    std::optional<std::string> responseTopic;
    std::optional<std::string> correlation;
  };

  struct Options {
    int protocol = 5;      // 5, or 4 for MQTT 3.1.1
    std::string id;        // empty: libmosquitto makes one up
    std::string username;  // empty: none
    std::string password;
  };

  // Connects to the loopback broker at `port` and waits for its answer;
  // Connected() tells whether it accepted.
  MqttTestClient(int port, const Options& options);
  explicit MqttTestClient(int port);
  ~MqttTestClient();
  MqttTestClient(const MqttTestClient&) = delete;
  MqttTestClient& operator=(const MqttTestClient&) = delete;

  bool Connected() const;
  // The CONNACK's reason, -1 before it came.
  int ConnectReason() const;

  // Subscribes at `qos` and waits for the acknowledgement; false when it does
  // not come or refuses.
  bool Subscribe(const std::string& filter, int qos = 1);
  // Publishes and, at QoS 1, waits for the broker's acknowledgement.
  bool Publish(const std::string& topic, const std::string& payload, int qos = 1, bool retain = false);
  // An MQTT 5 request: a publication with a response topic and, unless it is
  // absent, correlation data.
  bool Request(const std::string& topic, const std::string& payload, const std::string& responseTopic,
               const std::optional<std::string>& correlation, int qos = 1);

  std::vector<Message> Messages() const;
  // The messages on exactly `topic`, and their payloads.
  std::vector<Message> On(const std::string& topic) const;
  std::vector<std::string> PayloadsOn(const std::string& topic) const;
  // Waits until `predicate` holds for the messages received so far.
  bool WaitFor(const std::function<bool(const std::vector<Message>&)>& predicate,
               milliseconds timeout = std::chrono::seconds(10)) const;
  // Waits until at least `count` messages came on `topic`.
  bool WaitForCount(const std::string& topic, size_t count, milliseconds timeout = std::chrono::seconds(10)) const;
  void Clear();

 private:
  static void OnConnect(mosquitto* client, void* self, int reason, int flags, const mosquitto_property* properties);
  static void OnSubscribe(mosquitto* client, void* self, int mid, int count, const int* granted,
                          const mosquitto_property* properties);
  static void OnPublish(mosquitto* client, void* self, int mid, int reason, const mosquitto_property* properties);
  static void OnMessage(mosquitto* client, void* self, const mosquitto_message* message,
                        const mosquitto_property* properties);
  bool WaitForMid(int mid, const std::set<int>& done, milliseconds timeout) const;

  const int mProtocol;
  mosquitto* mClient = nullptr;
  mutable std::mutex mMutex;  // guards everything below
  mutable std::condition_variable mChanged;
  int mConnectReason = -1;
  std::set<int> mSubscribed;  // message ids of granted subscriptions
  std::set<int> mRefused;     // message ids of refused subscriptions
  std::set<int> mPublished;   // message ids acknowledged
  std::vector<Message> mMessages;
};

}  // namespace zel::test
