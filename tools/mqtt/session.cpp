#include "tools/mqtt/session.h"

#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <poll.h>

#include <cctype>
#include <cerrno>

#include "tools/mqtt/properties.h"
#include "util/decimal_text.h"

namespace zel::mqtt {
namespace {

static_assert(Session::kOversize == MOSQ_ERR_OVERSIZE_PACKET, "the oversize error number is libmosquitto's");

// Debian's directory of the system's certificate authorities, used when the
// settings name none (libmosquitto wants a file or a directory with a client
// certificate).
const char kSystemCaPath[] = "/etc/ssl/certs";
constexpr int kQos = 1;
const char kHexDigits[] = "0123456789abcdef";
// A port no connection can have: see Session::ConfigureConnect.
constexpr int kNoPort = -1;

// A key file that needs a passphrase cannot be used: the programs run
// unattended, and OpenSSL would otherwise ask on the terminal.
int NoPassphrase(char*, int, int, void*) { return 0; }

const char* OrNull(const std::string& text) { return text.empty() ? nullptr : text.c_str(); }

// libmosquitto's texts are sentences with a capital and a full stop; in an
// operator's line they stand inside one.
std::string InSentence(std::string text) {
  if (!text.empty() && text.back() == '.') text.pop_back();
  if (!text.empty()) text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
  return text;
}

// libmosquitto takes filters as char* and does not change them.
std::vector<char*> FilterList(const std::vector<std::string>& filters) {
  std::vector<char*> list;
  list.reserve(filters.size());
  for (const std::string& filter : filters) list.push_back(const_cast<char*>(filter.c_str()));
  return list;
}

}  // namespace

// libmosquitto's callbacks, with the session as their user data.
struct Session::Callbacks {
  static void OnConnect(mosquitto*, void* self, int reason, int, const mosquitto_property* properties) {
    auto* session = static_cast<Session*>(self);
    session->mAnswered = true;
    mosquitto_property_read_int32(properties, MQTT_PROP_MAXIMUM_PACKET_SIZE, &session->mBrokerMaximumPacketSize, false);
    session->mListener.OnConnected(reason);
  }

  static void OnDisconnect(mosquitto*, void* self, int reason, const mosquitto_property*) {
    auto* session = static_cast<Session*>(self);
    session->mDisconnected = true;
    session->mDisconnectReason = reason;
  }

  static void OnSubscribe(mosquitto*, void* self, int mid, int count, const int* granted, const mosquitto_property*) {
    static_cast<Session*>(self)->mListener.OnSubscribed(mid, count, granted);
  }

  static void OnPublish(mosquitto*, void* self, int mid, int reason, const mosquitto_property*) {
    static_cast<Session*>(self)->mListener.OnPublished(mid, reason);
  }

  static void OnMessage(mosquitto*, void* self, const mosquitto_message* message,
                        const mosquitto_property* properties) {
    Message incoming;
    incoming.topic = message->topic;
    if (message->payloadlen > 0) {
      incoming.payload =
          std::string_view(static_cast<const char*>(message->payload), static_cast<size_t>(message->payloadlen));
    }
    incoming.qos = message->qos;
    incoming.retain = message->retain;
    incoming.responseTopic = ReadStringProperty(properties, MQTT_PROP_RESPONSE_TOPIC);
    incoming.correlation = ReadBinaryProperty(properties, MQTT_PROP_CORRELATION_DATA);
    incoming.userProperty = ReadUserProperty(properties);
    static_cast<Session*>(self)->mListener.OnMessage(incoming);
  }

  static void OnLog(mosquitto*, void* self, int level, const char* text) {
    if (level == MOSQ_LOG_ERR) static_cast<Session*>(self)->mLastError = text;
  }
};

bool InitLibrary(std::string& why) {
  const int rc = mosquitto_lib_init();
  if (rc == MOSQ_ERR_SUCCESS) return true;
  why = "cannot set the MQTT library up: " + ErrorText(rc);
  return false;
}

void CleanupLibrary() { mosquitto_lib_cleanup(); }

std::string ErrorText(int code) {
  switch (code) {
    case MOSQ_ERR_ERRNO:
      return InSentence(SystemErrorText(errno));
    case MOSQ_ERR_CONN_LOST:
      return "the connection was lost";
    case MOSQ_ERR_KEEPALIVE:
      // libmosquitto has no text of its own for it ("Unknown error").
      return "the broker did not answer the keep-alive ping";
    default:
      return InSentence(mosquitto_strerror(code));
  }
}

std::string ReasonText(int reason) {
  const auto byte = static_cast<unsigned>(reason) & 0xFFU;
  std::string text = InSentence(mosquitto_reason_string(reason));
  return text + " (0x" + kHexDigits[byte >> 4U] + kHexDigits[byte & 0xFU] + ")";
}

bool PublishableTopic(const std::string& topic) {
  return !topic.empty() && mosquitto_pub_topic_check2(topic.data(), topic.size()) == MOSQ_ERR_SUCCESS &&
         mosquitto_validate_utf8(topic.data(), static_cast<int>(topic.size())) == MOSQ_ERR_SUCCESS;
}

Session::Session(const ConnectionSettings& settings, Listener& listener) : mSettings(settings), mListener(listener) {}

Session::~Session() {
  if (mClient != nullptr) mosquitto_destroy(mClient);
}

std::string Session::Why(int code) const {
  if (code == MOSQ_ERR_TLS && !mLastError.empty()) return mLastError;
  if (code == MOSQ_ERR_KEEPALIVE) {
    return ErrorText(code) + " within " + zel::util::DecimalText(static_cast<uint32_t>(mSettings.keepAliveSeconds)) +
           " s";
  }
  return ErrorText(code);
}

bool Session::Start(std::string& why) {
  mClient = mosquitto_new(OrNull(mSettings.clientId), true, this);
  if (mClient == nullptr) {
    why = ErrorText(MOSQ_ERR_ERRNO);
    return false;
  }
  if (!Configure(why)) return false;
  const int rc = mosquitto_connect_bind_async(mClient, mSettings.broker.host.c_str(), mSettings.broker.port,
                                              mSettings.keepAliveSeconds, nullptr);
  if (rc != MOSQ_ERR_SUCCESS) {
    why = Why(rc);
    return false;
  }
  return true;
}

bool Session::Configure(std::string& why) {
  int rc = mosquitto_int_option(mClient, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
  // Requests and replies are small packets: without this, Nagle's algorithm
  // holds each back until the previous one is acknowledged.
  if (rc == MOSQ_ERR_SUCCESS) rc = mosquitto_int_option(mClient, MOSQ_OPT_TCP_NODELAY, 1);
  if (rc == MOSQ_ERR_SUCCESS) rc = mosquitto_int_option(mClient, MOSQ_OPT_RECEIVE_MAXIMUM, mSettings.receiveMaximum);
  mosquitto_connect_v5_callback_set(mClient, Callbacks::OnConnect);
  mosquitto_disconnect_v5_callback_set(mClient, Callbacks::OnDisconnect);
  mosquitto_subscribe_v5_callback_set(mClient, Callbacks::OnSubscribe);
  mosquitto_publish_v5_callback_set(mClient, Callbacks::OnPublish);
  mosquitto_message_v5_callback_set(mClient, Callbacks::OnMessage);
  mosquitto_log_callback_set(mClient, Callbacks::OnLog);
  if (rc == MOSQ_ERR_SUCCESS && mSettings.will) {
    const Will& will = *mSettings.will;
    Properties properties;
    if (will.userProperty) rc = properties.AddUserProperty(*will.userProperty);
    // libmosquitto takes the list over when it accepts the will.
    if (rc == MOSQ_ERR_SUCCESS) {
      rc = mosquitto_will_set_v5(mClient, will.topic.c_str(), static_cast<int>(will.payload.size()),
                                 will.payload.data(), kQos, will.retain, properties.list);
    }
    if (rc == MOSQ_ERR_SUCCESS) properties.list = nullptr;
  }
  if (rc == MOSQ_ERR_SUCCESS && !mSettings.username.empty()) {
    rc = mosquitto_username_pw_set(mClient, mSettings.username.c_str(),
                                   mSettings.password ? mSettings.password->c_str() : nullptr);
  }
  if (rc != MOSQ_ERR_SUCCESS) {
    why = ErrorText(rc);
    return false;
  }
  return ConfigureConnect(why) && (!mSettings.broker.tls || ConfigureTls(why));
}

// libmosquitto 2.0 has no asynchronous connect that takes CONNECT
// properties, and its blocking one (mosquitto_connect_bind_v5) would hold
// the thread for as long as the kernel tries a host that drops the
// connection's packets (minutes), where a stop must take 2 s. But
// mosquitto_connect_bind_v5 stores the properties in the client before it
// checks its other arguments, and every later connection of the client,
// the asynchronous one included, sends what is stored. So it is called with
// a port no connection can have: it stores the properties and stops at the
// port, before any name lookup or connection, and the asynchronous connect
// follows. The tests show that the broker then never sends a larger packet.
bool Session::ConfigureConnect(std::string& why) {
  Properties properties;
  int rc = properties.AddInt32(MQTT_PROP_MAXIMUM_PACKET_SIZE, mSettings.maximumPacketSize);
  if (rc == MOSQ_ERR_SUCCESS) {
    rc = mosquitto_connect_bind_v5(mClient, mSettings.broker.host.c_str(), kNoPort, mSettings.keepAliveSeconds, nullptr,
                                   properties.list);
    // The port is refused: the properties are stored.
    if (rc == MOSQ_ERR_INVAL) return true;
    // A connection was made after all: not this library's behaviour.
    if (rc == MOSQ_ERR_SUCCESS) rc = MOSQ_ERR_UNKNOWN;
  }
  why = "cannot set the connection's properties: " + ErrorText(rc);
  return false;
}

bool Session::ConfigureTls(std::string& why) {
  const bool systemCas = mSettings.caFile.empty() && mSettings.caPath.empty();
  int rc = systemCas ? mosquitto_int_option(mClient, MOSQ_OPT_TLS_USE_OS_CERTS, 1) : MOSQ_ERR_SUCCESS;
  const char* caPath = systemCas ? kSystemCaPath : OrNull(mSettings.caPath);
  if (rc == MOSQ_ERR_SUCCESS) {
    rc = mosquitto_tls_set(mClient, OrNull(mSettings.caFile), caPath, OrNull(mSettings.certFile),
                           OrNull(mSettings.keyFile), NoPassphrase);
  }
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

int Session::Fd() const { return mClient != nullptr ? mosquitto_socket(mClient) : -1; }

bool Session::WantWrite() const { return mClient != nullptr && mosquitto_want_write(mClient); }

// The caller's poll says what the descriptor is ready for, so libmosquitto's
// parts of mosquitto_loop are called without the wait of its own that it
// would make first. The order is mosquitto_loop's: read, write, then the
// keep-alive.
bool Session::Step(bool readable, bool writable, std::string& why) {
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

bool Session::Pump(int timeoutMs, std::string& why) {
  pollfd fd = {Fd(), static_cast<short>(POLLIN | (WantWrite() ? POLLOUT : 0)), 0};
  if (fd.fd < 0) return Alive(MOSQ_ERR_NO_CONN, why);
  if (::poll(&fd, 1, timeoutMs) < 0 && errno != EINTR) return Alive(MOSQ_ERR_ERRNO, why);
  return Step((fd.revents & (POLLIN | POLLERR | POLLHUP)) != 0, (fd.revents & POLLOUT) != 0, why);
}

bool Session::Alive(int code, std::string& why) const {
  if (code == MOSQ_ERR_SUCCESS && !mDisconnected) return true;
  // libmosquitto reports a connection it closed itself with one of its own
  // error numbers, which are all below the MQTT reason codes of a broker's
  // DISCONNECT.
  if (mDisconnected && mDisconnectReason >= kFirstRefusal) {
    why = "the broker closed the connection: " + ReasonText(mDisconnectReason);
  } else if (mDisconnected && mDisconnectReason != MOSQ_ERR_SUCCESS) {
    why = Why(mDisconnectReason);
  } else {
    why = Why(code == MOSQ_ERR_SUCCESS ? MOSQ_ERR_CONN_LOST : code);
  }
  return false;
}

bool Session::Subscribe(const std::vector<std::string>& filters, const SubscribeOptions& options, int& mid,
                        std::string& why) {
  std::vector<char*> list = FilterList(filters);
  const int rc = mosquitto_subscribe_multiple(
      mClient, &mid, static_cast<int>(list.size()), list.data(), options.qos,
      (options.retained ? 0 : MQTT_SUB_OPT_SEND_RETAIN_NEVER) | (options.noLocal ? MQTT_SUB_OPT_NO_LOCAL : 0), nullptr);
  if (rc == MOSQ_ERR_SUCCESS) return true;
  why = ErrorText(rc);
  return false;
}

bool Session::Unsubscribe(const std::vector<std::string>& filters, std::string& why) {
  std::vector<char*> list = FilterList(filters);
  const int rc = mosquitto_unsubscribe_multiple(mClient, nullptr, static_cast<int>(list.size()), list.data(), nullptr);
  if (rc == MOSQ_ERR_SUCCESS) return true;
  why = ErrorText(rc);
  return false;
}

int Session::Publish(const Publication& publication, int& mid) {
  Properties properties;
  int rc = MOSQ_ERR_SUCCESS;
  if (publication.responseTopic) rc = properties.AddString(MQTT_PROP_RESPONSE_TOPIC, *publication.responseTopic);
  if (rc == MOSQ_ERR_SUCCESS && publication.correlation) {
    rc = properties.AddBinary(MQTT_PROP_CORRELATION_DATA, *publication.correlation);
  }
  if (rc == MOSQ_ERR_SUCCESS && publication.userProperty) rc = properties.AddUserProperty(*publication.userProperty);
  if (rc != MOSQ_ERR_SUCCESS) return rc;
  return mosquitto_publish_v5(mClient, &mid, publication.topic.c_str(), static_cast<int>(publication.payload.size()),
                              publication.payload.data(), publication.qos, publication.retain, properties.list);
}

void Session::Disconnect() {
  if (mClient != nullptr) mosquitto_disconnect_v5(mClient, MQTT_RC_NORMAL_DISCONNECTION, nullptr);
}

void Session::Close(std::chrono::milliseconds timeout) {
  if (mClient == nullptr || Fd() < 0) return;
  Disconnect();
  // The DISCONNECT leaves on the next writes; libmosquitto closes the
  // connection once it has.
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  std::string why;
  while (WantWrite() && Fd() >= 0) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
    if (left <= 0) break;
    pollfd fd = {Fd(), POLLOUT, 0};
    if (::poll(&fd, 1, static_cast<int>(left)) <= 0) break;
    if (!Step(false, true, why)) break;
  }
}

}  // namespace zel::mqtt
