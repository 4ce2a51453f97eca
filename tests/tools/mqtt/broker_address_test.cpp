// The broker's URL: mqtt:// and mqtts://, their default ports, IPv6 in
// brackets, and what is not a URL of either form.
#include "tools/mqtt/broker_address.h"

#include "gtest/gtest.h"

namespace zel::mqtt::test {
namespace {

BrokerAddress Parsed(const std::string& url) {
  BrokerAddress address;
  EXPECT_TRUE(BrokerAddress::Parse(url, address)) << url;
  return address;
}

TEST(BrokerAddressTest, DefaultIsPlainMqttOnLocalhost) {
  const BrokerAddress address;
  EXPECT_FALSE(address.tls);
  EXPECT_EQ(address.Url(), "mqtt://localhost:1883");
}

TEST(BrokerAddressTest, PlainMqttDefaultsToPort1883) {
  const BrokerAddress address = Parsed("mqtt://broker.example");
  EXPECT_FALSE(address.tls);
  EXPECT_EQ(address.host, "broker.example");
  EXPECT_EQ(address.port, 1883);
}

TEST(BrokerAddressTest, TlsDefaultsToPort8883) {
  const BrokerAddress address = Parsed("mqtts://10.0.0.1");
  EXPECT_TRUE(address.tls);
  EXPECT_EQ(address.host, "10.0.0.1");
  EXPECT_EQ(address.port, 8883);
}

TEST(BrokerAddressTest, TakesAPort) {
  EXPECT_EQ(Parsed("mqtt://localhost:18830").port, 18830);
  EXPECT_EQ(Parsed("mqtts://localhost:1").port, 1);
  EXPECT_EQ(Parsed("mqtt://h:65535").Url(), "mqtt://h:65535");
}

TEST(BrokerAddressTest, TakesIpv6InBrackets) {
  const BrokerAddress address = Parsed("mqtt://[::1]:1884");
  EXPECT_EQ(address.host, "::1");
  EXPECT_EQ(address.port, 1884);
  EXPECT_EQ(address.Url(), "mqtt://[::1]:1884");
  EXPECT_EQ(Parsed("mqtts://[fe80::1]").port, 8883);
}

TEST(BrokerAddressTest, RefusesWhatIsNotABrokerUrl) {
  for (const char* url :
       {"", "localhost", "tcp://localhost", "mqtt://", "mqtt://:1883", "mqtt://h:", "mqtt://h:0", "mqtt://h:65536",
        "mqtt://h:12x", "mqtt://h/path", "mqtt://user@h", "mqtt://[::1", "mqtt://[]:1", "mqtt://[::1]x",
        "mqtt://[::1]:", "mqtt://[::1]:0", "mqtt://[h]", "mqtt://a b", "MQTT://h"}) {
    BrokerAddress address;
    address.host = "unchanged";
    EXPECT_FALSE(BrokerAddress::Parse(url, address)) << url;
    EXPECT_EQ(address.host, "unchanged") << url;
  }
}

TEST(BrokerAddressTest, LoopbackIsLocalhostThe127NetworkAndTheIpv6One) {
  for (const char* url : {"mqtt://localhost", "mqtt://127.0.0.1", "mqtt://127.8.9.10:1884", "mqtt://[::1]"}) {
    EXPECT_TRUE(Parsed(url).Loopback()) << url;
  }
  for (const char* url : {"mqtt://10.0.0.5", "mqtt://127.example.com", "mqtt://broker", "mqtt://[fe80::1]"}) {
    EXPECT_FALSE(Parsed(url).Loopback()) << url;
  }
}

}  // namespace
}  // namespace zel::mqtt::test
