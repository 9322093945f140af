// SPDX-License-Identifier: Apache-2.0
#include "Support/Instant.h"

#include <gtest/gtest.h>

#include <limits>

namespace vimbrel {
namespace {

TEST(Iso8601, readsEveryFormThatLogsUseAndNothingElse) {
  struct Case {
    const char* text;
    double seconds;
  };
  for (const auto& [text, seconds] : {
           Case{"1970-01-01T00:00:00Z", 0},
           Case{"2026-01-09T10:00:00Z", 1767952800},
           Case{"2026-01-09T10:00:00.123Z", 1767952800.123},
           Case{"2026-01-09T10:00:00.123456789Z", 1767952800.123456789},
           Case{"2026-01-09T12:00:00+02:00", 1767952800},
           Case{"2026-01-09T04:30:00-0530", 1767952800},
           Case{"2026-01-09 10:00:00Z", 1767952800},
           Case{"2024-02-29T00:00:00Z", 1709164800},
       }) {
    const auto instant = parseIso8601(text);
    ASSERT_TRUE(instant) << text;
    EXPECT_DOUBLE_EQ(unixSeconds(*instant), seconds) << text;
  }
  for (const char* text :
       {"", "2024-01-01", "2026-13-01T00:00:00Z", "2026-02-30T00:00:00Z", "2026-01-01T00:00:00",
        "2026-01-01T00:00:00.Z", "2026-01-01T00:00:00Zx", "2026-01-01T25:00:00Z", "yesterday"}) {
    EXPECT_FALSE(parseIso8601(text)) << text;
  }
}

TEST(Iso8601, writesWhatItReadsAndClampsTheRest) {
  EXPECT_EQ(formatIso8601(*parseIso8601("2026-01-09T10:00:00.25Z"), true), "2026-01-09T10:00:00.250Z");
  EXPECT_EQ(formatIso8601(*parseIso8601("2026-01-09T10:00:00.25Z")), "2026-01-09T10:00:00Z");
  EXPECT_EQ(formatIso8601(instantFromUnixSeconds(-0.0004), true), "1970-01-01T00:00:00Z");
  EXPECT_EQ(formatIso8601(instantFromUnixSeconds(1e300)), "9999-12-31T23:59:59Z");
  EXPECT_EQ(formatIso8601(instantFromUnixSeconds(std::numeric_limits<double>::quiet_NaN())),
            "1970-01-01T00:00:00Z");
  EXPECT_EQ(formatIso8601(instantFromReferenceSeconds(0)), "2001-01-01T00:00:00Z");
}

}  // namespace
}  // namespace vimbrel
