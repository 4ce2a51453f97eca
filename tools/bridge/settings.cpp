#include "tools/bridge/settings.h"

#include <algorithm>

namespace zel::bridge {

bool Settings::Allows(const std::string& command) const {
  return std::find(allowed.begin(), allowed.end(), command) != allowed.end();
}

}  // namespace zel::bridge
