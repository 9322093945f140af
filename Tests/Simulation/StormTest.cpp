// SPDX-License-Identifier: Apache-2.0
#include "Simulation/Storm.h"

#include <gtest/gtest.h>

namespace vimbrel {
namespace {

std::string textOf(const StormResult& result) {
  std::string text = *result.violation + "\n";
  for (const auto& line : result.trace) text += "  " + line + "\n";
  return text;
}

TEST(Storm, keepsEveryPromiseUnderFaults) {
  std::map<std::string, std::uint64_t> counts;
  for (std::uint32_t seed = 1; seed <= 3; ++seed) {
    const StormPlan plan{.seed = seed, .steps = 150, .only = {}};
    auto result = runStorm(plan);
    if (result.violation) {
      const auto shorter = minimised(plan, result);
      FAIL() << "./dev simulate --seed " << seed << "\n" << textOf(runStorm(shorter));
    }
    for (const auto& [kind, count] : result.counts) counts[kind] += count;
  }
  // A storm that leaves out half of its faults proves little.
  EXPECT_GE(counts.size(), 13U);
}

TEST(Storm, isTheSameEachTime) {
  const StormPlan plan{.seed = 7, .steps = 60, .only = {}};
  const auto first = runStorm(plan);
  const auto second = runStorm(plan);
  EXPECT_EQ(first.trace, second.trace);
  EXPECT_EQ(first.tasks, second.tasks);
}

TEST(Storm, findsAHelperThatForgetsTheTimeAndTellsItInFewSteps) {
  StormPlan plan{.seed = 1, .steps = 60, .only = {}, .flaw = SimulatedHelperProcess::Flaw::deafToTime};
  auto result = runStorm(plan);
  for (; !result.violation && plan.seed < 20; result = runStorm(plan)) ++plan.seed;
  ASSERT_TRUE(result.violation) << "nobody noticed";
  EXPECT_EQ(promiseOf(*result.violation), "sleep stays disabled long after the last holder");
  const auto shorter = minimised(plan, result);
  EXPECT_LE(shorter.only->size(), 6U);
  const auto replayed = runStorm(shorter);
  ASSERT_TRUE(replayed.violation) << "the short plan replays";
  EXPECT_EQ(promiseOf(*replayed.violation), promiseOf(*result.violation));
}

}  // namespace
}  // namespace vimbrel
