// SPDX-License-Identifier: Apache-2.0
#include "Support/DurationText.h"

#include <gtest/gtest.h>

#include <limits>

namespace vimbrel {
namespace {

TEST(DurationText, readsWhatPeopleType) {
  for (const auto& [text, seconds] :
       {std::pair("90", 90.0), std::pair("90s", 90.0), std::pair("1.5min", 90.0), std::pair("45m", 2700.0),
        std::pair("1h30m", 5400.0), std::pair("2d", 172800.0), std::pair("0", 0.0), std::pair("7sec", 7.0)}) {
    EXPECT_EQ(parseDuration(text), Seconds{seconds}) << text;
  }
  for (const auto* text : {"", "h", "1x", "1h30", "-5m", "1e3", "inf", "nan", "1..5", "5 m", "1h m"}) {
    const auto refused = parseDuration(text);
    ASSERT_FALSE(refused) << text;
    EXPECT_TRUE(refused.error().contains("is not a duration; examples:")) << refused.error();
  }
  EXPECT_EQ(parseDuration("36601d").error(), "\"36601d\" is longer than 100 years");
}

TEST(DurationText, writesTheTwoLargestUnits) {
  for (const auto& [seconds, text] :
       {std::pair(0.9, "0 s"), std::pair(59.0, "59 s"), std::pair(60.0, "1 min"),
        std::pair(61.0, "1 min 1 s"), std::pair(3600.0, "1 h"), std::pair(3659.0, "1 h"),
        std::pair(3660.0, "1 h 1 min"), std::pair(90000.0, "1 d 1 h"), std::pair(-61.0, "-1 min 1 s"),
        std::pair(std::numeric_limits<double>::infinity(), "more than 100 years"),
        std::pair(std::numeric_limits<double>::quiet_NaN(), "an unknown time")}) {
    EXPECT_EQ(formatDuration(Seconds{seconds}), text);
  }
}

}  // namespace
}  // namespace vimbrel
