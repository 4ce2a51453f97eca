// Where the broker is: mqtt://HOST[:PORT] (port 1883 unless given) or
// mqtts://HOST[:PORT] (TLS, port 8883 unless given); an IPv6 address goes in
// brackets. A plain value.
#pragma once

#include <string>

namespace zel::mqtt {

struct BrokerAddress {
  static constexpr int kPlainPort = 1883;
  static constexpr int kTlsPort = 8883;

  bool tls = false;
  std::string host = "localhost";
  int port = kPlainPort;

  // False when `url` is not of either form.
  static bool Parse(const std::string& url, BrokerAddress& address);
  // The URL again, with its port: "mqtt://localhost:1883".
  std::string Url() const;
  // Whether the host is this machine: localhost, 127.0.0.0/8 or ::1, where
  // nothing sent in the clear leaves it.
  bool Loopback() const;
};

}  // namespace zel::mqtt
