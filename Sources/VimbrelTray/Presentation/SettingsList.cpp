// SPDX-License-Identifier: Apache-2.0
#include "Presentation/SettingsList.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <nlohmann/json.hpp>

#include "Presentation/JsonFields.h"
#include "Say.h"
#include "Support/DurationText.h"

namespace vimbrel::desktop {

using nlohmann::json;

namespace {

struct KnownSetting {
  const char* key;
  const char* section;
  const char* title;
};

/// In the order in which the window shows them.
constexpr std::array known{
    KnownSetting{"masterEnabled", toSay("Protection"), toSay("Protection")},
    KnownSetting{"manualHoldEnabled", toSay("Protection"), toSay("Keep awake now")},
    KnownSetting{"releaseDelaySeconds", toSay("Protection"), toSay("Release delay")},
    KnownSetting{"waitingGraceSeconds", toSay("Protection"), toSay("Longest wait for an answer")},
    KnownSetting{"maximumHoldSeconds", toSay("Protection"), toSay("Longest hold without news")},
    KnownSetting{"preventDisplaySleep", toSay("Protection"), toSay("Keep the display on")},
    KnownSetting{"deepLidProtectionEnabled", toSay("Protection"), toSay("Closed lid")},
    KnownSetting{"onlyOnAC", toSay("Safety"), toSay("Only on AC power")},
    KnownSetting{"batteryFloorPercent", toSay("Safety"), toSay("Battery floor")},
    KnownSetting{"notificationsEnabled", toSay("Notices"), toSay("Notifications")},
    KnownSetting{"lowBudgetNotificationsEnabled", toSay("Notices"), toSay("Low budgets")},
    KnownSetting{"soundEnabled", toSay("Notices"), toSay("Sound")},
    KnownSetting{"notchEnabled", toSay("Desktop"), toSay("Pill at the top of the screen")},
    KnownSetting{"notchAlwaysVisible", toSay("Desktop"), toSay("Keep the pill there")},
    KnownSetting{"launchAtLogin", toSay("Desktop"), toSay("Start at login")},
};

/// What the desktop handles elsewhere.
constexpr std::array<std::string_view, 2> elsewhere{"hasCompletedOnboarding", "pauseUntil"};

std::string numberText(double value) {
  auto text = json(value).dump();
  if (text.ends_with(".0")) text.resize(text.size() - 2);
  return text;
}

/// As a person types it and the application reads it: "1h30m", "45s".
std::string typedDuration(double seconds) {
  if (seconds != std::floor(seconds) || seconds <= 0) return numberText(seconds) + "s";
  auto left = static_cast<std::int64_t>(seconds);
  std::string result;
  for (const auto& [unit, length] :
       {std::pair('d', 86400), std::pair('h', 3600), std::pair('m', 60), std::pair('s', 1)}) {
    if (left / length > 0) result += std::to_string(left / length) + unit;
    left %= length;
  }
  return result;
}

std::string boundText(double bound, const SettingRow& row) {
  return row.control == SettingRow::Control::duration ? formatDuration(Seconds(bound)) : numberText(bound);
}

void setRange(SettingRow& row) {
  const auto unit = row.control == SettingRow::Control::duration || row.unit.empty() ? "" : " " + row.unit;
  if (row.minimum && row.maximum) {
    row.range = say("%1 to %2", {boundText(*row.minimum, row), boundText(*row.maximum, row) + unit});
  } else if (row.minimum) {
    row.range = say("%1 or more", {boundText(*row.minimum, row) + unit});
  }
}

std::size_t rankOf(const SettingRow& row) {
  const auto found = std::ranges::find(known, row.key, [](const KnownSetting& each) { return each.key; });
  return static_cast<std::size_t>(found - known.begin());
}

}  // namespace

std::optional<SettingRow> makeSettingRow(const json& setting) {
  SettingRow row;
  row.key = textOf(setting, "key");
  const auto type = textOf(setting, "type");
  const auto unit = textOf(setting, "unit");
  if (row.key.empty() || type.empty()) return std::nullopt;
  using Control = SettingRow::Control;
  if (type == "boolean") {
    row.control = Control::onOff;
  } else if (type == "date") {
    row.control = Control::moment;
  } else if (unit == "seconds") {
    row.control = Control::duration;
  } else {
    row.control = type == "integer" ? Control::wholeNumber : Control::number;
  }
  row.section = say("More");
  row.help = retell(textOf(setting, "help"));
  row.title = row.help;
  if (const auto rank = rankOf(row); rank < known.size()) {
    row.section = say(known[rank].section);
    row.title = say(known[rank].title);
  }
  row.unit = unit == "percent" ? "%" : unit == "seconds" ? "s" : retell(unit);
  row.minimum = numberOf(setting, "minimum");
  row.maximum = numberOf(setting, "maximum");
  row.isOn = flagOf(setting, "value");
  row.numberValue = numberOf(setting, "value");
  row.text = textOf(setting, "text");
  if (row.control == Control::duration && row.numberValue) row.text = typedDuration(*row.numberValue);
  row.isDefault = flagOf(setting, "isDefault", true);
  setRange(row);
  return row;
}

SettingsList makeSettingsList(const json& result) {
  SettingsList list;
  for (const auto& setting : memberOf(result, "settings")) {
    auto row = makeSettingRow(setting);
    if (row && std::ranges::find(elsewhere, row->key) == elsewhere.end()) {
      list.rows.push_back(std::move(*row));
    }
  }
  std::ranges::stable_sort(list.rows, {}, rankOf);
  list.location = textOf(result, "location");
  for (const auto& warning : memberOf(result, "warnings")) {
    if (warning.is_string()) list.warnings.push_back(retell(warning.get<std::string>()));
  }
  return list;
}

}  // namespace vimbrel::desktop
