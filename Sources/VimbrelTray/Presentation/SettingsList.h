// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

namespace vimbrel::desktop {

/// One setting as the settings window shows it.
struct SettingRow {
  enum class Control : std::uint8_t { onOff, wholeNumber, duration, number, moment };
  std::string key;
  Control control = Control::onOff;
  std::string section;  ///< heading under which it stands
  std::string title;    ///< "Battery floor"
  std::string help;     ///< a sentence
  std::string unit;     ///< "%", "s"; for display
  std::string range;    ///< "5 to 50 %"; empty without bounds
  std::optional<double> minimum;
  std::optional<double> maximum;
  bool isOn = false;                  ///< of `onOff`
  std::optional<double> numberValue;  ///< of the numbers; absent where none is set
  std::string text;                   ///< the value as a person would type it
  bool isDefault = true;
  bool operator==(const SettingRow&) const = default;
};

struct SettingsList {
  std::vector<SettingRow> rows;  ///< by section
  std::string location;          ///< the file's path
  std::vector<std::string> warnings;
  bool operator==(const SettingsList&) const = default;
};

/// From the result of "settings.list". Settings that this version does not know are shown with the
/// application's own words for them. What is no preference (the pause, that the introduction was seen) is
/// left out.
[[nodiscard]] SettingsList makeSettingsList(const nlohmann::json& result);

/// One row, from a result of "settings.get" or "settings.set".
[[nodiscard]] std::optional<SettingRow> makeSettingRow(const nlohmann::json& setting);

}  // namespace vimbrel::desktop
