// A Mosquitto broker of a test's own: its configuration file in the test's
// directory, a free loopback port, the broker (a program of the build
// machine, never behind the test launcher) started and stopped by the test,
// and again on the same port to play a broker that went away and came back.
// Never a system-wide broker. Owns the broker process; one thread.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/pipe_process.h"

namespace zel::test {

class MqttBroker {
 public:
  // `dir` holds the configuration file; `extraConfig` lines are added to it
  // (a TLS listener, a password file, an ACL; an allow_anonymous line there
  // replaces the base's "allow_anonymous true").
  explicit MqttBroker(std::string dir, std::vector<std::string> extraConfig = {});
  // Stops a broker still running.
  ~MqttBroker();
  MqttBroker(const MqttBroker&) = delete;
  MqttBroker& operator=(const MqttBroker&) = delete;

  // Lines for the configuration from the next Start on.
  void AddConfig(const std::vector<std::string>& lines);

  // A free loopback port, chosen at construction; the broker listens there
  // (plain MQTT) whenever it runs.
  int Port() const { return mPort; }
  // "mqtt://127.0.0.1:PORT"
  std::string Url() const;

  // Starts the broker and waits until it listens; false (with its output in
  // Log()) when it does not.
  bool Start(std::chrono::milliseconds timeout = std::chrono::seconds(10));
  // SIGTERM, and waits for its end; false when it does not end in time.
  bool Stop(std::chrono::milliseconds timeout = std::chrono::seconds(10));
  bool Running() const { return mProcess != nullptr; }
  // SIGSTOP, then SIGCONT: a broker that takes nothing for a while, its
  // connections kept open (a running one only).
  void Pause();
  void Resume();
  // What the broker has written (its log goes to standard error).
  std::string Log() const;

  // A loopback port that nothing listens on now.
  static int FreePort();
  // The configuration lines every test broker has, listening on `port`.
  static std::vector<std::string> BaseConfig(int port);

 private:
  void WriteConfig() const;

  std::string mDir;
  std::string mConfigPath;
  std::vector<std::string> mExtraConfig;
  int mPort;
  std::unique_ptr<PipeProcess> mProcess;
  std::string mPastLog;  // the output of earlier runs
};

}  // namespace zel::test
