// Reads the value of one option, from the command line or a configuration
// file, into the settings: checks it and says why when it is wrong. Also the
// checks that look at the settings as a whole once every option is in.
// Stateless.
#pragma once

#include <string>

#include "tools/bridge/option_table.h"
#include "tools/bridge/settings.h"

namespace zel::bridge {

class OptionValues {
 public:
  // Sets what `value` says for `option`; false with the reason otherwise.
  // A flag's value (from a configuration file) is yes/no, true/false, on/off
  // or 1/0.
  static bool Apply(const OptionSpec& option, const std::string& value, Settings& settings, std::string& why);

  // A name usable in topics as the box's ID: not empty, no '/', '+' or '#',
  // not "all", and text that the broker takes in a topic.
  static bool CheckId(const std::string& id, std::string& why);
  static bool CheckPrefix(const std::string& prefix, std::string& why);

  // The first line of the password file (without its line end).
  static bool ReadPassword(const std::string& path, std::string& password, std::string& why);
};

}  // namespace zel::bridge
