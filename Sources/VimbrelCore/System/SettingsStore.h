// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <expected>
#include <memory>
#include <optional>
#include <string_view>

#include "Domain/PolicyConfiguration.h"
#include "Support/Clock.h"
#include "Support/Instant.h"
#include "Support/Published.h"
#include "System/Preferences.h"

namespace vimbrel {

/// The user's settings. Every property reads and writes the preferences directly; every write is announced on
/// `objectWillChange`, on the writer's thread, also when the value is the same, and so is every edit of the
/// preferences from outside. A write that fails changes nothing, announces nothing and says why. Any thread.
class SettingsStore {
 public:
  using WriteResult = std::expected<void, PreferencesError>;

  SettingsStore(std::shared_ptr<Preferences> preferences, const Clock& clock);
  SettingsStore(const SettingsStore&) = delete;
  SettingsStore& operator=(const SettingsStore&) = delete;

  [[nodiscard]] bool masterEnabled() const;
  [[nodiscard]] bool manualHoldEnabled() const;
  [[nodiscard]] double releaseDelaySeconds() const;        ///< as stored; may be negative
  [[nodiscard]] std::int64_t batteryFloorPercent() const;  ///< as stored; bounded in `policyConfig`
  [[nodiscard]] bool onlyOnAC() const;
  [[nodiscard]] bool deepLidProtectionEnabled() const;
  [[nodiscard]] bool preventDisplaySleep() const;
  [[nodiscard]] bool launchAtLogin() const;
  [[nodiscard]] bool notificationsEnabled() const;
  [[nodiscard]] bool lowBudgetNotificationsEnabled() const;
  [[nodiscard]] bool soundEnabled() const;
  [[nodiscard]] bool hasCompletedOnboarding() const;
  /// How long an agent may wait for its user and still count; absent: without end.
  [[nodiscard]] std::optional<double> waitingGraceSeconds() const;
  /// After how long a hold needs a fresh event; absent: never.
  [[nodiscard]] std::optional<double> maximumHoldSeconds() const;
  /// The end of a pause, kept also after it has passed.
  [[nodiscard]] std::optional<Instant> pauseUntil() const;

  // NOLINTBEGIN(modernize-use-nodiscard): a caller that cannot show a failure may let it go.
  WriteResult setMasterEnabled(bool value);
  WriteResult setManualHoldEnabled(bool value);
  WriteResult setReleaseDelaySeconds(double value);
  WriteResult setBatteryFloorPercent(std::int64_t value);  ///< clamped to 5 … 50
  WriteResult setOnlyOnAC(bool value);
  WriteResult setDeepLidProtectionEnabled(bool value);
  WriteResult setPreventDisplaySleep(bool value);
  WriteResult setLaunchAtLogin(bool value);
  WriteResult setNotificationsEnabled(bool value);
  WriteResult setSoundEnabled(bool value);
  WriteResult setHasCompletedOnboarding(bool value);
  WriteResult setPauseUntil(std::optional<Instant> value);

  /// Pauses protection from now on for the given time.
  WriteResult pause(Seconds duration);
  WriteResult resume();
  /// Every setting but `launchAtLogin`, whose truth lies with the login item. All of them or none; one
  /// announcement for each.
  WriteResult resetToDefaults();
  // NOLINTEND(modernize-use-nodiscard)

  /// Access by key, for lists and for commands; see `SettingDescriptions.h` for the keys. The value must be
  /// of the setting's type (`absent` only where the setting can be); the setting's write rule applies.
  [[nodiscard]] PreferenceValue value(std::string_view key) const;
  WriteResult setValue(std::string_view key, const PreferenceValue& value);
  /// Writes the default of one setting.
  WriteResult reset(std::string_view key);

  /// What the policy needs, within bounds and with the fixed values filled in.
  [[nodiscard]] PolicyConfiguration policyConfig() const;

  /// What in the stored preferences could not be used, one sentence each; empty when all is well.
  [[nodiscard]] std::vector<std::string> warnings() const { return preferences_->warnings(); }
  /// Where the settings are kept, for people.
  [[nodiscard]] std::string location() const { return preferences_->location(); }

  ChangeSignal& objectWillChange() { return objectWillChange_; }

 private:
  [[nodiscard]] bool boolean(std::string_view key) const;
  [[nodiscard]] std::optional<double> seconds(std::string_view key) const;

  const std::shared_ptr<Preferences> preferences_;
  const Clock& clock_;
  ChangeSignal objectWillChange_;
  Token preferencesChanged_;
};

}  // namespace vimbrel
