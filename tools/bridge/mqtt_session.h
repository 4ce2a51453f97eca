// One connection to the broker: a libmosquitto client made for one attempt to
// connect and destroyed with it, so that nothing of a lost connection (its
// unacknowledged messages) goes out again behind the link's back; the link
// keeps what must go out again itself. MQTT 5 with a clean start,
// TCP_NODELAY, the retained will "offline", TLS with verification and the
// credentials as the settings say. Used on the link's thread only: what the
// broker sends is handed to the Listener from inside Step.
#pragma once

#include <mosquitto.h>

#include <cstdint>
#include <optional>
#include <string>

#include "tools/bridge/publication.h"
#include "tools/bridge/settings.h"
#include "tools/bridge/topics.h"

namespace zel::bridge {

// A message from the broker, with where its reply goes if it names a place.
struct IncomingMessage {
  std::string topic;
  std::string payload;
  std::optional<std::string> responseTopic;
  std::optional<std::string> correlation;
};

class MqttSession {
 public:
  class Listener {
   public:
    virtual ~Listener() = default;
    // The broker's answer to the connection: 0 accepted, else its reason.
    virtual void OnConnected(int reason) = 0;
    // The reasons granted to each of the `count` topics of subscription
    // `mid`, in order.
    virtual void OnSubscribed(int mid, int count, const int* granted) = 0;
    // The broker acknowledged publication `mid` (reason 0x80 and above: it
    // refused it).
    virtual void OnPublished(int mid, int reason) = 0;
    virtual void OnMessage(const IncomingMessage& message) = 0;
  };

  static constexpr int kKeepAliveSeconds = 30;

  MqttSession(const Settings& settings, const Topics& topics, Listener& listener);
  ~MqttSession();
  MqttSession(const MqttSession&) = delete;
  MqttSession& operator=(const MqttSession&) = delete;

  // Sets the client up and starts connecting without waiting; false with the
  // reason when it cannot even start.
  bool Start(std::string& why);
  // The connection's descriptor (-1 when there is none) and whether it has
  // something to write.
  int Fd() const;
  bool WantWrite() const;
  // Reads (when the descriptor is `readable`), writes what waits and keeps
  // the connection alive, as far as it can without waiting; false with the
  // reason once the connection is gone. `writable` matters only until the
  // broker has answered the connection: a TLS handshake may wait for it.
  bool Step(bool readable, bool writable, std::string& why);

  // Subscribes to the box's two command topics (P/cmd, then PREFIX/all/cmd)
  // at QoS 1, without the retained messages there; false when it cannot be
  // sent.
  bool SubscribeCommands(int& mid);
  // Publishes at QoS 1; libmosquitto's error number (MOSQ_ERR_SUCCESS once
  // it is on its way, MOSQ_ERR_OVERSIZE_PACKET for a message larger than the
  // broker takes).
  int Publish(const std::string& topic, const std::string& payload, bool retain,
              const std::optional<std::string>& correlation, int& mid);
  // The largest packet the broker takes, as its answer to the connection
  // said; 0 when it set no limit.
  uint32_t MaximumPacketSize() const { return mMaximumPacketSize; }
  // Sends DISCONNECT (the will is then not published).
  void Disconnect();

  // libmosquitto's text for one of its error numbers.
  static std::string ErrorText(int code);

 private:
  bool Configure(std::string& why);
  // Step's result for libmosquitto's `code`.
  bool Alive(int code, std::string& why) const;
  bool ConfigureTls(std::string& why);
  std::string Why(int code) const;

  static void OnConnect(mosquitto* client, void* self, int reason, int flags, const mosquitto_property* properties);
  static void OnDisconnect(mosquitto* client, void* self, int reason, const mosquitto_property* properties);
  static void OnSubscribe(mosquitto* client, void* self, int mid, int count, const int* granted,
                          const mosquitto_property* properties);
  static void OnPublish(mosquitto* client, void* self, int mid, int reason, const mosquitto_property* properties);
  static void OnMessage(mosquitto* client, void* self, const mosquitto_message* message,
                        const mosquitto_property* properties);
  static void OnLog(mosquitto* client, void* self, int level, const char* text);

  const Settings& mSettings;
  const Topics& mTopics;
  Listener& mListener;
  mosquitto* mClient = nullptr;
  // The broker's reason for closing the connection, when it gave one.
  int mDisconnectReason = 0;
  bool mAnswered = false;  // the broker has answered the connection
  uint32_t mMaximumPacketSize = 0;
  bool mDisconnected = false;
  // libmosquitto's last error message (a TLS failure's details).
  std::string mLastError;
};

}  // namespace zel::bridge
