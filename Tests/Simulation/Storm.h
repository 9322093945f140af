// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "AgentMonitoring/UsageStore/UsageStore.h"
#include "CapturedLog.h"
#include "Simulation/RandomLife.h"
#include "Simulation/SimulatedApplication.h"
#include "Simulation/SimulatedHelperProcess.h"

namespace vimbrel {

/// What a storm is made of. The same plan gives the same storm, to the last task.
struct StormPlan {
  std::uint32_t seed = 1;
  std::uint32_t steps = 200;
  /// Only these steps happen; time passes as if all did. Empty: all.
  std::optional<std::set<std::uint32_t>> only;
  SimulatedHelperProcess::Flaw flaw = SimulatedHelperProcess::Flaw::none;
};

/// How a storm ended.
struct StormResult {
  std::optional<std::string> violation;  ///< the first promise that was broken
  std::vector<std::string> trace;        ///< what happened, a line each
  std::uint32_t lastStep = 0;            ///< the step before which, or in which, it ended
  std::uint64_t tasks = 0;               ///< after each of which the promises were checked
  std::chrono::nanoseconds lived{0};
  std::map<std::string, std::uint64_t> counts;  ///< how often each kind of thing happened
};

/// The whole application with its helper, its usage store and an agent's log, in the life that `RandomLife`
/// gives it and under faults: crashes of either process between any two tasks and within the helper's, a line
/// between them that loses requests or answers, a system that refuses, a full disk, torn writes, slow hooks,
/// thousands of sessions, jumps of the clock and a suspended machine.
///
/// Besides what `SimulatedApplication` and `RandomLife` check, after every task: sleep is disabled only while
/// the lid is to be covered or for a lease and a watchdog's period after that, and timers do not pile up;
/// and at every quiet moment: the lid is covered when it should be and all faults are over, every usage event
/// of the log is stored once with its highest count, what was stored before a crash is there after it, and
/// sums equal a recomputation from the stored events.
[[nodiscard]] StormResult runStorm(const StormPlan& plan);

/// Leaves steps out for as long as the same promise is broken: a plan whose trace is short enough to read.
[[nodiscard]] StormPlan minimised(const StormPlan& plan, const StormResult& result);

/// The broken promise without the moment and the state in which it was broken.
[[nodiscard]] std::string promiseOf(const std::string& violation);

}  // namespace vimbrel
