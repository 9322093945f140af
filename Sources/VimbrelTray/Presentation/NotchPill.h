// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Presentation/Link.h"

namespace vimbrel::desktop {

/// When the pill at the top of the screen is there.
enum class NotchMode : std::uint8_t {
  never,
  onChange,  ///< for a few seconds when something changed
  always,    ///< while the application runs
};

struct NotchPill {
  VimbrelVisualState visual = VimbrelVisualState::idle;
  std::int64_t workingCount = 0;
  std::int64_t waitingCount = 0;
  std::string text;  ///< "2 working", "Claude Code is waiting for you", …
  bool operator==(const NotchPill&) const = default;
};

/// What the user's settings ask for.
[[nodiscard]] NotchMode notchModeOf(const PublishedState& state);
[[nodiscard]] NotchPill makeNotchPill(const PublishedState& state, Instant now);

/// Decides when the pill is on the screen. Time is an argument, so that nothing here needs a timer.
class NotchSchedule {
 public:
  explicit NotchSchedule(NotchMode mode) : mode_(mode) {}
  void setMode(NotchMode mode) { mode_ = mode; }

  /// Takes the pill of a new state, or none while the application is not running. The first state after that
  /// is no change: whoever has just started the desktop knows what they did.
  void update(const std::optional<NotchPill>& pill, Instant now);

  [[nodiscard]] bool isShown(Instant now) const;
  /// When `isShown` changes by itself; absent when it does not.
  [[nodiscard]] std::optional<Instant> nextChange(Instant now) const;

  /// How long a change stays on the screen: long enough to be read twice.
  static constexpr Seconds showTime{4};

 private:
  NotchMode mode_;
  std::optional<NotchPill> pill_;
  std::optional<Instant> changedAt_;
};

}  // namespace vimbrel::desktop
