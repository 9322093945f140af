// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Support/Instant.h"

namespace cctz {
class time_zone;
}

namespace vimbrel {

/// Whose midnight ends a day. A value; any thread.
class CalendarZone {
 public:
  /// The user's: $TZ, or the machine's. Followed when it changes.
  CalendarZone();
  CalendarZone(const CalendarZone&);
  CalendarZone& operator=(const CalendarZone&);
  ~CalendarZone();
  /// By its name in the time zone database ("Europe/Berlin", "UTC"); absent when there is none of that name.
  [[nodiscard]] static std::optional<CalendarZone> named(const std::string& name);

  [[nodiscard]] std::chrono::year_month_day dayOf(Instant instant) const;
  /// The first instant of a day; where a change of the clocks skips midnight, the first one that there is.
  [[nodiscard]] Instant startOf(std::chrono::year_month_day day) const;

 private:
  std::unique_ptr<cctz::time_zone> zone_;  ///< null: the user's, of which the C library knows most
};

/// The user's clock and calendar at a moment, in the time zone of now: one that was changed while the program
/// runs is followed.
[[nodiscard]] std::tm localFields(Instant instant);
/// "2026-01-31 14:05", by the user's clock.
[[nodiscard]] std::string localMinuteText(Instant instant);
/// As `CalendarZone().dayOf`.
[[nodiscard]] std::chrono::year_month_day localDay(Instant instant);
/// As `CalendarZone().startOf`.
[[nodiscard]] Instant startOfLocalDay(std::chrono::year_month_day day);

/// A day as "2026-01-31"; absent for anything else, such as 2026-02-30.
[[nodiscard]] std::optional<std::chrono::year_month_day> parseDay(std::string_view text);

}  // namespace vimbrel
