#include "tools/bridge/command_line.h"

#include <getopt.h>
#include <unistd.h>

#include <cstdlib>

#include "tools/bridge/config_file.h"
#include "tools/bridge/option_values.h"

namespace zel::bridge {
namespace {

// getopt_long's value for an option without a short name: past every char.
constexpr int kFirstLongOnly = 256;

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

Settings Defaults() {
  Settings settings;
  settings.servicePath = FromEnvironment("KENDRIVEX_SERVICE");
  settings.dir = FromEnvironment("KENDRIVEX_DIR");
  if (settings.dir.empty()) settings.dir = FromEnvironment("TMPDIR");
  if (settings.dir.empty()) settings.dir = "/tmp";
  settings.id = HostName();
  return settings;
}

int GetoptValue(size_t index) {
  const OptionSpec& entry = OptionTable::All()[index];
  return entry.shortName != 0 ? entry.shortName : kFirstLongOnly + static_cast<int>(index);
}

// getopt_long's description of the option table, ended by a zero entry.
std::vector<option> LongOptions() {
  std::vector<option> options;
  for (size_t i = 0; i < OptionTable::All().size(); ++i) {
    const OptionSpec& entry = OptionTable::All()[i];
    options.push_back(
        {entry.longName, entry.valueName != nullptr ? required_argument : no_argument, nullptr, GetoptValue(i)});
  }
  options.push_back({nullptr, 0, nullptr, 0});
  return options;
}

// ":" reports a missing value apart from an unknown option.
std::string ShortOptions() {
  std::string text = ":";
  for (const OptionSpec& entry : OptionTable::All()) {
    if (entry.shortName == 0) continue;
    text += entry.shortName;
    if (entry.valueName != nullptr) text += ':';
  }
  return text;
}

const OptionSpec* FindByValue(int value) {
  for (size_t i = 0; i < OptionTable::All().size(); ++i) {
    if (GetoptValue(i) == value) return &OptionTable::All()[i];
  }
  return nullptr;
}

// A word as typed, without any "=value" of a long option.
std::string OptionWord(const char* word) {
  const std::string text = word;
  return text.compare(0, 2, "--") == 0 ? text.substr(0, text.find('=')) : text;
}

bool IsTls(const Settings& settings) {
  return !settings.caFile.empty() || !settings.caPath.empty() || !settings.certFile.empty() ||
         !settings.keyFile.empty();
}

}  // namespace

bool CommandLine::Parse(Invocation& invocation, zel::service_client::Failure& failure) {
  mInvocation = &invocation;
  mFailure = &failure;
  invocation = Invocation();
  std::vector<Given> given;
  if (!ReadOptions(given)) return false;
  if (invocation.mode != Invocation::Mode::Run) return true;
  invocation.settings = Defaults();
  for (const Given& entry : given) {
    if (entry.option->id == OptionId::Config && !ApplyConfigFile(entry.value, invocation.settings)) return false;
  }
  return ApplyGiven(given, invocation.settings) && CheckWhole(invocation.settings);
}

bool CommandLine::ReadOptions(std::vector<Given>& given) {
  const std::vector<option> longOptions = LongOptions();
  const std::string shortOptions = ShortOptions();
  opterr = 0;
  optind = 0;
  while (true) {
    int longIndex = -1;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the command line is read on the main thread before any other starts
    const int value = getopt_long(mArgc, mArgv, shortOptions.c_str(), longOptions.data(), &longIndex);
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
    const OptionSpec* entry = FindByValue(value);
    const std::string typed =
        longIndex >= 0 ? std::string("--") + entry->longName : std::string("-") + static_cast<char>(value);
    if (entry->id == OptionId::Help) mInvocation->mode = Invocation::Mode::Help;
    if (entry->id == OptionId::Version && mInvocation->mode != Invocation::Mode::Help) {
      mInvocation->mode = Invocation::Mode::Version;
    }
    given.push_back(Given{entry, optarg != nullptr ? optarg : "yes", typed});
  }
  if (optind < mArgc && mInvocation->mode == Invocation::Mode::Run) {
    return Usage(mArgv[optind], "takes no arguments, only options (try --help)");
  }
  return true;
}

bool CommandLine::ApplyConfigFile(const std::string& path, Settings& settings) {
  std::vector<ConfigEntry> entries;
  if (!ConfigFile::Read(path, entries, *mFailure)) return false;
  for (const ConfigEntry& entry : entries) {
    std::string why;
    if (!OptionValues::Apply(*entry.option, entry.value, settings, why)) {
      return Usage(ConfigFile::Where(path, entry.line), std::string(entry.option->longName) + ": " + why);
    }
  }
  return true;
}

bool CommandLine::ApplyGiven(const std::vector<Given>& given, Settings& settings) {
  for (const Given& entry : given) {
    if (entry.option->id == OptionId::Config) continue;
    std::string why;
    if (!OptionValues::Apply(*entry.option, entry.value, settings, why)) return Usage(entry.typed, why);
  }
  return true;
}

bool CommandLine::CheckWhole(Settings& settings) {
  std::string why;
  if (settings.servicePath.empty()) {
    return Usage("--service", "no service socket given (use -s PATH or set KENDRIVEX_SERVICE)");
  }
  if (!OptionValues::CheckId(settings.id, why)) return Usage("--id", why);
  if (IsTls(settings) && !settings.broker.tls) return Usage("--broker", "TLS options need an mqtts:// broker");
  if (settings.certFile.empty() != settings.keyFile.empty()) {
    return Usage(settings.certFile.empty() ? "--key" : "--cert", "needs --cert and --key together");
  }
  if (settings.password && settings.username.empty()) return Usage("--password-file", "needs --username");
  return true;
}

bool CommandLine::Usage(const std::string& what, const std::string& why) {
  *mFailure = zel::service_client::Fail(zel::service_client::kStatusUsage, what, why);
  return false;
}

}  // namespace zel::bridge
