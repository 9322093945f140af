// SPDX-License-Identifier: Apache-2.0
#include "Support/CalendarDay.h"

#include <cctz/time_zone.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <ctime>

namespace vimbrel {
namespace {

using std::chrono::year_month_day;

// Years -9999 to 9999: beyond them the C library's broken-down time need not be representable.
constexpr double outermost = 315000000000.0;

std::int64_t wholeSeconds(Instant instant) {
  double seconds = unixSeconds(instant);
  if (std::isnan(seconds)) seconds = 0;
  return static_cast<std::int64_t>(std::floor(std::clamp(seconds, -outermost, outermost)));
}

/// What the local clock shows, as if it were universal time.
std::int64_t clockHere(std::int64_t seconds) {
  const auto time = static_cast<std::time_t>(seconds);
  std::tm broken{};
  localtime_r(&time, &broken);
  return seconds + broken.tm_gmtoff;
}

/// The first moment of the day by the local clock. The library's own way back, mktime, gives either of two
/// midnights, and of none either side.
std::int64_t startOfDayHere(year_month_day day) {
  ::tzset();  // The machine may have been taken to another zone.
  const auto midnight =
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::sys_days(day).time_since_epoch()).count();
  constexpr std::int64_t wholeDay = 86400;
  const auto near = midnight - (clockHere(midnight) - midnight);
  auto before = near - wholeDay;
  auto after = near + wholeDay;
  // By the clock of the day before the change, then of the day after it: the first counts.
  for (const auto side : {before, after}) {
    const auto start = midnight - (clockHere(side) - side);
    if (clockHere(start) == midnight) return start;
  }
  // A change skips it: the day begins with the change.
  while (after - before > 1) {
    const auto middle = before + (after - before) / 2;
    (clockHere(middle) < midnight ? before : after) = middle;
  }
  return after;
}

year_month_day makeDay(int year, int month, int day) {
  return std::chrono::year{year} / std::chrono::month{static_cast<unsigned>(month)} /
         std::chrono::day{static_cast<unsigned>(day)};
}

}  // namespace

CalendarZone::CalendarZone() = default;
CalendarZone::~CalendarZone() = default;
CalendarZone::CalendarZone(const CalendarZone& other)
    : zone_(other.zone_ ? std::make_unique<cctz::time_zone>(*other.zone_) : nullptr) {}
CalendarZone& CalendarZone::operator=(const CalendarZone& other) {
  zone_ = other.zone_ ? std::make_unique<cctz::time_zone>(*other.zone_) : nullptr;
  return *this;
}

std::optional<CalendarZone> CalendarZone::named(const std::string& name) {
  cctz::time_zone zone;
  // A name with a colon or a leading slash would make the library read a file of that name.
  if (name.empty() || name.front() == '/' || name.front() == ':' || name.contains("..")) return std::nullopt;
  if (!cctz::load_time_zone(name, &zone)) return std::nullopt;
  CalendarZone result;
  result.zone_ = std::make_unique<cctz::time_zone>(zone);
  return result;
}

year_month_day CalendarZone::dayOf(Instant instant) const {
  if (zone_) {
    const cctz::seconds seconds(wholeSeconds(instant));
    const auto civil = cctz::convert(std::chrono::sys_time<cctz::seconds>(seconds), *zone_);
    return makeDay(static_cast<int>(civil.year()), civil.month(), civil.day());
  }
  const auto broken = localFields(instant);
  return makeDay(broken.tm_year + 1900, broken.tm_mon + 1, broken.tm_mday);
}

Instant CalendarZone::startOf(year_month_day day) const {
  if (zone_) {
    const auto found = zone_->lookup(cctz::civil_second(
        static_cast<int>(day.year()), static_cast<unsigned>(day.month()), static_cast<unsigned>(day.day())));
    // A midnight that a change skips moves on to the change; of two, the first counts.
    const auto start = found.kind == cctz::time_zone::civil_lookup::SKIPPED ? found.trans : found.pre;
    return instantFromUnixSeconds(static_cast<double>(start.time_since_epoch().count()));
  }
  return instantFromUnixSeconds(static_cast<double>(startOfDayHere(day)));
}

std::tm localFields(Instant instant) {
  // mktime looks whether the zone has changed; localtime_r stays with the one it found first.
  ::tzset();
  const auto time = static_cast<std::time_t>(wholeSeconds(instant));
  std::tm broken{};
  ::localtime_r(&time, &broken);
  return broken;
}

std::string localMinuteText(Instant instant) {
  const auto fields = localFields(instant);
  char text[64];
  return {text, std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &fields)};
}

year_month_day localDay(Instant instant) { return CalendarZone().dayOf(instant); }

Instant startOfLocalDay(year_month_day day) { return CalendarZone().startOf(day); }

std::optional<year_month_day> parseDay(std::string_view text) {
  if (text.size() != 10 || text[4] != '-' || text[7] != '-') return std::nullopt;
  const auto number = [&](std::size_t at, std::size_t length) -> std::optional<int> {
    int value = 0;
    const auto* const end = text.data() + at + length;
    const auto parsed = std::from_chars(text.data() + at, end, value);
    return parsed.ec == std::errc{} && parsed.ptr == end && value >= 0 ? std::optional(value) : std::nullopt;
  };
  const auto year = number(0, 4);
  const auto month = number(5, 2);
  const auto day = number(8, 2);
  if (!year || !month || !day) return std::nullopt;
  const auto result = makeDay(*year, *month, *day);
  return result.ok() ? std::optional(result) : std::nullopt;
}

}  // namespace vimbrel
