#include "tools/ctl/command_line.h"

#include <getopt.h>

#include <cstddef>
#include <cstdlib>
#include <limits>

#include "tools/ctl/option_table.h"

// Options come before the command; everything after a command that takes
// arguments is its arguments, so that send's fields may begin with "-".
// After one that takes none, options may follow too ("watch --json").
namespace zel::ctl {
namespace {

// The word that stands for "commands from standard input".
const char kBatchWord[] = "-";

// An environment variable's value; unset and empty are the same.
std::string FromEnvironment(const char* name) {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing in this program changes its environment
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

Settings Defaults() {
  Settings settings;
  settings.servicePath = FromEnvironment("KENDRIVEX_SERVICE");
  settings.dir = FromEnvironment("KENDRIVEX_DIR");
  if (settings.dir.empty()) settings.dir = FromEnvironment("TMPDIR");
  if (settings.dir.empty()) settings.dir = "/tmp";
  return settings;
}

// Decimal digits only, from 1 to `max`.
bool ParseCount(const char* text, uint32_t max, uint32_t& value) {
  const std::string digits = text;
  if (digits.empty() || digits.size() > 10 || digits.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  const unsigned long long parsed = std::strtoull(digits.c_str(), nullptr, 10);
  if (parsed < 1 || parsed > max) return false;
  value = static_cast<uint32_t>(parsed);
  return true;
}

// getopt_long's description of the option table, ended by a zero entry.
std::vector<option> LongOptions() {
  std::vector<option> options;
  for (const OptionSpec& entry : OptionTable::All()) {
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
  for (const OptionSpec& entry : OptionTable::All()) {
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

}  // namespace

bool CommandLine::Parse(Invocation& invocation, Failure& failure) {
  mInvocation = &invocation;
  mFailure = &failure;
  invocation = Invocation();
  invocation.settings = Defaults();
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
  if (invocation.mode == Invocation::Mode::Help || invocation.mode == Invocation::Mode::Version) return true;
  return ReadCommand(words) && CheckWatchOptions() && CheckService();
}

bool CommandLine::TakesNoArguments(const std::string& word) {
  if (word == kBatchWord) return true;
  const CommandSpec* entry = CommandTable::Find(word);
  return entry != nullptr && !entry->takesArguments;
}

bool CommandLine::ReadOptions(std::vector<char*>& args, size_t& first) {
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
    const std::string typed =
        longIndex >= 0 ? std::string("--") + longOptions[longIndex].name : std::string("-") + static_cast<char>(letter);
    if (!TakeOption(letter, optarg, typed)) return false;
  }
  args.pop_back();
  first = static_cast<size_t>(optind);
  return true;
}

bool CommandLine::TakeOption(int letter, const char* value, const std::string& typed) {
  Settings& settings = mInvocation->settings;
  switch (letter) {
    case 's':
      settings.servicePath = value;
      return true;
    case 'd':
      settings.dir = value;
      return true;
    case 't':
      if (ParseCount(value, Settings::kMaxTimeoutMs, settings.timeoutMs)) return true;
      return Usage(typed, "not a whole number of milliseconds from 1 to 60000: \"" + std::string(value) + "\"");
    case 'j':
      settings.json = true;
      return true;
    case 'e':
      settings.execProgram = value;
      mSawExec = typed;
      return true;
    case 'n':
      mSawCount = typed;
      if (ParseCount(value, std::numeric_limits<uint32_t>::max(), settings.count)) return true;
      return Usage(typed, "not a whole number from 1 to 4294967295: \"" + std::string(value) + "\"");
    case 'v':
      settings.verbose = true;
      return true;
    case 'h':
      mInvocation->mode = Invocation::Mode::Help;
      return true;
    case 'V':
      if (mInvocation->mode != Invocation::Mode::Help) mInvocation->mode = Invocation::Mode::Version;
      return true;
    default:
      return Usage(typed, "unknown option (try --help)");
  }
}

bool CommandLine::ReadCommand(const std::vector<std::string>& words) {
  if (!words.empty() && words[0] == kBatchWord) {
    if (words.size() > 1) return Usage(kBatchWord, "takes no arguments, not \"" + words[1] + "\"");
    mInvocation->mode = Invocation::Mode::Batch;
    return true;
  }
  if (!CommandRequest::Parse(words, mInvocation->request, *mFailure)) return false;
  const bool watch = mInvocation->request.entry->kind == CommandKind::Watch;
  mInvocation->mode = watch ? Invocation::Mode::Watch : Invocation::Mode::OneShot;
  return true;
}

bool CommandLine::CheckWatchOptions() {
  if (mInvocation->mode == Invocation::Mode::Watch) return true;
  if (!mSawExec.empty()) return Usage(mSawExec, "only with watch");
  if (!mSawCount.empty()) return Usage(mSawCount, "only with watch");
  return true;
}

bool CommandLine::CheckService() {
  if (!mInvocation->settings.servicePath.empty()) return true;
  return Usage("--service", "no service socket given (use -s PATH or set KENDRIVEX_SERVICE)");
}

bool CommandLine::Usage(const std::string& what, const std::string& why) {
  *mFailure = Fail(kStatusUsage, what, why);
  return false;
}

}  // namespace zel::ctl
