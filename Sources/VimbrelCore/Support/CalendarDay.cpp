// SPDX-License-Identifier: Apache-2.0
#include "Support/CalendarDay.h"

#include <algorithm>
#include <cmath>
#include <ctime>

namespace vimbrel {
namespace {

// Years -9999 to 9999: beyond them the C library's broken-down time need not be representable.
constexpr double outermost = 315000000000.0;

}  // namespace

std::chrono::year_month_day localDay(Instant instant) {
  double seconds = unixSeconds(instant);
  if (std::isnan(seconds)) seconds = 0;
  const auto time = static_cast<std::time_t>(std::floor(std::clamp(seconds, -outermost, outermost)));
  std::tm broken{};
  localtime_r(&time, &broken);
  return std::chrono::year{broken.tm_year + 1900} / (broken.tm_mon + 1) / broken.tm_mday;
}

Instant startOfLocalDay(std::chrono::year_month_day day) {
  std::tm broken{};
  broken.tm_year = static_cast<int>(day.year()) - 1900;
  broken.tm_mon = static_cast<int>(static_cast<unsigned>(day.month())) - 1;
  broken.tm_mday = static_cast<int>(static_cast<unsigned>(day.day()));
  broken.tm_isdst =
      -1;  // The library knows whether summer time was in force; a midnight that a change skips moves on.
  return instantFromUnixSeconds(static_cast<double>(std::mktime(&broken)));
}

}  // namespace vimbrel
