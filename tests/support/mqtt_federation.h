// A federation of Mosquitto brokers of a test's own, as a fleet that outgrows
// one broker is laid out: two site brokers, each linked to a central broker
// by Mosquitto's own bridge over MQTT 5. What the boxes on a site publish
// (status, service, events, replies) goes up to the central broker; commands
// come down to every site. Each broker has its configuration in a directory
// of its own below the test's and a free loopback port. Owns the brokers; one
// thread.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/mqtt_broker.h"

namespace zel::test {

class MqttFederation {
 public:
  static constexpr int kSites = 2;

  // `dir` is the test's directory; the brokers' directories (central,
  // site-a, site-b) are made in it. `prefix` is the first level of the
  // fleet's topics.
  MqttFederation(const std::string& dir, const std::string& prefix);
  MqttFederation(const MqttFederation&) = delete;
  MqttFederation& operator=(const MqttFederation&) = delete;

  MqttBroker& Central() { return *mCentral; }
  // Site `index`, 0 or 1.
  MqttBroker& Site(int index) { return *mSites.at(static_cast<size_t>(index)); }
  // The site's name ("site-a", "site-b"): its bridge's client id on the
  // central broker.
  static std::string SiteName(int index);

  // Starts the central broker, then the sites, and waits until every link
  // carries messages both ways; false when a broker does not start or a link
  // does not come up (Log() says what the brokers wrote).
  bool Start(std::chrono::milliseconds timeout = std::chrono::seconds(20));
  // Waits until site `index`'s link is up: the central broker holds the
  // site's notification that its bridge is connected, a message published at
  // the central broker reaches the site and one published at the site
  // reaches the central broker.
  bool WaitForLink(int index, std::chrono::milliseconds timeout = std::chrono::seconds(20));
  // Why Start or WaitForLink failed last, then every broker's output, each
  // under its name.
  std::string Log() const;

  // The bridge section of a site broker's configuration: a link named
  // `name` to the central broker at `centralPort`.
  static std::vector<std::string> SiteBridgeConfig(const std::string& name, int centralPort, const std::string& prefix);

 private:
  // Keeps `why` for Log(); false.
  bool Fail(const std::string& why);

  std::string mPrefix;
  std::unique_ptr<MqttBroker> mCentral;
  std::vector<std::unique_ptr<MqttBroker>> mSites;
  std::string mFailure;
};

}  // namespace zel::test
