#include "tools/bridge/settings.h"

#include <algorithm>

namespace zel::bridge {

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

}  // namespace zel::bridge
