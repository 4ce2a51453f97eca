// One connection to an MQTT broker through libmosquitto: a client made for
// one attempt to connect and destroyed with it, so that nothing of a lost
// connection (its unacknowledged messages) goes out again behind its user's
// back. MQTT 5 with a clean start, TCP_NODELAY, the will, TLS with
// verification and the credentials as the ConnectionSettings say, and a
// CONNECT that announces the Maximum Packet Size and Receive Maximum. It
// connects without waiting; its user then either polls Fd() itself and calls
// Step (a long-running link with reconnects), or calls Pump, which polls for
// it (a short-lived client that connects once). What the broker sends is
// handed to the Listener from inside Step. One thread at a time; the
// settings and the listener outlive the session.
//
// A short-lived client (connect, subscribe, ask, read, stop):
//   Session session(settings, listener);      // settings.Check() passed
//   session.Start(why);                       // then Pump until OnConnected(0)
//   session.Subscribe({"kendrivex/+/status"}, Session::SubscribeOptions(), mid, why);
//   Publication request("kendrivex/box1/cmd", "ping");
//   request.responseTopic = "me/reply/1";
//   request.correlation = "c1";
//   session.Publish(request, mid);
//   while (!done && session.Pump(remainingMs, why)) {}   // OnMessage: retained statuses, replies
//   session.Close(std::chrono::seconds(1));
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/mqtt/connection.h"

struct mosquitto;

namespace zel::mqtt {

// MQTT 5 reason codes the layer's users look at.
constexpr int kFirstRefusal = 0x80;  // the lowest reason code that is a failure
constexpr int kSessionTakenOver = 0x8E;

// Sets libmosquitto up for the process, once, before the first session; false
// with why when it cannot (its TLS or its random source).
bool InitLibrary(std::string& why);
// The end of libmosquitto in the process, after the last session.
void CleanupLibrary();

// An operator's text for one of libmosquitto's error numbers ("connection
// refused", "the connection was lost").
std::string ErrorText(int code);
// An operator's text for an MQTT reason code: "not authorized (0x87)".
std::string ReasonText(int reason);

// Whether a message can be published on `topic`: not empty, no wildcard,
// valid UTF-8 without U+0000, at most 65535 bytes.
bool PublishableTopic(const std::string& topic);

// A message from the broker, valid during OnMessage only: the topic and the
// payload are libmosquitto's bytes, not copied, so that a user checks the
// size of what it got before it copies anything of it.
struct Message {
  std::string_view topic;
  std::string_view payload;
  int qos = 0;
  bool retain = false;
  std::optional<std::string> responseTopic;
  std::optional<std::string> correlation;
  std::optional<UserProperty> userProperty;  // the first, when it has any
};

// A message for the broker.
struct Publication {
  Publication() = default;
  Publication(std::string topic, std::string payload, bool retain = false)
      : topic(std::move(topic)), payload(std::move(payload)), retain(retain) {}

  std::string topic;
  std::string payload;
  bool retain = false;
  int qos = 1;
  std::optional<std::string> responseTopic;  // MQTT 5: where the answer goes
  std::optional<std::string> correlation;    // MQTT 5: what the answer carries back
  std::optional<UserProperty> userProperty;
};

class Session {
 public:
  // Told of what the broker says, from inside Step or Pump.
  class Listener {
   public:
    virtual ~Listener() = default;
    // The broker's answer to the connection: 0 accepted, else its reason.
    virtual void OnConnected(int reason) = 0;
    // The reasons granted to each of the `count` filters of subscription
    // `mid`, in order (kFirstRefusal and above: refused).
    virtual void OnSubscribed(int mid, int count, const int* granted) = 0;
    // The broker acknowledged publication `mid` (reason kFirstRefusal and
    // above: it refused it).
    virtual void OnPublished(int mid, int reason) = 0;
    virtual void OnMessage(const Message& message) = 0;
  };

  Session(const ConnectionSettings& settings, Listener& listener);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Sets the client up and starts connecting without waiting; false with
  // why when it cannot even start.
  bool Start(std::string& why);
  // The connection's descriptor (-1 when there is none) and whether it has
  // something to write.
  int Fd() const;
  bool WantWrite() const;
  // Reads (when the descriptor is `readable`), writes what waits and keeps
  // the connection alive, as far as it can without waiting; false with why
  // once the connection is gone. `writable` matters only until the broker
  // has answered the connection: a TLS handshake may wait for it.
  bool Step(bool readable, bool writable, std::string& why);
  // Waits up to `timeoutMs` for the connection to be ready, then Step; for
  // a client without a poll of its own. False with why once it is gone.
  bool Pump(int timeoutMs, std::string& why);

  // How a subscription takes what is published.
  struct SubscribeOptions {
    bool retained = true;  // the retained messages are sent at once (with their retain flag set)
    bool noLocal = false;  // the session's own publications are not sent back to it
    // The highest QoS the broker delivers at: 1, or 0 where a message lost
    // with a lost connection does not matter and none may wait for an
    // acknowledgement (see the broker's limits in the fleet's link).
    int qos = 1;
  };
  // Subscribes to `filters`; false with why when it cannot be sent.
  bool Subscribe(const std::vector<std::string>& filters, const SubscribeOptions& options, int& mid, std::string& why);
  // Ends the subscriptions to `filters`, without waiting for the broker's
  // acknowledgement; false with why when it cannot be sent.
  bool Unsubscribe(const std::vector<std::string>& filters, std::string& why);
  // libmosquitto's error number (0 once it is on its way;
  // MOSQ_ERR_OVERSIZE_PACKET, 25, for a message larger than the broker
  // takes).
  int Publish(const Publication& publication, int& mid);
  static constexpr int kOversize = 25;

  // The largest packet the broker takes, as its answer to the connection
  // said; 0 when it set no limit.
  uint32_t BrokerMaximumPacketSize() const { return mBrokerMaximumPacketSize; }
  // The broker closed the connection because another client connected
  // with the same client id (MQTT 5 reason 0x8E).
  bool TakenOver() const { return mDisconnected && mDisconnectReason == kSessionTakenOver; }
  // Sends DISCONNECT (the will is then not published).
  void Disconnect();
  // Disconnect, and steps until it has gone out or `timeout` has passed.
  void Close(std::chrono::milliseconds timeout);

 private:
  struct Callbacks;

  bool Configure(std::string& why);
  bool ConfigureConnect(std::string& why);
  bool ConfigureTls(std::string& why);
  // Step's result for libmosquitto's `code`.
  bool Alive(int code, std::string& why) const;
  std::string Why(int code) const;

  const ConnectionSettings& mSettings;
  Listener& mListener;
  mosquitto* mClient = nullptr;
  bool mAnswered = false;  // the broker has answered the connection
  uint32_t mBrokerMaximumPacketSize = 0;
  bool mDisconnected = false;
  // The broker's reason for closing the connection, or libmosquitto's error
  // number for a connection it closed itself.
  int mDisconnectReason = 0;
  // libmosquitto's last error message (a TLS failure's details).
  std::string mLastError;
};

}  // namespace zel::mqtt
