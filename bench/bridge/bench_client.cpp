#include "bench/bridge/bench_client.h"

#include <mqtt_protocol.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "tools/mqtt/properties.h"

namespace zel::bench {
namespace {

using ::zel::mqtt::Properties;
using ::zel::mqtt::ReadBinaryProperty;
using ::zel::mqtt::ReadStringProperty;

constexpr int kQos = 1;
constexpr int kKeepAliveSeconds = 60;
constexpr std::chrono::seconds kHandshakeTime(10);

}  // namespace

BenchClient::BenchClient(bool nodelay) {
  mosquitto_lib_init();
  mClient = mosquitto_new(nullptr, true, this);
  if (mClient == nullptr) {
    // NOLINTNEXTLINE(cert-err33-c): a failed write to standard error has nowhere to be reported
    std::fputs("bench client: mosquitto_new failed\n", stderr);
    std::abort();
  }
  mosquitto_int_option(mClient, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
  mosquitto_int_option(mClient, MOSQ_OPT_TCP_NODELAY, nodelay ? 1 : 0);
  mosquitto_connect_v5_callback_set(mClient, OnConnectCb);
  mosquitto_subscribe_v5_callback_set(mClient, OnSubscribeCb);
  mosquitto_publish_v5_callback_set(mClient, OnPublishCb);
  mosquitto_message_v5_callback_set(mClient, OnMessageCb);
}

BenchClient::~BenchClient() {
  mosquitto_disconnect(mClient);
  mosquitto_destroy(mClient);
  mosquitto_lib_cleanup();
}

bool BenchClient::Connect(const std::string& host, int port) {
  const int rc = mosquitto_connect(mClient, host.c_str(), port, kKeepAliveSeconds);
  if (rc != MOSQ_ERR_SUCCESS) {
    // NOLINTNEXTLINE(cert-err33-c): a failed write to standard error has nowhere to be reported
    std::fprintf(stderr, "bench client: cannot connect to %s:%d: %s\n", host.c_str(), port, mosquitto_strerror(rc));
    return false;
  }
  if (!LoopUntil([this] { return mConnectReason >= 0; })) return false;
  if (mConnectReason == 0) return true;
  // NOLINTNEXTLINE(cert-err33-c): a failed write to standard error has nowhere to be reported
  std::fprintf(stderr, "bench client: refused: %s\n", mosquitto_reason_string(mConnectReason));
  return false;
}

bool BenchClient::Subscribe(const std::string& filter) {
  mSubscribed = false;
  if (mosquitto_subscribe_v5(mClient, nullptr, filter.c_str(), kQos, 0, nullptr) != MOSQ_ERR_SUCCESS) return false;
  return LoopUntil([this] { return mSubscribed; });
}

bool BenchClient::Publish(const std::string& topic, const std::string& payload, const std::string& responseTopic,
                          const std::string& correlation) {
  Properties properties;
  if (!responseTopic.empty()) {
    if (properties.AddString(MQTT_PROP_RESPONSE_TOPIC, responseTopic) != MOSQ_ERR_SUCCESS) return false;
  }
  if (!correlation.empty()) {
    if (properties.AddBinary(MQTT_PROP_CORRELATION_DATA, correlation) != MOSQ_ERR_SUCCESS) return false;
  }
  return mosquitto_publish_v5(mClient, nullptr, topic.c_str(), static_cast<int>(payload.size()), payload.data(), kQos,
                              false, properties.list) == MOSQ_ERR_SUCCESS;
}

bool BenchClient::Loop(int timeoutMs) { return mosquitto_loop(mClient, timeoutMs, 1) == MOSQ_ERR_SUCCESS; }

bool BenchClient::LoopUntil(const std::function<bool()>& done) {
  const auto deadline = std::chrono::steady_clock::now() + kHandshakeTime;
  while (!done()) {
    if (!Loop(100) || std::chrono::steady_clock::now() > deadline) return false;
  }
  return true;
}

void BenchClient::OnConnectCb(mosquitto*, void* self, int reason, int, const mosquitto_property*) {
  static_cast<BenchClient*>(self)->mConnectReason = reason;
}

void BenchClient::OnSubscribeCb(mosquitto*, void* self, int, int, const int*, const mosquitto_property*) {
  static_cast<BenchClient*>(self)->mSubscribed = true;
}

void BenchClient::OnPublishCb(mosquitto*, void* self, int, int, const mosquitto_property*) {
  ++static_cast<BenchClient*>(self)->mAcknowledged;
}

void BenchClient::OnMessageCb(mosquitto*, void* self, const mosquitto_message* message,
                              const mosquitto_property* properties) {
  auto* client = static_cast<BenchClient*>(self);
  if (!client->mOnMessage) return;
  BenchMessage incoming;
  incoming.topic = message->topic;
  if (message->payloadlen > 0) {
    incoming.payload.assign(static_cast<const char*>(message->payload), static_cast<size_t>(message->payloadlen));
  }
  incoming.responseTopic = ReadStringProperty(properties, MQTT_PROP_RESPONSE_TOPIC);
  incoming.correlation = ReadBinaryProperty(properties, MQTT_PROP_CORRELATION_DATA);
  client->mOnMessage(incoming);
}

}  // namespace zel::bench
