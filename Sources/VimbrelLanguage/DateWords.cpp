// SPDX-License-Identifier: Apache-2.0
#include "DateWords.h"

#include <array>

#include "Say.h"

namespace vimbrel {

std::string weekdayName(std::chrono::weekday day) {
  const std::array names{sayAs("weekday", "Sun"), sayAs("weekday", "Mon"), sayAs("weekday", "Tue"),
                         sayAs("weekday", "Wed"), sayAs("weekday", "Thu"), sayAs("weekday", "Fri"),
                         sayAs("weekday", "Sat")};
  return names.at(day.c_encoding() % names.size());
}

std::string shortDate(std::chrono::year_month_day day) {
  const std::array months{sayAs("month", "Jan"), sayAs("month", "Feb"), sayAs("month", "Mar"),
                          sayAs("month", "Apr"), sayAs("month", "May"), sayAs("month", "Jun"),
                          sayAs("month", "Jul"), sayAs("month", "Aug"), sayAs("month", "Sep"),
                          sayAs("month", "Oct"), sayAs("month", "Nov"), sayAs("month", "Dec")};
  const auto weekday = weekdayName(std::chrono::weekday(std::chrono::sys_days(day)));
  const auto number = std::to_string(static_cast<unsigned>(day.day()));
  const auto& month = months.at((static_cast<unsigned>(day.month()) + 11) % months.size());
  // TRANSLATORS: the weekday, the day and the month of a date
  return sayAs("date", "%1 %2 %3", {weekday, number, month});
}

}  // namespace vimbrel
