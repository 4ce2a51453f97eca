#include "tools/ctl/arguments.h"

#include <initializer_list>
#include <limits>
#include <vector>

#include "tools/service_client/options.h"
#include "util/decimal_text.h"

// Options come before the command; everything after a command that takes
// arguments is its arguments, so that send's fields may begin with "-".
// After one that takes none (and after "-"), options may follow too
// ("watch --json"). The command line's own errors (an unknown option, a
// missing value) are found first, then --help and --version win, then the
// options' values are judged, then the command.
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

enum OptionId : int { kService, kDir, kTimeout, kJson, kExec, kCount, kVerbose, kHelp, kVersion };

using service_client::Shared;
using service_client::SharedOption;

// clang-format off
constexpr service_client::Option kOptions[] = {
    Shared(SharedOption::Service, kService),
    Shared(SharedOption::Dir, kDir),
    {kTimeout, 't', 0, "timeout", "MS",    "the wait for each reply, 1 to 60000 ms (default 5000)",  nullptr},
    {kJson,    'j', 0, "json",    nullptr, "print one JSON object a line",                           nullptr},
    {kExec,    'e', 0, "exec",    "PROG",  "watch: run PROG with each event's number and arguments", nullptr},
    {kCount,   'n', 0, "count",   "N",     "watch: stop after N events",                             nullptr},
    Shared(SharedOption::Verbose, kVerbose),
    Shared(SharedOption::Help, kHelp),
    Shared(SharedOption::Version, kVersion),
};
// clang-format on

// Decimal digits only, from 1 to `max`.
bool ParseCount(const std::string& text, uint32_t max, uint32_t& value) {
  uint64_t parsed = 0;
  if (!zel::util::ParseDecimal(text, max, parsed) || parsed < 1) return false;
  value = static_cast<uint32_t>(parsed);
  return true;
}

bool TakesNoArguments(const std::string& word) {
  if (word == kBatchWord) return true;
  const service_client::Command* command = service_client::FindCommand(word);
  return command != nullptr && command->arguments == service_client::Arguments::None;
}

// A path or a program's name: an empty one is an error.
bool TakeText(const std::string& value, const char* ifEmpty, std::string& text, std::string& why) {
  text = value;
  if (!text.empty()) return true;
  why = ifEmpty;
  return false;
}

// One reading of the command line.
class CommandLine final : public service_client::OptionHandler {
 public:
  CommandLine(int argc, char** argv, Invocation& invocation, Failure& failure)
      : mArgc(argc), mArgv(argv), mLine(kOptions, argc, argv), mInvocation(invocation), mFailure(failure) {}

  bool Parse() {
    mInvocation = Invocation();
    int at = 1;
    if (!mLine.ReadOptions(at, mFailure)) return false;
    std::vector<std::string> words(mArgv + at, mArgv + mArgc);
    // A command without arguments may be followed by more options, as in
    // "watch --json"; after any other command every word is an argument.
    if (!words.empty() && TakesNoArguments(words[0])) {
      ++at;
      if (!mLine.ReadOptions(at, mFailure)) return false;
      words.resize(1);
      words.insert(words.end(), mArgv + at, mArgv + mArgc);
    }
    if (mLine.Level(kHelp) > 0) {
      mInvocation.mode = Invocation::Mode::Help;
      return true;
    }
    if (mLine.Level(kVersion) > 0) {
      mInvocation.mode = Invocation::Mode::Version;
      return true;
    }
    if (!mLine.Apply(*this, mFailure)) return false;
    mInvocation.json = mLine.Level(kJson) > 0;
    mInvocation.verbosity = mLine.Level(kVerbose);
    return ReadCommand(words) && CheckWatchOptions() &&
           service_client::CheckServiceGiven(mInvocation.settings.servicePath, mFailure);
  }

 private:
  bool Take(const service_client::Option& option, const std::string& value, std::string& why) override {
    service_client::Settings& settings = mInvocation.settings;
    switch (option.id) {
      case kService:
        return TakeText(value, "the path is empty", settings.servicePath, why);
      case kDir:
        return TakeText(value, "the path is empty", settings.dir, why);
      case kTimeout:
        if (ParseCount(value, service_client::Settings::kMaxTimeoutMs, settings.timeoutMs)) return true;
        why = "not a whole number of milliseconds from 1 to 60000: \"" + Shown(value) + "\"";
        return false;
      case kExec:
        return TakeText(value, "the program's name is empty", mInvocation.execProgram, why);
      case kCount:
        if (ParseCount(value, std::numeric_limits<uint32_t>::max(), mInvocation.count)) return true;
        why = "not a whole number from 1 to 4294967295: \"" + Shown(value) + "\"";
        return false;
      default:
        return true;
    }
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
    for (const int id : {kExec, kCount}) {
      const std::string typed = mLine.Typed(id);
      if (!typed.empty()) return Usage(typed, "only with watch");
    }
    return true;
  }

  bool Usage(const std::string& what, std::string why) {
    mFailure = Fail(kStatusUsage, Shown(what), std::move(why));
    return false;
  }

  const int mArgc;
  char** const mArgv;
  service_client::CommandLine mLine;
  Invocation& mInvocation;
  Failure& mFailure;
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

}  // namespace

bool ParseArguments(int argc, char** argv, Invocation& invocation, Failure& failure) {
  return CommandLine(argc, argv, invocation, failure).Parse();
}

void PointToHelp(Failure& failure) {
  if (failure.commandUnknown) failure.why += " (try --help)";
}

std::string HelpText() {
  return std::string(kUsage) + "\nCommands:\n" + service_client::HelpColumns(CommandRows()) + "\nOptions:\n" +
         service_client::HelpColumns(service_client::OptionRows(kOptions)) + "\n" + kExitStatus;
}

std::string VersionText() { return std::string("kendrivex-ctl ") + KDX_VERSION + "\n"; }

}  // namespace zel::ctl
