// SPDX-License-Identifier: Apache-2.0
#include "System/SettingDescriptions.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

#include "Domain/RawValueTable.h"
#include "Support/DurationText.h"

namespace vimbrel {
namespace {

using enum PreferenceType;

constexpr double oneWeek = 7 * 24 * 3600;

constexpr std::array<SettingDescription, 17> table{{
    {.key = "masterEnabled",
     .type = boolean,
     .defaultValue = true,
     .help = "Protection is switched on at all"},
    {.key = "manualHoldEnabled",
     .type = boolean,
     .defaultValue = false,
     .help = "Keep the machine awake whatever agents do, safety limits excepted"},
    {.key = "releaseDelaySeconds",
     .type = number,
     .unit = "seconds",
     .defaultValue = 30.0,
     .minimum = 0,
     .maximum = oneWeek,
     .help = "How long to stay awake after the last agent stopped"},
    {.key = "waitingGraceSeconds",
     .type = number,
     .unit = "seconds",
     .defaultValue = std::monostate{},
     .minimum = 0,
     .maximum = oneWeek,
     .help = "How long an agent may wait for its user and still count as working; none: without end"},
    {.key = "maximumHoldSeconds",
     .type = number,
     .unit = "seconds",
     .defaultValue = std::monostate{},
     .minimum = 60,
     .maximum = oneWeek,
     .help = "After how long a hold needs a fresh event from an agent; none: never"},
    {.key = "batteryFloorPercent",
     .type = integer,
     .unit = "percent",
     .defaultValue = std::int64_t{15},
     .minimum = 5,
     .maximum = 50,
     .help = "On battery, let the machine sleep at this charge and below"},
    {.key = "onlyOnAC",
     .type = boolean,
     .defaultValue = false,
     .help = "Keep the machine awake only while it runs from AC power"},
    {.key = "deepLidProtectionEnabled",
     .type = boolean,
     .defaultValue = true,
     .help = "Keep the machine awake with its lid closed too"},
    {.key = "preventDisplaySleep",
     .type = boolean,
     .defaultValue = false,
     .help = "Keep the display on too while agents work"},
    {.key = "launchAtLogin",
     .type = boolean,
     .defaultValue = false,
     .resetWithOthers = false,
     .help = "Start when you log in"},
    {.key = "notificationsEnabled",
     .type = boolean,
     .defaultValue = true,
     .help = "Notify when protection starts, finishes or is cut for safety"},
    {.key = "lowBudgetNotificationsEnabled",
     .type = boolean,
     .defaultValue = true,
     .help = "Notify when an agent's context or quota runs low"},
    {.key = "soundEnabled", .type = boolean, .defaultValue = true, .help = "Play a sound when agents finish"},
    {.key = "notchEnabled",
     .type = boolean,
     .defaultValue = true,
     .help = "Show a pill at the top of the screen for a moment when something changes"},
    {.key = "notchAlwaysVisible",
     .type = boolean,
     .defaultValue = false,
     .help = "Leave the pill at the top of the screen"},
    {.key = "hasCompletedOnboarding",
     .type = boolean,
     .defaultValue = false,
     .help = "The introduction has been seen"},
    {.key = "pauseUntil",
     .type = date,
     .defaultValue = std::monostate{},
     .help = "Protection is paused until this time"},
}};

std::string expects(const SettingDescription& setting, std::string_view text, std::string_view accepted) {
  return std::string(setting.key) + " cannot be \"" + std::string(text) + "\": it takes " +
         std::string(accepted);
}

std::string trimmedNumber(double value) {
  char text[32];
  const auto end = std::to_chars(text, text + sizeof text, value).ptr;
  return {text, end};
}

std::expected<PreferenceValue, std::string> parseBoolean(const SettingDescription& setting,
                                                         std::string_view text) {
  for (const std::string_view yes : {"on", "true", "yes", "1"}) {
    if (equalIgnoringCase(text, yes)) return true;
  }
  for (const std::string_view no : {"off", "false", "no", "0"}) {
    if (equalIgnoringCase(text, no)) return false;
  }
  return std::unexpected(expects(setting, text, "on or off"));
}

std::expected<PreferenceValue, std::string> parseNumber(const SettingDescription& setting,
                                                        std::string_view text) {
  const bool isDuration = setting.unit == "seconds";
  std::string accepted = setting.type == integer ? "a whole number" : "a number";
  if (isDuration) accepted = "seconds, or a duration such as 45s, 10m or 1h30m,";
  const bool mayBeAbsent = std::holds_alternative<std::monostate>(setting.defaultValue);
  if (mayBeAbsent && equalIgnoringCase(text, "none")) return PreferenceValue{};
  if (setting.minimum && setting.maximum) {
    accepted += " from " + trimmedNumber(*setting.minimum) + " to " + trimmedNumber(*setting.maximum);
  }
  if (mayBeAbsent) accepted += ", or none";
  const auto refuse = [&] { return std::unexpected(expects(setting, text, accepted)); };

  PreferenceValue result;
  double magnitude = 0;
  const auto read = [&](auto& number) {
    const auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (fault != std::errc{} || end != text.data() + text.size()) return false;
    magnitude = static_cast<double>(number);
    result = number;
    return true;
  };
  std::int64_t whole = 0;
  double fraction = 0;
  if (isDuration) {
    const auto duration = parseDuration(text);
    if (!duration) return refuse();
    magnitude = duration->count();
    result = magnitude;
  } else if (!(setting.type == integer ? read(whole) : read(fraction))) {
    return refuse();
  }
  // Written so that a number which is none fails too.
  if (setting.minimum && !(magnitude >= *setting.minimum)) return refuse();
  if (setting.maximum && !(magnitude <= *setting.maximum)) return refuse();
  return result;
}

std::expected<PreferenceValue, std::string> parseDate(const SettingDescription& setting,
                                                      std::string_view text, Instant now) {
  if (equalIgnoringCase(text, "none")) return PreferenceValue{};
  if (const auto instant = parseIso8601(text)) return *instant;
  if (const auto duration = parseDuration(text)) return now + *duration;
  return std::unexpected(
      expects(setting, text, "a time such as 2026-01-31T10:00:00Z, a duration such as 45m, or none"));
}

}  // namespace

std::span<const SettingDescription> settingDescriptions() { return table; }

const SettingDescription* findSetting(std::string_view key) {
  const auto found = std::ranges::find(table, key, &SettingDescription::key);
  return found == table.end() ? nullptr : &*found;
}

std::expected<PreferenceValue, std::string> parseSettingText(const SettingDescription& setting,
                                                             std::string_view text, Instant now) {
  switch (setting.type) {
    case boolean:
      return parseBoolean(setting, text);
    case integer:
    case number:
      return parseNumber(setting, text);
    case date:
      break;
  }
  return parseDate(setting, text, now);
}

std::string formatSettingValue(const PreferenceValue& value) {
  if (const auto* flag = std::get_if<bool>(&value)) return *flag ? "on" : "off";
  if (const auto* whole = std::get_if<std::int64_t>(&value)) return std::to_string(*whole);
  if (const auto* fraction = std::get_if<double>(&value)) return trimmedNumber(*fraction);
  if (const auto* instant = std::get_if<Instant>(&value)) return formatIso8601(*instant);
  return "none";
}

}  // namespace vimbrel
