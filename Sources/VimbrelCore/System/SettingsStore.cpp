// SPDX-License-Identifier: Apache-2.0
#include "System/SettingsStore.h"

#include <algorithm>
#include <array>
#include <vector>

#include "System/SettingDescriptions.h"

namespace vimbrel {
namespace {

constexpr std::int64_t lowestFloor = 5;
constexpr std::int64_t highestFloor = 50;

std::int64_t clampedFloor(std::int64_t percent) { return std::clamp(percent, lowestFloor, highestFloor); }

/// What "reset everything" writes, in the order in which the changes are announced.
constexpr std::array<std::string_view, 11> resetOrder{"masterEnabled",
                                                      "manualHoldEnabled",
                                                      "releaseDelaySeconds",
                                                      "batteryFloorPercent",
                                                      "onlyOnAC",
                                                      "deepLidProtectionEnabled",
                                                      "preventDisplaySleep",
                                                      "notificationsEnabled",
                                                      "soundEnabled",
                                                      "pauseUntil",
                                                      "hasCompletedOnboarding"};

/// What goes along without an announcement of its own: observers look at everything anyway.
constexpr std::array<std::string_view, 5> resetAlong{"waitingGraceSeconds", "maximumHoldSeconds",
                                                     "lowBudgetNotificationsEnabled", "notchEnabled",
                                                     "notchAlwaysVisible"};

}  // namespace

SettingsStore::SettingsStore(std::shared_ptr<Preferences> preferences, const Clock& clock)
    : preferences_(std::move(preferences)), clock_(clock) {
  preferencesChanged_ = preferences_->changedOutside().subscribe([this] { objectWillChange_.send(); });
}

PreferenceValue SettingsStore::value(std::string_view key) const {
  const auto* setting = findSetting(key);
  if (setting == nullptr) return {};
  auto stored = preferences_->value(key, setting->type);
  return std::holds_alternative<std::monostate>(stored) ? setting->defaultValue : stored;
}

SettingsStore::WriteResult SettingsStore::setValue(std::string_view key, const PreferenceValue& value) {
  const auto* setting = findSetting(key);
  if (setting == nullptr) {
    return std::unexpected(PreferencesError{"there is no setting called \"" + std::string(key) + "\""});
  }
  auto converted = convertPreference(value, setting->type);
  const bool removes = std::holds_alternative<std::monostate>(value) &&
                       std::holds_alternative<std::monostate>(setting->defaultValue);
  if (std::holds_alternative<std::monostate>(converted) && !removes) {
    return std::unexpected(PreferencesError{"the value is not of the type of " + std::string(key)});
  }
  if (key == "batteryFloorPercent") converted = clampedFloor(std::get<std::int64_t>(converted));
  const Preferences::Change change{setting->key, converted};
  if (auto stored = preferences_->store(std::span(&change, 1)); !stored) return stored;
  objectWillChange_.send();
  return {};
}

SettingsStore::WriteResult SettingsStore::reset(std::string_view key) {
  const auto* setting = findSetting(key);
  return setValue(key, setting == nullptr ? PreferenceValue{} : setting->defaultValue);
}

SettingsStore::WriteResult SettingsStore::resetToDefaults() {
  std::vector<Preferences::Change> changes;
  changes.reserve(resetOrder.size() + resetAlong.size());
  for (const auto key : resetOrder) changes.emplace_back(key, findSetting(key)->defaultValue);
  for (const auto key : resetAlong) changes.emplace_back(key, findSetting(key)->defaultValue);
  if (auto stored = preferences_->store(changes); !stored) return stored;
  for (std::size_t i = 0; i < resetOrder.size(); ++i) objectWillChange_.send();
  return {};
}

bool SettingsStore::boolean(std::string_view key) const { return std::get<bool>(value(key)); }

bool SettingsStore::masterEnabled() const { return boolean("masterEnabled"); }
bool SettingsStore::manualHoldEnabled() const { return boolean("manualHoldEnabled"); }
double SettingsStore::releaseDelaySeconds() const { return std::get<double>(value("releaseDelaySeconds")); }
std::int64_t SettingsStore::batteryFloorPercent() const {
  return std::get<std::int64_t>(value("batteryFloorPercent"));
}
bool SettingsStore::onlyOnAC() const { return boolean("onlyOnAC"); }
bool SettingsStore::deepLidProtectionEnabled() const { return boolean("deepLidProtectionEnabled"); }
bool SettingsStore::preventDisplaySleep() const { return boolean("preventDisplaySleep"); }
bool SettingsStore::launchAtLogin() const { return boolean("launchAtLogin"); }
bool SettingsStore::notificationsEnabled() const { return boolean("notificationsEnabled"); }
bool SettingsStore::lowBudgetNotificationsEnabled() const { return boolean("lowBudgetNotificationsEnabled"); }
bool SettingsStore::soundEnabled() const { return boolean("soundEnabled"); }
bool SettingsStore::hasCompletedOnboarding() const { return boolean("hasCompletedOnboarding"); }

std::optional<Instant> SettingsStore::pauseUntil() const {
  const auto stored = value("pauseUntil");
  const auto* instant = std::get_if<Instant>(&stored);
  return instant == nullptr ? std::nullopt : std::optional(*instant);
}

std::optional<double> SettingsStore::waitingGraceSeconds() const { return seconds("waitingGraceSeconds"); }
std::optional<double> SettingsStore::maximumHoldSeconds() const { return seconds("maximumHoldSeconds"); }

std::optional<double> SettingsStore::seconds(std::string_view key) const {
  const auto stored = value(key);
  const auto* number = std::get_if<double>(&stored);
  // Written so that a number which is none counts as absent.
  return number != nullptr && *number >= 0 ? std::optional(*number) : std::nullopt;
}

using WriteResult = SettingsStore::WriteResult;
WriteResult SettingsStore::setMasterEnabled(bool value) { return setValue("masterEnabled", value); }
WriteResult SettingsStore::setManualHoldEnabled(bool value) { return setValue("manualHoldEnabled", value); }
WriteResult SettingsStore::setReleaseDelaySeconds(double value) {
  return setValue("releaseDelaySeconds", value);
}
WriteResult SettingsStore::setBatteryFloorPercent(std::int64_t value) {
  return setValue("batteryFloorPercent", value);
}
WriteResult SettingsStore::setOnlyOnAC(bool value) { return setValue("onlyOnAC", value); }
WriteResult SettingsStore::setDeepLidProtectionEnabled(bool value) {
  return setValue("deepLidProtectionEnabled", value);
}
WriteResult SettingsStore::setPreventDisplaySleep(bool value) {
  return setValue("preventDisplaySleep", value);
}
WriteResult SettingsStore::setLaunchAtLogin(bool value) { return setValue("launchAtLogin", value); }
WriteResult SettingsStore::setNotificationsEnabled(bool value) {
  return setValue("notificationsEnabled", value);
}
WriteResult SettingsStore::setSoundEnabled(bool value) { return setValue("soundEnabled", value); }
WriteResult SettingsStore::setHasCompletedOnboarding(bool value) {
  return setValue("hasCompletedOnboarding", value);
}
WriteResult SettingsStore::setPauseUntil(std::optional<Instant> value) {
  return setValue("pauseUntil", value ? PreferenceValue{*value} : PreferenceValue{});
}

WriteResult SettingsStore::pause(Seconds duration) { return setPauseUntil(clock_.now() + duration); }
WriteResult SettingsStore::resume() { return setPauseUntil(std::nullopt); }

PolicyConfiguration SettingsStore::policyConfig() const {
  PolicyConfiguration config;
  config.masterEnabled = masterEnabled();
  config.manualHoldEnabled = manualHoldEnabled();
  config.batteryFloorPercent = clampedFloor(batteryFloorPercent());
  config.batteryHysteresisPercent = 3;
  config.onlyOnAC = onlyOnAC();
  const double delay = releaseDelaySeconds();
  config.releaseDebounceSeconds = delay >= 0 ? delay : 0;
  config.staleSessionTTLSeconds = 900;
  config.deepLidProtectionEnabled = deepLidProtectionEnabled();
  config.waitingGraceSeconds = waitingGraceSeconds();
  config.maximumHoldSeconds = maximumHoldSeconds();
  return config;
}

}  // namespace vimbrel
