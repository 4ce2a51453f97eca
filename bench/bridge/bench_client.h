// A libmosquitto client for the bridge's benchmarks: MQTT 5 at QoS 1, with
// Nagle's algorithm on or off, driven on the caller's thread by Loop (every
// callback runs inside Loop). Used from one thread; owns its libmosquitto
// client.
#pragma once

#include <mosquitto.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace zel::bench {

// A message from the broker, with where its reply goes if it names a place.
struct BenchMessage {
  std::string topic;
  std::string payload;
  std::optional<std::string> responseTopic;
  std::optional<std::string> correlation;
};

class BenchClient {
 public:
  using MessageCb = std::function<void(const BenchMessage& message)>;

  // `nodelay`: TCP_NODELAY on the connection, so that small packets leave at
  // once rather than after the acknowledgement of the one before.
  explicit BenchClient(bool nodelay);
  ~BenchClient();
  BenchClient(const BenchClient&) = delete;
  BenchClient& operator=(const BenchClient&) = delete;

  void OnMessage(MessageCb cb) { mOnMessage = std::move(cb); }
  // Connects and waits until the broker accepts; false (with the reason on
  // standard error) when it does not within 10 s.
  bool Connect(const std::string& host, int port);
  // Subscribes at QoS 1 and waits for the acknowledgement.
  bool Subscribe(const std::string& filter);
  // Publishes at QoS 1, with a response topic and correlation data when they
  // are not empty.
  bool Publish(const std::string& topic, const std::string& payload, const std::string& responseTopic = "",
               const std::string& correlation = "");
  // Reads and writes what it can, waiting at most `timeoutMs` for the
  // connection to have something; false once the connection is gone.
  bool Loop(int timeoutMs);
  // Publications the broker has acknowledged so far.
  uint64_t Acknowledged() const { return mAcknowledged; }

 private:
  // Loops until `done` holds; false when the connection fails or 10 s pass.
  bool LoopUntil(const std::function<bool()>& done);

  static void OnConnectCb(mosquitto* client, void* self, int reason, int flags, const mosquitto_property* properties);
  static void OnSubscribeCb(mosquitto* client, void* self, int mid, int count, const int* granted,
                            const mosquitto_property* properties);
  static void OnPublishCb(mosquitto* client, void* self, int mid, int reason, const mosquitto_property* properties);
  static void OnMessageCb(mosquitto* client, void* self, const mosquitto_message* message,
                          const mosquitto_property* properties);

  mosquitto* mClient = nullptr;
  MessageCb mOnMessage;
  int mConnectReason = -1;
  bool mSubscribed = false;
  uint64_t mAcknowledged = 0;
};

}  // namespace zel::bench
