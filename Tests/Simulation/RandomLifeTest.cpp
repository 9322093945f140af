// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cstdlib>

#include "CapturedLog.h"
#include "Simulation/RandomLife.h"

namespace vimbrel {
namespace {

using namespace std::chrono_literals;

/// A number from the environment, or the default.
std::uint32_t fromEnvironment(const char* name, std::uint32_t otherwise) {
  const char* text = std::getenv(name);
  return text == nullptr ? otherwise : static_cast<std::uint32_t>(std::strtoul(text, nullptr, 10));
}

/// VIMBREL_SEED=n replays one life; VIMBREL_SEEDS=n lives through that many.
TEST(WholeApplication, keepsItsPromisesThroughHoursOfRandomLife) {
  const bool isReplay = std::getenv("VIMBREL_SEED") != nullptr;
  const auto first = fromEnvironment("VIMBREL_SEED", 1);
  const auto count = isReplay ? 1 : fromEnvironment("VIMBREL_SEEDS", 8);
  std::map<std::string, int> spent;
  for (std::uint32_t seed = first; seed < first + count; ++seed) {
    const CapturedLog quiet;
    SimulatedApplication application;
    RandomLife life(application, seed);
    application.start();
    ASSERT_TRUE(life.live(2h)) << *application.violation() << "\nreplay with VIMBREL_SEED=" << seed
                               << ", after\n"
                               << life.recentEvents();
    if (seed % 2 == 0) application.stop();
    application.kill();
    ASSERT_FALSE(application.violation()) << *application.violation() << ", VIMBREL_SEED=" << seed;
    for (const auto& [state, seconds] : life.secondsSpent()) spent[state] += seconds;
  }
  if (isReplay) return;
  for (const auto* state : {"hold", "release", "blocked"}) {
    EXPECT_GT(spent[state], 600 * static_cast<int>(count) / 8) << "too little time in the state " << state;
  }
}

}  // namespace
}  // namespace vimbrel
