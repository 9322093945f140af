// SPDX-License-Identifier: Apache-2.0
#include "System/SettingDescriptions.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

#include "Domain/RawValueTable.h"
#include "Support/DurationText.h"
#include "Support/Sentence.h"

namespace vimbrel {
namespace {

using enum PreferenceType;

constexpr double oneWeek = 7 * 24 * 3600;

constexpr std::array<SettingDescription, 17> table{{
    {.key = "masterEnabled",
     .type = boolean,
     .defaultValue = true,
     .help = sentence("Protection is switched on at all")},
    {.key = "manualHoldEnabled",
     .type = boolean,
     .defaultValue = false,
     .help = sentence("Keep the machine awake whatever agents do, safety limits excepted")},
    {.key = "releaseDelaySeconds",
     .type = number,
     .unit = sentence("seconds"),
     .defaultValue = 30.0,
     .minimum = 0,
     .maximum = oneWeek,
     .help = sentence("How long to stay awake after the last agent stopped")},
    {.key = "waitingGraceSeconds",
     .type = number,
     .unit = sentence("seconds"),
     .defaultValue = std::monostate{},
     .minimum = 0,
     .maximum = oneWeek,
     .help =
         sentence("How long an agent may wait for its user and still count as working; none: without end")},
    {.key = "maximumHoldSeconds",
     .type = number,
     .unit = sentence("seconds"),
     .defaultValue = std::monostate{},
     .minimum = 60,
     .maximum = oneWeek,
     .help = sentence("After how long a hold needs a fresh event from an agent; none: never")},
    {.key = "batteryFloorPercent",
     .type = integer,
     .unit = sentence("percent"),
     .defaultValue = std::int64_t{15},
     .minimum = 5,
     .maximum = 50,
     .help = sentence("On battery, let the machine sleep at this charge and below")},
    {.key = "onlyOnAC",
     .type = boolean,
     .defaultValue = false,
     .help = sentence("Keep the machine awake only while it runs from AC power")},
    {.key = "deepLidProtectionEnabled",
     .type = boolean,
     .defaultValue = true,
     .help = sentence("Keep the machine awake with its lid closed too")},
    {.key = "preventDisplaySleep",
     .type = boolean,
     .defaultValue = false,
     .help = sentence("Keep the display on too while agents work")},
    {.key = "launchAtLogin",
     .type = boolean,
     .defaultValue = false,
     .resetWithOthers = false,
     .help = sentence("Start when you log in")},
    {.key = "notificationsEnabled",
     .type = boolean,
     .defaultValue = true,
     .help = sentence("Notify when protection starts, finishes or is cut for safety")},
    {.key = "lowBudgetNotificationsEnabled",
     .type = boolean,
     .defaultValue = true,
     .help = sentence("Notify when an agent's context or quota runs low")},
    {.key = "soundEnabled",
     .type = boolean,
     .defaultValue = true,
     .help = sentence("Play a sound when agents finish")},
    {.key = "notchEnabled",
     .type = boolean,
     .defaultValue = true,
     .help = sentence("Show a pill at the top of the screen for a moment when something changes")},
    {.key = "notchAlwaysVisible",
     .type = boolean,
     .defaultValue = false,
     .help = sentence("Leave the pill at the top of the screen")},
    {.key = "hasCompletedOnboarding",
     .type = boolean,
     .defaultValue = false,
     .help = sentence("The introduction has been seen")},
    {.key = "pauseUntil",
     .type = date,
     .defaultValue = std::monostate{},
     .help = sentence("Protection is paused until this time")},
}};

std::string expects(const SettingDescription& setting, std::string_view text, std::string_view accepted) {
  return sentence("%1 cannot be \"%2\": it takes %3", {setting.key, text, accepted});
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
  return std::unexpected(expects(setting, text, sentence("on or off")));
}

/// "a whole number from 5 to 50"
std::string acceptedNumbers(const SettingDescription& setting) {
  const bool isDuration = setting.unit == "seconds";
  if (!setting.minimum || !setting.maximum) {
    if (isDuration) return sentence("seconds, or a duration such as 45s, 10m or 1h30m,");
    return setting.type == integer ? sentence("a whole number") : sentence("a number");
  }
  const auto least = trimmedNumber(*setting.minimum);
  const auto most = trimmedNumber(*setting.maximum);
  if (isDuration) {
    return sentence("seconds, or a duration such as 45s, 10m or 1h30m, from %1 to %2", {least, most});
  }
  return setting.type == integer ? sentence("a whole number from %1 to %2", {least, most})
                                 : sentence("a number from %1 to %2", {least, most});
}

std::expected<PreferenceValue, std::string> parseNumber(const SettingDescription& setting,
                                                        std::string_view text) {
  const bool isDuration = setting.unit == "seconds";
  const bool mayBeAbsent = std::holds_alternative<std::monostate>(setting.defaultValue);
  if (mayBeAbsent && equalIgnoringCase(text, "none")) return PreferenceValue{};
  auto accepted = acceptedNumbers(setting);
  if (mayBeAbsent) accepted = sentence("%1, or none", {accepted});
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
  return std::unexpected(expects(
      setting, text, sentence("a time such as 2026-01-31T10:00:00Z, a duration such as 45m, or none")));
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
