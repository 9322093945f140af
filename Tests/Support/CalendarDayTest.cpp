// SPDX-License-Identifier: Apache-2.0
#include "Support/CalendarDay.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <tuple>

#include "ScopedEnvironment.h"

namespace vimbrel {
namespace {

using namespace std::chrono;

TEST(CalendarDay, readsDaysThatExist) {
  EXPECT_EQ(parseDay("2028-02-29"), 2028y / 2 / 29);
  for (const auto* text : {"", "2027-02-29", "2027-13-01", "2027-1-01", "2027/01/01", "2027-01/01",
                           "20x7-01-01", "2027-0x-01", "2027-01-0x", "-027-01-01", "2027-01-01T"}) {
    EXPECT_FALSE(parseDay(text)) << text;
  }
}

TEST(CalendarZone, opensNoFileByANameFromOutside) {
  for (const auto* name :
       {"", "/etc/passwd", ":/etc/passwd", "Europe/../../../../etc/passwd", "Europe/Atlantis"}) {
    EXPECT_FALSE(CalendarZone::named(name)) << name;
  }
}

TEST(CalendarZone, knowsTheDayOfAnInstantAndItsBeginning) {
  const auto zone = CalendarZone::named("Europe/Berlin").value();
  const auto midnight = parseIso8601("2024-03-30T23:00:00Z").value();
  EXPECT_EQ(zone.startOf(2024y / 3 / 31), midnight);
  EXPECT_EQ(zone.dayOf(midnight), 2024y / 3 / 31);
  EXPECT_EQ(zone.dayOf(midnight - Seconds{1}), 2024y / 3 / 30);
  EXPECT_EQ(zone.startOf(2024y / 4 / 1) - midnight, Seconds{23 * 3600}) << "the clock went forward that day";

  // There is no midnight where the clock goes forward at midnight, and two where it goes back to it.
  const auto cairo = CalendarZone::named("Africa/Cairo").value();
  EXPECT_EQ(cairo.startOf(2024y / 4 / 26), parseIso8601("2024-04-25T22:00:00Z"));
}

TEST(CalendarZone, followsTheUsersZoneWhenItChanges) {
  const auto evening = parseIso8601("2026-01-31T20:00:00Z").value();
  for (const auto& [name, day, hour] :
       {std::tuple("Asia/Tokyo", 1, 5), std::tuple("America/New_York", 31, 15), std::tuple("UTC", 31, 20)}) {
    const ScopedEnvironment berlin{{"TZ", "Europe/Berlin"}};
    ::setenv("TZ", name, 1);  // and nobody says so to the C library
    EXPECT_EQ(static_cast<unsigned>(localDay(evening).day()), static_cast<unsigned>(day)) << name;
    ::setenv("TZ", "Europe/Berlin", 1);
    ::tzset();
    ::setenv("TZ", name, 1);
    EXPECT_EQ(localFields(evening).tm_hour, hour) << name;
  }
}

TEST(CalendarZone, beginsTheDaysOfTheLocalZoneAsThoseOfTheSameZoneByItsName) {
  struct Case {
    std::string zone;
    year_month_day day;
    std::string start;
  };
  for (const auto& [name, day, start] : {
           Case{"America/Havana", 2024y / 11 / 3, "2024-11-03T04:00:00Z"},    // midnight comes twice,
           Case{"America/Havana", 2024y / 3 / 10, "2024-03-10T05:00:00Z"},    // or not at all
           Case{"America/St_Johns", 2010y / 11 / 7, "2010-11-07T02:30:00Z"},  // twice, once on the eve
           Case{"America/Toronto", 1919y / 3 / 31, "1919-03-31T04:30:00Z"},   // skipped from half an hour ago
           Case{"Antarctica/Casey", 2010y / 3 / 5, "2010-03-04T13:00:00Z"},   // three hours come twice
           Case{"Pacific/Apia", 2011y / 12 / 30, "2011-12-30T10:00:00Z"},     // a day that never was
           Case{"Africa/Cairo", 2024y / 11 / 1, "2024-10-31T22:00:00Z"},      // the hour before comes twice
           Case{"Australia/Lord_Howe", 2024y / 4 / 7, "2024-04-06T13:00:00Z"},  // half an hour comes twice
           Case{"UTC", 2024y / 2 / 29, "2024-02-29T00:00:00Z"},
       }) {
    const ScopedEnvironment here{{"TZ", name}};
    const auto named = CalendarZone::named(name).value();
    // Whatever was asked before: the C library remembers by what it found its way back last.
    for (const auto earlier : {January, July}) {
      (void)startOfLocalDay(day.year() / earlier / 15);
      EXPECT_EQ(formatIso8601(startOfLocalDay(day)), start) << name;
    }
    for (sys_days each = day.year() / January / 1; each < sys_days((day.year() + years{1}) / January / 1);
         each += days{1}) {
      EXPECT_EQ(formatIso8601(startOfLocalDay(each)), formatIso8601(named.startOf(each))) << name;
    }
  }
}

TEST(CalendarZone, takesAnyInstant) {
  const auto zone = CalendarZone::named("UTC").value();
  for (const auto& each : {zone, CalendarZone()}) {
    EXPECT_TRUE(each.dayOf(Instant{Seconds{std::numeric_limits<double>::infinity()}}).ok());
    EXPECT_TRUE(each.dayOf(Instant{Seconds{std::numeric_limits<double>::quiet_NaN()}}).ok());
  }
}

}  // namespace
}  // namespace vimbrel
