// SPDX-License-Identifier: Apache-2.0
#include "Simulation/Days.h"

#include <gtest/gtest.h>

namespace vimbrel {
namespace {

/// What one more day may leave behind: some dozens of ended episodes, which are kept up to a bound of their
/// own.
constexpr std::size_t allocatedADay = 64U << 10U;
constexpr std::size_t filesADay = 64U << 10U;

// Short days, for the ordinary run of the tests; whole weeks are for `./dev simulate --days`.
TEST(Days, leaveNothingBehindFromOneToTheNext) {
  const auto lived = liveDays({.days = 3, .hoursAwake = 1, .hoursOfNight = 2});
  ASSERT_FALSE(lived.violation) << *lived.violation;
  ASSERT_EQ(lived.nights.size(), 3U);
  // The first day makes what every later one uses again.
  const auto& first = lived.nights[1];
  const auto& last = lived.nights[2];
  EXPECT_LE(last.allocatedBytes, first.allocatedBytes + allocatedADay);
  EXPECT_LE(last.fileBytes, first.fileBytes + filesADay);
  EXPECT_LE(last.scheduled, first.scheduled + 2);
  EXPECT_LE(last.descriptors, first.descriptors);
}

}  // namespace
}  // namespace vimbrel
