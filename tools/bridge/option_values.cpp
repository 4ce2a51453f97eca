#include "tools/bridge/option_values.h"

#include <mosquitto.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "tools/bridge/config_file.h"
#include "tools/service_client/commands.h"
#include "util/decimal_text.h"

namespace zel::bridge {
namespace {

const char kAllBoxes[] = "all";

// A value as an error line quotes it (escaped and shortened).
std::string Quoted(const std::string& text) { return "\"" + zel::service_client::Shown(text) + "\""; }

std::string ErrnoText(int error) {
  char buffer[256];
  return ::strerror_r(error, buffer, sizeof buffer);
}

// Decimal digits only, 0 to `max`.
bool ParseNumber(const std::string& digits, uint32_t max, uint32_t& value) {
  uint64_t parsed = 0;
  if (!zel::util::ParseDecimal(digits, max, parsed)) return false;
  value = static_cast<uint32_t>(parsed);
  return true;
}

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
  return mosquitto_validate_utf8(text.data(), static_cast<int>(text.size())) == MOSQ_ERR_SUCCESS;
}

// The canonical names of a comma-separated list (blanks around a name do not
// count) of commands that a line of
// kendrivex-ctl's standard input may hold.
bool ParseAllowed(const std::string& list, std::vector<std::string>& allowed, std::string& why) {
  allowed.clear();
  if (list.empty()) return true;
  size_t start = 0;
  while (true) {
    const size_t comma = list.find(',', start);
    const std::string name =
        ConfigFile::Trimmed(list.substr(start, comma == std::string::npos ? comma : comma - start));
    const zel::service_client::Command* command = zel::service_client::FindCommand(name);
    if (command == nullptr || !command->inBatch) {
      why = "not a command the bridge can run: " + Quoted(name);
      return false;
    }
    allowed.emplace_back(command->name);
    if (comma == std::string::npos) return true;
    start = comma + 1;
  }
}

bool Readable(const std::string& path, bool directory, std::string& why) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0 || ::access(path.c_str(), R_OK) != 0) {
    why = path + ": " + ErrnoText(errno);
    return false;
  }
  if (directory != S_ISDIR(info.st_mode)) {
    why = path + (directory ? ": not a directory" : ": a directory");
    return false;
  }
  return true;
}

}  // namespace

bool OptionValues::CheckId(const std::string& id, std::string& why) {
  if (id.empty() || id.find_first_of("/+#") != std::string::npos) {
    why = "may not be empty or hold '/', '+' or '#': " + Quoted(id);
    return false;
  }
  if (id == kAllBoxes) {
    why = "\"all\" stands for every box";
    return false;
  }
  if (!TopicText(id)) {
    why = "not text that a topic can hold (UTF-8 without control characters)";
    return false;
  }
  return true;
}

bool OptionValues::CheckPrefix(const std::string& prefix, std::string& why) {
  if (prefix.empty() || prefix.find_first_of("+#") != std::string::npos) {
    why = "may not be empty or hold '+' or '#': " + Quoted(prefix);
    return false;
  }
  if (!TopicText(prefix)) {
    why = "not text that a topic can hold (UTF-8 without control characters)";
    return false;
  }
  return true;
}

bool OptionValues::ReadPassword(const std::string& path, std::string& password, std::string& why) {
  std::ifstream file(path);
  if (!file) {
    why = path + ": " + ErrnoText(errno);
    return false;
  }
  std::getline(file, password);
  if (!password.empty() && password.back() == '\r') password.pop_back();
  return true;
}

bool OptionValues::Apply(const OptionSpec& option, const std::string& value, Settings& settings, std::string& why) {
  switch (option.id) {
    case OptionId::Service:
      settings.servicePath = value;
      return true;
    case OptionId::Dir:
      settings.dir = value;
      return true;
    case OptionId::Broker:
      if (BrokerAddress::Parse(value, settings.broker)) return true;
      why = "not mqtt://HOST[:PORT] or mqtts://HOST[:PORT]: " + Quoted(value);
      return false;
    case OptionId::Id:
      settings.id = value;
      return CheckId(value, why);
    case OptionId::Prefix:
      settings.prefix = value;
      return CheckPrefix(value, why);
    case OptionId::Allow:
      return ParseAllowed(value, settings.allowed, why);
    case OptionId::Queue:
      if (ParseNumber(value, Settings::kMaxQueue, settings.queue)) return true;
      why = "not a whole number from 0 to 1000000: " + Quoted(value);
      return false;
    case OptionId::Health:
      if (ParseNumber(value, Settings::kMaxHealthSeconds, settings.healthSeconds)) return true;
      why = "not a whole number of seconds from 0 to 86400: " + Quoted(value);
      return false;
    case OptionId::CaFile:
      settings.caFile = value;
      return Readable(value, false, why);
    case OptionId::CaPath:
      settings.caPath = value;
      return Readable(value, true, why);
    case OptionId::Cert:
      settings.certFile = value;
      return Readable(value, false, why);
    case OptionId::Key:
      settings.keyFile = value;
      return Readable(value, false, why);
    case OptionId::Username:
      settings.username = value;
      if (!value.empty()) return true;
      why = "may not be empty";
      return false;
    case OptionId::PasswordFile: {
      std::string password;
      if (!ReadPassword(value, password, why)) return false;
      settings.password = password;
      return true;
    }
    case OptionId::Verbose:
      if (ParseFlag(value, settings.verbose)) return true;
      why = "not yes or no: " + Quoted(value);
      return false;
    case OptionId::Config:
    case OptionId::Help:
    case OptionId::Version:
      break;
  }
  why = "not an option of a configuration file";
  return false;
}

}  // namespace zel::bridge
