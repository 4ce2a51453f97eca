#include "tools/fleet/options.h"

#include <initializer_list>
#include <limits>
#include <utility>
#include <vector>

#include "tools/service_client/options.h"

// Options come before the command and may follow a command word (ls,
// watch, forget, and run before its target); after run's target every word
// is the command's, so that send's fields may begin with "-". The command
// line's own errors (an unknown option, a missing value) are found first,
// then --help and --version win, then the options' values are judged, then
// the command and its words.
namespace zel::fleet {
namespace {

namespace core = zel::service_client;
using core::Fail;
using core::kStatusUsage;
using core::Shared;
using core::SharedOption;
using core::Shown;

const char kUsage[] =
    "Usage: kendrivex-fleet [OPTIONS] ls\n"
    "       kendrivex-fleet [OPTIONS] run TARGET COMMAND [ARG...]\n"
    "       kendrivex-fleet [OPTIONS] watch\n"
    "       kendrivex-fleet [OPTIONS] forget ID...\n"
    "       kendrivex-fleet [OPTIONS] web [--listen ADDR:PORT] [--web-password-file FILE]\n"
    "The operator's client of the boxes on an MQTT broker: lists them, runs a command\n"
    "on all of them, some or one and gathers every answer, prints their events,\n"
    "forgets boxes that are gone for good, and serves a live page of them.\n";

const char kExitStatus[] =
    "Exit status: 0 success; 1 run: a box answered, but not with success; forget: a\n"
    "box is online; 2 usage error; 3 the broker could not be reached, or run: a box\n"
    "did not answer or none was online; 4 local set-up failed.\n";

enum OptionId : int {
  kBroker,
  kPrefix,
  kTimeout,
  kJson,
  kCount,
  kBox,
  kListen,
  kWebPasswordFile,
  kConfig,
  kVerbose,
  kHelp,
  kVersion,
};

// clang-format off
constexpr core::Option kOptions[] = {
    Shared(SharedOption::Broker, kBroker),
    Shared(SharedOption::Prefix, kPrefix),
    Shared(SharedOption::CaFile, kBroker),
    Shared(SharedOption::CaPath, kBroker),
    Shared(SharedOption::Cert, kBroker),
    Shared(SharedOption::Key, kBroker),
    Shared(SharedOption::Username, kBroker),
    Shared(SharedOption::PasswordFile, kBroker),
    {kTimeout, 't', core::kInConfigFile, "timeout", "MS",
     "the wait for the boxes and for the broker, 1 to 600000 ms (default 5000)", nullptr},
    {kJson,    'j', core::kCommandLineOnly, "json",  nullptr, "print one JSON object a line",                 nullptr},
    {kCount,   'n', core::kCommandLineOnly, "count", "N",     "watch: stop after N events",                    nullptr},
    {kBox,     0,   core::kRepeatable,      "box",   "ID",    "watch: only this box's events (repeatable)",    nullptr},
    {kListen,  0,   core::kInConfigFile,    "listen", "ADDR:PORT",
     "web: where to serve the page (default 127.0.0.1:8737; port 0: a free one)", nullptr},
    {kWebPasswordFile, 0, core::kInConfigFile, "web-password-file", "FILE",
     "web: the password browsers give (HTTP Basic), the first line of FILE", nullptr},
    Shared(SharedOption::Config, kConfig),
    Shared(SharedOption::Verbose, kVerbose),
    Shared(SharedOption::Help, kHelp),
    Shared(SharedOption::Version, kVersion),
};
// clang-format on

// The commands, as the help text lists them.
struct CommandWord {
  const char* word;
  Invocation::Mode mode;
  const char* arguments;
  const char* summary;
};
const CommandWord kCommands[] = {
    {"ls",     Invocation::Mode::Ls,     "",                        "list the boxes: ID, online or offline, service up, down or -"},
    {"run",    Invocation::Mode::Run,    "TARGET COMMAND [ARG...]",
     "run a box command on all, one ID or ID,ID... and gather the replies"                                                        },
    {"watch",  Invocation::Mode::Watch,  "",                        "print the boxes' events as they come, until stopped"         },
    {"forget", Invocation::Mode::Forget, "ID...",                   "clear the retained status and service of boxes gone for good"},
    {"web",    Invocation::Mode::Web,    "",                        "serve the boxes' live page and its HTTP API until stopped"   },
};

bool ValidPrefix(const std::string& prefix, std::string& why) {
  if (prefix.empty() || prefix.find_first_of("+#") != std::string::npos) {
    why = "may not be empty or hold '+' or '#': \"" + Shown(prefix) + "\"";
    return false;
  }
  if (!ControlFree(prefix)) {
    why = "not text that a topic can hold (UTF-8 without control characters)";
    return false;
  }
  return true;
}

// One reading of the command line.
class Reading final : public core::OptionHandler {
 public:
  Reading(int argc, char** argv, Invocation& invocation, core::Failure& failure)
      : mWords(argv, argv + argc), mLine(kOptions, argc, argv), mInvocation(invocation), mFailure(failure) {}

  bool Parse() {
    mInvocation = Invocation();
    int at = 1;
    if (!mLine.ReadOptions(at, mFailure)) return false;
    const CommandWord* command = at < Count() ? Find(mWords[at]) : nullptr;
    // Options may follow the command word; after run's target, every word
    // is the command's.
    if (command != nullptr) {
      ++at;
      if (!mLine.ReadOptions(at, mFailure)) return false;
    }
    // --help and --version win over everything else but the command line's
    // own errors.
    for (const auto& [id, mode] : {
             std::pair{kHelp,    Invocation::Mode::Help   },
             {kVersion, Invocation::Mode::Version}
    }) {
      if (mLine.Level(id) == 0) continue;
      mInvocation.mode = mode;
      return true;
    }
    if (!mLine.ReadConfigFiles(mFailure) || !mLine.Apply(*this, mFailure)) return false;
    mInvocation.json = mLine.Level(kJson) > 0;
    mInvocation.verbosity = mLine.Level(kVerbose);
    if (command == nullptr) {
      return at < Count() ? Usage(mWords[at], "unknown command (try --help)")
                          : Usage("command", "missing (try --help)");
    }
    mInvocation.mode = command->mode;
    const std::vector<std::string> words(mWords.begin() + at, mWords.end());
    return ReadWords(*command, words) && CheckWatchOptions() && CheckWebOptions() && CheckConnection();
  }

 private:
  static const CommandWord* Find(const std::string& word) {
    for (const CommandWord& command : kCommands) {
      if (word == command.word) return &command;
    }
    return nullptr;
  }

  bool Take(const core::Option& option, const std::string& value, std::string& why) override {
    switch (option.id) {
      case kBroker:
        return mInvocation.connection.Set(option.longName, value, why);
      case kPrefix:
        mInvocation.prefix = value;
        return ValidPrefix(value, why);
      case kTimeout:
        if (core::ParseCount(value, Invocation::kMaxTimeoutMs, mInvocation.timeoutMs)) return true;
        why = "not a whole number of milliseconds from 1 to 600000: \"" + Shown(value) + "\"";
        return false;
      case kCount:
        if (core::ParseCount(value, std::numeric_limits<uint32_t>::max(), mInvocation.count)) return true;
        why = "not a whole number from 1 to 4294967295: \"" + Shown(value) + "\"";
        return false;
      case kBox:
        mInvocation.boxes.push_back(value);
        return ValidBoxId(value, why);
      case kListen:
        if (ListenAddress::Parse(value, mInvocation.listen)) return true;
        why = "not ADDR:PORT, an IPv4 address or a bracketed IPv6 one and a port from 0 to 65535: \"" + Shown(value) +
              "\"";
        return false;
      case kWebPasswordFile:
        mWebPasswordFile = value;
        return true;
      default:
        return true;
    }
  }

  bool ReadWords(const CommandWord& command, const std::vector<std::string>& words) {
    switch (command.mode) {
      case Invocation::Mode::Run:
        if (words.empty()) return Usage(command.word, "missing TARGET (all, ID or ID,ID...)");
        if (!ParseTarget(words[0], mInvocation.target, mFailure)) return false;
        if (ParseRunCommand({words.begin() + 1, words.end()}, mInvocation.command, mFailure)) return true;
        if (mFailure.commandUnknown) mFailure.why += " (try --help)";
        return false;
      case Invocation::Mode::Forget:
        if (words.empty()) return Usage(command.word, "missing the ID of a box");
        for (const std::string& id : words) {
          std::string why;
          if (!ValidBoxId(id, why)) return Usage("\"" + id + "\"", why);
          mInvocation.forget.push_back(id);
        }
        return true;
      default:
        if (words.empty()) return true;
        return Usage(command.word, "takes no arguments, not \"" + Shown(words[0]) + "\"");
    }
  }

  bool CheckWatchOptions() {
    return mInvocation.mode == Invocation::Mode::Watch ||
           mLine.RefuseGiven({kCount, kBox}, "only with watch", mFailure);
  }

  // web's options only with web; anything but loopback only with a
  // password, which is read here.
  bool CheckWebOptions() {
    if (mInvocation.mode != Invocation::Mode::Web) {
      return mLine.RefuseGiven({kListen, kWebPasswordFile}, "only with web", mFailure);
    }
    if (mWebPasswordFile.empty()) {
      if (mInvocation.listen.Loopback()) return true;
      return Usage("--listen", "an address other than loopback needs --web-password-file: every request then gives it");
    }
    std::string password;
    std::string why;
    std::string warning;
    if (!zel::mqtt::ReadPasswordFile(mWebPasswordFile, password, why, warning)) {
      return Usage("--web-password-file", why);
    }
    if (!warning.empty()) mInvocation.warnings.push_back(warning);
    mInvocation.webPassword = password;
    return true;
  }

  // The broker connection as a whole, its password file read.
  bool CheckConnection() {
    mInvocation.connection.clientId = "kendrivex-fleet-" + NewRunId();
    std::string what;
    std::string why;
    if (mInvocation.connection.Check(what, why, mInvocation.warnings)) return true;
    mFailure = Fail(kStatusUsage, what, why);
    return false;
  }

  bool Usage(const std::string& what, std::string why) {
    mFailure = core::Usage(what, std::move(why));
    return false;
  }

  int Count() const { return static_cast<int>(mWords.size()); }

  const std::vector<std::string> mWords;  // the command line, the program's name first
  core::CommandLine mLine;
  Invocation& mInvocation;
  core::Failure& mFailure;
  std::string mWebPasswordFile;
};

std::vector<core::HelpRow> FleetCommandRows() {
  std::vector<core::HelpRow> rows;
  for (const CommandWord& command : kCommands) {
    std::string left = command.word;
    if (*command.arguments != '\0') left.append(1, ' ').append(command.arguments);
    rows.push_back({left, command.summary});
  }
  return rows;
}

}  // namespace

bool ParseArguments(int argc, char** argv, Invocation& invocation, core::Failure& failure) {
  return Reading(argc, argv, invocation, failure).Parse();
}

std::string HelpText() {
  return std::string(kUsage) + "\nCommands:\n" + core::HelpColumns(FleetCommandRows()) +
         "\nBox commands (run's COMMAND):\n" + core::HelpColumns(core::CommandRows(true)) + "\nOptions:\n" +
         core::HelpColumns(core::OptionRows(kOptions)) + "\n" + kExitStatus;
}

std::string VersionText() { return std::string("kendrivex-fleet ") + KDX_VERSION + "\n"; }

}  // namespace zel::fleet
