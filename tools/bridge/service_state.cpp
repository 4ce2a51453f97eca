#include "tools/bridge/service_state.h"

#include <syslog.h>

namespace zel::bridge {
namespace {

constexpr char kSetText[] = "void zel::bridge::ServiceState::Set(zel::bridge::ServiceState::Value)";

}  // namespace

void ServiceState::Set(Value value) {
  {
    std::lock_guard<std::mutex> lock(mMutex);
    if (value == mValue) return;
    mValue = value;
    mChanges.push_back(value);
  }
  syslog(LOG_INFO, "%s %d: the service at [%s] is %s\n", kSetText, 1, mServicePath.c_str(), Text(value));
  mWakeup.Notify();
}

std::vector<ServiceState::Value> ServiceState::TakeChanges() {
  std::lock_guard<std::mutex> lock(mMutex);
  std::vector<Value> changes;
  changes.swap(mChanges);
  return changes;
}

ServiceState::Value ServiceState::Current() const {
  std::lock_guard<std::mutex> lock(mMutex);
  return mValue;
}

const char* ServiceState::Text(Value value) {
  switch (value) {
    case Value::Up:
      return "up";
    case Value::Down:
      return "down";
    case Value::Unknown:
      break;
  }
  return "unknown";
}

}  // namespace zel::bridge
