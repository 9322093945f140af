// SPDX-License-Identifier: Apache-2.0
#include "Presentation/TimeText.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>

#include "DateWords.h"
#include "Say.h"
#include "Support/CalendarDay.h"
#include "Support/DurationText.h"

namespace vimbrel::desktop {
namespace {

std::string formatted(const std::tm& fields, const char* format) {
  char buffer[64];
  return {buffer, std::strftime(buffer, sizeof buffer, format, &fields)};
}

}  // namespace

std::string momentText(Instant moment, Instant now) {
  using namespace std::chrono;
  const auto fields = localFields(moment);
  const auto clock = formatted(fields, "%H:%M");
  const auto days = sys_days(localDay(moment)) - sys_days(localDay(now));
  if (days == std::chrono::days(0)) return clock;
  if (days == std::chrono::days(1)) return say("tomorrow, %1", {clock});
  if (days == std::chrono::days(-1)) return say("yesterday, %1", {clock});
  return shortDate(localDay(moment)) + ", " + clock;
}

std::string runningText(Seconds elapsed) {
  const auto total = static_cast<long long>(std::max(std::floor(elapsed.count()), 0.0));
  char buffer[64];
  if (total < 3600) {
    std::snprintf(buffer, sizeof buffer, "%lld:%02lld", total / 60, total % 60);
  } else if (total < 86400) {
    std::snprintf(buffer, sizeof buffer, "%lld:%02lld:%02lld", total / 3600, total / 60 % 60, total % 60);
  } else {
    std::snprintf(buffer, sizeof buffer, "%lld d %lld:%02lld:%02lld", total / 86400, total / 3600 % 24,
                  total / 60 % 60, total % 60);
  }
  return buffer;
}

std::string agoText(Instant moment, Instant now) {
  const auto age = now - moment;
  if (age < Seconds(5)) return say("just now");
  return say("%1 ago", {formatDuration(age)});
}

Instant nextMorning(Instant now) {
  constexpr int hour = 6;
  constexpr Seconds shortest{4 * 3600};
  auto day = std::chrono::sys_days(localDay(now));
  for (;; day += std::chrono::days(1)) {
    const std::chrono::year_month_day date(day);
    std::tm fields{};
    fields.tm_year = static_cast<int>(date.year()) - 1900;
    fields.tm_mon = static_cast<int>(static_cast<unsigned>(date.month())) - 1;
    fields.tm_mday = static_cast<int>(static_cast<unsigned>(date.day()));
    fields.tm_hour = hour;
    fields.tm_isdst = -1;
    const auto morning = instantFromUnixSeconds(static_cast<double>(std::mktime(&fields)));
    if (morning - now >= shortest) return morning;
  }
}

}  // namespace vimbrel::desktop
