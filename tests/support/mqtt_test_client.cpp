#include "tests/support/mqtt_test_client.h"

#include <mqtt_protocol.h>

#include <mutex>
#include <stdexcept>

#include "tests/support/wait_until.h"
#include "tools/mqtt/properties.h"

namespace zel::test {
namespace {

using ::zel::mqtt::Properties;
using ::zel::mqtt::ReadBinaryProperty;
using ::zel::mqtt::ReadStringProperty;

constexpr int kKeepAliveSeconds = 60;
constexpr std::chrono::seconds kAnswerTime(10);

void InitLibrary() {
  static std::once_flag once;
  std::call_once(once, [] { mosquitto_lib_init(); });
}

}  // namespace

MqttTestClient::MqttTestClient(int port) : MqttTestClient(port, Options()) {}

MqttTestClient::MqttTestClient(int port, const Options& options) : mProtocol(options.protocol) {
  InitLibrary();
  mClient = mosquitto_new(options.id.empty() ? nullptr : options.id.c_str(), true, this);
  if (mClient == nullptr) throw std::runtime_error("mosquitto_new failed");
  mosquitto_int_option(mClient, MOSQ_OPT_PROTOCOL_VERSION,
                       options.protocol == 5 ? MQTT_PROTOCOL_V5 : MQTT_PROTOCOL_V311);
  mosquitto_int_option(mClient, MOSQ_OPT_TCP_NODELAY, 1);
  if (!options.username.empty()) {
    mosquitto_username_pw_set(mClient, options.username.c_str(),
                              options.password.empty() ? nullptr : options.password.c_str());
  }
  mosquitto_connect_v5_callback_set(mClient, OnConnect);
  mosquitto_subscribe_v5_callback_set(mClient, OnSubscribe);
  mosquitto_publish_v5_callback_set(mClient, OnPublish);
  mosquitto_message_v5_callback_set(mClient, OnMessage);
  if (mosquitto_connect(mClient, "127.0.0.1", port, kKeepAliveSeconds) != MOSQ_ERR_SUCCESS) return;
  mosquitto_loop_start(mClient);
  std::unique_lock<std::mutex> lock(mMutex);
  mChanged.wait_for(lock, kAnswerTime, [this] { return mConnectReason >= 0; });
}

MqttTestClient::~MqttTestClient() {
  mosquitto_disconnect(mClient);
  mosquitto_loop_stop(mClient, false);
  mosquitto_destroy(mClient);
}

bool MqttTestClient::Connected() const { return ConnectReason() == 0; }

int MqttTestClient::ConnectReason() const {
  std::lock_guard<std::mutex> lock(mMutex);
  return mConnectReason;
}

bool MqttTestClient::Subscribe(const std::string& filter, int qos) {
  int mid = 0;
  // Over MQTT 5 the retain flag of what arrives is the publisher's, so that
  // tests see which messages were published retained.
  const int options = mProtocol == 5 ? MQTT_SUB_OPT_RETAIN_AS_PUBLISHED : 0;
  if (mosquitto_subscribe_v5(mClient, &mid, filter.c_str(), qos, options, nullptr) != MOSQ_ERR_SUCCESS) return false;
  if (!WaitForMid(mid, mSubscribed, kAnswerTime)) return false;
  std::lock_guard<std::mutex> lock(mMutex);
  return mRefused.count(mid) == 0;
}

bool MqttTestClient::Publish(const std::string& topic, const std::string& payload, int qos, bool retain) {
  int mid = 0;
  if (mosquitto_publish_v5(mClient, &mid, topic.c_str(), static_cast<int>(payload.size()), payload.data(), qos, retain,
                           nullptr) != MOSQ_ERR_SUCCESS) {
    return false;
  }
  return qos == 0 || WaitForMid(mid, mPublished, kAnswerTime);
}

bool MqttTestClient::Request(const std::string& topic, const std::string& payload, const std::string& responseTopic,
                             const std::optional<std::string>& correlation, int qos) {
  Properties properties;
  if (properties.AddString(MQTT_PROP_RESPONSE_TOPIC, responseTopic) != MOSQ_ERR_SUCCESS) return false;
  if (correlation) {
    if (properties.AddBinary(MQTT_PROP_CORRELATION_DATA, *correlation) != MOSQ_ERR_SUCCESS) return false;
  }
  int mid = 0;
  if (mosquitto_publish_v5(mClient, &mid, topic.c_str(), static_cast<int>(payload.size()), payload.data(), qos, false,
                           properties.list) != MOSQ_ERR_SUCCESS) {
    return false;
  }
  return qos == 0 || WaitForMid(mid, mPublished, kAnswerTime);
}

std::vector<MqttTestClient::Message> MqttTestClient::Messages() const {
  std::lock_guard<std::mutex> lock(mMutex);
  return mMessages;
}

std::vector<MqttTestClient::Message> MqttTestClient::On(const std::string& topic) const {
  std::vector<Message> found;
  for (const Message& message : Messages()) {
    if (message.topic == topic) found.push_back(message);
  }
  return found;
}

std::vector<std::string> MqttTestClient::PayloadsOn(const std::string& topic) const {
  std::vector<std::string> payloads;
  for (const Message& message : On(topic)) payloads.push_back(message.payload);
  return payloads;
}

bool MqttTestClient::WaitFor(const std::function<bool(const std::vector<Message>&)>& predicate,
                             milliseconds timeout) const {
  return WaitUntil([&] { return predicate(Messages()); }, timeout);
}

bool MqttTestClient::WaitForCount(const std::string& topic, size_t count, milliseconds timeout) const {
  return WaitUntil([&] { return On(topic).size() >= count; }, timeout);
}

void MqttTestClient::Clear() {
  std::lock_guard<std::mutex> lock(mMutex);
  mMessages.clear();
}

bool MqttTestClient::WaitForMid(int mid, const std::set<int>& done, milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(mMutex);
  return mChanged.wait_for(lock, timeout, [&] { return done.count(mid) != 0; });
}

void MqttTestClient::OnConnect(mosquitto*, void* self, int reason, int, const mosquitto_property*) {
  auto* client = static_cast<MqttTestClient*>(self);
  std::lock_guard<std::mutex> lock(client->mMutex);
  client->mConnectReason = reason;
  client->mChanged.notify_all();
}

void MqttTestClient::OnSubscribe(mosquitto*, void* self, int mid, int count, const int* granted,
                                 const mosquitto_property*) {
  auto* client = static_cast<MqttTestClient*>(self);
  std::lock_guard<std::mutex> lock(client->mMutex);
  for (int i = 0; i < count; ++i) {
    if (granted[i] >= 0x80) client->mRefused.insert(mid);
  }
  client->mSubscribed.insert(mid);
  client->mChanged.notify_all();
}

void MqttTestClient::OnPublish(mosquitto*, void* self, int mid, int, const mosquitto_property*) {
  auto* client = static_cast<MqttTestClient*>(self);
  std::lock_guard<std::mutex> lock(client->mMutex);
  client->mPublished.insert(mid);
  client->mChanged.notify_all();
}

void MqttTestClient::OnMessage(mosquitto*, void* self, const mosquitto_message* message,
                               const mosquitto_property* properties) {
  auto* client = static_cast<MqttTestClient*>(self);
  Message received;
  received.topic = message->topic;
  received.payload.assign(static_cast<const char*>(message->payload), static_cast<size_t>(message->payloadlen));
  received.qos = message->qos;
  received.retain = message->retain;
  received.responseTopic = ReadStringProperty(properties, MQTT_PROP_RESPONSE_TOPIC);
  received.correlation = ReadBinaryProperty(properties, MQTT_PROP_CORRELATION_DATA);
  std::lock_guard<std::mutex> lock(client->mMutex);
  client->mMessages.push_back(std::move(received));
  client->mChanged.notify_all();
}

}  // namespace zel::test
