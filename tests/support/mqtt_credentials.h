// What tests of the MQTT programs need to make a broker secure: a
// certificate authority of the test's own with certificates it signed for the
// broker (127.0.0.1) and for a client (made with openssl), a Mosquitto
// password file (made with mosquitto_passwd), and a way to run such tools of
// the build machine, and users of Mosquitto's dynamic-security plugin. Files
// in the test's directory; one thread at a time.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "tests/support/mqtt_broker.h"
#include "tests/support/temp_dir.h"

namespace zel::test {

// Runs a tool of the build machine (never behind the test launcher) to its
// end; true when it exits with 0 (a failure is reported to the test).
bool RunHostTool(const std::vector<std::string>& argv);

// Makes a Mosquitto password file at `path` holding `users` (name and
// password each); false when it cannot be made.
bool MakePasswordFile(const std::string& path, const std::vector<std::pair<std::string, std::string>>& users);

// A right of a dynamic-security role: the plugin's ACL type and a topic
// filter it allows. Made by MayPublish and MaySubscribe.
struct DynamicSecurityRight {
  std::string type;
  std::string topic;
};
DynamicSecurityRight MayPublish(const std::string& filter);
DynamicSecurityRight MaySubscribe(const std::string& filter);

// Gives `broker` (from its next start) Mosquitto's dynamic-security plugin,
// which, unlike an ACL file, refuses what a user may not do (SUBACK and
// PUBACK 0x87), with an administrator of its own and no anonymous clients;
// its configuration in `dir`. False when it cannot be made.
bool UseDynamicSecurity(const TempDir& dir, MqttBroker& broker);

// On the started `broker`: a user `name` with `password` and a role of its
// own, named after it, that allows `rights` and nothing else. False when a
// step fails.
bool AddDynamicSecurityUser(const MqttBroker& broker, const std::string& name, const std::string& password,
                            const std::vector<DynamicSecurityRight>& rights);

class TestCertificates {
 public:
  // Makes the authority ("ca"), the broker's certificate ("server", for
  // 127.0.0.1) and a client's ("client") in `dir`.
  explicit TestCertificates(const TempDir& dir);

  std::string Ca() const { return mDir.File("ca.pem"); }
  std::string Cert(const std::string& name) const { return mDir.File(name + ".pem"); }
  std::string Key(const std::string& name) const { return mDir.File(name + ".key"); }
  // Gives `broker` (from its next start) a TLS listener on a free port of its
  // own with the broker's certificate, asking clients for theirs when
  // `requireClientCertificate`; the listener's URL, mqtts://127.0.0.1:PORT.
  std::string AddListener(MqttBroker& broker, bool requireClientCertificate) const;

 private:
  void Make(const std::string& name, const std::string& subject, const std::string& extensions);

  const TempDir& mDir;
};

}  // namespace zel::test
