// How to reach the broker and who to be there: its URL, TLS (the broker's
// certificate always verified, by the authorities given or the system's; a
// client certificate and key), the user name and the password file, the
// client id, the will, and what CONNECT announces (keep-alive, Maximum Packet
// Size, Receive Maximum). Front ends fill it by the options' long names
// (Set) and check it as a whole (Check), which also reads the password
// file. A plain value, filled on one thread and read-only after.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/mqtt/broker_address.h"

namespace zel::mqtt {

// An MQTT 5 user property: a name and a value that travel with a message.
struct UserProperty {
  std::string name;
  std::string value;
};

// A message the broker publishes for the client when its connection ends
// without a DISCONNECT.
struct Will {
  std::string topic;
  std::string payload;
  bool retain = true;
  std::optional<UserProperty> userProperty;
};

struct ConnectionSettings {
  // The largest packet the client takes, announced in CONNECT. A command is
  // at most 8 KB and a reply topic or correlation data at most a few hundred
  // bytes in practice; 64 KB leaves room for any of them with their
  // properties, while a box (32-bit ARM, little memory) never has to hold
  // more than that for one message: libmosquitto reads every packet whole
  // before it looks at it, so without this limit one publication of the
  // broker's largest (256 MB by default) would be allocated on the box.
  static constexpr uint32_t kMaximumPacketSize = 65536;
  // Unacknowledged QoS 1 messages the broker may have under way to the
  // client at once, announced in CONNECT.
  static constexpr uint16_t kReceiveMaximum = 16;
  static constexpr int kKeepAliveSeconds = 30;
  // The longest password file line taken.
  static constexpr size_t kMaxPasswordLine = 65535;

  BrokerAddress broker;
  std::string clientId;
  std::string caFile;
  std::string caPath;
  std::string certFile;
  std::string keyFile;
  std::string username;
  std::string passwordFile;
  std::optional<std::string> password;  // read from passwordFile by Check
  std::optional<Will> will;
  int keepAliveSeconds = kKeepAliveSeconds;
  uint32_t maximumPacketSize = kMaximumPacketSize;
  uint16_t receiveMaximum = kReceiveMaximum;

  // Sets the option of this long name (broker, cafile, capath, cert, key,
  // username, password-file) to `value`: false with why when the value does
  // not fit or the name is none of these. A file named is checked for being
  // there and readable; the password file is read by Check.
  bool Set(const std::string& longName, const std::string& value, std::string& why);
  // Whether `longName` is one of Set's.
  static bool Takes(const std::string& longName);
  // The settings as a whole: TLS options need an mqtts:// broker, --cert
  // and --key go together, --password-file needs --username; then the
  // password file is read. False with the option concerned ("--key") and
  // why. `warnings` gets what is allowed but unwise: a password file that
  // others than its owner may read, a password sent in the clear to another
  // machine.
  bool Check(std::string& what, std::string& why, std::vector<std::string>& warnings);
};

// The first line of the password file at `path`, without its line end.
// False with why when the file is not a regular file, cannot be read, is
// empty, or its first line is empty or longer than kMaxPasswordLine bytes;
// `warning` is set (and else left empty) when group or others may read it.
bool ReadPasswordFile(const std::string& path, std::string& password, std::string& why, std::string& warning);

// The C library's text for an errno value ("No such file or directory"), as
// an error line of a program gives it. Callable from any thread, which
// strerror is not.
std::string SystemErrorText(int error);

}  // namespace zel::mqtt
