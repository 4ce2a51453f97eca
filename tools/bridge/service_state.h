// Whether the service is up or down as the bridge last found it (the event
// registration, health pings, requests), and each change in turn, so that a
// restart that comes and goes between two looks of the link still shows as
// down, then up. Set from any thread; the changes are taken by the link's
// thread, which it wakes.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "tools/bridge/wakeup.h"

namespace zel::bridge {

class ServiceState {
 public:
  enum class Value { Unknown, Up, Down };

  ServiceState(std::string servicePath, Wakeup& wakeup) : mServicePath(std::move(servicePath)), mWakeup(wakeup) {}

  // Records `value`, and a change when it differs from the last.
  void Set(Value value);
  // The changes since the last call, oldest first.
  std::vector<Value> TakeChanges();
  Value Current() const;

  // "up" or "down", as P/service carries it.
  static const char* Text(Value value);

 private:
  const std::string mServicePath;
  Wakeup& mWakeup;
  mutable std::mutex mMutex;  // guards mValue and mChanges
  Value mValue = Value::Unknown;
  std::vector<Value> mChanges;
};

}  // namespace zel::bridge
