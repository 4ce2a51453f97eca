#include "tools/bridge/settings.h"

#include <getopt.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "tools/mqtt/backoff.h"
#include "tools/service_client/commands.h"
#include "util/decimal_text.h"

// The command line is read in three rounds: its own errors first (an unknown
// option, a missing value, a word that is not an option), then the
// configuration files it names, in order, then its values, which so win over
// the files'. A file is checked line by line as it is read, and its values are
// taken once every line has passed.
namespace zel::bridge {
namespace {

namespace core = zel::service_client;

enum class OptionId : uint8_t {
  Service,
  Dir,
  Broker,
  Id,
  Prefix,
  Allow,
  Queue,
  Health,
  CaFile,
  CaPath,
  Cert,
  Key,
  Username,
  PasswordFile,
  Config,
  Verbose,
  Help,
  Version,
};

struct Option {
  OptionId id;
  char shortName;         // 0 when it has none
  const char* longName;   // without the leading "--"; the name in a configuration file
  const char* valueName;  // the value as the help text shows it; nullptr for a flag
  const char* summary;
  bool inConfigFile;  // a configuration file may set it
};

// clang-format off
const Option kOptions[] = {
    {OptionId::Service,      's', "service",       "PATH",    "the service's socket (default $KENDRIVEX_SERVICE)",          true },
    {OptionId::Dir,          'd', "dir",           "DIR",     "where the sockets go ($KENDRIVEX_DIR, $TMPDIR or /tmp)",     true },
    {OptionId::Broker,       'b', "broker",        "URL",     "mqtt[s]://HOST[:PORT] (default mqtt://localhost:1883)",      true },
    {OptionId::Id,           'i', "id",            "NAME",    "the box's name in topics (default: the host name)",          true },
    {OptionId::Prefix,       'p', "prefix",        "TOPIC",   "the first part of every topic (default kendrivex)",          true },
    {OptionId::Allow,        0,   "allow",         "LIST",    "commands taken from the broker (default ping,stations,mac)", true },
    {OptionId::Queue,        0,   "queue",         "N",       "events kept while the broker is away (default 1000)",        true },
    {OptionId::Health,       0,   "health",        "SECONDS", "seconds between health pings, 0 for none (default 30)",      true },
    {OptionId::CaFile,       0,   "cafile",        "FILE",    "mqtts: the authorities that vouch for the broker",           true },
    {OptionId::CaPath,       0,   "capath",        "DIR",     "mqtts: a directory of them (default: the system's)",         true },
    {OptionId::Cert,         0,   "cert",          "FILE",    "mqtts: the bridge's own certificate",                        true },
    {OptionId::Key,          0,   "key",           "FILE",    "mqtts: its private key",                                     true },
    {OptionId::Username,     0,   "username",      "NAME",    "the user name given to the broker",                          true },
    {OptionId::PasswordFile, 0,   "password-file", "FILE",    "the password: the first line of FILE",                       true },
    {OptionId::Config,       'c', "config",        "FILE",    "read options from FILE: name = value lines",                 false},
    {OptionId::Verbose,      'v', "verbose",       nullptr,   "copy the diagnostics to standard error",                     true },
    {OptionId::Help,         'h', "help",          nullptr,   "print this help and exit",                                   false},
    {OptionId::Version,      'V', "version",       nullptr,   "print the version and exit",                                 false},
};
// clang-format on
constexpr size_t kOptionCount = sizeof kOptions / sizeof kOptions[0];

const char kUsage[] =
    "Usage: kendrivex-bridge [OPTIONS]\n"
    "Puts this box on an MQTT broker: the service's events go out on PREFIX/ID/event/N,\n"
    "commands come in on PREFIX/ID/cmd and PREFIX/all/cmd, and PREFIX/ID/status and\n"
    "PREFIX/ID/service say whether the bridge and the service are there.\n";

const char kExitStatus[] =
    "Exit status: 0 stopped by SIGINT, SIGTERM or SIGHUP; 2 usage or configuration\n"
    "error; 4 local set-up failed (directory, path length). A broker or service that\n"
    "is away is waited for, never a reason to exit.\n";

// getopt_long's value for an option without a short name: past every char.
constexpr int kFirstLongOnly = 256;

const char kAllBoxes[] = "all";
const char kOffline[] = "offline";
// What surrounds a name or a value in a configuration file.
const char kBlanks[] = " \t\r";
const char kNotTopicText[] = "not text that a topic can hold (UTF-8 without control characters)";

// A text file read a line at a time through the C library, which owns the
// line's buffer until the file is closed.
class TextFile {
 public:
  explicit TextFile(const std::string& path) : mFile(std::fopen(path.c_str(), "r")) {}
  ~TextFile() {
    // NOLINTNEXTLINE(cert-err33-c): a file only read has nothing to lose at its close
    if (mFile != nullptr) std::fclose(mFile);
    std::free(mBuffer);
  }
  TextFile(const TextFile&) = delete;
  TextFile& operator=(const TextFile&) = delete;

  bool Opened() const { return mFile != nullptr; }
  // The next line without its line feed; false at the end or on a failed
  // read.
  bool Next(std::string& line) {
    const ssize_t length = ::getline(&mBuffer, &mCapacity, mFile);
    if (length <= 0) return false;
    const size_t end = static_cast<size_t>(length) - (mBuffer[length - 1] == '\n' ? 1 : 0);
    line.assign(mBuffer, end);
    return true;
  }
  // A read failed (errno says why).
  bool Failed() const { return std::ferror(mFile) != 0; }

 private:
  FILE* mFile;
  char* mBuffer = nullptr;
  size_t mCapacity = 0;
};

// An environment variable's value; unset and empty are the same.
std::string FromEnvironment(const char* name) {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing in this program changes its environment
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

std::string HostName() {
  char name[256] = {};
  if (::gethostname(name, sizeof name - 1) != 0) return std::string();
  return name;
}

// The settings that come from the environment and the host name.
void SetDefaults(Settings& settings) {
  settings.servicePath = FromEnvironment("KENDRIVEX_SERVICE");
  settings.dir = FromEnvironment("KENDRIVEX_DIR");
  if (settings.dir.empty()) settings.dir = FromEnvironment("TMPDIR");
  if (settings.dir.empty()) settings.dir = "/tmp";
  settings.id = HostName();
}

// A value as an error line quotes it (escaped and shortened).
std::string Quoted(const std::string& text) { return "\"" + core::Shown(text) + "\""; }

// `text` without the blanks (and a carriage return) around it.
std::string Trimmed(const std::string& text) {
  const size_t start = text.find_first_not_of(kBlanks);
  if (start == std::string::npos) return std::string();
  return text.substr(start, text.find_last_not_of(kBlanks) - start + 1);
}

// Decimal digits only, 0 to `max`.
bool ParseNumber(const std::string& digits, uint32_t max, uint32_t& value) {
  uint64_t parsed = 0;
  if (!zel::util::ParseDecimal(digits, max, parsed)) return false;
  value = static_cast<uint32_t>(parsed);
  return true;
}

// yes/no, true/false, on/off or 1/0.
bool ParseFlag(const std::string& text, bool& value) {
  for (const char* yes : {"yes", "true", "on", "1"}) {
    if (text != yes) continue;
    value = true;
    return true;
  }
  for (const char* no : {"no", "false", "off", "0"}) {
    if (text != no) continue;
    value = false;
    return true;
  }
  return false;
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

// Sets what `value` says for `option`; false with the reason otherwise.
bool Apply(const Option& option, const std::string& value, Settings& settings, std::string& why) {
  // What a value that does not fit is not, said before the value.
  const char* notFit = nullptr;
  switch (option.id) {
    case OptionId::Service:
      settings.servicePath = value;
      return true;
    case OptionId::Dir:
      settings.dir = value;
      return true;
    case OptionId::Broker:
    case OptionId::CaFile:
    case OptionId::CaPath:
    case OptionId::Cert:
    case OptionId::Key:
    case OptionId::Username:
    case OptionId::PasswordFile:
      return settings.connection.Set(option.longName, value, why);
    case OptionId::Id:
      settings.id = value;
      return CheckId(value, why);
    case OptionId::Prefix:
      settings.prefix = value;
      return CheckPrefix(value, why);
    case OptionId::Allow:
      return ParseAllowed(value, settings.allowed, why);
    case OptionId::Queue:
      if (!ParseNumber(value, Settings::kMaxQueue, settings.queue)) notFit = "not a whole number from 0 to 1000000: ";
      break;
    case OptionId::Health:
      if (!ParseNumber(value, Settings::kMaxHealthSeconds, settings.healthSeconds)) {
        notFit = "not a whole number of seconds from 0 to 86400: ";
      }
      break;
    case OptionId::Verbose:
      if (!ParseFlag(value, settings.verbose)) notFit = "not yes or no: ";
      break;
    case OptionId::Config:
    case OptionId::Help:
    case OptionId::Version:
      why = "not an option of a configuration file";
      return false;
  }
  if (notFit == nullptr) return true;
  why = notFit + Quoted(value);
  return false;
}

// The option of this long name; nullptr when there is none.
const Option* FindLong(const std::string& name) {
  for (const Option& entry : kOptions) {
    if (name == entry.longName) return &entry;
  }
  return nullptr;
}

int GetoptValue(size_t index) {
  const Option& entry = kOptions[index];
  return entry.shortName != 0 ? entry.shortName : kFirstLongOnly + static_cast<int>(index);
}

// A word as typed, without any "=value" of a long option.
std::string OptionWord(const char* word) {
  const std::string text = word;
  return text.compare(0, 2, "--") == 0 ? text.substr(0, text.find('=')) : text;
}

// "<path>:<line>", what an error in that line of a configuration file names.
std::string Where(const std::string& path, size_t line) {
  return path + ":" + zel::util::DecimalText(static_cast<uint32_t>(line));
}

// One reading of the command line.
class CommandLine {
 public:
  CommandLine(int argc, char** argv, Invocation& invocation, core::Failure& failure)
      : mArgc(argc), mArgv(argv), mInvocation(invocation), mFailure(failure) {
    // getopt_long's description of the option table, ended by a zero entry;
    // ":" reports a missing value apart from an unknown option.
    for (size_t i = 0; i < kOptionCount; ++i) {
      const Option& entry = kOptions[i];
      const bool takesValue = entry.valueName != nullptr;
      mLongOptions[i] = {entry.longName, takesValue ? required_argument : no_argument, nullptr, GetoptValue(i)};
      if (entry.shortName == 0) continue;
      mShortOptions += entry.shortName;
      if (takesValue) mShortOptions += ':';
    }
  }

  bool Parse() {
    if (!Read(Round::Check)) return false;
    if (mInvocation.mode != Invocation::Mode::Run) return true;
    SetDefaults(mInvocation.settings);
    return Read(Round::Files) && Read(Round::Values) && CheckWhole(mInvocation.settings);
  }

 private:
  enum class Round { Check, Files, Values };

  // One round over the options; the errors of the command line itself are
  // found in the first, and so never seen in the others.
  bool Read(Round round) {
    opterr = 0;
    // 0 rather than 1 starts getopt afresh, for each round.
    optind = 0;
    while (true) {
      int longIndex = -1;
      // NOLINTNEXTLINE(concurrency-mt-unsafe): the command line is read on the main thread before any other starts
      const int value = getopt_long(mArgc, mArgv, mShortOptions.c_str(), mLongOptions, &longIndex);
      if (value == -1) break;
      if (value == '?') {
        const std::string typed = optopt != 0 && optopt < kFirstLongOnly ? std::string("-") + static_cast<char>(optopt)
                                                                         : OptionWord(mArgv[optind - 1]);
        return Usage(typed, "unknown option (try --help)");
      }
      if (value == ':') {
        const std::string last = OptionWord(mArgv[mArgc - 1]);
        return Usage(last.compare(0, 2, "--") == 0 ? last : std::string("-") + static_cast<char>(optopt),
                     "needs a value");
      }
      size_t index = 0;
      while (GetoptValue(index) != value) ++index;
      if (!Take(round, kOptions[index], optarg != nullptr ? optarg : "yes", longIndex >= 0)) return false;
    }
    if (round == Round::Check && optind < mArgc && mInvocation.mode == Invocation::Mode::Run) {
      return Usage(mArgv[optind], "takes no arguments, only options (try --help)");
    }
    return true;
  }

  bool Take(Round round, const Option& option, const std::string& value, bool typedLong) {
    switch (round) {
      case Round::Check:
        if (option.id == OptionId::Help) mInvocation.mode = Invocation::Mode::Help;
        if (option.id == OptionId::Version && mInvocation.mode != Invocation::Mode::Help) {
          mInvocation.mode = Invocation::Mode::Version;
        }
        return true;
      case Round::Files:
        return option.id != OptionId::Config || ApplyConfigFile(value);
      case Round::Values:
        break;
    }
    std::string why;
    if (option.id == OptionId::Config || Apply(option, value, mInvocation.settings, why)) return true;
    std::string typed = typedLong ? "--" : "-";
    if (typedLong) {
      typed += option.longName;
    } else {
      typed += option.shortName;
    }
    return Usage(typed, why);
  }

  // A line of a configuration file: its option and value, or no option for
  // a blank or comment line; false with the failure for any other line.
  bool ReadLine(const std::string& path, size_t number, const std::string& line, const Option*& option,
                std::string& value) {
    option = nullptr;
    const std::string text = Trimmed(line.substr(0, line.find('#')));
    if (text.empty()) return true;
    const size_t equals = text.find('=');
    if (equals == std::string::npos) return Usage(Where(path, number), "not a name = value line");
    const std::string name = Trimmed(text.substr(0, equals));
    option = FindLong(name);
    if (option == nullptr || !option->inConfigFile) {
      return Usage(Where(path, number), "unknown option \"" + core::Shown(name) + "\"");
    }
    value = Trimmed(text.substr(equals + 1));
    return true;
  }

  bool ApplyConfigFile(const std::string& path) {
    // A directory opens as a file that simply holds nothing.
    struct stat info {};
    if (::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) return Usage(path, core::ErrorText(EISDIR));
    TextFile file(path);
    if (!file.Opened()) return Usage(path, core::ErrorText(errno));
    std::vector<std::string> lines;
    const Option* option = nullptr;
    std::string value;
    for (std::string line; file.Next(line);) {
      if (!ReadLine(path, lines.size() + 1, line, option, value)) return false;
      lines.push_back(line);
    }
    if (file.Failed()) return Usage(path, core::ErrorText(errno));
    // Read again, the lines are known to be right; their values may not be.
    for (size_t i = 0; i < lines.size(); ++i) {
      ReadLine(path, i + 1, lines[i], option, value);
      std::string why;
      if (option != nullptr && !Apply(*option, value, mInvocation.settings, why)) {
        return Usage(Where(path, i + 1), std::string(option->longName) + ": " + why);
      }
    }
    return true;
  }

  bool CheckWhole(Settings& settings) {
    std::string why;
    if (settings.servicePath.empty()) {
      return Usage("--service", "no service socket given (use -s PATH or set KENDRIVEX_SERVICE)");
    }
    if (!CheckId(settings.id, why)) return Usage("--id", why);
    std::string what;
    if (!settings.connection.Check(what, why, mInvocation.warnings)) return Usage(what, why);
    settings.Complete();
    return true;
  }

  bool Usage(const std::string& what, const std::string& why) {
    mFailure = core::Fail(core::kStatusUsage, what, why);
    return false;
  }

  const int mArgc;
  char** const mArgv;
  Invocation& mInvocation;
  core::Failure& mFailure;
  option mLongOptions[kOptionCount + 1] = {};
  std::string mShortOptions = ":";
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
  std::vector<core::HelpRow> rows;
  for (const Option& entry : kOptions) {
    std::string left(4, ' ');
    if (entry.shortName != 0) {
      left[0] = '-';
      left[1] = entry.shortName;
      left[2] = ',';
    }
    left.append("--").append(entry.longName);
    if (entry.valueName != nullptr) left.append(1, ' ').append(entry.valueName);
    rows.push_back({left, entry.summary});
  }
  return std::string(kUsage) + "\nOptions:\n" + core::HelpColumns(rows) + "\n" + kExitStatus;
}

std::string VersionText() { return std::string("kendrivex-bridge ") + KDX_VERSION + "\n"; }

}  // namespace zel::bridge
