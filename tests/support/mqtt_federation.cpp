#include "tests/support/mqtt_federation.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>

#include "tests/support/mqtt_test_client.h"
#include "tests/support/wait_until.h"

namespace zel::test {
namespace {

using std::chrono::milliseconds;

const char* const kSiteNames[MqttFederation::kSites] = {"site-a", "site-b"};
// How long one probe is waited for before the next is sent.
constexpr milliseconds kProbeInterval(50);

std::string MakeDirectory(const std::string& dir, const std::string& name) {
  std::string path = dir + "/" + name;
  std::error_code error;
  std::filesystem::create_directory(path, error);
  if (error) throw std::runtime_error("cannot make " + path);
  return path;
}

milliseconds Left(std::chrono::steady_clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<milliseconds>(deadline - std::chrono::steady_clock::now());
  return std::max(left, milliseconds(0));
}

// Publishes on `topic` at one end until a publication arrives at the other.
// Until the bridge's subscription on the far side is in place, what is
// published goes nowhere, so one probe alone could be waited for forever.
bool Probe(MqttTestClient& from, const MqttTestClient& to, const std::string& topic, milliseconds timeout) {
  int sent = 0;
  return WaitUntil(
      [&] { return from.Publish(topic, std::to_string(++sent)) && to.WaitForCount(topic, 1, kProbeInterval); },
      timeout);
}

}  // namespace

MqttFederation::MqttFederation(const std::string& dir, const std::string& prefix)
    : mPrefix(prefix), mCentral(std::make_unique<MqttBroker>(MakeDirectory(dir, "central"))) {
  for (int index = 0; index < kSites; ++index) {
    const std::string name = SiteName(index);
    mSites.push_back(
        std::make_unique<MqttBroker>(MakeDirectory(dir, name), SiteBridgeConfig(name, mCentral->Port(), mPrefix)));
  }
}

std::string MqttFederation::SiteName(int index) { return kSiteNames[index]; }

std::vector<std::string> MqttFederation::SiteBridgeConfig(const std::string& name, int centralPort,
                                                          const std::string& prefix) {
  return {
      "connection central",
      "address 127.0.0.1:" + std::to_string(centralPort),
      // MQTT 5 carries a request's response topic and correlation data, and
      // every other property, across the link.
      "bridge_protocol_version mqttv50",
      "remote_clientid " + name,
      "local_clientid " + name + ".local",
      // The central broker keeps nothing for a site that is away (over MQTT 5
      // it would not anyway: the bridge asks for no session expiry), so a
      // command sent while the link is down is never run late. The site
      // keeps what its boxes publish meanwhile, up to its queue limit, and
      // sends it once the link is back.
      "cleansession true",
      "local_cleansession false",
      // A link that drops is tried again after a second, not after the
      // default's 5 to 30 seconds.
      "restart_timeout 1",
      // What a box publishes goes up only, and commands come down only: a
      // link carrying the statuses both ways would, on each reconnection,
      // bring the central broker's stale copies down over the site's own.
      "topic " + prefix + "/+/status out 1",
      "topic " + prefix + "/+/service out 1",
      "topic " + prefix + "/+/event/# out 1",
      "topic " + prefix + "/+/reply/# out 1",
      "topic " + prefix + "/+/cmd in 1",
  };
}

bool MqttFederation::Start(milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  if (!mCentral->Start(Left(deadline))) return Fail("the central broker did not start");
  for (int index = 0; index < kSites; ++index) {
    if (!Site(index).Start(Left(deadline))) return Fail(SiteName(index) + ": the broker did not start");
  }
  for (int index = 0; index < kSites; ++index) {
    if (!WaitForLink(index, Left(deadline))) return false;
  }
  return true;
}

bool MqttFederation::WaitForLink(int index, milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  const std::string name = SiteName(index);
  MqttTestClient central(mCentral->Port());
  MqttTestClient site(Site(index).Port());
  if (!central.Connected() || !site.Connected()) return Fail(name + ": a probe client cannot connect");
  // The bridge publishes "1" there, retained, once it is connected; "0" is
  // its will.
  const std::string state = "$SYS/broker/connection/" + name + "/state";
  // Topics of a box that no test starts, inside the directions bridged.
  const std::string down = mPrefix + "/" + name + ".probe/cmd";
  const std::string up = mPrefix + "/" + name + ".probe/reply/up";
  if (!central.Subscribe(state) || !central.Subscribe(up) || !site.Subscribe(down)) {
    return Fail(name + ": a probe client cannot subscribe");
  }
  const bool connected = central.WaitFor(
      [&](const std::vector<MqttTestClient::Message>& messages) {
        std::string last;
        for (const MqttTestClient::Message& message : messages) {
          if (message.topic == state) last = message.payload;
        }
        return last == "1";
      },
      Left(deadline));
  if (!connected) return Fail(name + ": the central broker never had \"1\" on " + state);
  if (!Probe(central, site, down, Left(deadline))) return Fail(name + ": nothing published on " + down + " came down");
  if (!Probe(site, central, up, Left(deadline))) return Fail(name + ": nothing published on " + up + " came up");
  return true;
}

bool MqttFederation::Fail(const std::string& why) {
  mFailure = why;
  return false;
}

std::string MqttFederation::Log() const {
  std::string log = mFailure.empty() ? std::string() : mFailure + "\n";
  log += "central:\n" + mCentral->Log();
  for (size_t index = 0; index < mSites.size(); ++index) {
    log += SiteName(static_cast<int>(index)) + ":\n" + mSites[index]->Log();
  }
  return log;
}

}  // namespace zel::test
