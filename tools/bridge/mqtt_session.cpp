#include "tools/bridge/mqtt_session.h"

#include <mqtt_protocol.h>

#include <cerrno>
#include <cstdlib>

#include "tools/bridge/mqtt_properties.h"
#include "tools/service_client/failure.h"

namespace zel::bridge {
namespace {

const char kOffline[] = "offline";
const char kClientIdPrefix[] = "kendrivex-bridge-";
// Debian's directory of the system's certificate authorities, used when the
// settings name none (libmosquitto wants a file or a directory with a client
// certificate).
const char kSystemCaPath[] = "/etc/ssl/certs";
constexpr int kQos = 1;
// The lowest MQTT reason code that is a failure.
constexpr int kFirstRefusal = 0x80;

// A key file that needs a passphrase cannot be used: the bridge runs
// unattended, and OpenSSL would otherwise ask on the terminal.
int NoPassphrase(char*, int, int, void*) { return 0; }

const char* OrNull(const std::string& text) { return text.empty() ? nullptr : text.c_str(); }

}  // namespace

MqttSession::MqttSession(const Settings& settings, const Topics& topics, Listener& listener)
    : mSettings(settings), mTopics(topics), mListener(listener) {}

MqttSession::~MqttSession() {
  if (mClient != nullptr) mosquitto_destroy(mClient);
}

std::string MqttSession::ErrorText(int code) {
  if (code == MOSQ_ERR_ERRNO) return zel::service_client::ErrorText(errno);
  // Its texts are sentences; in a log line they are followed by more.
  std::string text = mosquitto_strerror(code);
  if (!text.empty() && text.back() == '.') text.pop_back();
  return text;
}

std::string MqttSession::Why(int code) const {
  if (code == MOSQ_ERR_TLS && !mLastError.empty()) return mLastError;
  return ErrorText(code);
}

bool MqttSession::Start(std::string& why) {
  const std::string clientId = kClientIdPrefix + mSettings.id;
  mClient = mosquitto_new(clientId.c_str(), true, this);
  if (mClient == nullptr) {
    why = ErrorText(MOSQ_ERR_ERRNO);
    return false;
  }
  if (!Configure(why)) return false;
  const int rc = mosquitto_connect_bind_async(mClient, mSettings.broker.host.c_str(), mSettings.broker.port,
                                              kKeepAliveSeconds, nullptr);
  if (rc != MOSQ_ERR_SUCCESS) {
    why = Why(rc);
    return false;
  }
  return true;
}

bool MqttSession::Configure(std::string& why) {
  mosquitto_int_option(mClient, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
  // Requests and replies are small packets: without this, Nagle's algorithm
  // holds each back until the previous one is acknowledged.
  mosquitto_int_option(mClient, MOSQ_OPT_TCP_NODELAY, 1);
  mosquitto_connect_v5_callback_set(mClient, OnConnect);
  mosquitto_disconnect_v5_callback_set(mClient, OnDisconnect);
  mosquitto_subscribe_v5_callback_set(mClient, OnSubscribe);
  mosquitto_publish_v5_callback_set(mClient, OnPublish);
  mosquitto_message_v5_callback_set(mClient, OnMessage);
  mosquitto_log_callback_set(mClient, OnLog);
  int rc = mosquitto_will_set_v5(mClient, mTopics.Status().c_str(), sizeof kOffline - 1, kOffline, kQos, true, nullptr);
  if (rc == MOSQ_ERR_SUCCESS && !mSettings.username.empty()) {
    rc = mosquitto_username_pw_set(mClient, mSettings.username.c_str(),
                                   mSettings.password ? mSettings.password->c_str() : nullptr);
  }
  if (rc != MOSQ_ERR_SUCCESS) {
    why = ErrorText(rc);
    return false;
  }
  return !mSettings.broker.tls || ConfigureTls(why);
}

bool MqttSession::ConfigureTls(std::string& why) {
  const bool systemCas = mSettings.caFile.empty() && mSettings.caPath.empty();
  if (systemCas) mosquitto_int_option(mClient, MOSQ_OPT_TLS_USE_OS_CERTS, 1);
  const char* caPath = systemCas ? kSystemCaPath : OrNull(mSettings.caPath);
  int rc = mosquitto_tls_set(mClient, OrNull(mSettings.caFile), caPath, OrNull(mSettings.certFile),
                             OrNull(mSettings.keyFile), NoPassphrase);
  // The broker's certificate is verified, its name included (these are
  // libmosquitto's defaults, stated so that they stay).
  if (rc == MOSQ_ERR_SUCCESS) rc = mosquitto_tls_opts_set(mClient, 1, nullptr, nullptr);
  if (rc == MOSQ_ERR_SUCCESS) rc = mosquitto_tls_insecure_set(mClient, false);
  if (rc != MOSQ_ERR_SUCCESS) {
    why = ErrorText(rc);
    return false;
  }
  return true;
}

int MqttSession::Fd() const { return mClient != nullptr ? mosquitto_socket(mClient) : -1; }

bool MqttSession::WantWrite() const { return mClient != nullptr && mosquitto_want_write(mClient); }

// The link's own poll says what the descriptor is ready for, so libmosquitto's
// parts of mosquitto_loop are called without the wait of its own that it
// would make first. The order is mosquitto_loop's: read, write, then the
// keep-alive.
bool MqttSession::Step(bool readable, bool writable, std::string& why) {
  // Until the broker has answered, libmosquitto carries a TLS handshake on
  // from its read, which may be what a writable descriptor waits for.
  if (readable || (writable && !mAnswered)) {
    const int rc = mosquitto_loop_read(mClient, 1);
    if (rc != MOSQ_ERR_SUCCESS || mosquitto_socket(mClient) < 0) return Alive(rc, why);
  }
  // What the callbacks queued; a write to a full descriptor leaves the rest
  // waiting for POLLOUT.
  if (mosquitto_want_write(mClient)) {
    const int rc = mosquitto_loop_write(mClient, 1);
    if (rc != MOSQ_ERR_SUCCESS || mosquitto_socket(mClient) < 0) return Alive(rc, why);
  }
  return Alive(mosquitto_loop_misc(mClient), why);
}

bool MqttSession::Alive(int code, std::string& why) const {
  if (code == MOSQ_ERR_SUCCESS && !mDisconnected) return true;
  // libmosquitto reports a lost connection with one of its own error numbers,
  // which are all below the MQTT reason codes of a broker's DISCONNECT.
  if (mDisconnected && mDisconnectReason >= kFirstRefusal) {
    why = std::string("the broker closed the connection: ") + mosquitto_reason_string(mDisconnectReason);
  } else {
    why = Why(code == MOSQ_ERR_SUCCESS ? MOSQ_ERR_CONN_LOST : code);
  }
  return false;
}

bool MqttSession::SubscribeCommands(int& mid) {
  // libmosquitto takes the filters as char* and does not change them.
  char* filters[] = {const_cast<char*>(mTopics.Command().c_str()), const_cast<char*>(mTopics.AllCommand().c_str())};
  return mosquitto_subscribe_multiple(mClient, &mid, 2, filters, kQos, MQTT_SUB_OPT_SEND_RETAIN_NEVER, nullptr) ==
         MOSQ_ERR_SUCCESS;
}

int MqttSession::Publish(const std::string& topic, const std::string& payload, bool retain,
                         const std::optional<std::string>& correlation, int& mid) {
  MqttProperties properties;
  if (correlation) {
    mosquitto_property_add_binary(&properties.list, MQTT_PROP_CORRELATION_DATA, correlation->data(),
                                  static_cast<uint16_t>(correlation->size()));
  }
  return mosquitto_publish_v5(mClient, &mid, topic.c_str(), static_cast<int>(payload.size()), payload.data(), kQos,
                              retain, properties.list);
}

void MqttSession::Disconnect() { mosquitto_disconnect_v5(mClient, MQTT_RC_NORMAL_DISCONNECTION, nullptr); }

void MqttSession::OnConnect(mosquitto*, void* self, int reason, int, const mosquitto_property* properties) {
  auto* session = static_cast<MqttSession*>(self);
  session->mAnswered = true;
  mosquitto_property_read_int32(properties, MQTT_PROP_MAXIMUM_PACKET_SIZE, &session->mMaximumPacketSize, false);
  session->mListener.OnConnected(reason);
}

void MqttSession::OnDisconnect(mosquitto*, void* self, int reason, const mosquitto_property*) {
  auto* session = static_cast<MqttSession*>(self);
  session->mDisconnected = true;
  session->mDisconnectReason = reason;
}

void MqttSession::OnSubscribe(mosquitto*, void* self, int mid, int count, const int* granted,
                              const mosquitto_property*) {
  static_cast<MqttSession*>(self)->mListener.OnSubscribed(mid, count, granted);
}

void MqttSession::OnPublish(mosquitto*, void* self, int mid, int reason, const mosquitto_property*) {
  static_cast<MqttSession*>(self)->mListener.OnPublished(mid, reason);
}

void MqttSession::OnMessage(mosquitto*, void* self, const mosquitto_message* message,
                            const mosquitto_property* properties) {
  IncomingMessage incoming;
  incoming.topic = message->topic;
  if (message->payloadlen > 0) {
    incoming.payload.assign(static_cast<const char*>(message->payload), static_cast<size_t>(message->payloadlen));
  }
  incoming.responseTopic = ReadStringProperty(properties, MQTT_PROP_RESPONSE_TOPIC);
  incoming.correlation = ReadBinaryProperty(properties, MQTT_PROP_CORRELATION_DATA);
  static_cast<MqttSession*>(self)->mListener.OnMessage(incoming);
}

void MqttSession::OnLog(mosquitto*, void* self, int level, const char* text) {
  if (level == MOSQ_LOG_ERR) static_cast<MqttSession*>(self)->mLastError = text;
}

}  // namespace zel::bridge
