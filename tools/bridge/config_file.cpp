#include "tools/bridge/config_file.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <fstream>

namespace zel::bridge {
namespace {

const char kBlanks[] = " \t\r";

}  // namespace

std::string ConfigFile::Trimmed(const std::string& text) {
  const size_t start = text.find_first_not_of(kBlanks);
  if (start == std::string::npos) return std::string();
  return text.substr(start, text.find_last_not_of(kBlanks) - start + 1);
}

std::string ConfigFile::Where(const std::string& path, size_t line) { return path + ":" + std::to_string(line); }

bool ConfigFile::Read(const std::string& path, std::vector<ConfigEntry>& entries,
                      zel::service_client::Failure& failure) {
  entries.clear();
  // A directory opens as a stream that simply holds nothing.
  struct stat info {};
  if (::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
    failure =
        zel::service_client::Fail(zel::service_client::kStatusUsage, path, zel::service_client::ErrorText(EISDIR));
    return false;
  }
  std::ifstream file(path);
  if (!file) {
    failure = zel::service_client::Fail(zel::service_client::kStatusUsage, path, zel::service_client::ErrorText(errno));
    return false;
  }
  size_t number = 0;
  for (std::string line; std::getline(file, line);) {
    ++number;
    const std::string text = Trimmed(line.substr(0, line.find('#')));
    if (text.empty()) continue;
    const size_t equals = text.find('=');
    if (equals == std::string::npos) {
      failure =
          zel::service_client::Fail(zel::service_client::kStatusUsage, Where(path, number), "not a name = value line");
      return false;
    }
    const std::string name = Trimmed(text.substr(0, equals));
    const OptionSpec* option = OptionTable::FindLong(name);
    if (option == nullptr || !option->inConfigFile) {
      failure = zel::service_client::Fail(zel::service_client::kStatusUsage, Where(path, number),
                                          "unknown option \"" + zel::service_client::Shown(name) + "\"");
      return false;
    }
    entries.push_back(ConfigEntry{option, Trimmed(text.substr(equals + 1)), number});
  }
  if (file.bad()) {
    failure = zel::service_client::Fail(zel::service_client::kStatusUsage, path, zel::service_client::ErrorText(errno));
    return false;
  }
  return true;
}

}  // namespace zel::bridge
