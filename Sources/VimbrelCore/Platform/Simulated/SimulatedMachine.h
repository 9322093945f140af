// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/PlatformServices.h"
#include "Platform/Simulated/SimulatedWorld.h"
#include "Support/TaskQueue.h"

namespace vimbrel {

/// A machine that exists in memory only: every port over one `SimulatedWorld`, which a file or a program may
/// change at any time. Nothing of the real machine is touched. Any thread; watchers are called on the main
/// queue.
class SimulatedMachine {
 public:
  struct HeldAssertion {
    AssertionHandle handle = 0;
    AssertionType type = AssertionType::preventUserIdleSystemSleep;
    std::string name;
  };

  explicit SimulatedMachine(std::shared_ptr<TaskQueue> mainQueue, SimulatedWorld world = {});

  /// The ports. They stay usable after the machine object is gone.
  [[nodiscard]] PlatformServices services() const;

  [[nodiscard]] SimulatedWorld world() const;
  /// Replaces the world and tells the watchers of whatever is different.
  void setWorld(SimulatedWorld world);
  /// Edits the world in place.
  void change(const std::function<void(SimulatedWorld&)>& edit);

  /// The assertions that are held now, oldest first.
  [[nodiscard]] std::vector<HeldAssertion> heldAssertions() const;
  /// True when one is held, and in effect.
  [[nodiscard]] bool isHeld(AssertionType type) const;
  /// The service behind the assertions dies or comes back, as with its bus. While it is away none can be
  /// taken, and those that are held have no effect; their handles stay valid, and they hold again when it is
  /// back.
  void setServiceRunning(bool runs);
  [[nodiscard]] bool isServiceRunning() const;
  /// How many assertions were ever granted.
  [[nodiscard]] std::uint64_t grantedCount() const;

  /// What is wrong with where the world comes from, for `doctor`.
  void setProblem(std::optional<std::string> problem);
  [[nodiscard]] std::optional<std::string> problem() const;

  struct State;  // known to the ports

 private:
  std::shared_ptr<State> state_;
};

}  // namespace vimbrel
