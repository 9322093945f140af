// SPDX-License-Identifier: Apache-2.0
#include "System/Preferences.h"

#include <cmath>

namespace vimbrel {

PreferenceValue convertPreference(const PreferenceValue& value, PreferenceType type) {
  switch (type) {
    case PreferenceType::boolean:
      if (std::holds_alternative<bool>(value)) return value;
      break;
    case PreferenceType::integer:
      if (std::holds_alternative<std::int64_t>(value)) return value;
      if (const auto* number = std::get_if<double>(&value)) {
        // Only magnitudes whose neighbours are whole numbers too are certain to be what was meant.
        if (std::trunc(*number) == *number && std::fabs(*number) < 9.0e15) {
          return static_cast<std::int64_t>(*number);
        }
      }
      break;
    case PreferenceType::number:
      if (std::holds_alternative<double>(value)) return value;
      if (const auto* number = std::get_if<std::int64_t>(&value)) return static_cast<double>(*number);
      break;
    case PreferenceType::date:
      if (std::holds_alternative<Instant>(value)) return value;
      break;
  }
  return {};
}

PreferenceValue MemoryPreferences::value(std::string_view key, PreferenceType type) const {
  const std::lock_guard guard(lock_);
  const auto found = values_.find(key);
  return found == values_.end() ? PreferenceValue{} : convertPreference(found->second, type);
}

std::expected<void, PreferencesError> MemoryPreferences::store(std::span<const Change> changes) {
  const std::lock_guard guard(lock_);
  for (const auto& [key, value] : changes) {
    if (std::holds_alternative<std::monostate>(value)) {
      if (const auto found = values_.find(key); found != values_.end()) values_.erase(found);
    } else {
      values_.insert_or_assign(std::string(key), value);
    }
  }
  return {};
}

}  // namespace vimbrel
