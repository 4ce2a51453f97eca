#include "tools/mqtt/broker_address.h"

#include <cstring>

#include "util/decimal_text.h"

namespace zel::mqtt {
namespace {

const char kPlainScheme[] = "mqtt://";
const char kTlsScheme[] = "mqtts://";
constexpr uint64_t kMaxPort = 65535;

bool StartsWith(const std::string& text, const char* start) { return text.compare(0, std::strlen(start), start) == 0; }

// Decimal digits only, 1 to 65535.
bool ParsePort(const std::string& text, int& port) {
  uint64_t value = 0;
  if (!zel::util::ParseDecimal(text, kMaxPort, value) || value == 0) return false;
  port = static_cast<int>(value);
  return true;
}

// A host name or IPv4 address: no separators of a URL, no blanks.
bool PlainHost(const std::string& host) { return !host.empty() && host.find_first_of("/:@[] \t") == std::string::npos; }

}  // namespace

bool BrokerAddress::Parse(const std::string& url, BrokerAddress& address) {
  BrokerAddress parsed;
  std::string rest;
  if (StartsWith(url, kTlsScheme)) {
    parsed.tls = true;
    parsed.port = kTlsPort;
    rest = url.substr(sizeof kTlsScheme - 1);
  } else if (StartsWith(url, kPlainScheme)) {
    rest = url.substr(sizeof kPlainScheme - 1);
  } else {
    return false;
  }
  if (StartsWith(rest, "[")) {
    const size_t close = rest.find(']');
    if (close == std::string::npos || close == 1) return false;
    parsed.host = rest.substr(1, close - 1);
    if (parsed.host.find_first_not_of("0123456789abcdefABCDEF:.") != std::string::npos) return false;
    rest = rest.substr(close + 1);
    if (!rest.empty() && (!StartsWith(rest, ":") || !ParsePort(rest.substr(1), parsed.port))) return false;
  } else {
    const size_t colon = rest.find(':');
    parsed.host = rest.substr(0, colon);
    if (!PlainHost(parsed.host)) return false;
    if (colon != std::string::npos && !ParsePort(rest.substr(colon + 1), parsed.port)) return false;
  }
  address = parsed;
  return true;
}

std::string BrokerAddress::Url() const {
  const bool ipv6 = host.find(':') != std::string::npos;
  return std::string(tls ? kTlsScheme : kPlainScheme) + (ipv6 ? "[" + host + "]" : host) + ":" +
         zel::util::DecimalText(static_cast<uint32_t>(port));
}

bool BrokerAddress::Loopback() const {
  return host == "localhost" || host == "::1" || host == "0:0:0:0:0:0:0:1" ||
         (StartsWith(host, "127.") && host.find_first_not_of("0123456789.") == std::string::npos);
}

}  // namespace zel::mqtt
