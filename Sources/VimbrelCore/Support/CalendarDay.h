// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>

#include "Support/Instant.h"

namespace vimbrel {

/// The day of an instant in the user's calendar: the time zone is $TZ or the machine's.
[[nodiscard]] std::chrono::year_month_day localDay(Instant instant);

/// The first instant of a day in the user's calendar.
[[nodiscard]] Instant startOfLocalDay(std::chrono::year_month_day day);

}  // namespace vimbrel
