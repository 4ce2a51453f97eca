// MQTT 5 properties through libmosquitto: a list freed at the end of its
// scope, and the string and binary values read out of a received list as
// std::string. Header-only, so that the bridge, the tests' MQTT client and
// the benchmark's client share it without linking the bridge. Stateless.
#pragma once

#include <mosquitto.h>

#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>

namespace zel::bridge {

// A property list being built, freed at the end of its scope.
struct MqttProperties {
  mosquitto_property* list = nullptr;
  MqttProperties() = default;
  MqttProperties(const MqttProperties&) = delete;
  MqttProperties& operator=(const MqttProperties&) = delete;
  ~MqttProperties() { mosquitto_property_free_all(&list); }
};

// The string property `identifier` of `properties`; nullopt when absent.
inline std::optional<std::string> ReadStringProperty(const mosquitto_property* properties, int identifier) {
  char* value = nullptr;
  if (mosquitto_property_read_string(properties, identifier, &value, false) == nullptr) return std::nullopt;
  std::string text = value;
  std::free(value);
  return text;
}

// The binary property `identifier` of `properties` (correlation data, for
// one); nullopt when absent.
inline std::optional<std::string> ReadBinaryProperty(const mosquitto_property* properties, int identifier) {
  void* value = nullptr;
  uint16_t length = 0;
  if (mosquitto_property_read_binary(properties, identifier, &value, &length, false) == nullptr) return std::nullopt;
  std::string bytes(static_cast<const char*>(value), length);
  std::free(value);
  return bytes;
}

}  // namespace zel::bridge
