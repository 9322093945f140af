// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "Support/Instant.h"

namespace vimbrel::desktop {

/// Members of what the application sent, read one by one: what is missing or of another type has a default.
inline const nlohmann::json& memberOf(const nlohmann::json& object, const char* key) {
  static const nlohmann::json nothing;
  if (!object.is_object()) return nothing;
  const auto found = object.find(key);
  return found == object.end() ? nothing : *found;
}

inline std::string textOf(const nlohmann::json& object, const char* key) {
  const auto& value = memberOf(object, key);
  return value.is_string() ? value.get<std::string>() : std::string{};
}

inline bool flagOf(const nlohmann::json& object, const char* key, bool otherwise = false) {
  const auto& value = memberOf(object, key);
  return value.is_boolean() ? value.get<bool>() : otherwise;
}

inline std::optional<double> numberOf(const nlohmann::json& object, const char* key) {
  const auto& value = memberOf(object, key);
  return value.is_number() ? std::optional(value.get<double>()) : std::nullopt;
}

inline std::int64_t integerOf(const nlohmann::json& object, const char* key, std::int64_t otherwise = 0) {
  const auto& value = memberOf(object, key);
  return value.is_number_integer() ? value.get<std::int64_t>() : otherwise;
}

inline std::optional<Instant> instantOf(const nlohmann::json& object, const char* key) {
  return parseIso8601(textOf(object, key));
}

}  // namespace vimbrel::desktop
