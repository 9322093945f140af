// SPDX-License-Identifier: Apache-2.0
#include "Support/CalendarDay.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <limits>
#include <string>
#include <tuple>

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
  auto copy = CalendarZone();
  copy = cairo;
  EXPECT_EQ(copy.startOf(2024y / 4 / 26), cairo.startOf(2024y / 4 / 26));
  copy = CalendarZone();
  EXPECT_EQ(copy.dayOf(midnight), localDay(midnight));
  EXPECT_EQ(startOfLocalDay(localDay(midnight)), CalendarZone(copy).startOf(localDay(midnight)));
}

TEST(CalendarZone, followsTheUsersZoneWhenItChanges) {
  const char* before = std::getenv("TZ");
  const std::string zone = before != nullptr ? before : "";
  const auto evening = parseIso8601("2026-01-31T20:00:00Z").value();
  for (const auto& [name, day, hour] :
       {std::tuple("Asia/Tokyo", 1, 5), std::tuple("America/New_York", 31, 15), std::tuple("UTC", 31, 20)}) {
    ::setenv("TZ", name, 1);  // and nobody says so to the C library
    EXPECT_EQ(static_cast<unsigned>(localDay(evening).day()), static_cast<unsigned>(day)) << name;
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    ::setenv("TZ", name, 1);
    EXPECT_EQ(localFields(evening).tm_hour, hour) << name;
  }
  before != nullptr ? ::setenv("TZ", zone.c_str(), 1) : ::unsetenv("TZ");
  ::tzset();
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
