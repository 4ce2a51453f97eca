#include "tools/ctl/arguments.h"

#include <getopt.h>

#include <cstddef>
#include <cstdlib>
#include <limits>
#include <vector>

#include "util/decimal_text.h"

// Options come before the command; everything after a command that takes
// arguments is its arguments, so that send's fields may begin with "-".
// After one that takes none (and after "-"), options may follow too
// ("watch --json").
namespace zel::ctl {
namespace {

using service_client::Fail;
using service_client::kStatusUsage;
using service_client::Shown;

// The word that stands for "commands from standard input".
const char kBatchWord[] = "-";

const char kUsage[] =
    "Usage: kendrivex-ctl [OPTIONS] COMMAND [ARG...]\n"
    "       kendrivex-ctl [OPTIONS] -\n"
    "Sends one command to the device-control service and prints the reply; with -,\n"
    "one command a line from standard input; with watch, the service's events.\n";

const char kExitStatus[] =
    "Exit status: 0 success; 1 the service answered, but not with success;\n"
    "2 usage error; 3 the service could not be reached or did not reply in time;\n"
    "4 local set-up failed (directory, path length).\n";

struct Option {
  char shortName;         // also the value getopt_long returns for it
  const char* longName;   // without the leading "--"
  const char* valueName;  // the value as the help text shows it; nullptr for a flag
  const char* summary;
};

// clang-format off
const Option kOptions[] = {
    {'s', "service", "PATH",  "the service's socket (default $KENDRIVEX_SERVICE)"     },
    {'d', "dir",     "DIR",   "where the sockets go ($KENDRIVEX_DIR, $TMPDIR or /tmp)"},
    {'t', "timeout", "MS",    "the wait for each reply, 1 to 60000 ms (default 5000)" },
    {'j', "json",    nullptr, "print one JSON object a line"                          },
    {'e', "exec",    "PROG",  "watch: run PROG with each event's number and arguments"},
    {'n', "count",   "N",     "watch: stop after N events"                            },
    {'v', "verbose", nullptr, "copy the diagnostics to standard error"                },
    {'h', "help",    nullptr, "print this help and exit"                              },
    {'V', "version", nullptr, "print the version and exit"                            },
};
// clang-format on

// An environment variable's value; unset and empty are the same.
std::string FromEnvironment(const char* name) {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing in this program changes its environment
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

service_client::Settings Defaults() {
  service_client::Settings settings;
  settings.servicePath = FromEnvironment("KENDRIVEX_SERVICE");
  settings.dir = FromEnvironment("KENDRIVEX_DIR");
  if (settings.dir.empty()) settings.dir = FromEnvironment("TMPDIR");
  if (settings.dir.empty()) settings.dir = "/tmp";
  return settings;
}

// Decimal digits only, from 1 to `max`.
bool ParseCount(const char* text, uint32_t max, uint32_t& value) {
  uint64_t parsed = 0;
  if (!zel::util::ParseDecimal(text, max, parsed) || parsed < 1) return false;
  value = static_cast<uint32_t>(parsed);
  return true;
}

// getopt_long's description of the option table, ended by a zero entry.
std::vector<option> LongOptions() {
  std::vector<option> options;
  for (const Option& entry : kOptions) {
    options.push_back(
        {entry.longName, entry.valueName != nullptr ? required_argument : no_argument, nullptr, entry.shortName});
  }
  options.push_back({nullptr, 0, nullptr, 0});
  return options;
}

// "+" stops at the first word that is not an option (the command, or "-"),
// ":" reports a missing value apart from an unknown option.
std::string ShortOptions() {
  std::string text = "+:";
  for (const Option& entry : kOptions) {
    text += entry.shortName;
    if (entry.valueName != nullptr) text += ':';
  }
  return text;
}

// A word as typed, without any "=value" of a long option.
std::string OptionWord(const char* word) {
  const std::string text = word;
  return text.compare(0, 2, "--") == 0 ? text.substr(0, text.find('=')) : text;
}

bool TakesNoArguments(const std::string& word) {
  if (word == kBatchWord) return true;
  const service_client::Command* command = service_client::FindCommand(word);
  return command != nullptr && command->arguments == service_client::Arguments::None;
}

// One reading of the command line; holds what the options said so far.
class CommandLine {
 public:
  CommandLine(int argc, char** argv, Invocation& invocation, Failure& failure)
      : mArgc(argc), mArgv(argv), mInvocation(invocation), mFailure(failure) {}

  bool Parse() {
    mInvocation = Invocation();
    mInvocation.settings = Defaults();
    std::vector<char*> args(mArgv, mArgv + mArgc);
    size_t first = 0;
    if (!ReadOptions(args, first)) return false;
    const auto commandAt = args.begin() + static_cast<std::ptrdiff_t>(first);
    std::vector<std::string> words(commandAt, args.end());
    // A command without arguments may be followed by more options, as in
    // "watch --json"; after any other command every word is an argument.
    if (!words.empty() && TakesNoArguments(words[0])) {
      std::vector<char*> rest = {mArgv[0]};
      rest.insert(rest.end(), commandAt + 1, args.end());
      size_t next = 0;
      if (!ReadOptions(rest, next)) return false;
      words.resize(1);
      words.insert(words.end(), rest.begin() + static_cast<std::ptrdiff_t>(next), rest.end());
    }
    const Invocation::Mode mode = mInvocation.mode;
    if (mode == Invocation::Mode::Help || mode == Invocation::Mode::Version) return true;
    return ReadCommand(words) && CheckWatchOptions() && CheckService();
  }

 private:
  // Reads the options at the start of `args` (whose first word is the
  // program's name); `first` is then the index of the first other word.
  bool ReadOptions(std::vector<char*>& args, size_t& first) {
    const std::vector<option> longOptions = LongOptions();
    const std::string shortOptions = ShortOptions();
    const int count = static_cast<int>(args.size());
    args.push_back(nullptr);
    opterr = 0;
    // 0 rather than 1 starts getopt afresh, for a second list of words.
    optind = 0;
    while (true) {
      int longIndex = -1;
      // NOLINTNEXTLINE(concurrency-mt-unsafe): the command line is read on the main thread before any other starts
      const int letter = getopt_long(count, args.data(), shortOptions.c_str(), longOptions.data(), &longIndex);
      if (letter == -1) break;
      if (letter == '?') {
        // A short option is known by its letter; a long one only by its word.
        const std::string typed =
            optopt != 0 ? std::string("-") + static_cast<char>(optopt) : OptionWord(args[optind - 1]);
        return Usage(typed, "unknown option (try --help)");
      }
      if (letter == ':') {
        // A value can only be missing after the last word.
        const std::string last = OptionWord(args[count - 1]);
        return Usage(last.compare(0, 2, "--") == 0 ? last : std::string("-") + static_cast<char>(optopt),
                     "needs a value");
      }
      const std::string typed = longIndex >= 0 ? std::string("--") + longOptions[longIndex].name
                                               : std::string("-") + static_cast<char>(letter);
      if (!TakeOption(letter, optarg, typed)) return false;
    }
    args.pop_back();
    first = static_cast<size_t>(optind);
    return true;
  }

  bool TakeOption(int letter, const char* value, const std::string& typed) {
    service_client::Settings& settings = mInvocation.settings;
    switch (letter) {
      case 's':
        return TakeText(value, typed, "the path is empty", settings.servicePath);
      case 'd':
        return TakeText(value, typed, "the path is empty", settings.dir);
      case 't':
        if (ParseCount(value, service_client::Settings::kMaxTimeoutMs, settings.timeoutMs)) return true;
        return Usage(typed, "not a whole number of milliseconds from 1 to 60000: \"" + Shown(value) + "\"");
      case 'j':
        mInvocation.json = true;
        return true;
      case 'e':
        mSawExec = typed;
        return TakeText(value, typed, "the program's name is empty", mInvocation.execProgram);
      case 'n':
        mSawCount = typed;
        if (ParseCount(value, std::numeric_limits<uint32_t>::max(), mInvocation.count)) return true;
        return Usage(typed, "not a whole number from 1 to 4294967295: \"" + Shown(value) + "\"");
      case 'v':
        mInvocation.verbose = true;
        return true;
      case 'h':
        mInvocation.mode = Invocation::Mode::Help;
        return true;
      case 'V':
        if (mInvocation.mode != Invocation::Mode::Help) mInvocation.mode = Invocation::Mode::Version;
        return true;
      default:
        return Usage(typed, "unknown option (try --help)");
    }
  }

  // A path or a program's name: an empty one is an error that names the
  // option it came from.
  bool TakeText(const char* value, const std::string& typed, const char* ifEmpty, std::string& text) {
    text = value;
    return !text.empty() || Usage(typed, ifEmpty);
  }

  bool ReadCommand(const std::vector<std::string>& words) {
    if (!words.empty() && words[0] == kBatchWord) {
      if (words.size() > 1) return Usage(kBatchWord, "takes no arguments, not \"" + Shown(words[1]) + "\"");
      mInvocation.mode = Invocation::Mode::Batch;
      return true;
    }
    if (!service_client::ParseRequest(words, mInvocation.request, mFailure)) {
      PointToHelp(mFailure);
      return false;
    }
    const bool watch = mInvocation.request.command->reply == service_client::ReplyStyle::Events;
    mInvocation.mode = watch ? Invocation::Mode::Watch : Invocation::Mode::OneShot;
    return true;
  }

  bool CheckWatchOptions() {
    if (mInvocation.mode == Invocation::Mode::Watch) return true;
    if (!mSawExec.empty()) return Usage(mSawExec, "only with watch");
    if (!mSawCount.empty()) return Usage(mSawCount, "only with watch");
    return true;
  }

  bool CheckService() {
    if (!mInvocation.settings.servicePath.empty()) return true;
    return Usage("--service", "no service socket given (use -s PATH or set KENDRIVEX_SERVICE)");
  }

  bool Usage(const std::string& what, std::string why) {
    mFailure = Fail(kStatusUsage, Shown(what), std::move(why));
    return false;
  }

  const int mArgc;
  char** const mArgv;
  Invocation& mInvocation;
  Failure& mFailure;
  // How --exec and --count were typed, when they were.
  std::string mSawExec;
  std::string mSawCount;
};

std::vector<service_client::HelpRow> CommandRows() {
  std::vector<service_client::HelpRow> rows;
  for (const service_client::Command& command : service_client::AllCommands()) {
    std::string left = command.name;
    if (command.alias != nullptr) left.append(" (").append(command.alias).append(1, ')');
    if (*command.argumentsHelp != '\0') left.append(1, ' ').append(command.argumentsHelp);
    rows.push_back({left, command.summary});
  }
  rows.push_back({kBatchWord, "read commands from standard input, one a line"});
  return rows;
}

std::vector<service_client::HelpRow> OptionRows() {
  std::vector<service_client::HelpRow> rows;
  for (const Option& entry : kOptions) {
    std::string left = "-";
    left.append(1, entry.shortName).append(", --").append(entry.longName);
    if (entry.valueName != nullptr) left.append(1, ' ').append(entry.valueName);
    rows.push_back({left, entry.summary});
  }
  return rows;
}

}  // namespace

bool ParseArguments(int argc, char** argv, Invocation& invocation, Failure& failure) {
  return CommandLine(argc, argv, invocation, failure).Parse();
}

void PointToHelp(Failure& failure) {
  if (failure.commandUnknown) failure.why += " (try --help)";
}

std::string HelpText() {
  return std::string(kUsage) + "\nCommands:\n" + service_client::HelpColumns(CommandRows()) + "\nOptions:\n" +
         service_client::HelpColumns(OptionRows()) + "\n" + kExitStatus;
}

std::string VersionText() { return std::string("kendrivex-ctl ") + KDX_VERSION + "\n"; }

}  // namespace zel::ctl
