// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "System/Preferences.h"

namespace vimbrel {

/// What a settings list or a settings window needs to know of one setting.
struct SettingDescription {
  std::string_view key;
  PreferenceType type = PreferenceType::boolean;
  std::string_view unit;  ///< "seconds", "percent" or empty
  PreferenceValue defaultValue;
  std::optional<double> minimum;  ///< of what a person may enter
  std::optional<double> maximum;
  bool resetWithOthers = true;  ///< false for what "reset everything" leaves alone
  std::string_view help;        ///< one line
};

/// Every setting, in the order in which lists show them.
[[nodiscard]] std::span<const SettingDescription> settingDescriptions();
/// The setting with this key, or null.
[[nodiscard]] const SettingDescription* findSetting(std::string_view key);

/// Reads what a person typed: on/off, true/false, yes/no, 1/0; numbers within the bounds; durations such as
/// "45m" or "1h30m" where the unit is seconds; for dates an ISO 8601 time, a duration from `now`, or "none".
/// The error is a sentence that says what would be accepted.
[[nodiscard]] std::expected<PreferenceValue, std::string> parseSettingText(const SettingDescription& setting,
                                                                           std::string_view text,
                                                                           Instant now);

/// The value as a person would type it: "on", "15", "30", "2026-01-31T10:00:00Z", "none".
[[nodiscard]] std::string formatSettingValue(const PreferenceValue& value);

}  // namespace vimbrel
