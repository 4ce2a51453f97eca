#include "tests/support/mqtt_broker.h"

#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <stdexcept>

namespace zel::test {
namespace {

// What the broker writes once its listeners are open.
const char kRunning[] = " running\n";

}  // namespace

MqttBroker::MqttBroker(std::string dir, std::vector<std::string> extraConfig)
    : mDir(std::move(dir)),
      mConfigPath(mDir + "/mosquitto.conf"),
      mExtraConfig(std::move(extraConfig)),
      mPort(FreePort()) {}

MqttBroker::~MqttBroker() {
  if (Running()) Stop();
}

void MqttBroker::AddConfig(const std::vector<std::string>& lines) {
  mExtraConfig.insert(mExtraConfig.end(), lines.begin(), lines.end());
}

std::string MqttBroker::Url() const { return "mqtt://127.0.0.1:" + std::to_string(mPort); }

int MqttBroker::FreePort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) throw std::runtime_error("socket failed");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  const bool bound = ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                     ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0;
  ::close(fd);
  if (!bound) throw std::runtime_error("no free loopback port");
  return ntohs(address.sin_port);
}

std::vector<std::string> MqttBroker::BaseConfig(int port) {
  std::vector<std::string> lines = {
      "listener " + std::to_string(port) + " 127.0.0.1",
      "allow_anonymous true",
      "persistence false",
      "set_tcp_nodelay true",
      "log_dest stderr",
      "log_type error",
      "log_type warning",
      "log_type notice",
      "log_type information",
  };
  // Started as root, the broker would become the user mosquitto, who cannot
  // read the files in the test's private directory.
  if (::geteuid() == 0) lines.push_back("user root");
  return lines;
}

void MqttBroker::WriteConfig() const {
  // A test that says who may connect says it instead of the base.
  const bool ownAccess = std::any_of(mExtraConfig.begin(), mExtraConfig.end(),
                                     [](const std::string& line) { return line.rfind("allow_anonymous", 0) == 0; });
  std::ofstream file(mConfigPath);
  for (const std::string& line : BaseConfig(mPort)) {
    if (!(ownAccess && line.rfind("allow_anonymous", 0) == 0)) file << line << "\n";
  }
  for (const std::string& line : mExtraConfig) file << line << "\n";
  if (!file) throw std::runtime_error("cannot write " + mConfigPath);
}

bool MqttBroker::Start(std::chrono::milliseconds timeout) {
  if (Running()) return true;
  WriteConfig();
  PipeProcess::Options options;
  options.hostTool = true;
  mProcess = std::make_unique<PipeProcess>(std::vector<std::string>{"mosquitto", "-c", mConfigPath}, options);
  if (mProcess->WaitForErr(kRunning, timeout)) return true;
  Stop();
  return false;
}

bool MqttBroker::Stop(std::chrono::milliseconds timeout) {
  if (!Running()) return true;
  mProcess->Signal(SIGTERM);
  // A paused broker takes the signal once it runs again.
  mProcess->Signal(SIGCONT);
  const bool ended = mProcess->WaitForExit(timeout).has_value();
  mPastLog += mProcess->Err();
  mProcess.reset();
  return ended;
}

void MqttBroker::Pause() {
  if (Running()) mProcess->Signal(SIGSTOP);
}

void MqttBroker::Resume() {
  if (Running()) mProcess->Signal(SIGCONT);
}

std::string MqttBroker::Log() const { return mPastLog + (mProcess ? mProcess->Err() : std::string()); }

}  // namespace zel::test
