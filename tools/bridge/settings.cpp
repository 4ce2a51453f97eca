#include "tools/bridge/settings.h"

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "tools/mqtt/backoff.h"
#include "tools/service_client/commands.h"
#include "tools/service_client/options.h"
#include "util/decimal_text.h"

// The command line and the configuration files are read by the client core
// (tools/service_client/options.h) against the table below: its own errors
// first, then --help and --version win, then the files' lines are checked,
// then every value is handed to the handler here in the order the core
// gives (defaults, files, command line), which judges it. The broker
// connection's values go to the MQTT layer by their long names.
namespace zel::bridge {
namespace {

namespace core = zel::service_client;
using core::Shared;
using core::SharedOption;

const char kUsage[] =
    "Usage: kendrivex-bridge [OPTIONS]\n"
    "Puts this box on an MQTT broker: the service's events go out on PREFIX/ID/event/N,\n"
    "commands come in on PREFIX/ID/cmd and PREFIX/all/cmd, and PREFIX/ID/status and\n"
    "PREFIX/ID/service say whether the bridge and the service are there.\n";

const char kExitStatus[] =
    "Exit status: 0 stopped by SIGINT, SIGTERM or SIGHUP; 2 usage or configuration\n"
    "error; 4 local set-up failed (directory, path length). A broker or service that\n"
    "is away is waited for, never a reason to exit.\n";

enum OptionId : int {
  kService,
  kDir,
  kConnection,
  kId,
  kPrefix,
  kAllow,
  kQueue,
  kHealth,
  kConfig,
  kVerbose,
  kHelp,
  kVersion
};

// clang-format off
constexpr core::Option kOptions[] = {
    Shared(SharedOption::Service, kService),
    Shared(SharedOption::Dir, kDir),
    Shared(SharedOption::Broker, kConnection),
    {kId,     'i', core::kInConfigFile, "id",     "NAME",    "the box's name in topics (default: the host name)",          nullptr},
    Shared(SharedOption::Prefix, kPrefix),
    {kAllow,  0,   core::kInConfigFile, "allow",  "LIST",    "commands taken from the broker (default ping,stations,mac)", nullptr},
    {kQueue,  0,   core::kInConfigFile, "queue",  "N",       "events kept while the broker is away (default 1000)",        nullptr},
    {kHealth, 0,   core::kInConfigFile, "health", "SECONDS", "seconds between health pings, 0 for none (default 30)",      nullptr},
    Shared(SharedOption::CaFile, kConnection),
    Shared(SharedOption::CaPath, kConnection),
    Shared(SharedOption::Cert, kConnection),
    Shared(SharedOption::Key, kConnection),
    Shared(SharedOption::Username, kConnection),
    Shared(SharedOption::PasswordFile, kConnection),
    Shared(SharedOption::Config, kConfig),
    Shared(SharedOption::Verbose, kVerbose),
    Shared(SharedOption::Help, kHelp),
    Shared(SharedOption::Version, kVersion),
};
// clang-format on

const char kAllBoxes[] = "all";
const char kOffline[] = "offline";
const char kNotTopicText[] = "not text that a topic can hold (UTF-8 without control characters)";

std::string HostName() {
  char name[256] = {};
  if (::gethostname(name, sizeof name - 1) != 0) return std::string();
  return name;
}

// A value as an error line quotes it (escaped and shortened).
std::string Quoted(const std::string& text) { return "\"" + core::Shown(text) + "\""; }

// The MQTT layer's text, which names files and values as they came, as an
// error line or the log may show it: control bytes escaped, not too long.
std::string Escaped(const std::string& text) { return core::Shown(text, 2 * core::kShownPathLength); }

// `text` without the blanks around it.
std::string Trimmed(const std::string& text) {
  const size_t start = text.find_first_not_of(" \t");
  if (start == std::string::npos) return std::string();
  return text.substr(start, text.find_last_not_of(" \t") - start + 1);
}

// Decimal digits only, 0 to `max`.
bool ParseNumber(const std::string& digits, uint32_t max, uint32_t& value) {
  uint64_t parsed = 0;
  if (!zel::util::ParseDecimal(digits, max, parsed)) return false;
  value = static_cast<uint32_t>(parsed);
  return true;
}

// Text the broker takes in a topic: valid UTF-8 without control characters.
bool TopicText(const std::string& text) {
  if (!core::ValidUtf8(text)) return false;
  return std::none_of(text.begin(), text.end(), [](char byte) {
    const auto value = static_cast<unsigned char>(byte);
    return value < 0x20 || value == 0x7F;
  });
}

// The canonical names of a comma-separated list (blanks around a name do not
// count) of commands that a line of kendrivex-ctl's standard input may hold.
bool ParseAllowed(const std::string& list, std::vector<std::string>& allowed, std::string& why) {
  allowed.clear();
  if (list.empty()) return true;
  size_t start = 0;
  while (true) {
    const size_t comma = list.find(',', start);
    const std::string name = Trimmed(list.substr(start, comma == std::string::npos ? comma : comma - start));
    const core::Command* command = core::FindCommand(name);
    if (command == nullptr || !command->inBatch) {
      why = "not a command the bridge can run: " + Quoted(name);
      return false;
    }
    allowed.emplace_back(command->name);
    if (comma == std::string::npos) return true;
    start = comma + 1;
  }
}

// A name usable in topics as the box's ID: not empty, no '/', '+' or '#',
// not "all", and text that the broker takes in a topic.
bool CheckId(const std::string& id, std::string& why) {
  if (id.empty() || id.find_first_of("/+#") != std::string::npos) {
    why = "may not be empty or hold '/', '+' or '#': " + Quoted(id);
    return false;
  }
  if (id == kAllBoxes) {
    why = "\"all\" stands for every box";
    return false;
  }
  if (!TopicText(id)) {
    why = kNotTopicText;
    return false;
  }
  return true;
}

bool CheckPrefix(const std::string& prefix, std::string& why) {
  if (prefix.empty() || prefix.find_first_of("+#") != std::string::npos) {
    why = "may not be empty or hold '+' or '#': " + Quoted(prefix);
    return false;
  }
  if (!TopicText(prefix)) {
    why = kNotTopicText;
    return false;
  }
  return true;
}

// One reading of the command line: judges each value the core hands over.
class CommandLine final : public core::OptionHandler {
 public:
  CommandLine(int argc, char** argv, Invocation& invocation, core::Failure& failure)
      : mLine(kOptions, argc, argv), mInvocation(invocation), mFailure(failure) {}

  bool Parse() {
    if (!mLine.ReadOnlyOptions(mFailure)) return false;
    // --help wins over --version, and both over everything else.
    const bool help = mLine.Level(kHelp) > 0;
    if (help || mLine.Level(kVersion) > 0) {
      mInvocation.mode = help ? Invocation::Mode::Help : Invocation::Mode::Version;
      return true;
    }
    if (!mLine.ReadConfigFiles(mFailure) || !mLine.Apply(*this, mFailure)) return false;
    Settings& settings = mInvocation.settings;
    mInvocation.verbosity = mLine.Level(kVerbose);
    settings.verbose = mInvocation.verbosity > 0;
    if (settings.id.empty()) settings.id = HostName();
    std::string why;
    if (!core::CheckServiceGiven(settings.servicePath, mFailure)) return false;
    if (!CheckId(settings.id, why)) return Usage("--id", why);
    std::string what;
    if (!settings.connection.Check(what, why, mInvocation.warnings)) return Usage(what, Escaped(why));
    for (std::string& warning : mInvocation.warnings) warning = Escaped(warning);
    settings.Complete();
    return true;
  }

 private:
  bool Take(const core::Option& option, const std::string& value, std::string& why) override {
    Settings& settings = mInvocation.settings;
    switch (option.id) {
      case kService:
        settings.servicePath = value;
        return true;
      case kDir:
        settings.dir = value;
        return true;
      case kConnection:
        if (settings.connection.Set(option.longName, value, why)) return true;
        why = Escaped(why);
        return false;
      case kId:
        settings.id = value;
        return CheckId(value, why);
      case kPrefix:
        settings.prefix = value;
        return CheckPrefix(value, why);
      case kAllow:
        return ParseAllowed(value, settings.allowed, why);
      case kQueue:
        if (ParseNumber(value, Settings::kMaxQueue, settings.queue)) return true;
        why = "not a whole number from 0 to 1000000: " + Quoted(value);
        return false;
      case kHealth:
        if (ParseNumber(value, Settings::kMaxHealthSeconds, settings.healthSeconds)) return true;
        why = "not a whole number of seconds from 0 to 86400: " + Quoted(value);
        return false;
      default:
        return true;
    }
  }

  bool Usage(const std::string& what, const std::string& why) {
    mFailure = core::Fail(core::kStatusUsage, what, why);
    return false;
  }

  core::CommandLine mLine;
  Invocation& mInvocation;
  core::Failure& mFailure;
};

}  // namespace

bool Settings::Allows(const std::string& command) const {
  return std::find(allowed.begin(), allowed.end(), command) != allowed.end();
}

zel::service_client::Settings Settings::Core() const {
  zel::service_client::Settings core;
  core.servicePath = servicePath;
  core.dir = dir;
  core.timeoutMs = kReplyTimeoutMs;
  return core;
}

void Settings::Complete() {
  connection.clientId = "kendrivex-bridge-" + prefix + "/" + id;
  instance = zel::mqtt::UserProperty{"instance", zel::util::DecimalText(zel::mqtt::Backoff::Seed())};
  connection.will = zel::mqtt::Will{Topics(prefix, id).Status(), kOffline, true, instance};
}

Topics::Topics(const std::string& prefix, const std::string& id)
    : mPrefix(prefix + "/"),
      mBox(mPrefix + id + "/"),
      mStatus(mBox + "status"),
      mService(mBox + "service"),
      mCommand(mBox + "cmd"),
      mAllCommand(mPrefix + "all/cmd"),
      mReply(mBox + "reply") {}

std::string Topics::Event(int32_t id) const { return mBox + "event/" + zel::util::SignedDecimalText(id); }

bool Topics::ReplyMayGoTo(const std::string& topic) const {
  if (topic.compare(0, mPrefix.size(), mPrefix) != 0) return true;
  return topic == mReply || topic.compare(0, mReply.size() + 1, mReply + "/") == 0;
}

bool ParseArguments(int argc, char** argv, Invocation& invocation, core::Failure& failure) {
  return CommandLine(argc, argv, invocation, failure).Parse();
}

std::string HelpText() {
  return std::string(kUsage) + "\nOptions:\n" + core::HelpColumns(core::OptionRows(kOptions)) + "\n" + kExitStatus;
}

std::string VersionText() { return std::string("kendrivex-bridge ") + KDX_VERSION + "\n"; }

}  // namespace zel::bridge
