#include "tests/support/mqtt_credentials.h"

#include <fstream>

#include "gtest/gtest.h"
#include "tests/support/pipe_process.h"

namespace zel::test {

bool RunHostTool(const std::vector<std::string>& argv) {
  PipeProcess::Options options;
  options.hostTool = true;
  const PipeProcess::Result result = PipeProcess::Run(argv, "", options);
  EXPECT_EQ(result.exitCode, 0) << argv[0] << ": " << result.err;
  return result.exitCode == 0;
}

DynamicSecurityRight MayPublish(const std::string& filter) { return {"publishClientSend", filter}; }

DynamicSecurityRight MaySubscribe(const std::string& filter) { return {"subscribePattern", filter}; }

bool UseDynamicSecurity(const TempDir& dir, MqttBroker& broker) {
  const std::string config = dir.File("dynsec.json");
  if (!RunHostTool({"mosquitto_ctrl", "dynsec", "init", config, "admin", "adminpw"})) return false;
  broker.AddConfig({"allow_anonymous false", "plugin /usr/lib/x86_64-linux-gnu/mosquitto_dynamic_security.so",
                    "plugin_opt_config_file " + config});
  return true;
}

bool AddDynamicSecurityUser(const MqttBroker& broker, const std::string& name, const std::string& password,
                            const std::vector<DynamicSecurityRight>& rights) {
  std::vector<std::vector<std::string>> steps = {
      {"createClient", name, "-p", password},
      {"createRole",      name         },
  };
  for (const DynamicSecurityRight& right : rights)
    steps.push_back({"addRoleACL", name, right.type, right.topic, "allow"});
  steps.push_back({"addClientRole", name, name});
  for (const std::vector<std::string>& step : steps) {
    std::vector<std::string> argv = {"mosquitto_ctrl", "-h", "127.0.0.1", "-p",    std::to_string(broker.Port()), "-u",
                                     "admin",          "-P", "adminpw",   "dynsec"};
    argv.insert(argv.end(), step.begin(), step.end());
    if (!RunHostTool(argv)) return false;
  }
  return true;
}

bool MakePasswordFile(const std::string& path, const std::vector<std::pair<std::string, std::string>>& users) {
  for (size_t i = 0; i < users.size(); ++i) {
    std::vector<std::string> argv = {"mosquitto_passwd", "-b", path, users[i].first, users[i].second};
    if (i == 0) argv.insert(argv.begin() + 1, "-c");
    if (!RunHostTool(argv)) return false;
  }
  return true;
}

TestCertificates::TestCertificates(const TempDir& dir) : mDir(dir) {
  std::ofstream(mDir.File("server.ext")) << "subjectAltName=IP:127.0.0.1\n";
  Make("ca", "/CN=kendrivex test authority", "");
  Make("server", "/CN=127.0.0.1", "server.ext");
  Make("client", "/CN=box1", "");
}

std::string TestCertificates::AddListener(MqttBroker& broker, bool requireClientCertificate) const {
  const std::string port = std::to_string(MqttBroker::FreePort());
  broker.AddConfig({"listener " + port + " 127.0.0.1", "cafile " + Ca(), "certfile " + Cert("server"),
                    "keyfile " + Key("server"), requireClientCertificate ? "require_certificate true" : ""});
  return "mqtts://127.0.0.1:" + port;
}

void TestCertificates::Make(const std::string& name, const std::string& subject, const std::string& extensions) {
  const std::vector<std::string> key = {
      "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-keyout", Key(name), "-subj", subject};
  if (name == "ca") {
    std::vector<std::string> argv = {"openssl", "req", "-x509", "-days", "2", "-out", Ca()};
    argv.insert(argv.end(), key.begin(), key.end());
    RunHostTool(argv);
    return;
  }
  std::vector<std::string> request = {"openssl", "req", "-out", mDir.File(name + ".csr")};
  request.insert(request.end(), key.begin(), key.end());
  RunHostTool(request);
  std::vector<std::string> sign = {"openssl", "x509", "-req",   "-in",     mDir.File(name + ".csr"),
                                   "-CA",     Ca(),   "-CAkey", Key("ca"), "-CAcreateserial",
                                   "-days",   "2",    "-out",   Cert(name)};
  if (!extensions.empty()) {
    sign.push_back("-extfile");
    sign.push_back(mDir.File(extensions));
  }
  RunHostTool(sign);
}

}  // namespace zel::test
