// SPDX-License-Identifier: Apache-2.0
// Any bytes as a scenario: it is refused with a reason or is one whose steps are in order, and a short one is
// lived through to its end.
#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "CapturedLog.h"
#include "Simulate/ScenarioRun.h"
#include "TemporaryDirectory.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace vimbrel;
  const auto scenario = parseScenario({reinterpret_cast<const char*>(data), size});
  if (!scenario) return scenario.error().empty() ? (std::abort(), 1) : 0;
  if (!std::ranges::is_sorted(scenario->steps, {}, &ScenarioStep::at)) std::abort();
  if (scenario->length > Seconds{60} || scenario->steps.size() > 20) return 0;

  const CapturedLog quiet;
  const TemporaryDirectory directory;
  auto last = scenario->start;
  const auto episodes = runScenario(*scenario, directory.path(), [&](const ScenarioEvent& event) {
    if (event.at < last) std::abort();
    last = event.at;
    if (lineOf(event).empty()) std::abort();
  });
  if (!episodes && episodes.error().empty()) std::abort();
  return 0;
}
