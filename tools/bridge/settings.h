// What kendrivex-bridge is told to do, and the box's topics. The settings:
// the service, the broker and how to reach it, the box's name, what it
// accepts from the broker and how it behaves while the broker or the service
// is away, from the command line and the configuration file ("name = value"
// lines with the long option names; the command line wins), read by the
// client core's option machinery, with the defaults of the environment
// (KENDRIVEX_SERVICE, KENDRIVEX_DIR, TMPDIR, KENDRIVEX_BROKER) and the host
// name, and the --help and --version texts. The topics, where P is
// PREFIX/ID: P/status, P/service, P/event/N, P/cmd, P/reply, and
// PREFIX/all/cmd for commands to every box. Plain values filled once at
// start, on the main thread before any other starts (getopt_long keeps
// global state); read-only after.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/mqtt/connection.h"
#include "tools/service_client/failure.h"
#include "tools/service_client/runner.h"

namespace zel::bridge {

struct Settings {
  static constexpr uint32_t kDefaultQueue = 1000;
  static constexpr uint32_t kMaxQueue = 1000000;
  static constexpr uint32_t kDefaultHealthSeconds = 30;
  static constexpr uint32_t kMaxHealthSeconds = 86400;
  // The reply time-out of each request to the service, as kendrivex-ctl's
  // default.
  static constexpr uint32_t kReplyTimeoutMs = 5000;

  std::string servicePath;  // the service's socket
  std::string dir;          // the directory for the bridge's own sockets
  std::string id;           // the box's name in topics
  std::string prefix = "kendrivex";
  std::vector<std::string> allowed = {"ping", "stations", "mac"};  // canonical command names
  uint32_t queue = kDefaultQueue;                                  // events kept while the broker is away
  uint32_t healthSeconds = kDefaultHealthSeconds;                  // 0: no health pings
  bool verbose = false;
  // The broker, TLS and credentials; the client id and the will are the
  // box's (see Complete).
  zel::mqtt::ConnectionSettings connection;
  // This run of the bridge, as its statuses on P/status say (see Complete).
  zel::mqtt::UserProperty instance;

  bool Allows(const std::string& command) const;
  // The client core's settings for the runner and the watch: the service,
  // the directory and the reply time-out.
  zel::service_client::Settings Core() const;
  // Sets what follows from the box's name: the client id
  // "kendrivex-bridge-PREFIX/ID" (unique on the broker as long as the
  // box's name is, under every prefix), this run's instance (the user
  // property "instance" with a random value, which every status of this run
  // carries, so that a bridge can tell its own statuses from those of
  // another box with the same name) and the retained will "offline" on
  // P/status.
  void Complete();
};

class Topics {
 public:
  Topics(const std::string& prefix, const std::string& id);

  const std::string& Status() const { return mStatus; }
  const std::string& Service() const { return mService; }
  const std::string& Command() const { return mCommand; }
  const std::string& AllCommand() const { return mAllCommand; }
  const std::string& Reply() const { return mReply; }
  // P/event/N for the event numbered `id`.
  std::string Event(int32_t id) const;
  // Whether a reply may be published on `topic` at a request's word: outside
  // PREFIX/ the broker's access rules decide, inside it only P/reply and the
  // topics below it are the box's own replies.
  bool ReplyMayGoTo(const std::string& topic) const;

 private:
  std::string mPrefix;  // PREFIX/
  std::string mBox;     // P/
  std::string mStatus;
  std::string mService;
  std::string mCommand;
  std::string mAllCommand;
  std::string mReply;
};

// What the command line asks for.
struct Invocation {
  enum class Mode { Run, Help, Version };

  Mode mode = Mode::Run;
  Settings settings;
  unsigned verbosity = 0;  // how often -v was given (or "verbose = yes": 1)
  // What the settings allow but an operator should hear of (a password file
  // others may read, a password sent in the clear).
  std::vector<std::string> warnings;
};

// Fills `invocation`, a default one, from the command line; false with a
// usage failure (status 2) when the command line, a configuration file or
// the password file is wrong.
bool ParseArguments(int argc, char** argv, Invocation& invocation, zel::service_client::Failure& failure);

std::string HelpText();
std::string VersionText();

}  // namespace zel::bridge
