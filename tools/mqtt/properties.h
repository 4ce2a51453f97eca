// MQTT 5 properties through libmosquitto: a list freed at the end of its
// scope, each addition checked, and the string and binary values read out of
// a received list as std::string. Header-only, so that the session, the
// tests' MQTT client and the benchmark's client share it. Stateless.
#pragma once

#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>

#include "tools/mqtt/connection.h"

namespace zel::mqtt {

// A property list being built, freed at the end of its scope. Each Add
// returns libmosquitto's error number (MOSQ_ERR_SUCCESS once added).
struct Properties {
  mosquitto_property* list = nullptr;
  Properties() = default;
  Properties(const Properties&) = delete;
  Properties& operator=(const Properties&) = delete;
  ~Properties() { mosquitto_property_free_all(&list); }

  int AddString(int identifier, const std::string& value) {
    return mosquitto_property_add_string(&list, identifier, value.c_str());
  }
  // Binary data is at most 65535 bytes long; longer is refused here.
  int AddBinary(int identifier, const std::string& value) {
    if (value.size() > UINT16_MAX) return MOSQ_ERR_INVAL;
    return mosquitto_property_add_binary(&list, identifier, value.data(), static_cast<uint16_t>(value.size()));
  }
  int AddInt32(int identifier, uint32_t value) { return mosquitto_property_add_int32(&list, identifier, value); }
  int AddUserProperty(const UserProperty& property) {
    return mosquitto_property_add_string_pair(&list, MQTT_PROP_USER_PROPERTY, property.name.c_str(),
                                              property.value.c_str());
  }
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

// The first user property of `properties`; nullopt when it has none.
inline std::optional<UserProperty> ReadUserProperty(const mosquitto_property* properties) {
  char* name = nullptr;
  char* value = nullptr;
  if (mosquitto_property_read_string_pair(properties, MQTT_PROP_USER_PROPERTY, &name, &value, false) == nullptr) {
    return std::nullopt;
  }
  UserProperty property{name, value};
  std::free(name);
  std::free(value);
  return property;
}

}  // namespace zel::mqtt
